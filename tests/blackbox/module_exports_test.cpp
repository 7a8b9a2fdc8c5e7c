// Loads libfirewall.so as the host does and uses nothing but its exports.
#include <dlfcn.h>
#include <sys/stat.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "firewall/bridge_interfaces.h"
#include "firewall/firewall_interfaces.h"
#include "firewall/network_interface_interfaces.h"
#include "firewall/packet_log_interfaces.h"
#include "oro/module_exports.h"
#include "oro/task.h"
#include "support/fake_dynamic_rules.h"
#include "support/fake_firewall.h"
#include "support/fake_framework.h"
#include "support/fake_lumra_host.h"
#include "support/netns.h"

namespace qel::test {
namespace {

class LoadedModule {
 public:
  LoadedModule() : m_handle(dlopen(QEL_LIBFIREWALL_PATH, RTLD_NOW | RTLD_LOCAL)) {
    if (!m_handle) return;
    getFactory = reinterpret_cast<oroGetObjectFactory_t>(dlsym(m_handle, "oroGetObjectFactory"));
    createObject = reinterpret_cast<oroCreateObject_t>(dlsym(m_handle, "oroCreateObject"));
    canUnload = reinterpret_cast<oroCanUnloadModule_t>(dlsym(m_handle, "oroCanUnloadModule"));
  }
  ~LoadedModule() {
    if (m_handle) dlclose(m_handle);
  }
  bool Loaded() const { return m_handle && getFactory && createObject && canUnload; }

  oroGetObjectFactory_t getFactory = nullptr;
  oroCreateObject_t createObject = nullptr;
  oroCanUnloadModule_t canUnload = nullptr;

 private:
  void* m_handle;
};

constexpr oro::result_t kUnloadable = 0;
constexpr oro::result_t kInUse = 1;

class ModuleExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_module.Loaded()) << dlerror();
    auto journal = std::make_shared<CallJournal>();
    m_locator->Register(m_tracer);
    m_locator->Register(Make<FakePacketRules>(journal));
    m_locator->Register(Make<FakeOstraPorts>(journal));
    m_locator->Register(Make<FakePublisher>());  // the task's packet logger publishes through it
  }
  void TearDown() override { EXPECT_EQ(m_module.canUnload(), kUnloadable); }

  LoadedModule m_module;
  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeLocator> m_locator = Make<FakeLocator>();
};

TEST_F(ModuleExportsTest, UnloadIsRefusedWhileAFactoryOrObjectLives) {
  EXPECT_EQ(m_module.canUnload(), kUnloadable);
  oro::RefPtr<oro::IObjectFactory> factory;
  ASSERT_EQ(m_module.getFactory(m_locator.Get(), oro::clsid::FirewallTask, factory.Out()), oro::errOk);
  EXPECT_EQ(m_module.canUnload(), kInUse);
  oro::RefPtr<oro::IObject> object;
  ASSERT_EQ(factory->CreateInstance(m_locator.Get(), object.Out()), oro::errOk);
  factory.Reset();
  EXPECT_EQ(m_module.canUnload(), kInUse);

  auto construct = oro::QueryInterface<firewall::IFirewallTaskConstruct>(object.Get());
  auto task = oro::QueryInterface<oro::ITask>(object.Get());
  ASSERT_TRUE(construct && task);
  settings::FirewallSettings settings;
  EXPECT_EQ(construct->Construct(&settings), oro::errOk);
  construct.Reset();
  object.Reset();
  EXPECT_EQ(m_module.canUnload(), kInUse);
  task.Reset();
}

std::size_t ThreadsNamed(const std::string& name) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(entry.path() / "comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  }
  return count;
}

std::size_t OpenDescriptors() {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                                std::filesystem::directory_iterator{}));
}

// The task runs the module's own packet-log listener, which configures the
// kernel's NFLOG instances: only ever inside a namespace of the test's own.
TEST_F(ModuleExportsTest, TaskRunsItsPacketLogListenerOnlyWhileStarted) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: the task binds NFLOG groups, in a network namespace of its own";
  const ChildRun run = RunInNetworkNamespace([&] {
    std::ostringstream out;
    oro::RefPtr<oro::IObjectFactory> factory;
    if (m_module.getFactory(m_locator.Get(), oro::clsid::FirewallTask, factory.Out()) != oro::errOk) return out.str();
    oro::RefPtr<oro::IObject> object;
    if (factory->CreateInstance(m_locator.Get(), object.Out()) != oro::errOk) return out.str();
    auto construct = oro::QueryInterface<firewall::IFirewallTaskConstruct>(object.Get());
    auto task = oro::QueryInterface<oro::ITask>(object.Get());
    settings::FirewallSettings settings;
    settings.packetRules.push_back({.name = u"ssh", .action = settings::PacketRuleAction::Block, .doLogAttempts = true});
    const std::size_t descriptors = OpenDescriptors();
    out << "construct " << construct->Construct(&settings) << "\n";
    out << "start " << task->Start(1, nullptr) << " listeners " << ThreadsNamed("vornNfLogPoll") << "\n";
    out << "again " << std::hex << task->Start(1, nullptr) << std::dec << " listeners "
        << ThreadsNamed("vornNfLogPoll") << "\n";
    out << "stop " << task->Stop() << " listeners " << ThreadsNamed("vornNfLogPoll") << " descriptors "
        << (OpenDescriptors() == descriptors ? "as before" : "left open") << "\n";
    return out.str();
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output,
            "construct 0\n"
            "start 0 listeners 1\n"
            "again 8000006a listeners 1\n"
            "stop 0 listeners 0 descriptors as before\n");
}

