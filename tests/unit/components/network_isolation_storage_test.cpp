#include "firewall/network_isolation_storage.h"

#include <gtest/gtest.h>

#include "support/fake_framework.h"
#include "support/fake_storage.h"

namespace qel::test {
namespace {

namespace nim = system_interceptors::network_isolation_manager;
using namespace firewall::network_isolation_data;
using firewall::NetworkIsolationStorage;
using firewall::SavedSession;
using Step = FakeStorage::Step;

const std::string kManagerNode = "qel.firewall.NetworkIsolationManager";
const std::string kSessionsNode = "qel.firewall.NetworkIsolationManager.Sessions";
const char* kSessionType = "qel::firewall::network_isolation_data::SessionData";

NetworkExclusionRules Rules(std::uint16_t port) {
  return {{.remoteAddress = tools::ParseIpAddress("10.77.0.2"),
           .protocol = 6,
           .remotePortRange = nim::PortRange{port, port}},
          {}};
}

ManagerData Manager() {
  ManagerData data{{31, 0}, {}};
  data.builtIn.pelmServer =
      Endpoint{"pelm.example", {tools::ParseIpAddress("fd77::2")}, {{std::nullopt, 13000, 6, Direction{1}}}};
  return data;
}

class NetworkIsolationStorageTest : public ::testing::Test {
 protected:
  NetworkIsolationStorage Steps() {
    return NetworkIsolationStorage(tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(m_tracer.Get())),
                                   Make<FakeStorageNode>(m_storage).Get(), m_serializer.Get());
  }
  std::vector<std::string> Children(const FakeStorage::Tree& tree) {
    std::vector<std::string> names;
    for (const auto& child : tree.children) names.push_back(child.first);
    return names;
  }
  FakeStorage::Tree& DurableSessions() { return *m_storage->durable.Child(kSessionsNode); }
  // Saved state as the next start of the service reads it.
  std::vector<SavedSession> LoadAfterRestart(oro::result_t expected = oro::errOk) {
    m_storage->Restart();
    std::vector<SavedSession> sessions;
    EXPECT_EQ(Steps().LoadSessions(sessions), expected);
    return sessions;
  }

  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  std::shared_ptr<FakeStorage> m_storage = std::make_shared<FakeStorage>();
  oro::RefPtr<FakeSerializer> m_serializer = Make<FakeSerializer>();
};

TEST_F(NetworkIsolationStorageTest, ManagerAndSessionsSurviveARestartUnderTheirNodes) {
  auto steps = Steps();
  ASSERT_EQ(steps.SaveManager(Manager()), oro::errOk);
  ASSERT_EQ(steps.SaveSession(31, Rules(443)), oro::errOk);
  ASSERT_EQ(steps.SaveSession(0, Rules(22)), oro::errOk);
  ASSERT_EQ(steps.SaveSession(31, Rules(8443)), oro::errOk);  // replaced, keeps its place

  EXPECT_EQ(Children(m_storage->durable), (std::vector<std::string>{kManagerNode, kSessionsNode}));
  EXPECT_EQ(Children(DurableSessions()), (std::vector<std::string>{"ni_0x1f", "ni_0x0"}));
  // Tagged with its type by the serialiser, and holding its own tag.
  const auto& stored = std::get<oro::SerValue::Fields>(DurableSessions().Child("ni_0x1f")->value->value);
  EXPECT_EQ(stored.at(0).second, oro::SerValue{std::string(kSessionType)});
  EXPECT_EQ(std::get<oro::SerValue::Fields>(stored.at(1).second.value).at(0),
            (std::pair<std::string, oro::SerValue>{"firewallTag", {std::string("ni_0x1f")}}));

  EXPECT_EQ(LoadAfterRestart(), (std::vector<SavedSession>{{31, Rules(8443)}, {0, Rules(22)}}));
  ManagerData manager;
  EXPECT_EQ(Steps().LoadManager(manager), oro::errOk);
  EXPECT_EQ(manager, Manager());
}

TEST_F(NetworkIsolationStorageTest, EndedSessionNoLongerLoads) {
  auto steps = Steps();
  ASSERT_EQ(steps.SaveSession(31, Rules(443)), oro::errOk);
  ASSERT_EQ(steps.SaveSession(7, Rules(22)), oro::errOk);
  EXPECT_EQ(steps.ClearSession(31), oro::errOk);
  EXPECT_EQ(steps.ClearSession(99), oro::errFalse);
  EXPECT_EQ(LoadAfterRestart(), (std::vector<SavedSession>{{7, Rules(22)}}));
  EXPECT_FALSE(m_tracer->Contains(oro::trace_level::Error, ""));
}

TEST_F(NetworkIsolationStorageTest, NothingSavedIsNoError) {
  ManagerData manager = Manager();
  EXPECT_EQ(Steps().LoadManager(manager), oro::errFalse);
  EXPECT_EQ(manager, Manager());
  EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Warning, "There's no saved network isolation data"));
  EXPECT_EQ(LoadAfterRestart(oro::errFalse), std::vector<SavedSession>{});
  EXPECT_FALSE(m_tracer->Contains(oro::trace_level::Error, ""));
}

