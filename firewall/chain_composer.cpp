#include "firewall/chain_composer.h"

#include <algorithm>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>

#include "firewall/chain_shortcuts.h"
#include "firewall/rule_key.h"

namespace qel::firewall {
namespace {

using tracing::Detail;

// The positions (indices into `values`) of one longest strictly increasing
// subsequence, in O(n log n).
std::vector<std::size_t> LongestIncreasingRun(const std::vector<std::size_t>& values) {
  std::vector<std::size_t> tails;  // index into values of the smallest tail of each length
  std::vector<std::ptrdiff_t> parent(values.size(), -1);
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto it = std::lower_bound(tails.begin(), tails.end(), values[i],
                                     [&](std::size_t t, std::size_t v) { return values[t] < v; });
    if (it != tails.begin()) parent[i] = static_cast<std::ptrdiff_t>(*(it - 1));
    if (it == tails.end()) {
      tails.push_back(i);
    } else {
      *it = i;
    }
  }
  std::vector<std::size_t> run;
  for (std::ptrdiff_t i = tails.empty() ? -1 : static_cast<std::ptrdiff_t>(tails.back()); i >= 0; i = parent[i]) {
    run.push_back(static_cast<std::size_t>(i));
  }
  std::reverse(run.begin(), run.end());
  return run;
}

// Which current rules of an owned chain can stay where they are: the
// longest run of them that already stands in the wanted order.
std::vector<bool> RulesToKeep(const std::vector<std::string>& currentKeys, const std::vector<std::string>& wantedKeys) {
  // Each key's current positions as a list threaded through `nextSame`,
  // smallest first: wanted rules take equal current rules in their order.
  constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::unordered_map<std::string_view, std::size_t> first;
  first.reserve(currentKeys.size());
  std::vector<std::size_t> nextSame(currentKeys.size(), kNone);
  for (std::size_t i = currentKeys.size(); i-- > 0;) {
    auto [it, inserted] = first.try_emplace(currentKeys[i], i);
    if (!inserted) {
      nextSame[i] = it->second;
      it->second = i;
    }
  }
  std::vector<std::size_t> matched;
  matched.reserve(wantedKeys.size());
  for (const auto& key : wantedKeys) {
    auto it = first.find(key);
    if (it == first.end() || it->second == kNone) continue;
    matched.push_back(it->second);
    it->second = nextSame[it->second];
  }
  std::vector<bool> keep(currentKeys.size(), false);
  for (std::size_t i : LongestIncreasingRun(matched)) keep[matched[i]] = true;
  return keep;
}

// "-D chain rule" deletes the first equal rule, so among equal rules the
// first ones go. The rules left after the deletes, as keys.
std::vector<std::string_view> LeftAfterDeletes(const std::vector<std::string>& currentKeys,
                                               const std::vector<bool>& keep) {
  std::unordered_map<std::string_view, std::size_t> deletes;
  std::vector<std::string_view> left;
  left.reserve(currentKeys.size());
  for (std::size_t i = 0; i < keep.size(); ++i) {
    if (!keep[i]) ++deletes[currentKeys[i]];
  }
  for (const auto& key : currentKeys) {
    auto it = deletes.find(key);
    if (it != deletes.end() && it->second > 0) {
      --it->second;
    } else {
      left.push_back(key);
    }
  }
  return left;
}

bool IsSubsequence(const std::vector<std::string_view>& part, const std::vector<std::string>& whole) {
  std::size_t p = 0;
  for (std::size_t w = 0; w < whole.size() && p < part.size(); ++w) {
    if (part[p] == whole[w]) ++p;
  }
  return p == part.size();
}

RuleRefs Slice(const RuleRefs& rules, std::size_t from, std::size_t to) {
  return RuleRefs(rules.begin() + static_cast<std::ptrdiff_t>(from), rules.begin() + static_cast<std::ptrdiff_t>(to));
}

RuleRefs Slice(const std::vector<Rule>& rules, std::size_t from, std::size_t to) {
  RuleRefs refs;
  refs.reserve(to - from);
  for (std::size_t i = from; i < to; ++i) refs.push_back(&rules[i]);
  return refs;
}

// The rules not kept, with their keys.
struct Deletes {
  RuleRefs rules;
  std::vector<std::string_view> keys;
};

Deletes DeletesOf(const RuleRefs& rules, const std::vector<std::string>& keys, const std::vector<bool>& keep) {
  Deletes deletes;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (keep[i]) continue;
    deletes.rules.push_back(rules[i]);
    deletes.keys.push_back(keys[i]);
  }
  return deletes;
}

}  // namespace

