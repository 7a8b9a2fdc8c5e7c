// The host's serialiser finds the module's record descriptors through the
// registry that the module's exports give out.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "oro/module_exports.h"
#include "oro/storage.h"
#include "support/fake_framework.h"

namespace qel::test {
namespace {

TEST(TypeDescriptorRegistryExport, FactoryMakesARegistryThatFindsTheIsolationRecords) {
  void* module = dlopen(QEL_LIBFIREWALL_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_TRUE(module) << dlerror();
  const auto getFactory = reinterpret_cast<oroGetObjectFactory_t>(dlsym(module, "oroGetObjectFactory"));
  const auto canUnload = reinterpret_cast<oroCanUnloadModule_t>(dlsym(module, "oroCanUnloadModule"));
  ASSERT_TRUE(getFactory && canUnload);
  {
    auto locator = Make<FakeLocator>();
    oro::RefPtr<oro::IObjectFactory> factory;
    ASSERT_EQ(getFactory(locator.Get(), oro::clsid::TypeDescriptorStaticRegistry, factory.Out()), oro::errOk);
    oro::RefPtr<oro::IObject> object;
    ASSERT_EQ(factory->CreateInstance(locator.Get(), object.Out()), oro::errOk);
    auto registry = oro::QueryInterface<oro::ITypeDescriptorRegistry>(object.Get());
    ASSERT_TRUE(registry);
    for (const char* type : {"system_interceptors::network_isolation_manager::PortRange",
                             "system_interceptors::network_isolation_manager::NetworkExclusionRule3",
                             "system_interceptors::connection_interceptor::IpEndpointPair",
                             "qel::firewall::network_isolation_data::EndpointPort",
                             "qel::firewall::network_isolation_data::Endpoint",
                             "qel::firewall::network_isolation_data::BuiltinRules",
                             "qel::firewall::network_isolation_data::SessionData",
                             "qel::firewall::network_isolation_data::ManagerData"}) {
      const oro::SerObjDescriptor* descriptor = registry->FindDescriptor(type);
      ASSERT_NE(descriptor, nullptr) << type;
      EXPECT_STREQ(descriptor->TypeName(), type);
    }
    const auto* manager = registry->FindDescriptor("qel::firewall::network_isolation_data::ManagerData");
    EXPECT_EQ(manager->FieldNames(), (std::vector<std::string>{"clients", "builtIn"}));
    EXPECT_EQ(registry->FindDescriptor("ManagerData"), nullptr);
    EXPECT_EQ(canUnload(), 1u);
  }
  EXPECT_EQ(canUnload(), 0u);
  dlclose(module);
}

}  // namespace
}  // namespace qel::test
