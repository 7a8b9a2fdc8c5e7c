#include "firewall/firewall_service.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "support/faked_service.h"

namespace qel::test {
namespace {

using namespace std::chrono_literals;
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

std::string AgentPortText(int port) { return "-p tcp -m tcp --dport " + std::to_string(port) + " -j ACCEPT"; }

class FirewallServiceTest : public ::testing::Test, protected FakedService {
 protected:
  // Releasing the service stops the poll and takes every module rule away.
  void TearDown() override {
    kernel->failChange = false;
    kernel->refusedWord.clear();
    service.Reset();
    EXPECT_FALSE(timer->Armed());
    EXPECT_EQ(kernel->TableOf(kFilter4), FakeKernel().TableOf(kFilter4));
    EXPECT_EQ(kernel->TableOf(kFilter6), FakeKernel().TableOf(kFilter6));
  }
  void Enforce(const settings::FirewallSettings& settings) {
    ASSERT_EQ(service->SetPacketRules(settings), oro::errOk);
    ASSERT_EQ(service->SetEnforce(true), oro::errOk);
  }
  Lines Input() { return kernel->Texts(kFilter4, "vorn_input"); }
};

TEST_F(FirewallServiceTest, EnforcingInstallsBothFamiliesPollsAndConverges) {
  ASSERT_EQ(service->SetPacketRules(SshSettings()), oro::errOk);
  EXPECT_EQ(kernel->queries, 0);  // rules given while not enforcing reach nothing
  ASSERT_EQ(service->SetEnforce(true), oro::errOk);
  EXPECT_EQ(kernel->Texts(kFilter4, "INPUT"), (Lines{"-j vorn_input"}));
  EXPECT_EQ(kernel->Texts(kFilter6, "OUTPUT"), (Lines{"-j vorn_output"}));
  EXPECT_EQ(Input()[1], "-p tcp -m tcp --dport 22 -m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j ACCEPT");
  EXPECT_TRUE(timer->Armed());
  EXPECT_EQ(timer->interval, 60000u);
  EXPECT_EQ(tracer->Count(oro::trace_level::Warning, "Starting firewall state polling"), 1u);

  const int changes = kernel->changeCalls, queries = kernel->queries;
  EXPECT_EQ(service->SetEnforce(true), oro::errOk);  // already on: nothing runs
  EXPECT_EQ(timer->Fire(), oro::errOk);
  EXPECT_EQ(kernel->changeCalls, changes);
  // Only the filter table of each family: mangle and nat hold nothing.
  EXPECT_EQ(kernel->queries - queries, 2);
  EXPECT_TRUE(tracer->Contains("[IPv4 mangle] Ignore mangle"));
  EXPECT_TRUE(tracer->Contains("[IPv6 filter] Firewall update not needed"));
  EXPECT_TRUE(publisher->events.empty());
}

// Later tables are listed ahead, on threads of their own, only by tools
// that wait for the lock the legacy ones take: the others would fail side
// by side.
TEST_F(FirewallServiceTest, LaterTablesAreListedAheadOnlyWhereTheToolsWaitForTheirLock) {
  Enforce(SshSettings());
  // How many of a poll's listings ran on this thread and how many elsewhere.
  const auto pollListedOn = [&] {
    const std::size_t before = kernel->ListingThreads().size();
    EXPECT_EQ(timer->Fire(), oro::errOk);
    const auto threads = kernel->ListingThreads();
    const auto here = std::count(threads.begin() + static_cast<std::ptrdiff_t>(before), threads.end(),
                                 std::this_thread::get_id());
    return std::pair<long, long>(here, static_cast<long>(threads.size() - before) - here);
  };
  EXPECT_EQ(pollListedOn(), std::pair(1L, 1L));
  tools->waits = false;
  EXPECT_EQ(pollListedOn(), std::pair(2L, 0L));
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
            (std::pair<std::string, oro::Event::Value>{"extra", "IPv4 filter vorn_input: -s 203.0.113.9/32 -j ACCEPT\n"}));
  EXPECT_NE(std::get<std::string>(event.properties[1].second).find("IPv4 filter vorn_input: -p tcp -m tcp --dport 22"), std::string::npos);
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
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Error, "Cannot sync firewall table"));
  kernel->failQuery = false;
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
  timer->Fire();  // the poll keeps the old rules: the failed settings were not kept
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
}

