#include "firewall/table_reconciler.h"

#include <gtest/gtest.h>

#include "firewall/chain_layout.h"
#include "support/fake_framework.h"
#include "support/fake_kernel.h"

namespace qel::test {
namespace {

using firewall::Chain;
using firewall::Rule;
using firewall::State;
using Lines = std::vector<std::string>;

const FakeKernel::Table kFilter{types::IPAddressFamily::IPv4, "filter"};

Rule R(const std::string& match, const std::string& target) {
  Rule rule;
  rule.match = firewall::SplitTokens(match);
  rule.target = firewall::SplitTokens(target);
  return rule;
}

// The module's usual shape: INPUT jumps to vorn_input, which holds `rules`.
State Wanted(std::vector<Rule> rules) {
  if (rules.empty()) return {};
  return State{{Chain{"INPUT", {R("", "vorn_input")}}, Chain{"vorn_input", std::move(rules)}}};
}

Lines Script(const firewall::ChangeList& changes) {
  Lines lines;
  for (const auto& change : changes) lines.push_back(firewall::ChangeLine(change));
  return lines;
}

Lines Entries(const std::vector<firewall::ChainRule>& entries) {
  Lines lines;
  for (const auto& entry : entries) lines.push_back(entry.chain + ": " + firewall::RuleText(entry.rule));
  return lines;
}

class TableReconcilerTest : public ::testing::Test {
 protected:
  // One synchronisation: compare, apply to the fake kernel, remember what
  // was installed. Returns the script lines.
  Lines Sync(const State& next) {
    last = firewall::TableReconciler(tracer, "test ").Reconcile(previous, kernel->TableOf(kFilter), next);
    const Lines lines = Script(last.changes);
    if (!last.changes.empty()) {
      EXPECT_EQ(kernel->ChangeState(kFilter.first, kFilter.second, last.changes), oro::errOk)
          << ::testing::PrintToString(lines);
    }
    previous = next;
    return lines;
  }
  // Rules in the kernel, for changes made behind the module's back.
  std::vector<Rule>& InKernel(const std::string& chain) { return kernel->FindChain(kFilter, chain)->ruleList; }
  Lines Texts(const std::string& chain) { return kernel->Texts(kFilter, chain); }

