// Prints a rule state the way `iptables -S` lists a table: the chain
// declarations in order ("-P" for a chain with a policy rule, "-N" for the
// others), then each chain's rules as "-A" lines. The rule lines come from the
// model's own restore-script writer, so a round trip through the parser also
// checks that writer and the parser agree.
#pragma once

#include <algorithm>
#include <string>

#include "firewall/rule_model.h"

namespace qel::test {

inline std::string ListingDeclaration(const firewall::Chain& chain) {
  const auto policy = std::find_if(chain.ruleList.begin(), chain.ruleList.end(),
                                   [](const firewall::Rule& rule) { return rule.isPolicy; });
  if (policy == chain.ruleList.end()) return "-N " + chain.name;
  firewall::Change change;
  change.kind = firewall::ChangeKind::SetPolicy;
  change.chain = chain.name;
  change.target = firewall::JoinTokens(policy->target);
  return firewall::ChangeLine(change);
}

inline std::string ListingRuleLine(const std::string& chain, const firewall::Rule& rule) {
  firewall::Change change;
  change.kind = firewall::ChangeKind::AddRule;
  change.chain = chain;
  change.match = firewall::JoinTokens(rule.match);
  change.target = firewall::JoinTokens(rule.target);
  change.isGoto = rule.isGoto;
  return firewall::ChangeLine(change);
}

inline std::string PrintListing(const firewall::State& state) {
  std::string text;
  for (const auto& chain : state.chainList) text += ListingDeclaration(chain) + "\n";
  for (const auto& chain : state.chainList) {
    for (const auto& rule : chain.ruleList) {
      if (!rule.isPolicy) text += ListingRuleLine(chain.name, rule) + "\n";
    }
  }
  return text;
}

}  // namespace qel::test