// The virtualisation mode's exclusions come from the data file shipped
// beside the library, which the module finds by itself.
TEST_F(ModuleExportsTest, AgentPortsAndVirtualisationExclusionsAnswer) {
  auto firewall = Make<FakeDynamicRules>();
  m_locator->Register(firewall);
  m_locator->Register(static_cast<firewall::ILumraHostType*>(Make<FakeLumraHost>("clone", std::nullopt).Get()));

  oro::RefPtr<oro::IObjectFactory> factory;
  ASSERT_EQ(m_module.getFactory(m_locator.Get(), oro::clsid::OstraPorts, factory.Out()), oro::errOk);
  oro::RefPtr<oro::IObject> object;
  ASSERT_EQ(factory->CreateInstance(m_locator.Get(), object.Out()), oro::errOk);
  auto ports = oro::QueryInterface<firewall::IOstraPorts>(object.Get());
  auto control = oro::QueryInterface<firewall::IOstraPortsControl>(object.Get());
  ASSERT_TRUE(ports && control);
  EXPECT_EQ(ports->SetOstraPorts({{15000, 0, 0}}), oro::errOk);
  EXPECT_EQ(control->SetApply(true), oro::errOk);

  oro::RefPtr<oro::IObject> lumra;
  ASSERT_EQ(m_module.createObject(oro::clsid::LumraModePortsExclude, m_locator.Get(), lumra.Out()), oro::errOk);
  auto exclude = oro::QueryInterface<firewall::ILumraModePortsExclude>(lumra.Get());
  ASSERT_TRUE(exclude);
  EXPECT_EQ(exclude->Apply(), oro::errOk);
  ASSERT_TRUE(firewall->WaitForCalls(2, std::chrono::seconds(30)));  // a guard against hanging
  const auto calls = firewall->Calls();
  EXPECT_EQ(calls[0].tag, "ostra");
  EXPECT_EQ(calls[1].tag, "lumra");
  EXPECT_FALSE(calls[1].rules.empty());
}

class IgnoringNflogCallback final : public ObjectImpl<IgnoringNflogCallback, firewall::INflogDataCallback> {
 public:
  bool OnNflogData(std::uint16_t, firewall::NflogAttributes) noexcept override { return true; }
};

// Created directly; it refuses what it cannot bind a listener to, and the
// listeners it makes start stopped (not started here: that would bind
// groups of the machine's own network namespace).
TEST_F(ModuleExportsTest, NflogListenerFactoryMakesStoppedListeners) {
  oro::RefPtr<oro::IObject> object;
  ASSERT_EQ(m_module.createObject(oro::clsid::NflogListenerFactory, m_locator.Get(), object.Out()), oro::errOk);
  auto factory = oro::QueryInterface<firewall::INflogListenerFactory>(object.Get());
  ASSERT_TRUE(factory);
  auto callback = Make<IgnoringNflogCallback>();
  oro::RefPtr<firewall::INflogListener> listener;
  EXPECT_EQ(factory->Create(nullptr, listener.Out()), oro::errInvalidArgument);
  EXPECT_TRUE(m_tracer->Contains("(callback) failed: result = false. nflog callback is nullptr"));
  EXPECT_EQ(factory->Create(callback.Get(), nullptr), oro::errInvalidArgument);
  EXPECT_TRUE(m_tracer->Contains("(out) failed: result = false. out pointer of nflog listener is nullptr"));

  ASSERT_EQ(factory->Create(callback.Get(), listener.Out()), oro::errOk);
  EXPECT_EQ(listener->Stop(), oro::errOk);
  EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Warning, "Stop: NFLOG listener not started"));
  auto counters = oro::QueryInterface<firewall::INflogCounters>(listener.Get());
  ASSERT_TRUE(counters);
  firewall::NflogCounts counts{{{10001, 1, 1}}, 1};
  EXPECT_EQ(counters->GetNflogCounts(counts), oro::errOk);
  EXPECT_TRUE(counts.groups.empty());
  EXPECT_EQ(counts.overruns, 0u);
}

