#include "firewall/chain_shortcuts.h"

#include <algorithm>

#include "firewall/rule_key.h"

namespace qel::firewall {
namespace {

// Token for token the same rule: then the keys are equal too.
bool SameRule(const Rule& a, const Rule& b) {
  return a.isGoto == b.isGoto && a.match == b.match && a.target == b.target;
}

}  // namespace

bool AlreadyAsWanted(bool owned, const RuleRefs& current, const std::vector<Rule>& wanted) {
  if (owned && current.size() != wanted.size()) return false;
  std::size_t w = 0;
  for (const Rule* rule : current) {
    if (!owned && !JumpsToModuleChain(*rule)) continue;
    if (w == wanted.size() || !SameRule(*rule, wanted[w])) return false;
    ++w;
  }
  if (w != wanted.size()) return false;
  return owned || std::all_of(wanted.begin(), wanted.end(), JumpsToModuleChain);
}

bool Untouched(const RuleRefs& previous, const RuleRefs& current) {
  if (previous.size() != current.size()) return false;
  for (std::size_t i = 0; i < previous.size(); ++i) {
    if (!SameRule(*previous[i], *current[i])) return false;
  }
  return true;
}

std::size_t HeadAsWanted(const RuleRefs& current, const std::vector<Rule>& wanted) {
  std::size_t head = 0;
  while (head < current.size() && head < wanted.size() && SameRule(*current[head], wanted[head])) ++head;
  return head;
}

std::size_t TailAsWanted(const RuleRefs& current, const std::vector<Rule>& wanted, std::size_t head) {
  std::size_t tail = 0;
  while (tail < current.size() - head && tail < wanted.size() - head &&
         SameRule(*current[current.size() - 1 - tail], wanted[wanted.size() - 1 - tail])) {
    ++tail;
  }
  return tail;
}

bool NothingToKeep(const RuleRefs& current) { return current.empty(); }

}  // namespace qel::firewall
