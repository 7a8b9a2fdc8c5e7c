// A chain's rules as the reconciliation handles them: pointers into the
// states, their keys, and the changes that add or delete them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "firewall/rule_model.h"

namespace qel::firewall {

// Pointers into the states, so that a chain of tens of thousands of rules
// is not copied on every poll.
using RuleRefs = std::vector<const Rule*>;

RuleRefs RefsOf(const std::vector<Rule>& rules);

// Policies are the kernel's; the module neither compares nor deletes them.
RuleRefs WithoutPolicy(const std::vector<Rule>& rules);

// The rules' keys (RuleKey), in their order.
std::vector<std::string> KeysOf(const RuleRefs& rules);

// In a built-in chain only these rules are the module's.
bool JumpsToModuleChain(const Rule& rule);

// The change that adds `rule` to `chain` (at `position` counted from 1, or
// appended with -1), or deletes it.
Change RuleChange(ChangeKind kind, const std::string& chain, const Rule& rule, std::int32_t position = -1);

}  // namespace qel::firewall