ChainComposer::ChainComposer(const tracing::Tracer& tracer, std::string_view tracePrefix, bool useShortcuts)
    : m_tracer(tracer), m_prefix(tracePrefix), m_shortcuts(useShortcuts) {}

void ChainComposer::CreateIfAbsent(const std::string& chain, bool inKernel) {
  if (inKernel) return;
  m_tracer.Write(Detail, m_prefix, "Custom chain '", chain, "' should be created");
  m_changes.creates.push_back(Change{ChangeKind::CreateChain, chain, "", "", false, -1});
}

void ChainComposer::Compose(const std::string& chain, bool owned, const RuleRefs& current,
                            const std::vector<Rule>& wanted) {
  if (owned) {
    ComposeOwned(chain, current, wanted);
  } else {
    ComposeShared(chain, current, wanted);
  }
}

// The rules that stand as wanted at the head and the tail of the chain stay
// where they are and are left out of the comparison, so that a change in a
// long chain costs what the change touches, not what the chain holds.
void ChainComposer::ComposeOwned(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted) {
  const std::size_t deletesBefore = m_changes.deletes.size(), addsBefore = m_changes.adds.size();
  if (!ComposeBetween(chain, current, wanted, StandingEnds(current, wanted), false)) {
    ComposeBetween(chain, current, wanted, Ends{}, true);
  }
  const std::size_t changes = m_changes.deletes.size() - deletesBefore + m_changes.adds.size() - addsBefore;
  if (changes > kRebuildAbove) Rebuild(chain, wanted, deletesBefore, addsBefore, changes);
}

// The tools find the rule of each delete and the place of each insert by
// walking the chain, so many of them in a long chain cost the square of its
// length: 5 000 of each take seconds in a chain of 10 000 rules. Flushing
// the chain and appending the wanted rules costs what one install costs.
// The restore script is one transaction either way; only the rebuilt
// rules' packet counters start again from zero.
void ChainComposer::Rebuild(const std::string& chain, const std::vector<Rule>& wanted, std::size_t deletesBefore,
                            std::size_t addsBefore, std::size_t changes) {
  m_tracer.Write(Detail, m_prefix, "Chain '", chain, "' is rebuilt instead of ", changes, " changes");
  m_changes.deletes.resize(deletesBefore);
  m_changes.adds.resize(addsBefore);
  m_changes.deletes.push_back(Change{ChangeKind::FlushChain, chain, "", "", false, -1});
  for (const auto& rule : wanted) m_changes.adds.push_back(RuleChange(ChangeKind::AddRule, chain, rule));
}

// A missing jump goes to the head of the chain, so that the module sees
// packets before any other rule there.
void ChainComposer::ComposeShared(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted) {
  std::unordered_map<std::string, std::size_t> present;
  for (const Rule* rule : current) {
    if (JumpsToModuleChain(*rule)) ++present[RuleKey(*rule)];
  }
  std::unordered_map<std::string, std::size_t> needed;
  for (const auto& rule : wanted) ++needed[RuleKey(rule)];
  for (const Rule* rule : current) {
    if (!JumpsToModuleChain(*rule)) continue;
    auto& want = needed[RuleKey(*rule)];
    if (want > 0) {
      --want;
    } else {
      m_changes.deletes.push_back(RuleChange(ChangeKind::DeleteRule, chain, *rule));
    }
  }
  std::int32_t position = 1;
  for (const auto& rule : wanted) {
    auto& have = present[RuleKey(rule)];
    if (have > 0) {
      --have;
    } else {
      m_changes.adds.push_back(RuleChange(ChangeKind::AddRule, chain, rule, position++));
    }
  }
}

