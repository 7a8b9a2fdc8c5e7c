#include "host/control_handler.h"

#include <gtest/gtest.h>

#include "support/fake_control_targets.h"
#include "support/fake_framework.h"
#include "support/fake_isolation_manager.h"

namespace qel::host {
namespace {

using test::FakeAgentPorts;
using test::FakeDynamicService;
using test::FakeNflogCounters;
using test::FakeQueueQuery;
using test::Make;

class ControlHandlerTest : public ::testing::Test {
 protected:
  std::string Handle(const std::string& line) { return m_handler.Handle(line); }
  std::vector<std::string> Changes() {
    auto changes = m_service->changes;
    changes.insert(changes.end(), m_ports->changes.begin(), m_ports->changes.end());
    changes.insert(changes.end(), m_queues->changes.begin(), m_queues->changes.end());
    return changes;
  }
  ControlTargets Targets() {
    return {oro::RefPtr<firewall::IFirewallStatus>::Share(m_service.Get()),
            oro::RefPtr<firewall::IDynamicRules>::Share(m_service.Get()),
            oro::RefPtr<firewall::IOstraPorts>::Share(m_ports.Get()),
            oro::RefPtr<firewall::INflogCounters>::Share(m_counters.Get()),
            oro::RefPtr<firewall::INfqueueQuery>::Share(m_queues.Get()), {}};
  }

  oro::RefPtr<FakeDynamicService> m_service = Make<FakeDynamicService>();
  oro::RefPtr<FakeAgentPorts> m_ports = Make<FakeAgentPorts>();
  oro::RefPtr<FakeNflogCounters> m_counters = Make<FakeNflogCounters>();
  oro::RefPtr<FakeQueueQuery> m_queues = Make<FakeQueueQuery>();
  RuleNames m_names;
  ControlHandler m_handler{Targets(), [] { return HostFacts{true, 3}; }, m_names};
};

const std::string kWeb = R"({"kind":"access","side":"incoming","proto":6,"localPorts":[8080,8080],"action":0})";
const std::string kDns = R"({"kind":"access","side":"outgoing","proto":17,"remotePorts":[53,53],"action":0})";

TEST_F(ControlHandlerTest, StatusShowsEachTagWithItsRulesTheAgentsPortsAndTheHostsCounts) {
  m_service->status.enforcing = true;
  m_service->status.polling = true;
  EXPECT_EQ(Handle(R"({"cmd":"add-rules","tag":"web","rules":[)" + kWeb + "]}"),
            R"({"ok":true,"tag":"web","added":1})");
  EXPECT_EQ(Handle(R"({"cmd":"add-rules","tag":"dns","rules":[)" + kDns + "]}"),
            R"({"ok":true,"tag":"dns","added":1})");
  EXPECT_EQ(Handle(R"({"cmd":"agent-ports","ports":["15000/tcp/in","13000/udp/inout","15000/TCP/IN"]})"),
            R"({"ok":true,"agentPorts":["13000/udp/inout","15000/tcp/in"]})");
  EXPECT_EQ(Handle(R"({"cmd":"status"})"),
            R"({"ok":true,"task":"started","enforcing":true,"polling":true,"inForce":false,)"
            R"("tags":{"web":[)" + kWeb + R"(],"dns":[)" + kDns + R"(]},)"
            R"("agentPorts":["13000/udp/inout","15000/tcp/in"],"integrityEvents":3,)"
            R"("packetLog":{"groups":[],"overruns":0}})");
  EXPECT_EQ(Handle(R"({"cmd":"remove-rules","rules":[)" + kWeb + "," + kWeb + "]}"), R"({"ok":true,"removed":1})");
  EXPECT_EQ(Handle(R"({"cmd":"remove-rules","rules":[)" + kWeb + "]}"), R"({"ok":true,"removed":0})");
}

TEST_F(ControlHandlerTest, ARequestThatDoesNotParseChangesNothing) {
  for (const std::string& line : std::vector<std::string>{R"({"cmd":"add-rules","tag":"web","rules":[{"kind":"access"}]})",
                                 R"({"cmd":"agent-ports","ports":["15000/tcp/in","x"]})", R"({"cmd":"reboot"})",
                                 R"({"cmd":"queue","count":"4"})", R"({"cmd":"queue","count":65536})",
                                 std::string("{\"cmd\":\"\xff\xfe\"}"), std::string(70000, '[')}) {
    const Json reply = Json::parse(Handle(line));
    EXPECT_EQ(reply["ok"], false) << line.substr(0, 80);
    EXPECT_FALSE(reply["error"].get<std::string>().empty());
  }
  EXPECT_TRUE(Changes().empty());
}

TEST_F(ControlHandlerTest, ARefusedRuleGivesTheModulesCodeAndWhatIsWrongWithIt) {
  m_service->refuseWith = oro::errInvalidArgument;
  const std::string portsWithoutProtocol = R"({"kind":"access","action":0,"localPorts":[22,22]})";
  EXPECT_EQ(Handle(R"({"cmd":"add-rules","tag":"web","rules":[)" + kWeb + "," + portsWithoutProtocol + "]}"),
            R"x({"ok":false,"error":"rules[1] refused, ports need protocol 6 (TCP) or 17 (UDP); nothing changed: )x"
            R"x(result 0x80000046 (Invalid argument)","result":"0x80000046"})x");
  m_service->refuseWith = oro::errUnexpected;
  const Json reply = Json::parse(Handle(R"({"cmd":"remove-rules","rules":[)" + kWeb + "]}"));
  EXPECT_EQ(reply["result"], "0x8000004b");
  EXPECT_NE(reply["error"].get<std::string>().find("the module refused the rules"), std::string::npos);
}

