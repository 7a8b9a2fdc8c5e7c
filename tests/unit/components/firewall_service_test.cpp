#include "firewall/firewall_service.h"

#include <gtest/gtest.h>

#include "support/fake_firewall.h"
#include "support/fake_framework.h"
#include "support/fake_kernel.h"

namespace qel::test {
namespace {

using firewall::FirewallService;
using settings::FirewallSettings;
using settings::PacketRule;
using types::IPAddressFamily;
using Lines = std::vector<std::string>;

const FakeKernel::Table kFilter4{IPAddressFamily::IPv4, "filter"};
const FakeKernel::Table kFilter6{IPAddressFamily::IPv6, "filter"};

FirewallSettings SshSettings(const std::u16string& port = u"22") {
  FirewallSettings s;
  PacketRule rule;
  rule.name = u"ssh";
  rule.direction = settings::PacketRuleDirection::Incoming;
  rule.protocol = settings::PacketRuleProtocol::TCP;
  rule.localPorts = port;
  s.packetRules.push_back(rule);
  return s;
}

class FirewallServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (oro::IObject* o : std::initializer_list<oro::IObject*>{
             static_cast<oro::ITracer*>(tracer.Get()), static_cast<oro::ITimer*>(timer.Get()),
             static_cast<oro::IEventPublisher*>(publisher.Get()),
             static_cast<firewall::IIptablesInfoProvider*>(info.Get()),
             static_cast<firewall::IFirewallStateQuery*>(kernel.Get())}) {
      locator->Register(o);
    }
    ASSERT_EQ(CreateInstance(service, locator.Get(), true), oro::errOk);
  }
  void Release() {
    service.Reset();
    EXPECT_EQ(kernel->TableOf(kFilter4), FakeKernel().TableOf(kFilter4));
    EXPECT_EQ(kernel->TableOf(kFilter6), FakeKernel().TableOf(kFilter6));
  }

  oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  oro::RefPtr<FakeTimer> timer = Make<FakeTimer>();
  oro::RefPtr<FakePublisher> publisher = Make<FakePublisher>();
  oro::RefPtr<FakeInfoProvider> info = Make<FakeInfoProvider>();
  oro::RefPtr<FakeKernel> kernel = Make<FakeKernel>();
  oro::RefPtr<FakeLocator> locator = Make<FakeLocator>();
  oro::RefPtr<FirewallService> service;
};

TEST_F(FirewallServiceTest, EnforcingInstallsBothFamiliesPollsAndConverges) {
  ASSERT_EQ(service->SetPacketRules(SshSettings()), oro::errOk);
  EXPECT_TRUE(kernel->Texts(kFilter4, "INPUT").empty());  // not enforcing yet
  ASSERT_EQ(service->SetEnforce(true), oro::errOk);
  EXPECT_EQ(kernel->Texts(kFilter4, "INPUT"), (Lines{"-j vorn_input"}));
  EXPECT_EQ(kernel->Texts(kFilter6, "OUTPUT"), (Lines{"-j vorn_output"}));
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input")[1],
            "-p tcp -m tcp --dport 22 -m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j ACCEPT");
  EXPECT_TRUE(timer->Armed());
  EXPECT_EQ(timer->interval, 60000u);

  const int changes = kernel->changeCalls;
  EXPECT_EQ(service->SetEnforce(true), oro::errOk);  // already on: nothing runs
  EXPECT_EQ(timer->Fire(), oro::errOk);
  EXPECT_EQ(kernel->changeCalls, changes);
  EXPECT_TRUE(tracer->Contains("Firewall update not needed"));
  EXPECT_TRUE(publisher->events.empty());
  Release();
}

TEST_F(FirewallServiceTest, PollRepairsForeignChangesAndReportsThemOnce) {
  service->SetPacketRules(SshSettings());
  service->SetEnforce(true);
  auto* chain = kernel->FindChain(kFilter4, "vorn_input");
  chain->ruleList.erase(chain->ruleList.begin() + 1);
  firewall::Rule foreign;
  foreign.match = {"-s", "203.0.113.9/32"};
  foreign.target = {"ACCEPT"};
  chain->ruleList.push_back(foreign);
  const auto wanted = kernel->TableOf(kFilter6);
  timer->Fire();
  ASSERT_EQ(publisher->events.size(), 1u);
  const auto& event = publisher->events[0];
  EXPECT_EQ(event.kind, "FirewallIntegrityBroken");
  EXPECT_EQ(event.properties[0].first, "extra");
  EXPECT_EQ(event.properties[0].second, "IPv4 filter vorn_input: -s 203.0.113.9/32 -j ACCEPT\n");
  EXPECT_NE(event.properties[1].second.find("IPv4 filter vorn_input: -p tcp -m tcp --dport 22"), std::string::npos);
  timer->Fire();
  EXPECT_EQ(publisher->events.size(), 1u);
  EXPECT_EQ(kernel->TableOf(kFilter6), wanted);
  Release();
}