TEST_F(NetworkIsolationStorageTest, DuringRecoveryNothingIsWrittenAndSavesAnswerFalse) {
  auto steps = Steps();
  ASSERT_EQ(steps.SaveSession(31, Rules(443)), oro::errOk);
  const int flushes = m_storage->flushes;
  steps.SetRecoverMode(true);
  EXPECT_EQ(steps.SaveManager(Manager()), oro::errFalse);
  EXPECT_EQ(steps.SaveSession(5, Rules(22)), oro::errFalse);
  EXPECT_EQ(steps.ClearSession(31), oro::errFalse);
  EXPECT_EQ(m_storage->flushes, flushes);
  EXPECT_EQ(Children(m_storage->live), std::vector<std::string>{kSessionsNode});
  EXPECT_EQ(LoadAfterRestart(), (std::vector<SavedSession>{{31, Rules(443)}}));

  steps.SetRecoverMode(false);
  EXPECT_EQ(steps.SaveManager(Manager()), oro::errOk);
}

// A record that cannot be read must not keep the firewall from starting: it
// is reported by name and the other sessions still load.
TEST_F(NetworkIsolationStorageTest, UnreadableSessionIsReportedAndSkipped) {
  auto steps = Steps();
  for (std::uint32_t id : {1u, 2u, 3u, 4u, 5u}) ASSERT_EQ(steps.SaveSession(id, Rules(443)), oro::errOk);
  auto& sessions = m_storage->live.children.back().second;
  // Wrong shape, another type's record, a record filed under another client,
  // and a node that cannot be reached.
  sessions.Child("ni_0x1")->value = FakeSerializer::Tagged(
      kSessionType, {oro::SerValue::Fields{{"firewallTag", {std::string("ni_0x1")}},
                                           {"endpointExclusions3", {std::string("garbage")}}}});
  sessions.Child("ni_0x3")->value = FakeSerializer::Tagged("qel::firewall::network_isolation_data::ManagerData", {});
  sessions.Child("ni_0x4")->value = sessions.Child("ni_0x2")->value;
  m_storage->Flush({kSessionsNode});
  m_storage->Fail(Step::GetNode, "ni_0x5", oro::errUnexpected);

  EXPECT_EQ(LoadAfterRestart(), (std::vector<SavedSession>{{2, Rules(443)}}));
  for (const char* name : {"ni_0x1", "ni_0x3", "ni_0x4", "ni_0x5"}) {
    EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error,
                                   std::string("Saved network isolation session skipped, nodeName=") + name));
  }
  EXPECT_TRUE(m_tracer->Contains("Cannot deserialize persistent data, nodeName=ni_0x1"));
  EXPECT_TRUE(m_tracer->Contains("nodeName=ni_0x4, firewallTag=ni_0x2"));
  EXPECT_TRUE(m_tracer->Contains("Cannot get session node, nodeName=ni_0x5"));
  EXPECT_FALSE(m_tracer->Contains("nodeName=ni_0x2"));
}

