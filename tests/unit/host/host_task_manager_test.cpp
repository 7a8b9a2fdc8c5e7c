#include "host/host_task_manager.h"

#include <gtest/gtest.h>

#include <future>

#include "support/fake_framework.h"
#include "support/fake_isolation_manager.h"

namespace qel::host {
namespace {

using test::FakeIsolationManager;
using test::Make;

class Completion final : public ObjectImpl<Completion, oro::ITaskCompletionEvent> {
 public:
  void OnTaskCompleted(oro::result_t taskResult) noexcept override { m_result.set_value(taskResult); }
  oro::result_t Wait() { return m_future.get(); }

 private:
  std::promise<oro::result_t> m_result;
  std::future<oro::result_t> m_future = m_result.get_future();
};

class HostTaskManagerTest : public ::testing::Test {
 protected:
  HostTaskManagerTest() { m_tasks->Attach(oro::RefPtr<HostTaskManager::IsolationManager>::Share(m_manager.Get())); }

  // The facade's way of starting a stop task for a client.
  oro::result_t RunStop(const std::string& task, const std::string& clientId) {
    oro::TaskProfileId profile = 0;
    if (auto r = m_tasks->GetTaskProfile(task, profile); oro::Failed(r)) return r;
    oro::TaskSessionId session = 0;
    if (auto r = m_tasks->CreateTaskSession(profile, oro::session_creation_disposition::CreateNew, session);
        oro::Failed(r)) {
      return r;
    }
    if (auto r = m_tasks->UpdateTaskConfiguration(session, {{{"clientId", clientId}}}); oro::Failed(r)) return r;
    auto completion = Make<Completion>();
    if (auto r = m_tasks->StartTaskAsync(session, {7, "test"}, completion.Get()); oro::Failed(r)) return r;
    return completion->Wait();
  }

  std::vector<std::string> m_nodes;
  oro::RefPtr<FakeIsolationManager> m_manager = Make<FakeIsolationManager>();
  oro::RefPtr<HostTaskManager> m_tasks = Make<HostTaskManager>([this] { return m_nodes; });
};

TEST_F(HostTaskManagerTest, EachStopTaskEndsTheSessionOfItsClientAndTellsTheResult) {
  for (std::uint32_t client : {31u, 32u, 4294967295u}) m_manager->CreateSession(client, {});
  EXPECT_EQ(RunStop("TamberNetworkIsolationStop", "31"), oro::errOk);
  EXPECT_EQ(RunStop("RuskNetworkIsolationStop", "32"), oro::errOk);
  EXPECT_EQ(RunStop("xdr_networkisolation_stop", "4294967295"), oro::errOk);
  EXPECT_EQ(m_manager->Deleted(), (std::vector<std::uint32_t>{31, 32, 4294967295u}));
  // The manager's refusal of a client that no longer isolates reaches the waiter.
  EXPECT_EQ(RunStop("TamberNetworkIsolationStop", "31"), oro::errNotFound);
}

TEST_F(HostTaskManagerTest, RefusesUnknownTasksAndBadClientIds) {
  oro::TaskProfileId profile = 0;
  EXPECT_EQ(m_tasks->GetTaskProfile("SomeOtherTask", profile), oro::errNotFound);
  oro::TaskSessionId session = 0;
  EXPECT_EQ(m_tasks->CreateTaskSession(999, oro::session_creation_disposition::CreateNew, session), oro::errNotFound);
  for (const char* bad : {"", "-1", "4294967296", "31 ", "0x1f"}) {
    EXPECT_EQ(RunStop("TamberNetworkIsolationStop", bad), oro::errInvalidArgument) << bad;
  }
  // Started without a client: nothing to stop.
  ASSERT_EQ(m_tasks->GetTaskProfile("RuskNetworkIsolationStop", profile), oro::errOk);
  ASSERT_EQ(m_tasks->CreateTaskSession(profile, oro::session_creation_disposition::CreateNew, session), oro::errOk);
  auto completion = Make<Completion>();
  EXPECT_EQ(m_tasks->StartTaskAsync(session, {}, completion.Get()), oro::errInvalidState);
  EXPECT_TRUE(m_manager->Deleted().empty());
}

TEST_F(HostTaskManagerTest, AfterShutdownNoStopTaskRuns) {
  m_manager->CreateSession(31, {});
  m_tasks->Shutdown();
  EXPECT_EQ(RunStop("TamberNetworkIsolationStop", "31"), oro::errInvalidState);
  EXPECT_TRUE(m_manager->Deleted().empty());
}

TEST_F(HostTaskManagerTest, TheEdrTaskCarriesTheConfiguredServerNodes) {
  oro::TaskSettings settings;
  EXPECT_EQ(m_tasks->GetTaskSettings("TamberEdr", settings), oro::errNotFound);
  m_nodes = {"kata1.example:443", "10.0.0.9:8443"};
  ASSERT_EQ(m_tasks->GetTaskSettings("TamberEdr", settings), oro::errOk);
  EXPECT_EQ(settings.values, (std::vector<std::pair<std::string, std::string>>{
                                 {"serverNode", "kata1.example:443"}, {"serverNode", "10.0.0.9:8443"}}));
  EXPECT_EQ(m_tasks->GetTaskSettings("OtherTask", settings), oro::errNotFound);
}

}  // namespace
}  // namespace qel::host
