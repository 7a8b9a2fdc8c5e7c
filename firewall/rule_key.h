// When two rules are the same rule to the kernel.
#pragma once

#include <cstdint>
#include <string>

#include "firewall/rule_model.h"

namespace qel::firewall {

// The comparison key of a rule: two rules are equal when their goto flags
// are equal, their targets are equal token for token, and their match
// tokens are equal as sorted lists once tokens wholly in double quotes lose
// their quotes. The listing tool may reorder options and quote comments, so
// nothing stricter would recognise the module's own rules.
std::string RuleKey(const Rule& rule);
bool RulesEqual(const Rule& a, const Rule& b);

}  // namespace qel::firewall
