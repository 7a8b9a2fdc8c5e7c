#include "firewall/network_isolation_facade.h"

#include <gtest/gtest.h>

#include "support/fake_framework.h"
#include "support/fake_isolation.h"

namespace qel::test {
namespace {

using firewall::NetworkIsolationFacade;
using firewall::NetworkIsolationClientState;

class NetworkIsolationFacadeTest : public ::testing::Test {
 protected:
  NetworkIsolationFacadeTest() {
    m_locator->Register(m_tracer);
    m_locator->Register(m_states);
    m_locator->Register(m_tasks);
  }
  oro::RefPtr<NetworkIsolationFacade> Facade(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    return Make<NetworkIsolationFacade>(m_locator.Get(), timeout);
  }
  static NetworkIsolationClientState Client(std::uint32_t id, std::uint32_t kind, bool running = true) {
    return {.clientId = id, .initiatorId = 7, .clientKind = kind, .isRunning = running};
  }

  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeLocator> m_locator = Make<FakeLocator>();
  oro::RefPtr<FakeStateProvider> m_states = Make<FakeStateProvider>();
  oro::RefPtr<FakeTaskManager> m_tasks = Make<FakeTaskManager>();
};

TEST_F(NetworkIsolationFacadeTest, TurnOffWithoutClientsStartsNothing) {
  m_states->states = {Client(31, 0, false)};
  EXPECT_EQ(Facade()->TurnOff(), oro::errOk);
  EXPECT_TRUE(m_tasks->started.empty());
  EXPECT_TRUE(m_tracer->Contains("There aren't isolation network clients"));
}

TEST_F(NetworkIsolationFacadeTest, TurnOffStartsEachRunningClientsStopTaskInOrder) {
  m_states->states = {Client(31, 0), Client(40, 9, false), Client(32, 2), Client(33, 5)};
  m_states->rules[32] = {{.protocol = 17}};
  auto facade = Facade();

  firewall::NetworkIsolationClientStates running;
  firewall::NetworkExclusionRules rules;
  ASSERT_EQ(facade->GetRunningIsolationClients(running, &rules), oro::errOk);
  ASSERT_EQ(running.size(), 3u);
  EXPECT_EQ(rules, m_states->rules[32]);

  ASSERT_EQ(facade->TurnOff(), oro::errOk);
  EXPECT_EQ(m_tasks->started, (std::vector<std::string>{"TamberNetworkIsolationStop", "RuskNetworkIsolationStop",
                                                        "xdr_networkisolation_stop"}));
  ASSERT_EQ(m_tasks->configurations.size(), 3u);
  EXPECT_EQ(m_tasks->configurations[1].values,
            (std::vector<std::pair<std::string, std::string>>{{"clientId", "32"}}));
  EXPECT_TRUE(m_tracer->Contains("network isolation client=32 mapped to taskName=RuskNetworkIsolationStop"));
}

TEST_F(NetworkIsolationFacadeTest, AStopTaskThatFailsOrNeverEndsIsReported) {
  m_states->states = {Client(31, 1)};
  m_tasks->taskResult = oro::errUnexpected;
  EXPECT_EQ(Facade()->TurnOff(), oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains(" Stop network isolation task failed"));

  m_tasks->neverComplete = true;
  EXPECT_EQ(Facade(std::chrono::milliseconds(20))->TurnOff(), oro::errTimeout);
  EXPECT_TRUE(m_tracer->Contains("Waiting is timed out"));
}

}  // namespace
}  // namespace qel::test
