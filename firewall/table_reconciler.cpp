#include "firewall/table_reconciler.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "firewall/chain_index.h"
#include "firewall/chain_layout.h"
#include "firewall/rule_key.h"

namespace qel::firewall {
namespace {

using tracing::Detail;
using tracing::Warning;

// The rules of a chain as the comparison sees them. Pointers into the
// states, so that a chain of tens of thousands of rules is not copied on
// every poll.
using RuleRefs = std::vector<const Rule*>;

RuleRefs RefsOf(const std::vector<Rule>& rules) {
  RuleRefs refs;
  refs.reserve(rules.size());
  for (const auto& rule : rules) refs.push_back(&rule);
  return refs;
}

// Policies are the kernel's; the module neither compares nor deletes them.
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

std::unordered_set<std::string_view> KeySet(const std::vector<std::string>& keys) {
  std::unordered_set<std::string_view> set;
  set.reserve(keys.size());
  set.insert(keys.begin(), keys.end());
  return set;
}

bool JumpsToModuleChain(const Rule& rule) {
  return rule.target.size() == 1 && ChainLayout::IsModuleChain(rule.target[0]);
}

Change RuleChange(ChangeKind kind, const std::string& chain, const Rule& rule, std::int32_t position = -1) {
  return Change{kind, chain, JoinTokens(rule.match), JoinTokens(rule.target), rule.isGoto, position};
}

std::string RuleListText(const std::vector<Rule>& rules) {
  std::string text;
  for (const auto& rule : rules) text += "\n  " + RuleText(rule);
  return text;
}

std::string RuleListText(const RuleRefs& rules) {
  std::string text;
  for (const Rule* rule : rules) text += "\n  " + RuleText(*rule);
  return text;
}

// Token for token the same rule: then the keys are equal too, and the
// comparison needs no keys at all.
bool SameRule(const Rule& a, const Rule& b) {
  return a.isGoto == b.isGoto && a.match == b.match && a.target == b.target;
}

bool SameRules(const RuleRefs& a, const RuleRefs& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (!SameRule(*a[i], *b[i])) return false;
  }
  return true;
}

// Whether the chain already holds exactly the wanted rules, so that nothing
// can be missing, extra or changed in it. In an owned chain that means all
// its rules in the wanted order; in a built-in chain, the module's jumps in
// the wanted order, when only jumps are wanted there (any other wanted rule
// is compared by the full composition).
bool AlreadyAsWanted(bool owned, const RuleRefs& current, const std::vector<Rule>& wanted) {
  std::size_t w = 0;
  for (const Rule* rule : current) {
    if (!owned && !JumpsToModuleChain(*rule)) continue;
    if (w == wanted.size() || !SameRule(*rule, wanted[w])) return false;
    ++w;
  }
  if (w != wanted.size()) return false;
  return owned || std::all_of(wanted.begin(), wanted.end(), JumpsToModuleChain);
}

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

class ChainComposer {
 public:
  ChainComposer(ChangeList& deletes, ChangeList& adds) : m_deletes(deletes), m_adds(adds) {}

  // Turns an owned chain's current rules into the wanted ones, keeping in
  // place what already stands in order and inserting the rest at its
  // position. Rules that stand as wanted at the head and the tail of the
  // chain are left out of the comparison, so that a change in a long chain
  // costs what the change touches, not what the chain holds.
  void ComposeOwned(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted) {
    const std::size_t head = CommonHead(current, wanted);
    const std::size_t tail = CommonTail(current, wanted, head);
    if (!ComposeBetween(chain, current, wanted, head, tail, false)) ComposeBetween(chain, current, wanted, 0, 0, true);
  }

