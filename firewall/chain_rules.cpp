#include "firewall/chain_rules.h"

#include "firewall/chain_layout.h"
#include "firewall/rule_key.h"

namespace qel::firewall {

RuleRefs RefsOf(const std::vector<Rule>& rules) {
  RuleRefs refs;
  refs.reserve(rules.size());
  for (const auto& rule : rules) refs.push_back(&rule);
  return refs;
}

RuleRefs WithoutPolicy(const std::vector<Rule>& rules) {
  RuleRefs plain;
  plain.reserve(rules.size());
  for (const auto& rule : rules) {
    if (!rule.isPolicy) plain.push_back(&rule);
  }
  return plain;
}

std::vector<std::string> KeysOf(const RuleRefs& rules) {
  std::vector<std::string> keys;
  keys.reserve(rules.size());
  for (const Rule* rule : rules) keys.push_back(RuleKey(*rule));
  return keys;
}

bool JumpsToModuleChain(const Rule& rule) {
  return rule.target.size() == 1 && ChainLayout::IsModuleChain(rule.target[0]);
}

Change RuleChange(ChangeKind kind, const std::string& chain, const Rule& rule, std::int32_t position) {
  return Change{kind, chain, JoinTokens(rule.match), JoinTokens(rule.target), rule.isGoto, position};
}

}  // namespace qel::firewall