// The rules equal to the wanted ones at the head of the chain, and at its
// tail among the others. Which of several equal rules stays depends on
// these ends, so they are the same however they are found.
ChainComposer::Ends ChainComposer::StandingEnds(const RuleRefs& current, const std::vector<Rule>& wanted) const {
  const std::size_t shorter = std::min(current.size(), wanted.size());
  Ends ends;
  // Skip the keys of the rules that stand token for token as wanted.
  if (m_shortcuts) ends.head = HeadAsWanted(current, wanted);
  while (ends.head < shorter && RulesEqual(*current[ends.head], wanted[ends.head])) ++ends.head;
  if (m_shortcuts) ends.tail = TailAsWanted(current, wanted, ends.head);
  while (ends.tail < shorter - ends.head &&
         RulesEqual(*current[current.size() - 1 - ends.tail], wanted[wanted.size() - 1 - ends.tail])) {
    ++ends.tail;
  }
  return ends;
}

// Composes the rules between the head and the tail of `ends`, which stay.
// False, with nothing composed, when that cannot be done by rule text:
// "-D chain rule" deletes the first equal rule, which must not be one of
// the head's. With `rebuild`, such a case deletes and re-adds the whole
// part instead.
bool ChainComposer::ComposeBetween(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted,
                                   Ends ends, bool rebuild) {
  const RuleRefs middle = Slice(current, ends.head, current.size() - ends.tail);
  const RuleRefs wantedMiddle = Slice(wanted, ends.head, wanted.size() - ends.tail);
  const auto currentKeys = KeysOf(middle);
  // Skip the wanted rules' keys when nothing stands to be kept.
  const auto wantedKeys = m_shortcuts && NothingToKeep(middle) ? std::vector<std::string>() : KeysOf(wantedMiddle);
  const std::vector<bool> keep = RulesToKeep(currentKeys, wantedKeys);
  Deletes deletes = DeletesOf(middle, currentKeys, keep);
  auto left = LeftAfterDeletes(currentKeys, keep);
  if (!IsSubsequence(left, wantedKeys) ||
      DeletesReachHead(std::span(current).first(ends.head), deletes.rules, deletes.keys)) {
    if (!rebuild) return false;
    // Equal rules in an unlucky order: deleting by rule text would keep
    // the wrong ones. Rebuild the part instead.
    deletes.rules = middle;
    left.clear();
  }
  for (const Rule* rule : deletes.rules) {
    m_changes.deletes.push_back(RuleChange(ChangeKind::DeleteRule, chain, *rule));
  }
  InsertMissing(chain, left, wantedMiddle, wantedKeys, ends);
  return true;
}

// Whether a rule to be deleted equals one of the head's, which the delete
// would take instead. One pass over the head against the deleted rules'
// keys in a set: a large change must not compare every deleted rule with
// every head rule.
bool ChainComposer::DeletesReachHead(std::span<const Rule* const> head, const RuleRefs& deleted,
                                     const std::vector<std::string_view>& deletedKeys) const {
  if (head.empty() || deleted.empty()) return false;
  const std::unordered_set<std::string_view> keys(deletedKeys.begin(), deletedKeys.end());
  for (const Rule* rule : head) {
    if (keys.count(RuleKey(*rule))) return true;
  }
  return false;
}

// Inserts the wanted rules of the middle that are not kept. The head rules
// before them stay, as do the tail rules after them.
void ChainComposer::InsertMissing(const std::string& chain, const std::vector<std::string_view>& left,
                                  const RuleRefs& wanted, const std::vector<std::string>& wantedKeys, Ends ends) {
  std::size_t next = 0;  // next kept rule
  std::size_t length = left.size();
  for (std::size_t w = 0; w < wanted.size(); ++w) {
    if (next < left.size() && left[next] == wantedKeys[w]) {
      ++next;
      continue;
    }
    // Rules before w already stand as wanted, so w goes to position
    // head+w+1; only with nothing after it may it be appended.
    const bool atEnd = ends.tail == 0 && w == length;
    const auto position = static_cast<std::int32_t>(ends.head + w + 1);
    m_changes.adds.push_back(RuleChange(ChangeKind::AddRule, chain, *wanted[w], atEnd ? -1 : position));
    ++length;
  }
}

}  // namespace qel::firewall