// Created directly; it starts its monitoring thread at once, so it is made
// in a namespace child, where the list is the child's: loopback alone.
TEST_F(ModuleExportsTest, NetworkInterfaceProviderListsTheInterfaces) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: the provider is made in a network namespace of its own";
  const ChildRun run = RunInNetworkNamespace([&] {
    std::ostringstream out;
    oro::RefPtr<oro::IObject> object;
    out << "create " << m_module.createObject(oro::clsid::NetworkInterfaceProvider, m_locator.Get(), object.Out());
    auto provider = oro::QueryInterface<firewall::INetworkInterfaceProvider>(object.Get());
    auto subscription = oro::QueryInterface<firewall::INetworkInterfaceProviderEventsSubscription>(object.Get());
    if (!provider || !subscription) return out.str() + " without its interfaces";
    firewall::NetworkInterfaces interfaces;
    out << " list " << provider->GetInterfaces(interfaces);
    for (const auto& itf : interfaces) {
      out << " " << itf->GetName() << (itf->IsEnabled() ? " up" : " down") << " physical "
          << itf->IsPhysical();
    }
    object.Reset();
    provider.Reset();
    subscription.Reset();
    interfaces.clear();
    out << " unloadable " << m_module.canUnload();
    out << (m_tracer->Contains("Monitoring thread going to stop") ? " stopped" : " running");
    return out.str();
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "create 0 list 0 lo down physical 1 unloadable 0 stopped");
}

// Created directly, on the kernel's switch directory, with a uevent listener
// of its own when the host offers none; run in a network namespace of the
// test's own, whose bridge switches are its alone.
TEST_F(ModuleExportsTest, BridgeControllerWritesTheSwitchesOfItsNamespace) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: it writes the bridge switches of a network namespace of its own";
  const std::string ipt = "/proc/sys/net/bridge/bridge-nf-call-iptables";
  const std::string ip6t = "/proc/sys/net/bridge/bridge-nf-call-ip6tables";
  struct stat machine {};
  ::stat(ipt.c_str(), &machine);  // looked at only
  const auto run = RunInNetworkNamespace([&]() -> std::string {
    struct stat own {};
    if (::stat(ipt.c_str(), &own) != 0) return "skip: no bridge switches: br_netfilter is not loaded";
    if (own.st_ino == machine.st_ino) return "skip: the bridge switches are not per network namespace here";
    const auto text = [](const std::string& file) {
      std::ifstream in(file);
      return std::string(std::istreambuf_iterator<char>(in), {});
    };
    std::ofstream(ipt) << "0\n";
    std::ofstream(ip6t) << "0\n";
    oro::RefPtr<oro::IObject> object;
    if (m_module.createObject(oro::clsid::BridgeController, m_locator.Get(), object.Out()) != oro::errOk) return "";
    auto controller = oro::QueryInterface<firewall::IBridgeController>(object.Get());
    if (!controller || !oro::QueryInterface<firewall::IUevents>(object.Get())) return "no interfaces";
    std::string out = std::to_string(controller->AddBridgeNfCallsClient(7, true, false));
    out += text(ipt) + text(ip6t);
    out += m_tracer->Contains("Subscribe() sink=") ? "subscribed " : "not subscribed ";
    out += std::to_string(controller->DeleteBridgeNfCallsClient(7));
    return out + text(ipt) + text(ip6t);
  });
  ASSERT_TRUE(run.completed) << run.output;
  if (run.output.starts_with("skip: ")) GTEST_SKIP() << run.output;
  EXPECT_EQ(run.output, "01\n1\nsubscribed 00\n0\n");
}

TEST_F(ModuleExportsTest, UnknownClassIdsAreRefused) {
  auto* sentinelFactory = reinterpret_cast<oro::IObjectFactory*>(0x1);
  EXPECT_EQ(m_module.getFactory(m_locator.Get(), 0x12345678, &sentinelFactory), 0x80000043u);
  EXPECT_EQ(sentinelFactory, nullptr);
  auto* sentinelObject = reinterpret_cast<oro::IObject*>(0x1);
  EXPECT_EQ(m_module.createObject(0x12345678, m_locator.Get(), &sentinelObject), 0x80000100u);
  EXPECT_EQ(sentinelObject, reinterpret_cast<oro::IObject*>(0x1));
  // A class with a factory is not created directly.
  EXPECT_EQ(m_module.createObject(oro::clsid::FirewallTask, m_locator.Get(), &sentinelObject), 0x80000100u);
}

TEST(ModuleCrashHook, TerminatesTheProcessOnPurpose) {
  LoadedModule module;
  ASSERT_TRUE(module.Loaded());
  oro::IObjectFactory* factory = nullptr;
  EXPECT_DEATH(module.getFactory(nullptr, 0xbad1bad1, &factory), "");
  oro::IObject* object = nullptr;
  EXPECT_DEATH(module.createObject(0xbad1bad1, nullptr, &object), "");
}

}  // namespace
}  // namespace qel::test