// Group 10001 + i counts the packets of rule i; its name is that of the
// settings in force, and a group past them is shown without one.
TEST_F(ControlHandlerTest, StatusShowsEachLoggingGroupsCountsWithItsRuleInForce) {
  m_names.Set({"ssh", "web", "dns"});
  m_counters->counts = {{{10001, 12, 0}, {10003, 7, 2}, {10009, 1, 0}}, 4};
  EXPECT_EQ(Json::parse(Handle(R"({"cmd":"status"})"))["packetLog"].dump(),
            R"({"groups":[{"group":10001,"ruleIndex":0,"ruleName":"ssh","delivered":12,"lost":0},)"
            R"({"group":10003,"ruleIndex":2,"ruleName":"dns","delivered":7,"lost":2},)"
            R"({"group":10009,"ruleIndex":8,"delivered":1,"lost":0}],"overruns":4})");

  m_names.BeginChange({"ssh", "www"});
  m_names.EndChange(true);
  EXPECT_EQ(Json::parse(Handle(R"({"cmd":"status"})"))["packetLog"]["groups"][1].dump(),
            R"({"group":10003,"ruleIndex":2,"delivered":7,"lost":2})");

  ControlTargets withoutCounts = Targets();
  withoutCounts.packetLog.Reset();
  ControlHandler handler(std::move(withoutCounts), [] { return HostFacts{}; }, m_names);
  EXPECT_FALSE(Json::parse(handler.Handle(R"({"cmd":"status"})")).contains("packetLog"));
}

TEST_F(ControlHandlerTest, QueueRequestAnswersTheFirstFreeNumberOrWhyThereIsNone) {
  EXPECT_EQ(Handle(R"({"cmd":"queue","count":4})"), R"({"ok":true,"first":0})");
  EXPECT_EQ(Handle(R"({"cmd":"queue","count":4})"), R"({"ok":true,"first":4})");
  EXPECT_EQ(Handle(R"({"cmd":"queue","count":0})"), R"({"ok":true,"first":8})");
  EXPECT_EQ(Handle(R"({"cmd":"queue","count":65535})"),
            R"x({"ok":false,"error":"no run of 65535 free queue numbers below 65536: result 0x8000004c (Not found)",)x"
            R"x("result":"0x8000004c"})x");
  m_queues->refuseWith = oro::errUnexpected;
  EXPECT_EQ(Json::parse(Handle(R"({"cmd":"queue","count":1})"))["result"], "0x8000004b");
  EXPECT_EQ(Changes(), (std::vector<std::string>{"GetAvailableQueue 4", "GetAvailableQueue 4", "GetAvailableQueue 0",
                                                 "GetAvailableQueue 65535", "GetAvailableQueue 1"}));

  ControlTargets withoutQueues = Targets();
  withoutQueues.queues.Reset();
  ControlHandler handler(std::move(withoutQueues), [] { return HostFacts{}; }, m_names);
  EXPECT_EQ(handler.Handle(R"({"cmd":"queue","count":4})"),
            R"x({"ok":false,"error":"the module has no NFQUEUE query (no factory for class 0x87fb871c)"})x");
}

class IsolationRequestsTest : public ControlHandlerTest {
 protected:
  ControlTargets WithIsolation() {
    ControlTargets targets = Targets();
    targets.isolation.manager = oro::QueryInterface<test::nim::INetworkIsolationManager3>(m_manager->Object());
    targets.isolation.status =
        oro::QueryInterface<test::nim::INetworkIsolationManagerOverallStatusProvider>(m_manager->Object());
    targets.isolation.report = oro::QueryInterface<firewall::INetworkIsolationReport>(m_manager->Object());
    targets.isolation.facade = oro::RefPtr<firewall::INetworkIsolationFacade>::Share(m_facade.Get());
    targets.isolation.states = m_states;
    return targets;
  }
  std::vector<std::uint32_t> Active() {
    std::vector<std::uint32_t> clients;
    m_manager->GetActiveSessions(clients);
    return clients;
  }

