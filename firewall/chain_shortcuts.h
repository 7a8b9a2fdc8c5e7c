// Ways to skip work when the reconciliation compares chains. Each gives
// exactly what the work it skips would give; each is one function and one
// call, so that it can go on its own once it no longer pays for itself.
#pragma once

#include <cstddef>
#include <vector>

#include "firewall/chain_rules.h"
#include "firewall/rule_model.h"

namespace qel::firewall {

// Skip a chain that already holds exactly the wanted rules, token for token
// and in order: the steady state of every poll, which then builds no keys,
// sets or copies. In a built-in chain only the module's jumps count, and
// only when nothing but jumps is wanted there.
bool AlreadyAsWanted(bool owned, const RuleRefs& current, const std::vector<Rule>& wanted);

// Skip looking for missing and extra rules while the kernel holds, token
// for token, what the module installed last time (the usual case when the
// wanted rules change): then nothing can be missing or extra.
bool Untouched(const RuleRefs& previous, const RuleRefs& current);

// Skip building keys for the rules at the head of an owned chain that stand
// token for token as wanted: how many there are.
std::size_t HeadAsWanted(const RuleRefs& current, const std::vector<Rule>& wanted);
// The same at the tail, among the rules after the first `head`.
std::size_t TailAsWanted(const RuleRefs& current, const std::vector<Rule>& wanted, std::size_t head);

// Skip building the wanted rules' keys when no current rule is there to
// keep (a first install, or rules added where none stood).
bool NothingToKeep(const RuleRefs& current);

}  // namespace qel::firewall
