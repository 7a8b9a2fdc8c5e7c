#include "firewall/firewall_task.h"

#include <gtest/gtest.h>

#include "support/fake_firewall.h"
#include "support/fake_framework.h"

namespace qel::test {
namespace {

using firewall::FirewallTask;
using settings::FirewallSettings;
using settings::PacketRule;
using Calls = std::vector<std::string>;

FirewallSettings SettingsWithLogging(std::initializer_list<bool> logs, bool openPorts = false) {
  FirewallSettings s;
  s.openOstraPorts = openPorts;
  for (bool log : logs) {
    PacketRule rule;
    rule.doLogAttempts = log;
    s.packetRules.push_back(rule);
  }
  return s;
}

class FirewallTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_locator->Register(m_tracer);
    m_locator->Register(m_packetRules);
    m_locator->Register(m_ports);
    ASSERT_EQ(CreateInstance(m_task, m_locator.Get(), std::make_unique<FakeRuleLogger>(m_journal)), oro::errOk);
  }

  // The journal from here on.
  Calls TakeCalls() { return std::exchange(m_journal->calls, {}); }

  std::shared_ptr<CallJournal> m_journal = std::make_shared<CallJournal>();
  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeLocator> m_locator = Make<FakeLocator>();
  oro::RefPtr<FakePacketRules> m_packetRules = Make<FakePacketRules>(m_journal);
  oro::RefPtr<FakeOstraPorts> m_ports = Make<FakeOstraPorts>(m_journal);
  oro::RefPtr<FirewallTask> m_task;
};

TEST(FirewallTaskLogGroups, GroupsFollowRuleIndexWhateverTheNeighbours) {
  EXPECT_EQ(FirewallTask::GetLogGroups(SettingsWithLogging({false, true, false, true, false})),
            (firewall::NflogGroupList{10002, 10004}));
  EXPECT_EQ(FirewallTask::GetLogGroups(SettingsWithLogging({true})), (firewall::NflogGroupList{10001}));
  EXPECT_TRUE(FirewallTask::GetLogGroups(SettingsWithLogging({})).empty());
}

TEST_F(FirewallTaskTest, StartDrivesLoggerPortsRulesAndEnforcementInOrder) {
  const auto settings = SettingsWithLogging({true, false}, true);
  ASSERT_EQ(m_task->SetSettings(&settings), oro::errOk);
  EXPECT_EQ(m_task->Start(7, nullptr), oro::errOk);
  EXPECT_EQ(TakeCalls(), (Calls{"Logger.Start(10001)", "SetApply(true)", "SetPacketRules", "SetEnforce(true)"}));
  EXPECT_EQ(m_packetRules->lastRules, settings);
  EXPECT_TRUE(m_tracer->Contains("Firewall task started"));
}

TEST_F(FirewallTaskTest, SecondStartAndStopWhenStoppedAreRejected) {
  EXPECT_EQ(m_task->Stop(), oro::errInvalidState);
  EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error, "Firewall task is not started so it cannot be stopped"));
  ASSERT_EQ(m_task->Start(1, nullptr), oro::errOk);
  TakeCalls();
  EXPECT_EQ(m_task->Start(1, nullptr), oro::errInvalidState);
  EXPECT_TRUE(TakeCalls().empty());
  EXPECT_TRUE(m_tracer->Contains("m_state == types::TaskState::Stopped"));
  EXPECT_TRUE(m_tracer->Contains("Firewall task is not stopped so it cannot be started"));
}

TEST_F(FirewallTaskTest, FailedStartUndoesWhatItDidInReverse) {
  struct Case {
    std::string failing;
    Calls expected;
    std::string message;
  };
  const Case cases[] = {
      {"Logger.Start()", {"Logger.Start()"}, "Cannot start firewall rules logger"},
      {"SetApply(false)", {"Logger.Start()", "SetApply(false)", "Logger.Stop"}, "Cannot control ostra ports"},
      {"SetPacketRules",
       {"Logger.Start()", "SetApply(false)", "SetPacketRules", "SetApply(false)", "Logger.Stop"},
       "Cannot set firewall packet rules"},
      {"SetEnforce(true)",
       {"Logger.Start()", "SetApply(false)", "SetPacketRules", "SetEnforce(true)", "SetApply(false)", "Logger.Stop"},
       "Cannot turn on firewall packet rules enforcing"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failing);
    m_journal->failures = {{c.failing, oro::errUnexpected}};
    EXPECT_EQ(m_task->Start(1, nullptr), oro::errUnexpected);
    EXPECT_EQ(TakeCalls(), c.expected);
    EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error, c.message));
    EXPECT_TRUE(m_tracer->Contains("result = 0x8000004b"));
    // The task stayed stopped: a clean start works.
    m_journal->failures.clear();
    ASSERT_EQ(m_task->Start(1, nullptr), oro::errOk);
    ASSERT_EQ(m_task->Stop(), oro::errOk);
    TakeCalls();
  }
}

TEST_F(FirewallTaskTest, FailedStartTracesTheFailedCallInAssertionForm) {
  m_journal->failures = {{"SetEnforce(true)", oro::errTimeout}};
  m_task->Start(1, nullptr);
  EXPECT_TRUE(m_tracer->Contains(
      oro::trace_level::Error,
      "(m_packetRules->SetEnforce(true)),(ORO_SUCCEEDED(_result)) failed: result = 0x80000221 (Timeout). "
      "Cannot turn on firewall packet rules enforcing"));
  EXPECT_TRUE(m_tracer->Contains("firewall/firewall_task.cpp("));
}