  // Built-in chains: only the module's jumps are compared; a missing jump
  // goes to the head of the chain, so that the module sees packets before
  // any other rule there.
  void ComposeShared(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted) {
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
        m_deletes.push_back(RuleChange(ChangeKind::DeleteRule, chain, *rule));
      }
    }
    std::int32_t position = 1;
    for (const auto& rule : wanted) {
      auto& have = present[RuleKey(rule)];
      if (have > 0) {
        --have;
      } else {
        m_adds.push_back(RuleChange(ChangeKind::AddRule, chain, rule, position++));
      }
    }
  }

 private:
  static bool IsSubsequence(const std::vector<std::string_view>& part, const std::vector<std::string>& whole) {
    std::size_t p = 0;
    for (std::size_t w = 0; w < whole.size() && p < part.size(); ++w) {
      if (part[p] == whole[w]) ++p;
    }
    return p == part.size();
  }

  static std::size_t CommonHead(const RuleRefs& current, const std::vector<Rule>& wanted) {
    std::size_t head = 0;
    while (head < current.size() && head < wanted.size() && SameRule(*current[head], wanted[head])) ++head;
    return head;
  }

  static std::size_t CommonTail(const RuleRefs& current, const std::vector<Rule>& wanted, std::size_t head) {
    std::size_t tail = 0;
    while (tail < current.size() - head && tail < wanted.size() - head &&
           SameRule(*current[current.size() - 1 - tail], wanted[wanted.size() - 1 - tail])) {
      ++tail;
    }
    return tail;
  }

  // Composes the rules between the first `head` and the last `tail` ones,
  // which stay. False, with nothing composed, when that cannot be done by
  // rule text: "-D chain rule" deletes the first equal rule, which must not
  // be one of the head's. With `rebuild`, such a case deletes and re-adds
  // the whole part instead.
  bool ComposeBetween(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted,
                      std::size_t head, std::size_t tail, bool rebuild) {
    const RuleRefs middle(current.begin() + static_cast<std::ptrdiff_t>(head),
                          current.end() - static_cast<std::ptrdiff_t>(tail));
    RuleRefs wantedMiddle;
    for (std::size_t w = head; w < wanted.size() - tail; ++w) wantedMiddle.push_back(&wanted[w]);
    const auto currentKeys = KeysOf(middle);
    // Against nothing there is nothing to compare (a first install).
    const auto wantedKeys = middle.empty() ? std::vector<std::string>() : KeysOf(wantedMiddle);
    std::vector<bool> keep = RulesToKeep(currentKeys, wantedKeys);
    auto left = LeftAfterDeletes(currentKeys, keep);
    if (!IsSubsequence(left, wantedKeys) || DeletesReachHead(current, head, middle, currentKeys, keep)) {
      if (!rebuild) return false;
      // Equal rules in an unlucky order: deleting by rule text would keep
      // the wrong ones. Rebuild the chain instead.
      keep.assign(middle.size(), false);
      left.clear();
    }
    for (std::size_t i = 0; i < middle.size(); ++i) {
      if (!keep[i]) m_deletes.push_back(RuleChange(ChangeKind::DeleteRule, chain, *middle[i]));
    }
    InsertMissing(chain, left, wantedMiddle, wantedKeys, head, tail);
    return true;
  }

  // Whether a rule to be deleted from the middle equals one of the `head`
  // rules before it, which the delete would take instead. Only head rules
  // whose fingerprint a deleted rule shares get a key, so that a small
  // change in a long chain costs one cheap pass over the head, and a large
  // one no comparison of every deleted rule with every head rule.
  static bool DeletesReachHead(const RuleRefs& current, std::size_t head, const RuleRefs& middle,
                               const std::vector<std::string>& middleKeys, const std::vector<bool>& keep) {
    if (head == 0) return false;
    std::unordered_set<std::string_view> deletedKeys;
    std::unordered_set<std::uint64_t> deletedFingerprints;
    for (std::size_t i = 0; i < middle.size(); ++i) {
      if (keep[i]) continue;
      deletedKeys.insert(middleKeys[i]);
      deletedFingerprints.insert(RuleFingerprint(*middle[i]));
    }
    if (deletedKeys.empty()) return false;
    for (std::size_t h = 0; h < head; ++h) {
      if (deletedFingerprints.count(RuleFingerprint(*current[h])) && deletedKeys.count(RuleKey(*current[h]))) {
        return true;
      }
    }
    return false;
  }

  // Inserts the wanted rules of the middle that are not kept. The `head`
  // rules before them stay, as do the `tail` rules after them.
  void InsertMissing(const std::string& chain, const std::vector<std::string_view>& left, const RuleRefs& wanted,
                     const std::vector<std::string>& wantedKeys, std::size_t head, std::size_t tail) {
    std::size_t next = 0;        // next kept rule
    std::size_t length = left.size();
    for (std::size_t w = 0; w < wanted.size(); ++w) {
      if (next < left.size() && left[next] == wantedKeys[w]) {
        ++next;
        continue;
      }
      // Rules before w already stand as wanted, so w goes to position
      // head+w+1; only with nothing after it may it be appended.
      const bool atEnd = tail == 0 && w == length;
      const auto position = static_cast<std::int32_t>(head + w + 1);
      m_adds.push_back(RuleChange(ChangeKind::AddRule, chain, *wanted[w], atEnd ? -1 : position));
      ++length;
    }
  }

  ChangeList& m_deletes;
  ChangeList& m_adds;
};

}  // namespace

TableReconciler::TableReconciler(const tracing::Tracer& tracer, std::string tracePrefix)
    : m_tracer(tracer), m_prefix(std::move(tracePrefix)) {}

