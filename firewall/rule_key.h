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

// A hash of what the key holds, taken without building the key: equal rules
// have equal fingerprints, so two rules whose fingerprints differ need no
// keys to be told apart. Cheap enough to take for every rule of a long
// chain on a small change.
std::uint64_t RuleFingerprint(const Rule& rule);

}  // namespace qel::firewall
