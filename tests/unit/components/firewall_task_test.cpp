#include "firewall/firewall_task.h"

#include <gtest/gtest.h>

#include "support/fake_firewall.h"
#include "support/fake_framework.h"

namespace qel::test {
namespace {

using firewall::FirewallTask;
using settings::FirewallSettings;
using Calls = std::vector<std::string>;

FirewallSettings SettingsWithLogging(std::initializer_list<bool> logs, bool openPorts = false) {
  FirewallSettings s;
  s.openOstraPorts = openPorts;
  for (bool log : logs) s.packetRules.emplace_back().doLogAttempts = log;
  return s;
}

class FirewallTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_locator->Register(m_tracer);
    m_locator->Register(m_packetRules);
    m_locator->Register(m_ports);
    auto logger = std::make_unique<FakeRuleLogger>(m_journal);
    m_logger = logger.get();
    ASSERT_EQ(CreateInstance(m_task, m_locator.Get(), std::move(logger)), oro::errOk);
  }

  // The journal from here on.
  Calls TakeCalls() { return std::exchange(m_journal->calls, {}); }
  FirewallSettings Stored() {
    FirewallSettings read;
    EXPECT_EQ(m_task->GetSettings(&read), oro::errOk);
    return read;
  }

  std::shared_ptr<CallJournal> m_journal = std::make_shared<CallJournal>();
  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeLocator> m_locator = Make<FakeLocator>();
  oro::RefPtr<FakePacketRules> m_packetRules = Make<FakePacketRules>(m_journal);
  oro::RefPtr<FakeOstraPorts> m_ports = Make<FakeOstraPorts>(m_journal);
  oro::RefPtr<FirewallTask> m_task;
  FakeRuleLogger* m_logger = nullptr;  // owned by the task
};

TEST(FirewallTaskLogGroups, GroupsFollowRuleIndexWhateverTheNeighbours) {
  EXPECT_EQ(FirewallTask::GetLogGroups(SettingsWithLogging({false, true, false, true, false})),
            (firewall::NflogGroupList{10002, 10004}));
  EXPECT_EQ(FirewallTask::GetLogGroups(SettingsWithLogging({true})), (firewall::NflogGroupList{10001}));
  EXPECT_TRUE(FirewallTask::GetLogGroups(SettingsWithLogging({})).empty());
}

TEST_F(FirewallTaskTest, StartDrivesLoggerPortsRulesAndEnforcementInOrderOnce) {
  EXPECT_EQ(m_task->Stop(), oro::errInvalidState);
  const auto settings = SettingsWithLogging({true, false}, true);
  ASSERT_EQ(m_task->SetSettings(&settings), oro::errOk);
  EXPECT_EQ(m_task->Start(7, nullptr), oro::errOk);
  EXPECT_EQ(TakeCalls(), (Calls{"Logger.Start(10001)", "SetApply(true)", "SetPacketRules", "SetEnforce(true)"}));
  EXPECT_EQ(m_packetRules->lastRules, settings);
  EXPECT_EQ(m_task->Start(1, nullptr), oro::errInvalidState);
  EXPECT_EQ(m_task->SetSettings(nullptr), oro::errInvalidArgument);
  EXPECT_TRUE(TakeCalls().empty());
}

TEST_F(FirewallTaskTest, FailedStartUndoesWhatItDidInReverse) {
  const struct {
    std::string failing;
    Calls expected;
    std::string message;
  } cases[] = {
      {"Logger.Start()", {"Logger.Start()"}, "Cannot start firewall rules logger"},
      {"SetApply(false)", {"Logger.Start()", "SetApply(false)", "Logger.Stop"}, "Cannot control ostra ports"},
      {"SetPacketRules",
       {"Logger.Start()", "SetApply(false)", "SetPacketRules", "SetApply(false)", "Logger.Stop"},
       "Cannot set firewall packet rules"},
      {"SetEnforce(true)",
       {"Logger.Start()", "SetApply(false)", "SetPacketRules", "SetEnforce(true)", "SetEnforce(false)",
        "SetApply(false)", "Logger.Stop"},
       "(m_packetRules->SetEnforce(true)),(ORO_SUCCEEDED(_result)) failed: result = 0x80000221 (Timeout). "
       "Cannot turn on firewall packet rules enforcing"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failing);
    m_journal->failures = {{c.failing, oro::errTimeout}};
    EXPECT_EQ(m_task->Start(1, nullptr), oro::errTimeout);
    EXPECT_EQ(TakeCalls(), c.expected);
    EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error, c.message));
    // The task stayed stopped: a clean start works.
    m_journal->failures.clear();
    ASSERT_EQ(m_task->Start(1, nullptr), oro::errOk);
    ASSERT_EQ(m_task->Stop(), oro::errOk);
    TakeCalls();
  }
}

