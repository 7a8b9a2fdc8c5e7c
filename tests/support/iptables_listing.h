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

inline std::string PrintListing(const firewall::State& state) {
  std::string declarations, rules;
  for (const auto& chain : state.chainList) {
    firewall::Change change;
    change.chain = chain.name;
    const auto policy = std::find_if(chain.ruleList.begin(), chain.ruleList.end(),
                                     [](const firewall::Rule& rule) { return rule.isPolicy; });
    if (policy == chain.ruleList.end()) {
      declarations += "-N " + chain.name + "\n";
    } else {
      change.kind = firewall::ChangeKind::SetPolicy;
      change.target = firewall::JoinTokens(policy->target);
      declarations += firewall::ChangeLine(change) + "\n";
    }
    change.kind = firewall::ChangeKind::AddRule;
    for (const auto& rule : chain.ruleList) {
      if (rule.isPolicy) continue;
      change.match = firewall::JoinTokens(rule.match);
      change.target = firewall::JoinTokens(rule.target);
      change.isGoto = rule.isGoto;
      rules += firewall::ChangeLine(change) + "\n";
    }
  }
  return declarations + rules;
}

}  // namespace qel::test