TEST_F(NetworkIsolationStorageTest, UnreadableManagerRecordIsAnError) {
  ASSERT_EQ(Steps().SaveManager(Manager()), oro::errOk);
  m_storage->durable.Child(kManagerNode)->value = FakeSerializer::Tagged(kSessionType, {});
  m_storage->Restart();
  ManagerData manager;
  EXPECT_EQ(Steps().LoadManager(manager), oro::errInvalidArgument);
  EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error, "Cannot deserialize persistent data"));
  EXPECT_EQ(manager, ManagerData{});
}

struct FailingStep {
  Step step;
  std::string nodeName;
  const char* operation;
  std::string trace;
};

// Each step that fails is traced with its own words and its code comes back.
TEST_F(NetworkIsolationStorageTest, FailedStepIsTracedAndReturned) {
  constexpr oro::result_t kCode = 0x80060005;
  const std::vector<FailingStep> failures = {
      {Step::GetOrAppendNode, kManagerNode, "manager", "Cannot get node, nodeName=" + kManagerNode},
      {Step::Clear, kManagerNode, "manager", "Cannot clear storage node"},
      {Step::SetValue, kManagerNode, "manager", "Cannot serialize persistent data"},
      {Step::Flush, kManagerNode, "manager", "Cannot save persistent data"},
      {Step::GetOrAppendNode, kSessionsNode, "session", "Cannot get node, nodeName=" + kSessionsNode},
      {Step::GetOrAppendNode, "ni_0x1f", "session", "Cannot get node, nodeName=ni_0x1f"},
      {Step::Clear, "ni_0x1f", "session", "Cannot clear storage node"},
      {Step::SetValue, "ni_0x1f", "session", "Cannot serialize persistent data"},
      {Step::Flush, kSessionsNode, "session", "Cannot save session data"},
      {Step::GetNode, kSessionsNode, "clear", "Cannot get root sessions node, nodeName=" + kSessionsNode},
      {Step::GetNode, "ni_0x1f", "clear", "Cannot get session node, nodeName=ni_0x1f"},
      {Step::Clear, "ni_0x1f", "clear", "Cannot clear storage node"},
      {Step::Flush, kSessionsNode, "clear", "Cannot save session data"},
      {Step::GetNode, kManagerNode, "load manager", "Cannot get node, nodeName=" + kManagerNode},
      {Step::GetValue, kManagerNode, "load manager", "Cannot deserialize persistent data"},
      {Step::GetNode, kSessionsNode, "load sessions", "Cannot get root sessions node, nodeName=" + kSessionsNode},
      {Step::GetChildNames, kSessionsNode, "load sessions",
       "Cannot get root sessions node, nodeName=" + kSessionsNode},
  };
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.trace + " in " + failure.operation);
    m_storage = std::make_shared<FakeStorage>();
    m_tracer = Make<FakeTracer>();
    auto steps = Steps();
    ASSERT_EQ(steps.SaveManager(Manager()), oro::errOk);
    ASSERT_EQ(steps.SaveSession(31, Rules(443)), oro::errOk);
    m_storage->Fail(failure.step, failure.nodeName, kCode);

    const std::string operation = failure.operation;
    ManagerData manager;
    std::vector<SavedSession> sessions;
    const oro::result_t r = operation == "manager"        ? steps.SaveManager(Manager())
                            : operation == "session"      ? steps.SaveSession(31, Rules(22))
                            : operation == "clear"        ? steps.ClearSession(31)
                            : operation == "load manager" ? steps.LoadManager(manager)
                                                          : steps.LoadSessions(sessions);
    EXPECT_EQ(r, kCode);
    EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error, ". " + failure.trace));
    EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error, "result = 0x80060005"));
  }
}

}  // namespace
}  // namespace qel::test