TEST_F(FirewallTaskTest, StopGoesOnPastFailuresAndNotifiesTheSinkOnce) {
  auto sink = Make<FakeStopEvents>();
  ASSERT_EQ(m_task->Start(1, sink.Get()), oro::errOk);
  TakeCalls();
  m_journal->failures = {{"SetEnforce(false)", oro::errUnexpected}, {"Logger.Stop", oro::errUnexpected}};
  EXPECT_EQ(m_task->Stop(), oro::errOk);
  EXPECT_EQ(TakeCalls(), (Calls{"SetEnforce(false)", "Logger.Stop", "SetApply(false)"}));
  EXPECT_EQ(m_task->Stop(), oro::errInvalidState);
  EXPECT_EQ(sink->completions, (std::vector<std::pair<oro::result_t, std::string>>{
                                   {oro::errOk, "Task successfully stopped"}}));
}

// A stopped logger has no counts worth showing, whatever it still holds.
TEST_F(FirewallTaskTest, NflogCountsAreTheLoggersWhileStartedOnly) {
  m_logger->counts = {{{10001, 7, 2}}, 3};
  auto counters = oro::QueryInterface<firewall::INflogCounters>(static_cast<oro::ITask*>(m_task.Get()));
  ASSERT_TRUE(counters);
  firewall::NflogCounts counts{{{1, 1, 1}}, 1};
  EXPECT_EQ(counters->GetNflogCounts(counts), oro::errOk);
  EXPECT_TRUE(counts.groups.empty() && counts.overruns == 0);
  ASSERT_EQ(m_task->Start(1, nullptr), oro::errOk);
  EXPECT_EQ(counters->GetNflogCounts(counts), oro::errOk);
  ASSERT_EQ(counts.groups.size(), 1u);
  EXPECT_EQ(counts.groups[0].lost, 2u);
  EXPECT_EQ(counts.overruns, 3u);
  ASSERT_EQ(m_task->Stop(), oro::errOk);
  EXPECT_EQ(counters->GetNflogCounts(counts), oro::errOk);
  EXPECT_TRUE(counts.groups.empty());
}

// The logger follows the new groups even when the rules could not be
// updated; the settings are kept only when they were applied. A stopped task
// only stores them.
TEST_F(FirewallTaskTest, LiveSettingsChangeRestartsTheLoggerOnTheNewGroups) {
  const auto old = SettingsWithLogging({true}), next = SettingsWithLogging({false, true}, true);
  const struct {
    std::string failing;
    oro::result_t result;
    Calls calls;
    const FirewallSettings& stored;
  } cases[] = {
      {"", oro::errOk, {"Logger.Stop", "SetApply(true)", "SetPacketRules", "Logger.Start(10002)"}, next},
      {"SetPacketRules", oro::errInvalidArgument,
       {"Logger.Stop", "SetApply(true)", "SetPacketRules", "Logger.Start(10002)"}, old},
      {"SetApply(true)", oro::errUnexpected, {"Logger.Stop", "SetApply(true)", "Logger.Start(10002)"}, old},
      {"Logger.Stop", oro::errUnexpected, {"Logger.Stop"}, old},  // a logger that will not stop ends it
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failing);
    m_journal->failures.clear();
    ASSERT_EQ(m_task->Construct(&old), oro::errOk);
    EXPECT_TRUE(TakeCalls().empty());
    EXPECT_EQ(Stored(), old);
    ASSERT_EQ(m_task->Start(1, nullptr), oro::errOk);
    TakeCalls();
    m_journal->failures = {{c.failing, c.result}};
    EXPECT_EQ(m_task->SetSettings(&next), c.result);
    EXPECT_EQ(TakeCalls(), c.calls);
    EXPECT_EQ(Stored(), c.stored);
    m_task->Stop();
    TakeCalls();
  }
}

TEST(FirewallTaskCreation, FailsWhenACollaboratorIsMissing) {
  auto tracer = Make<FakeTracer>();
  auto locator = Make<FakeLocator>();
  locator->Register(tracer);
  auto journal = std::make_shared<CallJournal>();
  oro::RefPtr<FirewallTask> task;
  EXPECT_EQ(CreateInstance(task, locator.Get(), std::make_unique<FakeRuleLogger>(journal)), oro::errNotFound);
  EXPECT_FALSE(task);
  EXPECT_TRUE(tracer->Contains("Cannot get IOstraPortsControl interface"));
  locator->Register(Make<FakeOstraPorts>(journal));
  EXPECT_EQ(CreateInstance(task, locator.Get(), std::make_unique<FakeRuleLogger>(journal)), oro::errNotFound);
  EXPECT_TRUE(tracer->Contains("Cannot get IPacketRules interface"));
}

}  // namespace
}  // namespace qel::test
