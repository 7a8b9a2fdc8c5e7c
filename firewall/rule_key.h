// When two rules are the same rule to the kernel.
#pragma once

#include <string>
#include <string_view>

#include "firewall/rule_model.h"

namespace qel::firewall {

// The comparison key of a rule: two rules are equal when their goto flags
// are equal, their targets are equal token for token, and their match
// tokens are equal as sorted lists once tokens wholly in double quotes lose
// their quotes. The listing tool may reorder options and quote comments, so
// nothing stricter would recognise the module's own rules.
std::string RuleKey(const Rule& rule);
bool RulesEqual(const Rule& a, const Rule& b);

// A match token as the key holds it: without double quotes that wholly
// enclose it. Inline, as shortcuts take it for every token of long chains.
inline std::string_view UnquotedToken(std::string_view token) {
  if (token.size() >= 3 && token.front() == '"' && token.back() == '"' &&
      token.substr(1, token.size() - 2).find('"') == std::string_view::npos) {
    return token.substr(1, token.size() - 2);
  }
  return token;
}

}  // namespace qel::firewall