  oro::RefPtr<FakeKernel> kernel = Make<FakeKernel>();
  oro::RefPtr<FakeTracer> traces = Make<FakeTracer>();
  tracing::Tracer tracer{oro::RefPtr<oro::ITracer>::Share(traces.Get())};
  State previous;
  firewall::TableSyncResult last;
};

TEST_F(TableReconcilerTest, FirstSyncCreatesChainsAndPutsTheJumpFirstThenConverges) {
  InKernel("INPUT").insert(InKernel("INPUT").begin(), R("-s 192.0.2.1/32", "DROP"));
  const auto wanted = Wanted({R("-i lo", "ACCEPT"), R("", "DROP")});
  EXPECT_EQ(Sync(wanted), (Lines{":vorn_input - [0:0]", "-I INPUT 1 -j vorn_input", "-A vorn_input -i lo -j ACCEPT",
                                 "-A vorn_input -j DROP"}));
  EXPECT_EQ(Texts("INPUT"), (Lines{"-j vorn_input", "-s 192.0.2.1/32 -j DROP"}));
  EXPECT_TRUE(traces->Contains("Custom chain 'vorn_input' should be created"));
  EXPECT_TRUE(Sync(wanted).empty());
}

TEST_F(TableReconcilerTest, SmallSettingsChangesGiveSmallScriptsInTheRightPlace) {
  const Rule a = R("-p tcp --dport 1", "ACCEPT"), b = R("-p tcp --dport 2", "ACCEPT"),
             c = R("-p tcp --dport 3", "ACCEPT"), d = R("", "DROP"), u = R("-p udp", "ACCEPT");
  Sync(Wanted({a, b, c, d}));
  EXPECT_EQ(Sync(Wanted({a, u, b, c, d})), (Lines{"-I vorn_input 2 -p udp -j ACCEPT"}));
  EXPECT_EQ(Sync(Wanted({a, u, c, d})), (Lines{"-D vorn_input -p tcp --dport 2 -j ACCEPT"}));
  // Reordering moves only what must move.
  EXPECT_EQ(Sync(Wanted({c, a, u, d})),
            (Lines{"-D vorn_input -p tcp --dport 3 -j ACCEPT", "-I vorn_input 1 -p tcp --dport 3 -j ACCEPT"}));
  EXPECT_EQ(Texts("vorn_input"),
            (Lines{"-p tcp --dport 3 -j ACCEPT", "-p tcp --dport 1 -j ACCEPT", "-p udp -j ACCEPT", "-j DROP"}));
  EXPECT_TRUE(Sync(Wanted({c, a, u, d})).empty());
}

// Past a few hundred deletes and inserts in one chain the tools would
// search the chain for each; the chain is flushed and filled again instead.
TEST_F(TableReconcilerTest, LargeChangesRebuildTheChainSmallOnesDoNot) {
  const auto ports = [](int first, int count, int step) {
    std::vector<Rule> rules;
    for (int i = 0; i < count; ++i) rules.push_back(R("-p tcp --dport " + std::to_string(first + i * step), "ACCEPT"));
    return rules;
  };
  const auto texts = [](const std::vector<Rule>& rules) {
    Lines lines;
    for (const auto& rule : rules) lines.push_back(firewall::RuleText(rule));
    return lines;
  };
  Sync(Wanted(ports(1, 1000, 1)));
  auto everySecondChanged = ports(1, 1000, 1);
  for (std::size_t i = 1; i < everySecondChanged.size(); i += 2) everySecondChanged[i] = ports(20000 + static_cast<int>(i), 1, 1)[0];
  const Lines script = Sync(Wanted(everySecondChanged));
  ASSERT_EQ(script.size(), 1001u);
  EXPECT_EQ(script[0], "-F vorn_input");
  EXPECT_EQ(script[2], "-A vorn_input -p tcp --dport 20001 -j ACCEPT");
  EXPECT_EQ(Texts("vorn_input"), texts(everySecondChanged));
  EXPECT_TRUE(traces->Contains("Chain 'vorn_input' is rebuilt instead of 1000 changes"));
  EXPECT_TRUE(Sync(Wanted(everySecondChanged)).empty());

  auto fewChanged = everySecondChanged;
  for (std::size_t i = 0; i < 100; ++i) fewChanged[i * 7] = ports(30000 + static_cast<int>(i), 1, 1)[0];
  EXPECT_EQ(Sync(Wanted(fewChanged)).size(), 200u);
  EXPECT_EQ(Texts("vorn_input"), texts(fewChanged));
}

TEST_F(TableReconcilerTest, EqualRulesInAnUnluckyOrderStillEndInTheWantedOrder) {
  const Rule x = R("-p tcp", "ACCEPT"), y = R("-p udp", "ACCEPT");
  Sync(Wanted({x, y, x}));
  Sync(Wanted({y, x, x, y}));
  EXPECT_EQ(Texts("vorn_input"),
            (Lines{"-p udp -j ACCEPT", "-p tcp -j ACCEPT", "-p tcp -j ACCEPT", "-p udp -j ACCEPT"}));
  Sync(Wanted({x, y}));
  EXPECT_EQ(Texts("vorn_input"), (Lines{"-p tcp -j ACCEPT", "-p udp -j ACCEPT"}));
  EXPECT_TRUE(Sync(Wanted({x, y})).empty());
  // The rule to go equals one at the head, which stands as wanted: a delete
  // by rule text would take that one instead.
  const Rule z = R("-p icmp", "ACCEPT"), q = R("-p \"tcp\"", "ACCEPT");
  Sync(Wanted({x, y, x, z}));
  Sync(Wanted({x, y, z}));
  EXPECT_EQ(Texts("vorn_input"), (Lines{"-p tcp -j ACCEPT", "-p udp -j ACCEPT", "-p icmp -j ACCEPT"}));
  Sync(Wanted({x, y, q, z}));
  Sync(Wanted({x, y, z}));
  EXPECT_EQ(Texts("vorn_input"), (Lines{"-p tcp -j ACCEPT", "-p udp -j ACCEPT", "-p icmp -j ACCEPT"}));
}

// Every change between short chains of two rules that may repeat: wherever
// equal rules stand (at the head, among the rules to delete, in the tail),
// the kernel ends in the wanted order, and a second pass finds nothing to do.
TEST_F(TableReconcilerTest, EveryChangeBetweenChainsOfRepeatedRulesEndsInTheWantedOrder) {
  const Rule rules[] = {R("-p tcp", "ACCEPT"), R("-p udp", "ACCEPT")};
  std::vector<std::vector<Rule>> chains = {{}};
  for (std::size_t length = 1; length <= 4; ++length) {
    const auto shorter = chains;
    for (const auto& chain : shorter) {
      if (chain.size() + 1 != length) continue;
      for (const auto& rule : rules) {
        chains.push_back(chain);
        chains.back().push_back(rule);
      }
    }
  }
  for (const auto& installed : chains) {
    for (const auto& wanted : chains) {
      kernel = Make<FakeKernel>();
      previous = {};
      Sync(Wanted(installed));
      const Lines script = Sync(Wanted(wanted));
      Lines expected;
      for (const auto& rule : wanted) expected.push_back(firewall::RuleText(rule));
      ASSERT_EQ(Texts("vorn_input"), expected) << ::testing::PrintToString(script);
      ASSERT_TRUE(Sync(Wanted(wanted)).empty());
    }
  }
}

// Skipping work never changes the outcome: with the shortcuts and without,
// the same script and the same reports, whatever the kernel holds.
TEST_F(TableReconcilerTest, ShortcutsGiveWhatThePlainPathGives) {
  const auto sameBothWays = [&](const char* what, const State& next) {
    const State current = kernel->TableOf(kFilter);
    const auto fast = firewall::TableReconciler(tracer, "").Reconcile(previous, current, next);
    const auto plain = firewall::TableReconciler(tracer, "", {.shortcuts = false}).Reconcile(previous, current, next);
    EXPECT_EQ(Script(fast.changes), Script(plain.changes)) << what;
    EXPECT_EQ(Entries(fast.missing), Entries(plain.missing)) << what;
    EXPECT_EQ(Entries(fast.extra), Entries(plain.extra)) << what;
    Sync(next);
  };
  const Rule a = R("-p tcp --dport 1", "ACCEPT"), b = R("-p tcp --dport 2", "ACCEPT"),
             c = R("-p tcp --dport 3", "ACCEPT"), u = R("-p udp", "ACCEPT"), x = R("-p tcp", "ACCEPT"),
             quoted = R("-p \"tcp\"", "ACCEPT");
  sameBothWays("first install", Wanted({a, b, c}));
  sameBothWays("steady poll", Wanted({a, b, c}));
  sameBothWays("one rule changed in the middle", Wanted({a, u, c}));
  InKernel("vorn_input").erase(InKernel("vorn_input").begin());
  InKernel("vorn_input").push_back(R("-s 198.51.100.7/32", "ACCEPT"));
  InKernel("INPUT").insert(InKernel("INPUT").begin() + 1, R("-p icmp", "ACCEPT"));
  sameBothWays("changed behind the module's back", Wanted({a, u, c}));
  sameBothWays("a foreign rule in a built-in chain", Wanted({a, u, c}));
  sameBothWays("a twin written with quotes added at the head", Wanted({quoted, u, x}));
  sameBothWays("a delete that would hit an equal rule at the head", Wanted({quoted, u}));
  sameBothWays("everything removed", {});
  // Equal rules written differently: which of them stays does not depend
  // on how the rules that stand as wanted are found.
  sameBothWays("first install of equal rules written differently", Wanted({quoted, x}));
  sameBothWays("equal rules written differently", Wanted({x}));
}

TEST_F(TableReconcilerTest, ForeignChangesAreReportedAndRepairedOnlyInOwnedChains) {
  const auto wanted = Wanted({R("-i lo", "ACCEPT"), R("-p tcp --dport 22", "ACCEPT"), R("", "DROP")});
  Sync(wanted);
  InKernel("vorn_input").erase(InKernel("vorn_input").begin() + 1);        // someone deletes a module rule
  InKernel("vorn_input").push_back(R("-s 198.51.100.7/32", "ACCEPT"));      // and appends one of their own
  InKernel("INPUT").insert(InKernel("INPUT").begin() + 1, R("-p icmp", "ACCEPT"));  // and uses INPUT
  Sync(wanted);
  ASSERT_EQ(last.missing.size(), 1u);
  EXPECT_EQ(firewall::RuleText(last.missing[0].rule), "-p tcp --dport 22 -j ACCEPT");
  ASSERT_EQ(last.extra.size(), 1u);
  EXPECT_EQ(last.extra[0].chain, "vorn_input");
  EXPECT_TRUE(traces->Contains(tracing::Warning, "Missing rule '-p tcp --dport 22 -j ACCEPT' will be re-added"));
  EXPECT_TRUE(traces->Contains(tracing::Warning, "Extra rule '-s 198.51.100.7/32 -j ACCEPT' will be removed"));
  EXPECT_TRUE(traces->Contains(tracing::Warning, "Integrity broken. Chain state:"));
  EXPECT_EQ(Texts("vorn_input"), (Lines{"-i lo -j ACCEPT", "-p tcp --dport 22 -j ACCEPT", "-j DROP"}));
  EXPECT_EQ(Texts("INPUT"), (Lines{"-j vorn_input", "-p icmp -j ACCEPT"}));
  Sync(wanted);
  EXPECT_TRUE(last.missing.empty() && last.extra.empty() && last.changes.empty());
}

TEST_F(TableReconcilerTest, RulesNoLongerWantedAreNeitherMissingNorExtra) {
  Sync(Wanted({R("-p tcp", "ACCEPT"), R("-p udp", "ACCEPT")}));
  InKernel("vorn_input").pop_back();  // removed by hand, and no longer wanted
  Sync(Wanted({R("-p tcp", "ACCEPT"), R("-p icmp", "ACCEPT")}));
  EXPECT_TRUE(last.missing.empty() && last.extra.empty());
  // A foreign rule that happens to be wanted now is adopted, not reported.
  InKernel("vorn_input").push_back(R("-p gre", "ACCEPT"));
  Sync(Wanted({R("-p tcp", "ACCEPT"), R("-p icmp", "ACCEPT"), R("-p gre", "ACCEPT")}));
  EXPECT_TRUE(last.extra.empty());
}

TEST_F(TableReconcilerTest, LeftoversOfADeadModuleAreAdoptedOrRemoved) {
  // As a killed module leaves it: chains, rules, a jump, and a chain the
  // new settings do not use.
  State leftovers = Wanted({R("", "vorn_pre_isolation"), R("-p tcp", "ACCEPT"), R("-p udp", "DROP")});
  leftovers.chainList.push_back(Chain{"vorn_pre_isolation", {R("", "DROP")}});
  Sync(leftovers);
  previous = {};
  Sync(Wanted({R("-p tcp", "ACCEPT")}));
  EXPECT_EQ(last.extra.size(), 2u);  // the udp rule and the isolation jump
  EXPECT_TRUE(last.missing.empty());
  EXPECT_EQ(Texts("INPUT"), (Lines{"-j vorn_input"}));
  EXPECT_EQ(Texts("vorn_input"), (Lines{"-p tcp -j ACCEPT"}));
  EXPECT_EQ(kernel->FindChain(kFilter, "vorn_pre_isolation"), nullptr);
}

TEST_F(TableReconcilerTest, RemovingEverythingDropsTheJumpBeforeTheChains) {
  Sync(Wanted({R("-p tcp", "ACCEPT")}));
  EXPECT_EQ(Sync({}), (Lines{"-D INPUT -j vorn_input", "-F vorn_input", "-X vorn_input"}));
  EXPECT_TRUE(traces->Contains("No need to explicitly delete rules from chain 'vorn_input', it will be flushed"));
  EXPECT_TRUE(traces->Contains("Chain 'vorn_input' is concidered to be deleted"));
  EXPECT_EQ(kernel->TableOf(kFilter), FakeKernel().TableOf(kFilter));
}

TEST(RuleEquality, IgnoresTokenOrderQuotesAndBookkeeping) {
  Rule named = R("-p tcp -m comment --comment x", "ACCEPT");
  named.ruleName = "named";
  named.tag = "ostra";
  EXPECT_TRUE(firewall::RulesEqual(R("-m comment --comment \"x\" -p tcp", "ACCEPT"), named));
  EXPECT_FALSE(firewall::RulesEqual(named, R("-p tcp -m comment --comment x", "DROP")));
  Rule gotoRule = R("", "vorn_bypass");
  gotoRule.isGoto = true;
  EXPECT_FALSE(firewall::RulesEqual(gotoRule, R("", "vorn_bypass")));
}

}  // namespace
}  // namespace qel::test