// Whether the settings are traced must not change what a call does: an
// enumeration value out of range is refused the same way at every level.
TEST_F(FirewallServiceTest, TracingNeverChangesTheOutcome) {
  Enforce(SshSettings());
  const auto inForce = kernel->TableOf(kFilter4);
  auto bad = SshSettings(u"80");
  bad.packetRules[0].action = static_cast<settings::PacketRuleAction>(77);
  for (const auto level : {oro::trace_level::Detail, oro::trace_level::Warning}) {
    SCOPED_TRACE(level);
    tracer->enabledUpTo = level;
    EXPECT_EQ(service->SetPacketRules(bad), oro::errInvalidArgument);
    EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
  }
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Detail, R"("action":"77")"));
}

TEST_F(FirewallServiceTest, DynamicRulesArePolledWhileHeldEvenWithEnforcementOff) {
  ASSERT_EQ(service->AddRules({AgentPort(4000)}, "ostra"), oro::errOk);
  EXPECT_EQ(Input(), (Lines{AgentPortText(4000)}));
  EXPECT_TRUE(timer->Armed());  // watched although nothing is enforced
  firewall::FirewallStatus status;
  ASSERT_EQ(service->GetStatus(status), oro::errOk);
  EXPECT_TRUE(status.polling && status.inForce && !status.enforcing);
  EXPECT_EQ(status.dynamicRules, (std::vector<firewall::TaggedRule>{{AgentPort(4000), "ostra"}}));
  ASSERT_EQ(service->RemoveRules({AgentPort(4000)}), oro::errOk);
  EXPECT_EQ(kernel->FindChain(kFilter4, "vorn_input"), nullptr);
  EXPECT_FALSE(timer->Armed());
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Warning, "Stopping firewall state polling"));

  ASSERT_EQ(service->AddRules({AgentPort(4000)}, "ostra"), oro::errOk);
  Enforce(SshSettings());
  EXPECT_EQ(Input()[0], AgentPortText(4000));
  service->SetEnforce(false);
  EXPECT_EQ(Input(), (Lines{AgentPortText(4000)}));
  auto spaced = AgentPort(4001);
  spaced.action = firewall::NflogAction{7, "two words", 0};
  EXPECT_EQ(service->AddRules({AgentPort(4001), spaced}, "ostra"), oro::errInvalidArgument);
  EXPECT_EQ(Input(), (Lines{AgentPortText(4000)}));  // all of the call or nothing
  ASSERT_EQ(service->RemoveRules({AgentPort(4000)}), oro::errOk);
  EXPECT_EQ(kernel->FindChain(kFilter4, "vorn_input"), nullptr);
}

TEST_F(FirewallServiceTest, AFailedEnforceStaysPolledAndTheNextCallTriesAgain) {
  ASSERT_EQ(service->SetPacketRules(SshSettings()), oro::errOk);
  kernel->failChange = true;
  EXPECT_TRUE(ORO_FAILED(service->SetEnforce(true)));
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Error, "(SyncFirewallState(unenforcing))"));
  EXPECT_TRUE(timer->Armed());
  kernel->failChange = false;
  ASSERT_EQ(service->SetEnforce(true), oro::errOk);
  EXPECT_EQ(kernel->Texts(kFilter4, "INPUT"), (Lines{"-j vorn_input"}));
  EXPECT_TRUE(timer->Armed());
}

TEST_F(FirewallServiceTest, TimerFailuresAreTracedAndReturned) {
  timer->failSetRepeated = true;
  EXPECT_EQ(service->AddRules({AgentPort(4000)}, "ostra"), oro::errUnexpected);
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Error,
                               "(m_pollTimer->SetRepeated(m_pollHandler, Interval)),(ORO_SUCCEEDED(_result)) failed"));
  timer->failSetRepeated = false;
  ASSERT_EQ(service->AddRules({AgentPort(4001)}, "ostra"), oro::errOk);
  EXPECT_TRUE(timer->Armed());
  timer->failCancel = true;
  EXPECT_EQ(service->RemoveRules({AgentPort(4000), AgentPort(4001)}), oro::errUnexpected);
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Error,
                               "(m_pollTimer->CancelAndWait(m_pollHandler)),(ORO_SUCCEEDED(_result)) failed"));
  timer->failCancel = false;
}

// The timer may keep its job after the service is gone, when cancelling
// failed; a later tick must not reach the released service.
TEST_F(FirewallServiceTest, APollAfterReleaseNeverReachesTheService) {
  Enforce(SshSettings());
  timer->failCancel = true;
  const auto mark = tracer->Lines().size();
  service.Reset();
  EXPECT_EQ(tracer->Lines()[mark].second, "FinalRelease() ");
  EXPECT_TRUE(tracer->Contains("FinalRelease: Cleaning rules"));
  const int queries = kernel->queries;
  EXPECT_EQ(timer->Fire(), oro::errOk);
  EXPECT_EQ(kernel->queries, queries);
  timer->failCancel = false;
  timer->Disarm();
}

