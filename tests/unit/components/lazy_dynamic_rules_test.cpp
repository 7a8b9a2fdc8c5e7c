#include "firewall/lazy_dynamic_rules.h"

#include <gtest/gtest.h>

#include "support/fake_dynamic_rules.h"
#include "support/fake_firewall.h"
#include "support/fake_framework.h"

namespace qel::test {
namespace {

using firewall::RuleDescriptions;
using Texts = std::vector<std::string>;

// The kernel's form of AgentPort(port).
std::string In(std::uint16_t port) { return "in -p tcp -m tcp --dport " + std::to_string(port) + " -j ACCEPT"; }

class LazyDynamicRulesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(firewall::CreateLazyDynamicRules(tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(m_tracer.Get())),
                                               oro::RefPtr<firewall::IDynamicRules>::Share(m_firewall.Get()), m_rules),
              oro::errOk);
  }

  // "+tag rules..." or "- rules..." for each firewall call since the last look.
  Texts TakeCalls() {
    Texts calls;
    const auto all = m_firewall->Calls();
    for (std::size_t i = m_seen; i < all.size(); ++i) {
      std::string call = all[i].add ? "+" + all[i].tag : "-";
      for (const auto& text : KernelTexts(all[i].rules)) call += " | " + text;
      calls.push_back(call);
    }
    m_seen = all.size();
    return calls;
  }

  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeDynamicRules> m_firewall = Make<FakeDynamicRules>();
  oro::RefPtr<firewall::IDynamicRules2> m_rules;
  std::size_t m_seen = 0;
};

TEST_F(LazyDynamicRulesTest, ClientCallsAnswerWhetherTheyHoldTheTagAndTouchNoFirewall) {
  EXPECT_EQ(m_rules->UpdateClient("ni_0x1", {AgentPort(22)}), 0x8000004cu);
  EXPECT_EQ(m_rules->RemoveClient("ni_0x1"), oro::errFalse);
  EXPECT_EQ(m_rules->AddClient("ni_0x1", {AgentPort(22)}), oro::errOk);
  EXPECT_EQ(m_rules->UpdateClient("ni_0x2", {AgentPort(22)}), 0x8000004cu);
  EXPECT_EQ(m_rules->UpdateClient("ni_0x1", {AgentPort(80)}), oro::errOk);
  EXPECT_EQ(m_rules->RemoveClient("ni_0x2"), oro::errFalse);
  EXPECT_EQ(m_rules->RemoveClient("ni_0x1"), oro::errOk);
  EXPECT_EQ(m_rules->RemoveClient("ni_0x1"), oro::errFalse);
  EXPECT_TRUE(TakeCalls().empty());
  EXPECT_EQ(m_rules->Submit(), oro::errOk);
  EXPECT_TRUE(TakeCalls().empty());
}

// One change of the firewall per kind of change, however many clients; a
// rule wanted by two clients stands once and goes with the last of them.
TEST_F(LazyDynamicRulesTest, ABatchIsOneAdditionAndSharedRulesGoWithTheirLastClient) {
  ASSERT_EQ(m_rules->AddClient("ni_0x2", {AgentPort(22), AgentPort(443)}), oro::errOk);
  ASSERT_EQ(m_rules->AddClient("ni_0x1", {AgentPort(22), AgentPort(22)}), oro::errOk);
  ASSERT_EQ(m_rules->AddClient("ni_builtin", {AgentPort(53)}), oro::errOk);
  ASSERT_EQ(m_rules->Submit(), oro::errOk);
  EXPECT_EQ(TakeCalls(), (Texts{"+ni_0x1,ni_0x2,ni_builtin | " + In(22) + " | " + In(443) + " | " + In(53)}));
  EXPECT_TRUE(m_tracer->Contains("Submit() oldStateSize: 0, newStateSize: 3"));

  ASSERT_EQ(m_rules->RemoveClient("ni_0x2"), oro::errOk);
  ASSERT_EQ(m_rules->UpdateClient("ni_builtin", {AgentPort(853)}), oro::errOk);
  ASSERT_EQ(m_rules->Submit(), oro::errOk);
  EXPECT_EQ(TakeCalls(), (Texts{"- | " + In(443) + " | " + In(53), "+ni_0x1,ni_builtin | " + In(853)}));

  ASSERT_EQ(m_rules->RemoveClient("ni_0x1"), oro::errOk);
  ASSERT_EQ(m_rules->Submit(), oro::errOk);
  EXPECT_EQ(m_firewall->HeldTexts(), (Texts{In(853)}));
  ASSERT_EQ(m_rules->Submit(), oro::errOk);
  EXPECT_EQ(TakeCalls().size(), 1u);
}

TEST_F(LazyDynamicRulesTest, ARefusedBatchLeavesTheFirewallAndTheClientsAsBefore) {
  ASSERT_EQ(m_rules->AddClient("ni_0x1", {AgentPort(22), AgentPort(80)}), oro::errOk);
  ASSERT_EQ(m_rules->Submit(), oro::errOk);
  const Texts before = m_firewall->HeldTexts();
  const auto change = [&] {
    ASSERT_EQ(m_rules->UpdateClient("ni_0x1", {AgentPort(80), AgentPort(443)}), oro::errOk);
    ASSERT_EQ(m_rules->AddClient("ni_0x2", {AgentPort(8080)}), oro::errOk);
  };

  // Refused removal: nothing was changed, nothing to put back.
  change();
  m_firewall->Refuse({oro::errTimeout});
  EXPECT_EQ(m_rules->Submit(), oro::errTimeout);
  EXPECT_TRUE(m_tracer->Contains(
      "Submit: remove the extra rules failed: 0x80000221 (Timeout), the changes will be rolled out"));
  EXPECT_EQ(m_firewall->HeldTexts(), before);

  // Refused addition: what the removal took goes back.
  change();
  m_firewall->Refuse({oro::errOk, oro::errUnexpected});
  EXPECT_EQ(m_rules->Submit(), oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains("(m_fw->AddRules(rules, CombineClientsTags(m_newState))),(ORO_SUCCEEDED(_result))"));
  EXPECT_EQ(m_firewall->HeldTexts(), before);

  // The clients went back too: a submit now has nothing to do.
  TakeCalls();
  EXPECT_EQ(m_rules->Submit(), oro::errOk);
  EXPECT_TRUE(TakeCalls().empty());

  // When even the way back is refused, the bookkeeping follows the firewall:
  // the rule it lost is added again as soon as a client asks for it.
  change();
  m_firewall->Refuse({oro::errOk, oro::errUnexpected, oro::errUnexpected});
  EXPECT_EQ(m_rules->Submit(), oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error, "rollback failed, firewall is corrupted"));
  EXPECT_EQ(m_firewall->HeldTexts(), (Texts{In(80)}));
  ASSERT_EQ(m_rules->UpdateClient("ni_0x1", {AgentPort(22), AgentPort(80)}), oro::errOk);
  ASSERT_EQ(m_rules->Submit(), oro::errOk);
  EXPECT_EQ(m_firewall->HeldTexts(), before);
}

TEST(LazyDynamicRulesCreation, NeedsAFirewall) {
  oro::RefPtr<firewall::IDynamicRules2> rules;
  EXPECT_EQ(firewall::CreateLazyDynamicRules({}, nullptr, rules), oro::errInvalidArgument);
  EXPECT_FALSE(rules);
}

}  // namespace
}  // namespace qel::test