TEST_F(FirewallTaskTest, StopGoesOnPastFailuresAndNotifiesTheSink) {
  auto sink = Make<FakeStopEvents>();
  ASSERT_EQ(m_task->Start(1, sink.Get()), oro::errOk);
  TakeCalls();
  m_journal->failures = {{"SetEnforce(false)", oro::errUnexpected}, {"Logger.Stop", oro::errUnexpected}};
  EXPECT_EQ(m_task->Stop(), oro::errOk);
  EXPECT_EQ(TakeCalls(), (Calls{"SetEnforce(false)", "Logger.Stop", "SetApply(false)"}));
  EXPECT_TRUE(m_tracer->Contains("Cannot turn off firewall packet rules enforcing"));
  EXPECT_TRUE(m_tracer->Contains("Cannot stop firewall rules logger"));
  ASSERT_EQ(sink->completions.size(), 1u);
  EXPECT_EQ(sink->completions[0].second, "Task successfully stopped");
  EXPECT_EQ(m_task->Stop(), oro::errInvalidState);
  EXPECT_EQ(sink->completions.size(), 1u);
}

TEST_F(FirewallTaskTest, SettingsOfAStoppedTaskAreOnlyStored) {
  const auto settings = SettingsWithLogging({true}, true);
  EXPECT_EQ(m_task->SetSettings(&settings), oro::errOk);
  EXPECT_TRUE(TakeCalls().empty());
  FirewallSettings read;
  EXPECT_EQ(m_task->GetSettings(&read), oro::errOk);
  EXPECT_EQ(read, settings);
  // Construct does the same as SetSettings.
  const auto other = SettingsWithLogging({false, false});
  EXPECT_EQ(m_task->Construct(&other), oro::errOk);
  m_task->GetSettings(&read);
  EXPECT_EQ(read, other);
}

TEST_F(FirewallTaskTest, LiveSettingsChangeRestartsTheLoggerOnTheNewGroups) {
  ASSERT_EQ(m_task->Start(1, nullptr), oro::errOk);
  TakeCalls();
  const auto settings = SettingsWithLogging({false, true}, true);
  EXPECT_EQ(m_task->SetSettings(&settings), oro::errOk);
  EXPECT_EQ(TakeCalls(), (Calls{"Logger.Stop", "SetApply(true)", "SetPacketRules", "Logger.Start(10002)"}));
  FirewallSettings read;
  m_task->GetSettings(&read);
  EXPECT_EQ(read, settings);
}

TEST_F(FirewallTaskTest, FailedLiveRuleUpdateKeepsOldSettingsButLogsNewGroups) {
  const auto old = SettingsWithLogging({true});
  ASSERT_EQ(m_task->SetSettings(&old), oro::errOk);
  ASSERT_EQ(m_task->Start(1, nullptr), oro::errOk);
  TakeCalls();
  m_journal->failures = {{"SetPacketRules", oro::errInvalidArgument}};
  const auto bad = SettingsWithLogging({false, true});
  EXPECT_EQ(m_task->SetSettings(&bad), oro::errInvalidArgument);
  EXPECT_EQ(TakeCalls(), (Calls{"Logger.Stop", "SetApply(false)", "SetPacketRules", "Logger.Start(10002)"}));
  EXPECT_TRUE(m_tracer->Contains("Cannot update firewall packet rules"));
  FirewallSettings read;
  m_task->GetSettings(&read);
  EXPECT_EQ(read, old);
}

TEST_F(FirewallTaskTest, LiveChangeStopsAtALoggerThatWillNotStop) {
  ASSERT_EQ(m_task->Start(1, nullptr), oro::errOk);
  TakeCalls();
  m_journal->failures = {{"Logger.Stop", oro::errUnexpected}};
  const auto settings = SettingsWithLogging({true}, true);
  EXPECT_EQ(m_task->SetSettings(&settings), oro::errUnexpected);
  EXPECT_EQ(TakeCalls(), (Calls{"Logger.Stop"}));
  FirewallSettings read;
  m_task->GetSettings(&read);
  EXPECT_EQ(read, FirewallSettings{});
}

TEST_F(FirewallTaskTest, PauseIsNotSupportedAndInterfacesAnswerByIid) {
  EXPECT_EQ(m_task->Pause(), oro::errNotImplemented);
  EXPECT_EQ(m_task->Resume(), oro::errNotImplemented);
  void* p = reinterpret_cast<void*>(1);
  EXPECT_EQ(m_task->QueryInterface(0x12345678, &p), oro::errNoInterface);
  EXPECT_EQ(p, nullptr);
  auto construct = oro::QueryInterface<firewall::IFirewallTaskConstruct>(static_cast<oro::ITask*>(m_task.Get()));
  auto settings = oro::QueryInterface<firewall::IFirewallTaskSettings>(construct.Get());
  auto primary = oro::QueryInterface<oro::IObject>(settings.Get());
  auto task = oro::QueryInterface<oro::ITask>(settings.Get());
  ASSERT_TRUE(construct && settings && task);
  EXPECT_EQ(static_cast<void*>(primary.Get()), static_cast<void*>(task.Get()));
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