TEST_F(FirewallServiceTest, AfterShutdownNothingChangesUntilRelease) {
  Enforce(SshSettings());
  const auto inForce = kernel->TableOf(kFilter4);
  ASSERT_EQ(service->OnShutdown(), oro::errOk);
  EXPECT_FALSE(timer->Armed());  // polls would be skipped
  EXPECT_EQ(service->SetPacketRules(SshSettings(u"80")), oro::errOk);
  EXPECT_EQ(tracer->Count(oro::trace_level::Warning,
                          "SetPacketRules:  Rules will be cleared on shutdown complete. skip apply changes"),
            1u);
  EXPECT_EQ(service->SetEnforce(false), oro::errOk);
  EXPECT_EQ(service->AddRules({AgentPort(1)}, "x"), oro::errOk);
  EXPECT_EQ(service->RunPoll(), oro::errOk);
  EXPECT_EQ(kernel->TableOf(kFilter4), inForce);
}

// Two owners at once: one removes its last rule, so polling stops, while
// the other adds one. Whatever the order, the added rule stays polled.
TEST_F(FirewallServiceTest, AnOwnerAddingWhileAnotherStopsThePollLeavesItArmed) {
  ASSERT_EQ(service->AddRules({AgentPort(4000)}, "first"), oro::errOk);
  std::promise<void> cancelling, added;
  timer->duringCancel = [&, once = std::make_shared<std::once_flag>()] {
    std::call_once(*once, [&] {
      cancelling.set_value();
      added.get_future().wait();
    });
  };
  auto remover = std::async(std::launch::async, [&] { return service->RemoveRules({AgentPort(4000)}); });
  cancelling.get_future().wait();
  auto adder = std::async(std::launch::async, [&] { return service->AddRules({AgentPort(4001)}, "second"); });
  // Let the second owner decide about polling while the first one's
  // cancel is still under way; it must not be left believing the timer on.
  EXPECT_TRUE(tracer->WaitFor("UpdatePolling() ", 2, 10s));
  added.set_value();
  EXPECT_EQ(remover.get(), oro::errOk);
  EXPECT_EQ(adder.get(), oro::errOk);
  EXPECT_EQ(Input(), (Lines{AgentPortText(4001)}));
  EXPECT_TRUE(timer->Armed());
}

// An owner's rules that the kernel refuses are taken back, and only they:
// another owner's change made meanwhile stands.
TEST_F(FirewallServiceTest, ARefusedAddTakesBackOnlyItsOwnRules) {
  const struct {
    const char* name;
    std::function<oro::result_t(firewall::FirewallService&)> otherChange;
    Lines after;
  } cases[] = {
      {"the other owner adds", [](auto& s) { return s.AddRules({AgentPort(4002)}, "other"); },
       {AgentPortText(4000), AgentPortText(4002)}},
      {"the other owner removes", [](auto& s) { return s.RemoveRules({AgentPort(4000)}); }, {}},
  };
  kernel->refusedWord = "6666";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(service->AddRules({AgentPort(4000)}, "other"), oro::errOk);
    std::promise<void> refusing, goOn;
    auto goOnFuture = goOn.get_future().share();
    kernel->beforeChange = [&, once = std::make_shared<std::once_flag>()](const firewall::ChangeList& changes) {
      for (const auto& change : changes) {
        if (change.match.find("6666") == std::string::npos) continue;
        std::call_once(*once, [&] {
          refusing.set_value();
          goOnFuture.wait();
        });
      }
    };
    auto refused = std::async(std::launch::async, [&] { return service->AddRules({AgentPort(6666)}, "mine"); });
    refusing.get_future().wait();
    const std::size_t syncs = tracer->Count(FakeTracer::kAnyLevel, "SyncFirewallState() ");
    auto other = std::async(std::launch::async, [&] { return c.otherChange(*service); });
    // The other owner's change gets as far as it can while the refused one
    // is under way; a correct service holds it back, so this wait is only
    // its chance to get in between.
    tracer->WaitFor("SyncFirewallState() ", syncs + 1, 300ms);
    goOn.set_value();
    EXPECT_EQ(refused.get(), oro::errUnexpected);
    EXPECT_EQ(other.get(), oro::errOk);
    EXPECT_EQ(Input(), c.after);
    EXPECT_EQ(service->RunPoll(), oro::errOk);  // nothing refused is left stored
    kernel->beforeChange = nullptr;
    service->RemoveRules({AgentPort(4000), AgentPort(4002)});
  }
}

}  // namespace
}  // namespace qel::test