  oro::RefPtr<test::FakeIsolationManager> m_manager = Make<test::FakeIsolationManager>();
  oro::RefPtr<test::FakeIsolationFacade> m_facade = Make<test::FakeIsolationFacade>(m_manager);
  oro::RefPtr<HostIsolationStateProvider> m_states = Make<HostIsolationStateProvider>();
  ControlHandler m_isolation{WithIsolation(), [] { return HostFacts{true, 0}; }, m_names};
};

TEST_F(IsolationRequestsTest, IsolateReplaceReportAndRelease) {
  const std::string rule = R"({"remoteAddress":"10.77.0.2","protocol":6,"remotePortRange":{"start":443,"end":443}})";
  EXPECT_EQ(m_isolation.Handle(R"({"cmd":"isolate","client":31,"kind":2,"rules":[)" + rule + "]}"),
            R"({"ok":true,"client":31,"kind":2,"rules":1,"replaced":false})");
  EXPECT_EQ(m_isolation.Handle(R"({"cmd":"isolate","client":31,"kind":2,"rules":[)" + rule + "," + rule + "]}"),
            R"({"ok":true,"client":31,"kind":2,"rules":2,"replaced":true})");
  EXPECT_EQ(m_isolation.Handle(R"({"cmd":"isolate","client":7,"rules":[]})"),
            R"({"ok":true,"client":7,"kind":0,"rules":0,"replaced":false})");
  const std::string report = m_isolation.Handle(R"({"cmd":"isolation"})");
  EXPECT_EQ(report.rfind(R"({"ok":true,"isolated":true,"backend":"iptables","clients":[{"client":7,"kind":0,"rules":[]},)"
                         R"({"client":31,"kind":2,"rules":[)" + rule + "," + rule + R"(]}],"builtIn":{"tamberServers":[],)",
                         0),
            0u)
      << report;

  // An unknown client is refused by name and nothing changes.
  const std::string unknown = m_isolation.Handle(R"({"cmd":"release","client":8})");
  EXPECT_EQ(unknown.rfind(R"({"ok":false,"error":"client 8 does not isolate the host; nothing changed: result 0x8000004c)", 0), 0u)
      << unknown;
  EXPECT_EQ(Active(), (std::vector<std::uint32_t>{7, 31}));
  EXPECT_EQ(m_isolation.Handle(R"({"cmd":"release","client":31})"), R"({"ok":true,"client":31,"isolated":true})");
  EXPECT_EQ(m_isolation.Handle(R"({"cmd":"release","client":7})"), R"({"ok":true,"client":7,"isolated":false})");
  EXPECT_EQ(m_isolation.Handle(R"({"cmd":"isolation"})").rfind(R"({"ok":true,"isolated":false,"backend":null,"clients":[],)", 0),
            0u);
}

TEST_F(IsolationRequestsTest, TurnOffCountsTheClientsItStopped) {
  EXPECT_EQ(m_isolation.Handle(R"({"cmd":"turn-off"})"), R"({"ok":true,"stopped":0,"clients":[],"stillIsolating":[]})");
  for (auto client : {3u, 5u, 9u}) m_manager->CreateSession(client, {});
  m_facade->keep = 5;
  m_facade->result = oro::errUnexpected;
  const std::string reply = m_isolation.Handle(R"({"cmd":"turn-off"})");
  EXPECT_EQ(reply.rfind(R"({"ok":false,"error":"the facade did not turn isolation off (see its trace): result 0x8000004b)", 0), 0u)
      << reply;
  EXPECT_NE(reply.find(R"("stopped":2,"clients":[3,9],"stillIsolating":[5]})"), std::string::npos) << reply;
}

TEST_F(IsolationRequestsTest, WithoutAManagerIsolationRequestsAreRefusedWithTheReason) {
  ControlTargets targets = Targets();
  targets.isolation.unavailable = "no network isolation: class 0x72f9d8cb not found";
  ControlHandler handler(std::move(targets), [] { return HostFacts{}; }, m_names);
  for (const char* line : {R"({"cmd":"isolate","client":1,"rules":[]})", R"({"cmd":"release","client":1})",
                           R"({"cmd":"isolation"})", R"({"cmd":"turn-off"})"}) {
    EXPECT_EQ(handler.Handle(line), R"({"ok":false,"error":"no network isolation: class 0x72f9d8cb not found"})") << line;
  }
}

}  // namespace
}  // namespace qel::host