TEST_F(FirewallServiceTest, BadSettingsOrARefusingKernelKeepTheRulesInForce) {
  service->SetPacketRules(SshSettings());
  service->SetEnforce(true);
  const auto inForce = kernel->TableOf(kFilter4);

  auto bad = SshSettings();
  bad.packetRules[0].remoteAddress = u"10.0.0.0/99";
  EXPECT_EQ(service->SetPacketRules(bad), oro::errInvalidArgument);
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Error, "remoteAddress '10.0.0.0/99': invalid mask"));
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);

  kernel->failQuery = true;
  EXPECT_TRUE(ORO_FAILED(service->SetPacketRules(SshSettings(u"2222"))));
  EXPECT_TRUE(tracer->Contains("Cannot sync firewall table"));
  kernel->failQuery = false;
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
  timer->Fire();  // the poll keeps the old rules: the failed settings were not kept
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
  Release();
}

TEST_F(FirewallServiceTest, DynamicRulesStayWhileEnforcementIsOff) {
  ASSERT_EQ(service->AddRules({AgentPort(4000)}, "ostra"), oro::errOk);
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input"), (Lines{"-p tcp -m tcp --dport 4000 -j ACCEPT"}));
  EXPECT_TRUE(timer->Armed());  // watched although nothing is enforced
  service->SetPacketRules(SshSettings());
  service->SetEnforce(true);
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input")[0], "-p tcp -m tcp --dport 4000 -j ACCEPT");
  service->SetEnforce(false);
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input"), (Lines{"-p tcp -m tcp --dport 4000 -j ACCEPT"}));
  auto spaced = AgentPort(4001);
  spaced.action = firewall::NflogAction{7, "two words", 0};
  EXPECT_EQ(service->AddRules({AgentPort(4001), spaced}, "ostra"), oro::errInvalidArgument);
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Error, "refused: the nflog prefix"));
  EXPECT_EQ(kernel->Texts(kFilter4, "vorn_input").size(), 1u);  // all of the call or nothing
  ASSERT_EQ(service->RemoveRules({AgentPort(4000)}), oro::errOk);
  EXPECT_EQ(kernel->FindChain(kFilter4, "vorn_input"), nullptr);
  Release();
}

TEST_F(FirewallServiceTest, AfterShutdownNothingChangesUntilRelease) {
  service->SetPacketRules(SshSettings());
  service->SetEnforce(true);
  const auto inForce = kernel->TableOf(kFilter4);
  ASSERT_EQ(service->OnShutdown(), oro::errOk);
  EXPECT_EQ(service->SetPacketRules(SshSettings(u"80")), oro::errOk);
  EXPECT_EQ(service->SetEnforce(false), oro::errOk);
  EXPECT_EQ(service->AddRules({AgentPort(1)}, "x"), oro::errOk);
  EXPECT_EQ(service->RunPoll(), oro::errOk);
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
  EXPECT_TRUE(tracer->Contains(" Rules will be cleared on shutdown complete. skip apply changes"));
  Release();
  EXPECT_FALSE(timer->Armed());
}

TEST_F(FirewallServiceTest, TablesWithoutModuleRulesAreNotListed) {
  // Rules given while not enforcing reach nothing: no table is listed.
  service->SetPacketRules({});
  EXPECT_EQ(kernel->queries, 0);
  service->SetPacketRules(SshSettings());
  service->SetEnforce(true);
  const int queries = kernel->queries;
  timer->Fire();
  EXPECT_EQ(kernel->queries - queries, 2);  // the filter table of each family
  EXPECT_TRUE(tracer->Contains("Ignore mangle"));
  Release();
}

}  // namespace
}  // namespace qel::test
