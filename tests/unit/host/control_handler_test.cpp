#include "host/control_handler.h"

#include <gtest/gtest.h>

#include "support/fake_control_targets.h"
#include "support/fake_framework.h"

namespace qel::host {
namespace {

using test::FakeAgentPorts;
using test::FakeDynamicService;
using test::Make;

class ControlHandlerTest : public ::testing::Test {
 protected:
  std::string Handle(const std::string& line) { return m_handler.Handle(line); }
  std::vector<std::string> Changes() {
    auto changes = m_service->changes;
    changes.insert(changes.end(), m_ports->changes.begin(), m_ports->changes.end());
    return changes;
  }

  oro::RefPtr<FakeDynamicService> m_service = Make<FakeDynamicService>();
  oro::RefPtr<FakeAgentPorts> m_ports = Make<FakeAgentPorts>();
  ControlHandler m_handler{oro::RefPtr<firewall::IFirewallStatus>::Share(m_service.Get()),
                           oro::RefPtr<firewall::IDynamicRules>::Share(m_service.Get()),
                           oro::RefPtr<firewall::IOstraPorts>::Share(m_ports.Get()),
                           [] { return HostFacts{true, 3}; }};
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
            R"("agentPorts":["13000/udp/inout","15000/tcp/in"],"integrityEvents":3})");
  EXPECT_EQ(Handle(R"({"cmd":"remove-rules","rules":[)" + kWeb + "," + kWeb + "]}"), R"({"ok":true,"removed":1})");
  EXPECT_EQ(Handle(R"({"cmd":"remove-rules","rules":[)" + kWeb + "]}"), R"({"ok":true,"removed":0})");
}

TEST_F(ControlHandlerTest, ARequestThatDoesNotParseChangesNothing) {
  for (const std::string& line : std::vector<std::string>{R"({"cmd":"add-rules","tag":"web","rules":[{"kind":"access"}]})",
                                 R"({"cmd":"agent-ports","ports":["15000/tcp/in","x"]})", R"({"cmd":"reboot"})",
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

}  // namespace
}  // namespace qel::host
