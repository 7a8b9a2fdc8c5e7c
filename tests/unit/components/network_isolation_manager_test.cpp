#include "firewall/network_isolation_manager.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/fake_control_targets.h"
#include "support/fake_framework.h"
#include "support/fake_isolation.h"
#include "support/fake_storage.h"

namespace qel::test {
namespace {

namespace nim = system_interceptors::network_isolation_manager;
using firewall::NetworkIsolationManager;
using firewall::NetworkIsolationReport;
using namespace firewall::network_isolation_data;

NetworkExclusionRules Https(const char* address) {
  return {{.remoteAddress = tools::ParseIpAddress(address), .protocol = 6, .remotePortRange = nim::PortRange{443, 443}}};
}

class StatusSink final : public ObjectImpl<StatusSink, nim::INetworkIsolationManagerEvents> {
 public:
  void OnStatusChanged(const nim::NetworkIsolationStatus& status) noexcept override {
    std::lock_guard lock(m_mutex);
    statuses.push_back(status.clients);
  }
  std::vector<std::vector<std::uint32_t>> statuses;

 private:
  std::mutex m_mutex;
};

class NetworkIsolationManagerTest : public ::testing::Test {
 protected:
  NetworkIsolationManagerTest() {
    for (oro::IObject* service :
         std::initializer_list<oro::IObject*>{m_tracer.Get(), m_timer.Get(), m_publisher.Get(), m_dns.Get(),
                                              static_cast<oro::IProductSettings*>(m_settings.Get()), m_ostra.Get(), m_tasks.Get(), m_serializer.Get()}) {
      m_locator->Register(service);
    }
    m_locator->Register(Make<FakeStorageService>(m_storage));
    m_factory->refused.insert("ebpf");
  }

