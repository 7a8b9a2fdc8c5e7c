#include "firewall/firewall_service.h"

#include <gtest/gtest.h>

#include "support/fake_firewall.h"
#include "support/fake_framework.h"
#include "support/fake_kernel.h"

namespace qel::test {
namespace {

using types::IPAddressFamily;
using Lines = std::vector<std::string>;

const FakeKernel::Table kFilter4{IPAddressFamily::IPv4, "filter"};
const FakeKernel::Table kFilter6{IPAddressFamily::IPv6, "filter"};

settings::FirewallSettings SshSettings(const std::u16string& port = u"22") {
  settings::FirewallSettings s;
  auto& rule = s.packetRules.emplace_back();
  rule.name = u"ssh";
  rule.direction = settings::PacketRuleDirection::Incoming;
  rule.protocol = settings::PacketRuleProtocol::TCP;
  rule.localPorts = port;
  return s;
}

class FirewallServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    locator->Register(tracer);
    locator->Register(timer);
    locator->Register(publisher);
    locator->Register(tools);
    locator->Register(static_cast<firewall::IFirewallStateQuery*>(kernel.Get()));
    ASSERT_EQ(CreateInstance(service, locator.Get(), true), oro::errOk);
  }
  // Releasing the service stops the poll and takes every module rule away.
  void TearDown() override {
    service.Reset();
    EXPECT_FALSE(timer->Armed());
    EXPECT_EQ(kernel->TableOf(kFilter4), FakeKernel().TableOf(kFilter4));
    EXPECT_EQ(kernel->TableOf(kFilter6), FakeKernel().TableOf(kFilter6));
  }
  void Enforce(const settings::FirewallSettings& settings) {
    ASSERT_EQ(service->SetPacketRules(settings), oro::errOk);
    ASSERT_EQ(service->SetEnforce(true), oro::errOk);
  }

  oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  oro::RefPtr<FakeTimer> timer = Make<FakeTimer>();
  oro::RefPtr<FakePublisher> publisher = Make<FakePublisher>();
  oro::RefPtr<FakeKernel> kernel = Make<FakeKernel>();
  oro::RefPtr<FakeInfoProvider> tools = Make<FakeInfoProvider>();
  oro::RefPtr<FakeLocator> locator = Make<FakeLocator>();
  oro::RefPtr<firewall::FirewallService> service;
};

TEST_F(FirewallServiceTest, EnforcingInstallsBothFamiliesPollsAndConverges) {
  ASSERT_EQ(service->SetPacketRules(SshSettings()), oro::errOk);
  EXPECT_EQ(kernel->queries, 0);  // rules given while not enforcing reach nothing
  ASSERT_EQ(service->SetEnforce(true), oro::errOk);
  EXPECT_EQ(kernel->Texts(kFilter4, "INPUT"), (Lines{"-j vorn_input"}));
  EXPECT_EQ(kernel->Texts(kFilter6, "OUTPUT"), (Lines{"-j vorn_output"}));
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input")[1],
            "-p tcp -m tcp --dport 22 -m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j ACCEPT");
  EXPECT_TRUE(timer->Armed());
  EXPECT_EQ(timer->interval, 60000u);

  const int changes = kernel->changeCalls, queries = kernel->queries;
  EXPECT_EQ(service->SetEnforce(true), oro::errOk);  // already on: nothing runs
  EXPECT_EQ(timer->Fire(), oro::errOk);
  EXPECT_EQ(kernel->changeCalls, changes);
  EXPECT_EQ(kernel->queries - queries, 2);  // only the filter table of each family
  EXPECT_TRUE(publisher->events.empty());
}

// Tools that fail instead of waiting for the lock that the legacy ones take
// must never run side by side.
TEST_F(FirewallServiceTest, TablesAreListedSideBySideOnlyWhereTheToolsWaitForTheirLock) {
  Enforce(SshSettings());
  const auto inForce = kernel->TableOf(kFilter4);
  kernel->listingsMeetWithin = std::chrono::milliseconds(2000);
  timer->Fire();
  EXPECT_EQ(kernel->mostListingsAtOnce, 2);
  // A settings change lists while it compiles; the listings are those of the
  // table it then changes.
  ASSERT_EQ(service->SetPacketRules(SshSettings(u"2222")), oro::errOk);
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input")[1],
            "-p tcp -m tcp --dport 2222 -m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j ACCEPT");

  tools->waits = false;
  kernel->mostListingsAtOnce = 0;
  kernel->listingsMeetWithin = std::chrono::milliseconds(100);
  ASSERT_EQ(service->SetPacketRules(SshSettings()), oro::errOk);
  timer->Fire();
  EXPECT_EQ(kernel->mostListingsAtOnce, 1);
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
  EXPECT_TRUE(publisher->events.empty());
}

