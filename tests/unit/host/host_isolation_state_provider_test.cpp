#include "host/host_isolation_state_provider.h"

#include <gtest/gtest.h>

#include "support/fake_framework.h"
#include "support/fake_isolation_manager.h"

namespace qel::host {
namespace {

using test::FakeIsolationManager;
using test::Make;
using test::nim::NetworkExclusionRule3;

class HostIsolationStateProviderTest : public ::testing::Test {
 protected:
  void Attach() {
    m_provider->Attach(oro::QueryInterface<HostIsolationStateProvider::StatusProvider>(m_manager->Object()),
                       oro::QueryInterface<firewall::INetworkIsolationReport>(m_manager->Object()));
  }

  oro::RefPtr<FakeIsolationManager> m_manager = Make<FakeIsolationManager>();
  oro::RefPtr<HostIsolationStateProvider> m_provider = Make<HostIsolationStateProvider>();
};

TEST_F(HostIsolationStateProviderTest, ReportsTheManagersClientsWithTheKindTheirRequestNamed) {
  Attach();
  const firewall::NetworkExclusionRules rules{NetworkExclusionRule3{.protocol = 6}};
  m_manager->CreateSession(31, rules);
  m_manager->CreateSession(40, {});
  m_provider->RememberKind(31, 2);

  std::vector<std::uint32_t> ids;
  ASSERT_EQ(m_provider->GetClientIds(ids), oro::errOk);
  EXPECT_EQ(ids, (std::vector<std::uint32_t>{31, 40}));
  firewall::NetworkIsolationClientState state;
  ASSERT_EQ(m_provider->GetClientState(31, state), oro::errOk);
  EXPECT_EQ(state.clientKind, 2u);
  EXPECT_TRUE(state.isRunning);
  // A client recovered after a restart was never named by a request here.
  ASSERT_EQ(m_provider->GetClientState(40, state), oro::errOk);
  EXPECT_EQ(state.clientKind, 0u);
  EXPECT_TRUE(state.isRunning);
  firewall::NetworkExclusionRules got;
  ASSERT_EQ(m_provider->GetClientExclusionRules(31, got), oro::errOk);
  EXPECT_EQ(got, rules);
}

TEST_F(HostIsolationStateProviderTest, AClientThatEndedIsNotRunningAndHasNoRules) {
  Attach();
  m_manager->CreateSession(31, {NetworkExclusionRule3{.protocol = 17}});
  m_provider->RememberKind(31, 2);
  m_manager->DeleteSession(31);
  firewall::NetworkIsolationClientState state;
  ASSERT_EQ(m_provider->GetClientState(31, state), oro::errOk);
  EXPECT_FALSE(state.isRunning);
  firewall::NetworkExclusionRules rules{NetworkExclusionRule3{}};
  EXPECT_EQ(m_provider->GetClientExclusionRules(31, rules), oro::errNotFound);
  EXPECT_EQ(rules.size(), 1u);
}

TEST_F(HostIsolationStateProviderTest, WithoutAManagerOrWhenItFailsItSaysSo) {
  std::vector<std::uint32_t> ids;
  firewall::NetworkIsolationClientState state;
  EXPECT_EQ(m_provider->GetClientIds(ids), oro::errInvalidState);
  EXPECT_EQ(m_provider->GetClientState(31, state), oro::errInvalidState);
  Attach();
  m_manager->reportResult = oro::errUnexpected;
  firewall::NetworkExclusionRules rules;
  EXPECT_EQ(m_provider->GetClientExclusionRules(31, rules), oro::errUnexpected);
  m_provider->Detach();
  EXPECT_EQ(m_provider->GetClientIds(ids), oro::errInvalidState);
}

}  // namespace
}  // namespace qel::host