TableSyncResult TableReconciler::Reconcile(const State& previous, const State& current, const State& next) const {
  TableSyncResult result;
  const ChainIndex previousChains(previous), currentChains(current), nextChains(next);
  ChangeList creates, deletes, adds, flushes, removals;
  ChainComposer composer(deletes, adds);
  const auto createIfAbsent = [&](const std::string& name) {
    if (currentChains.Find(current, name)) return;
    m_tracer.Write(Detail, m_prefix, "Custom chain '", name, "' should be created");
    creates.push_back(Change{ChangeKind::CreateChain, name, "", "", false, -1});
  };

  for (const auto& chain : next.chainList) {
    m_tracer.Write(Detail, m_prefix, "Start processing chain ", chain.name);
    const bool owned = ChainLayout::KindOf(chain.name) == ChainKind::Owned;
    const auto currentRules = WithoutPolicy(currentChains.RulesOf(current, chain.name));
    // The steady state of every poll: no keys, sets or copies needed.
    if (AlreadyAsWanted(owned, currentRules, chain.ruleList)) {
      createIfAbsent(chain.name);
      continue;
    }

    const auto previousRules = WithoutPolicy(previousChains.RulesOf(previous, chain.name));
    // While the kernel holds, token for token, what the module installed
    // last time (the usual case when the wanted rules change), nothing can
    // be missing or extra, and no keys are needed to tell.
    const bool untouched = SameRules(previousRules, currentRules);

    std::vector<Rule> missing, extra;
    if (!untouched) {
      const auto currentKeys = KeysOf(currentRules);
      const auto nextKeys = KeysOf(RefsOf(chain.ruleList));
      const auto previousKeys = KeysOf(previousRules);
      const auto currentSet = KeySet(currentKeys), nextSet = KeySet(nextKeys);
      for (std::size_t i = 0; i < previousRules.size(); ++i) {
        if (!currentSet.count(previousKeys[i]) && nextSet.count(previousKeys[i])) {
          m_tracer.Write(Warning, m_prefix, "Missing rule '", RuleText(*previousRules[i]), "' will be re-added");
          missing.push_back(*previousRules[i]);
        }
      }
      if (owned) {
        const auto previousSet = KeySet(previousKeys);
        for (std::size_t i = 0; i < currentRules.size(); ++i) {
          if (!previousSet.count(currentKeys[i]) && !nextSet.count(currentKeys[i])) {
            m_tracer.Write(Warning, m_prefix, "Extra rule '", RuleText(*currentRules[i]), "' will be removed");
            extra.push_back(*currentRules[i]);
          }
        }
      }
    }
    if (!missing.empty() || !extra.empty()) {
      m_tracer.Write(Warning, m_prefix, "Integrity broken. Chain state:", "\ncurrent rules : ",
                     RuleListText(currentRules), "\nprevious rules: ", RuleListText(previousRules),
                     "\nnext rules    : ", RuleListText(chain.ruleList), "\nmissing:      : ", RuleListText(missing),
                     "\nextra:        : ", RuleListText(extra));
    }
    for (auto& rule : missing) result.missing.push_back({chain.name, std::move(rule)});
    for (auto& rule : extra) result.extra.push_back({chain.name, std::move(rule)});

    createIfAbsent(chain.name);
    if (owned) {
      composer.ComposeOwned(chain.name, currentRules, chain.ruleList);
    } else {
      composer.ComposeShared(chain.name, currentRules, chain.ruleList);
    }
  }

  // The module's chains that are no longer wanted: their jumps go (the
  // built-in chains above already dropped them), then the chain is flushed
  // and deleted.
  for (const auto& chain : current.chainList) {
    if (!ChainLayout::IsModuleChain(chain.name) || nextChains.Find(next, chain.name)) continue;
    std::size_t references = 0;
    for (const auto& other : current.chainList) {
      for (const auto& rule : other.ruleList) {
        if (rule.target.size() != 1 || rule.target[0] != chain.name) continue;
        ++references;
        m_tracer.Write(Detail, m_prefix, "Rule '", RuleText(rule), "' is referenced in the chain '", other.name, "'");
        if (!nextChains.Find(next, other.name) && !ChainLayout::IsModuleChain(other.name)) {
          // A built-in chain the module no longer uses at all.
          m_tracer.Write(Detail, m_prefix, "'", RuleText(rule), "' exists in the '", other.name,
                         "' and must be deleted");
          deletes.push_back(RuleChange(ChangeKind::DeleteRule, other.name, rule));
          m_tracer.Write(Detail, m_prefix, "Delete rule composed: ", ChangeLine(deletes.back()));
        }
      }
    }
    m_tracer.Write(Detail, m_prefix, "'", chain.name, "' is referenced ", references, " times");
    if (!chain.ruleList.empty()) {
      m_tracer.Write(Detail, m_prefix, "No need to explicitly delete rules from chain '", chain.name,
                     "', it will be flushed further");
      flushes.push_back(Change{ChangeKind::FlushChain, chain.name, "", "", false, -1});
    }
    removals.push_back(Change{ChangeKind::DeleteChain, chain.name, "", "", false, -1});
    m_tracer.Write(Detail, m_prefix, "Chain '", chain.name, "' is concidered to be deleted");
  }

  // The restore tool applies the script as one transaction, so only the
  // order within it matters: chains exist before rules jump to them, rules
  // are deleted before positions are counted for inserts, and no chain is
  // deleted while a rule still jumps to it.
  for (ChangeList* part : {&creates, &deletes, &adds, &flushes, &removals}) {
    result.changes.insert(result.changes.end(), std::make_move_iterator(part->begin()),
                          std::make_move_iterator(part->end()));
  }
  return result;
}

}  // namespace qel::firewall