TEST_F(FirewallServiceTest, PollRepairsForeignChangesAndReportsThemOnce) {
  Enforce(SshSettings());
  auto& rules = kernel->FindChain(kFilter4, "vorn_input")->ruleList;
  rules.erase(rules.begin() + 1);
  rules.emplace_back().match = {"-s", "203.0.113.9/32"};
  rules.back().target = {"ACCEPT"};
  const auto wanted = kernel->TableOf(kFilter6);
  timer->Fire();
  ASSERT_EQ(publisher->events.size(), 1u);
  const auto& event = publisher->events[0];
  EXPECT_EQ(event.kind, "FirewallIntegrityBroken");
  EXPECT_EQ(event.properties[0],
            (std::pair<std::string, std::string>{"extra", "IPv4 filter vorn_input: -s 203.0.113.9/32 -j ACCEPT\n"}));
  EXPECT_NE(event.properties[1].second.find("IPv4 filter vorn_input: -p tcp -m tcp --dport 22"), std::string::npos);
  timer->Fire();
  EXPECT_EQ(publisher->events.size(), 1u);
  EXPECT_EQ(kernel->TableOf(kFilter6), wanted);
}

TEST_F(FirewallServiceTest, BadSettingsOrARefusingKernelKeepTheRulesInForce) {
  Enforce(SshSettings());
  const auto inForce = kernel->TableOf(kFilter4);
  auto bad = SshSettings();
  bad.packetRules[0].remoteAddress = u"10.0.0.0/99";
  EXPECT_EQ(service->SetPacketRules(bad), oro::errInvalidArgument);
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Error, "remoteAddress '10.0.0.0/99': invalid mask"));
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);

  kernel->failQuery = true;
  EXPECT_TRUE(ORO_FAILED(service->SetPacketRules(SshSettings(u"2222"))));
  kernel->failQuery = false;
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
  timer->Fire();  // the poll keeps the old rules: the failed settings were not kept
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
}

TEST_F(FirewallServiceTest, DynamicRulesStayWhileEnforcementIsOff) {
  const Lines agentRule{"-p tcp -m tcp --dport 4000 -j ACCEPT"};
  ASSERT_EQ(service->AddRules({AgentPort(4000)}, "ostra"), oro::errOk);
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input"), agentRule);
  EXPECT_TRUE(timer->Armed());  // watched although nothing is enforced
  Enforce(SshSettings());
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input")[0], agentRule[0]);
  service->SetEnforce(false);
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input"), agentRule);
  auto spaced = AgentPort(4001);
  spaced.action = firewall::NflogAction{7, "two words", 0};
  EXPECT_EQ(service->AddRules({AgentPort(4001), spaced}, "ostra"), oro::errInvalidArgument);
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input"), agentRule);  // all of the call or nothing
  ASSERT_EQ(service->RemoveRules({AgentPort(4000)}), oro::errOk);
  EXPECT_EQ(kernel->FindChain(kFilter4, "vorn_input"), nullptr);
}

TEST_F(FirewallServiceTest, AfterShutdownNothingChangesUntilRelease) {
  Enforce(SshSettings());
  const auto inForce = kernel->TableOf(kFilter4);
  ASSERT_EQ(service->OnShutdown(), oro::errOk);
  EXPECT_EQ(service->SetPacketRules(SshSettings(u"80")), oro::errOk);
  EXPECT_EQ(service->SetEnforce(false), oro::errOk);
  EXPECT_EQ(service->AddRules({AgentPort(1)}, "x"), oro::errOk);
  EXPECT_EQ(service->RunPoll(), oro::errOk);
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
}

}  // namespace
}  // namespace qel::test
