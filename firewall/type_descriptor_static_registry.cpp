#include "firewall/type_descriptor_static_registry.h"

#include "firewall/network_isolation_descriptors.h"

namespace qel::firewall {

TypeDescriptorStaticRegistry::TypeDescriptorStaticRegistry(oro::IServiceLocator*) {}

const oro::SerObjDescriptor* TypeDescriptorStaticRegistry::FindDescriptor(const std::string& typeName) const noexcept {
  for (const oro::SerObjDescriptor* descriptor : serialization::IsolationDescriptors()) {
    if (typeName == descriptor->TypeName()) return descriptor;
  }
  return nullptr;
}

}  // namespace qel::firewall