  oro::RefPtr<NetworkIsolationManager> Start(oro::RefPtr<FakeBackendFactory> factory) {
    oro::RefPtr<NetworkIsolationManager> manager;
    EXPECT_EQ(CreateInstance(manager, oro::RefPtr<oro::ITracer>::Share(m_tracer.Get()), m_locator.Get(),
                             oro::RefPtr<firewall::INetworkIsolationBackendFactory>::Share(factory.Get())),
              oro::errOk);
    return manager;
  }
  oro::RefPtr<NetworkIsolationManager> Start() { return Start(m_factory); }
  FakeIsolationBackend& Iptables() { return *m_factory->Made("iptables"); }
  std::vector<std::string> EventKinds() {
    std::vector<std::string> kinds;
    for (const auto& event : m_publisher->events) kinds.push_back(event.kind);
    return kinds;
  }
  std::vector<std::uint32_t> Active(NetworkIsolationManager& manager) {
    std::vector<std::uint32_t> clients;
    EXPECT_EQ(manager.GetActiveSessions(clients), oro::errOk);
    return clients;
  }
  NetworkIsolationReport Report(NetworkIsolationManager& manager) {
    NetworkIsolationReport report;
    EXPECT_EQ(manager.GetReport(report), oro::errOk);
    return report;
  }

  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeLocator> m_locator = Make<FakeLocator>();
  oro::RefPtr<FakeTimer> m_timer = Make<FakeTimer>();
  oro::RefPtr<FakePublisher> m_publisher = Make<FakePublisher>();
  oro::RefPtr<FakeDns> m_dns = Make<FakeDns>();
  oro::RefPtr<FakeProductSettings> m_settings = Make<FakeProductSettings>();
  oro::RefPtr<FakeAgentPorts> m_ostra = Make<FakeAgentPorts>();
  oro::RefPtr<FakeTaskManager> m_tasks = Make<FakeTaskManager>();
  std::shared_ptr<FakeStorage> m_storage = std::make_shared<FakeStorage>();
  oro::RefPtr<FakeSerializer> m_serializer = Make<FakeSerializer>();
  oro::RefPtr<FakeBackendFactory> m_factory = Make<FakeBackendFactory>();
};

TEST_F(NetworkIsolationManagerTest, FirstSessionFallsBackToIptablesAndIsolatesOnce) {
  auto manager = Start();
  auto sink = Make<StatusSink>();
  ASSERT_EQ(manager->Subscribe(sink.Get()), oro::errOk);

  ASSERT_EQ(manager->CreateSession(31, Https("10.77.0.2")), oro::errOk);
  EXPECT_TRUE(m_tracer->Contains("first try eBPF backend"));
  EXPECT_TRUE(m_tracer->Contains("eBPF backend failed, fallback to iptables"));
  EXPECT_EQ(m_factory->asked, (std::vector<std::string>{"ebpf", "iptables"}));
  EXPECT_EQ(Report(*manager).backend, "iptables");
  EXPECT_TRUE(m_timer->Armed());
  EXPECT_EQ(m_timer->interval, NetworkIsolationManager::DnsResolvePeriodMS);

  // A second client and a replacement of the first one's rules: the backend
  // follows, the product was told only once.
  ASSERT_EQ(manager->CreateSession(32, Https("10.77.0.3")), oro::errOk);
  ASSERT_EQ(manager->CreateSession(31, Https("fd77::2")), oro::errOk);
  EXPECT_EQ(Iptables().Sessions().at(31), Https("fd77::2"));
  EXPECT_EQ(Iptables().Sessions().at(32), Https("10.77.0.3"));
  EXPECT_EQ(m_factory->asked.size(), 2u);
  ASSERT_EQ(EventKinds(), std::vector<std::string>{"HostIsolated"});
  const auto& properties = m_publisher->events[0].properties;
  ASSERT_EQ(properties.size(), 2u);
  EXPECT_EQ(properties[0].first, "hostName");
  EXPECT_EQ(properties[1], (std::pair<std::string, oro::Event::Value>{"clientId", std::int64_t{31}}));
  EXPECT_EQ(sink->statuses, (std::vector<std::vector<std::uint32_t>>{{31}, {31, 32}, {31, 32}}));
}

TEST_F(NetworkIsolationManagerTest, EbpfThatRefusesTheSessionAlsoFallsBack) {
  m_factory->refused.clear();
  m_factory->failSessions.insert("ebpf");
  auto manager = Start();
  ASSERT_EQ(manager->CreateSession(31, Https("10.77.0.2")), oro::errOk);
  EXPECT_TRUE(m_tracer->Contains("eBPF backend failed, fallback to iptables"));
  EXPECT_EQ(Report(*manager).backend, "iptables");
  EXPECT_EQ(Iptables().Sessions().count(31), 1u);
}

TEST_F(NetworkIsolationManagerTest, EbpfTurnedOffBySettingsIsNoFailure) {
  m_factory->refused.clear();
  m_factory->turnedOff.insert("ebpf");
  auto manager = Start();
  ASSERT_EQ(manager->CreateSession(31, Https("10.77.0.2")), oro::errOk);
  EXPECT_TRUE(m_tracer->Contains("eBPF backend is turned off, using iptables"));
  EXPECT_FALSE(m_tracer->Contains("eBPF backend failed"));
  EXPECT_EQ(Report(*manager).backend, "iptables");
}

TEST_F(NetworkIsolationManagerTest, NoBackendMeansNoSessionAndNoEvent) {
  m_factory->failSessions.insert("iptables");
  auto manager = Start();
  EXPECT_EQ(manager->CreateSession(31, Https("10.77.0.2")), oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains("cannot startup network isolation with any backend"));
  EXPECT_TRUE(Active(*manager).empty());
  EXPECT_TRUE(m_publisher->events.empty());
  EXPECT_FALSE(m_timer->Armed());
  EXPECT_EQ(Report(*manager).backend, "");
  // Nothing was saved that the next start would replay.
  m_storage->Restart();
  auto next = Start(Make<FakeBackendFactory>());
  EXPECT_TRUE(Active(*next).empty());
}

TEST_F(NetworkIsolationManagerTest, SessionsEndOneByOneAndTheLastEndsTheIsolation) {
  auto manager = Start();
  ASSERT_EQ(manager->CreateSession(31, Https("10.77.0.2")), oro::errOk);
  ASSERT_EQ(manager->CreateSession(32, Https("10.77.0.3")), oro::errOk);

  EXPECT_EQ(manager->DeleteSession(99), oro::errNotFound);
  EXPECT_EQ(Active(*manager), (std::vector<std::uint32_t>{31, 32}));
  EXPECT_EQ(Iptables().Sessions().size(), 2u);

  ASSERT_EQ(manager->DeleteSession(31), oro::errOk);
  EXPECT_EQ(Active(*manager), std::vector<std::uint32_t>{32});
  EXPECT_TRUE(m_timer->Armed());
  EXPECT_EQ(EventKinds(), std::vector<std::string>{"HostIsolated"});

  ASSERT_EQ(manager->DeleteSession(32), oro::errOk);
  EXPECT_TRUE(Iptables().Sessions().empty());
  EXPECT_FALSE(m_timer->Armed());
  EXPECT_EQ(EventKinds(), (std::vector<std::string>{"HostIsolated", "HostIsolationCanceled"}));
  EXPECT_EQ(Report(*manager).backend, "");
  EXPECT_EQ(manager->DeleteSession(32), oro::errNotFound);

  // A new isolated period chooses its backend again.
  ASSERT_EQ(manager->CreateSession(33, Https("10.77.0.2")), oro::errOk);
  EXPECT_EQ(m_factory->asked.size(), 4u);
  EXPECT_TRUE(m_timer->Armed());
}

TEST_F(NetworkIsolationManagerTest, ARestartRecoversEverySessionAndPublishesNothing) {
  {
    auto killed = Start();
    ASSERT_EQ(killed->CreateSession(31, Https("10.77.0.2")), oro::errOk);
    ASSERT_EQ(killed->CreateSession(32, Https("fd77::2")), oro::errOk);
    ASSERT_EQ(killed->CreateSession(33, Https("10.77.0.4")), oro::errOk);
    ASSERT_EQ(killed->DeleteSession(33), oro::errOk);
  }
  m_storage->Restart();
  m_publisher->events.clear();
  auto factory = Make<FakeBackendFactory>();
  factory->refused.insert("ebpf");
  auto manager = Start(factory);

  EXPECT_EQ(Active(*manager), (std::vector<std::uint32_t>{31, 32}));
  EXPECT_EQ(factory->Made("iptables")->Sessions(),
            (std::map<std::uint32_t, NetworkExclusionRules>{{31, Https("10.77.0.2")}, {32, Https("fd77::2")}}));
  EXPECT_TRUE(m_publisher->events.empty());
  EXPECT_TRUE(m_timer->Armed());

  // What the recovered manager saves is what the next start reads again.
  ASSERT_EQ(manager->DeleteSession(31), oro::errOk);
  m_storage->Restart();
  auto third = Start(Make<FakeBackendFactory>());
  EXPECT_EQ(Active(*third), std::vector<std::uint32_t>{32});
}

TEST_F(NetworkIsolationManagerTest, ShutdownLiftsIsolationAndKeepsTheRecord) {
  auto manager = Start();
  ASSERT_EQ(manager->CreateSession(31, Https("10.77.0.2")), oro::errOk);
  ASSERT_EQ(manager->Shutdown(), oro::errOk);
  EXPECT_TRUE(Iptables().Sessions().empty());
  EXPECT_TRUE(Active(*manager).empty());
  EXPECT_FALSE(m_timer->Armed());
  EXPECT_EQ(EventKinds(), std::vector<std::string>{"HostIsolated"});
  EXPECT_EQ(manager->CreateSession(32, Https("10.77.0.2")), oro::errInvalidState);

  m_storage->Restart();
  auto next = Start(Make<FakeBackendFactory>());
  EXPECT_EQ(Active(*next), std::vector<std::uint32_t>{31});
}

TEST_F(NetworkIsolationManagerTest, BuiltInExclusionsNameTheProductsServers) {
  m_settings->pelm = "pelm.example:13000";
  m_ostra->ports = {{15000, 1, 0}};
  m_tasks->settings["TamberEdr"] = {{{"serverNode", "10.0.0.5:8443"}, {"serverNode", "nowhere.example:1"}}};
  m_settings->proxies.httpsProxy = "[fd00::9]:3128";
  m_settings->vyxRoutes = {"vyx.example:443", "no port here"};
  m_dns->Answer("pelm.example", {"192.0.2.7", "not an address"});
  m_dns->Answer("vyx.example", {"198.51.100.1"});
  auto manager = Start();
  ASSERT_EQ(manager->CreateSession(31, {}), oro::errOk);

  const BuiltinRules& builtIn = Iptables().builtIn;
  const auto ip = [](const char* text) { return tools::ParseIpAddress(text); };
  ASSERT_TRUE(builtIn.pelmServer);
  EXPECT_EQ(TraceText(*builtIn.pelmServer),
            TraceText(Endpoint{"pelm.example",
                               {ip("192.0.2.7")},
                               {{std::nullopt, 13000, 6, kDirectionOutbound}, {15000, std::nullopt, 17, kDirectionInbound}}}));
  EXPECT_EQ(builtIn.tamberServers,
            (std::vector<Endpoint>{{"10.0.0.5", {ip("10.0.0.5")}, {{std::nullopt, 8443, 6, kDirectionOutbound}}}}));
  EXPECT_EQ(builtIn.vyxProxies,
            (std::vector<Endpoint>{{"fd00::9", {ip("fd00::9")}, {{std::nullopt, 3128, 6, kDirectionOutbound}}}}));
  EXPECT_EQ(builtIn.vyxServers.size(), 1u);
  EXPECT_TRUE(m_tracer->Contains("Couldn't resolve the address of tamber endpoint 'nowhere.example'"));
  EXPECT_TRUE(m_tracer->Contains("Cannot parse VYX route: no port here"));
  EXPECT_TRUE(m_tracer->Contains("Cannot convert address 'not an address' to any ip address, this was skipped"));
  EXPECT_EQ(m_dns->lastTimeout, NetworkIsolationManager::DnsResolveTimeoutMS);
  EXPECT_EQ(Report(*manager).builtIn, builtIn);
}

TEST_F(NetworkIsolationManagerTest, ReResolutionUpdatesTheBackendOnlyWhenTheServersChanged) {
  m_settings->vyxRoutes = {"vyx.example:443"};
  m_dns->Answer("vyx.example", {"198.51.100.1"});
  auto manager = Start();
  ASSERT_EQ(manager->CreateSession(31, {}), oro::errOk);
  const int updates = Iptables().builtInUpdates;

  ASSERT_EQ(m_timer->Fire(), oro::errOk);
  EXPECT_EQ(Iptables().builtInUpdates, updates);

  m_dns->Answer("vyx.example", {"198.51.100.2"});
  ASSERT_EQ(m_timer->Fire(), oro::errOk);
  EXPECT_EQ(Iptables().builtInUpdates, updates + 1);
  ASSERT_EQ(Iptables().builtIn.vyxServers.size(), 1u);
  EXPECT_EQ(Iptables().builtIn.vyxServers[0].addresses, std::vector<ip_t>{tools::ParseIpAddress("198.51.100.2")});
  EXPECT_TRUE(m_tracer->Contains("Updated iptables VYX servers"));
}

TEST_F(NetworkIsolationManagerTest, ClientsAndTheTimerJobRunTogether) {
  m_settings->vyxRoutes = {"vyx.example:443"};
  m_dns->Answer("vyx.example", {"198.51.100.1"});
  auto manager = Start();
  std::atomic<bool> done = false;
  std::thread timer([&] {
    while (!done) m_timer->Fire();
  });
  std::vector<std::thread> clients;
  for (std::uint32_t client = 1; client <= 4; ++client) {
    clients.emplace_back([&, client] {
      for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(manager->CreateSession(client, Https("10.77.0.2")), oro::errOk);
        std::vector<std::uint32_t> active;
        manager->GetActiveSessions(active);
        EXPECT_EQ(manager->DeleteSession(client), oro::errOk);
      }
    });
  }
  for (auto& thread : clients) thread.join();
  done = true;
  timer.join();
  EXPECT_TRUE(Active(*manager).empty());
  EXPECT_FALSE(m_timer->Armed());
  const auto kinds = EventKinds();
  EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "HostIsolated"),
            std::count(kinds.begin(), kinds.end(), "HostIsolationCanceled"));
}

}  // namespace
}  // namespace qel::test
