#include "firewall/table_reconciler.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "firewall/chain_layout.h"

namespace qel::firewall {
namespace {

using tracing::Detail;
using tracing::Warning;

constexpr char kTokenSeparator = '\x1f';
constexpr char kPartSeparator = '\x1e';

std::string_view Unquoted(std::string_view token) {
  if (token.size() >= 3 && token.front() == '"' && token.back() == '"' &&
      token.substr(1, token.size() - 2).find('"') == std::string_view::npos) {
    return token.substr(1, token.size() - 2);
  }
  return token;
}

const std::vector<Rule> kNoRules;

// Chains of a state by name; the first chain of a name wins, as in the
// kernel's listing.
class ChainIndex {
 public:
  explicit ChainIndex(const State& state) {
    for (const auto& chain : state.chainList) m_chains.emplace(chain.name, &chain);
  }
  const Chain* Find(const std::string& name) const {
    const auto it = m_chains.find(name);
    return it == m_chains.end() ? nullptr : it->second;
  }
  const std::vector<Rule>& RulesOf(const std::string& name) const {
    const Chain* chain = Find(name);
    return chain ? chain->ruleList : kNoRules;
  }

 private:
  std::unordered_map<std::string, const Chain*> m_chains;
};

std::vector<std::string> KeysOf(const std::vector<Rule>& rules) {
  std::vector<std::string> keys;
  keys.reserve(rules.size());
  for (const auto& rule : rules) keys.push_back(RuleKey(rule));
  return keys;
}

std::unordered_set<std::string_view> KeySet(const std::vector<std::string>& keys) {
  return {keys.begin(), keys.end()};
}

// Policies are the kernel's; the module neither compares nor deletes them.
std::vector<Rule> WithoutPolicy(const std::vector<Rule>& rules) {
  std::vector<Rule> plain;
  plain.reserve(rules.size());
  for (const auto& rule : rules) {
    if (!rule.isPolicy) plain.push_back(rule);
  }
  return plain;
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
  std::unordered_map<std::string_view, std::vector<std::size_t>> positions;
  for (std::size_t i = currentKeys.size(); i-- > 0;) positions[currentKeys[i]].push_back(i);
  std::vector<std::size_t> matched;
  for (const auto& key : wantedKeys) {
    auto it = positions.find(key);
    if (it == positions.end() || it->second.empty()) continue;
    matched.push_back(it->second.back());
    it->second.pop_back();
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
  for (std::size_t i = 0; i < keep.size(); ++i) {
    if (!keep[i]) ++deletes[currentKeys[i]];
  }
  std::vector<std::string_view> left;
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
  // position.
  void ComposeOwned(const std::string& chain, const std::vector<Rule>& current, const std::vector<Rule>& wanted) {
    const auto currentKeys = KeysOf(current);
    const auto wantedKeys = KeysOf(wanted);
    std::vector<bool> keep = RulesToKeep(currentKeys, wantedKeys);
    auto left = LeftAfterDeletes(currentKeys, keep);
    if (!IsSubsequence(left, wantedKeys)) {
      // Equal rules in an unlucky order: deleting by rule text would keep
      // the wrong ones. Rebuild the chain instead.
      keep.assign(current.size(), false);
      left.clear();
    }
    for (std::size_t i = 0; i < current.size(); ++i) {
      if (!keep[i]) m_deletes.push_back(RuleChange(ChangeKind::DeleteRule, chain, current[i]));
    }
    InsertMissing(chain, left, wanted, wantedKeys);
  }

  // Built-in chains: only the module's jumps are compared; a missing jump
  // goes to the head of the chain, so that the module sees packets before
  // any other rule there.
  void ComposeShared(const std::string& chain, const std::vector<Rule>& current, const std::vector<Rule>& wanted) {
    std::unordered_map<std::string, std::size_t> present;
    for (const auto& rule : current) {
      if (JumpsToModuleChain(rule)) ++present[RuleKey(rule)];
    }
    std::unordered_map<std::string, std::size_t> needed;
    for (const auto& rule : wanted) ++needed[RuleKey(rule)];
    for (const auto& rule : current) {
      if (!JumpsToModuleChain(rule)) continue;
      auto& want = needed[RuleKey(rule)];
      if (want > 0) {
        --want;
      } else {
        m_deletes.push_back(RuleChange(ChangeKind::DeleteRule, chain, rule));
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

  void InsertMissing(const std::string& chain, const std::vector<std::string_view>& left,
                     const std::vector<Rule>& wanted, const std::vector<std::string>& wantedKeys) {
    std::size_t next = 0;        // next kept rule
    std::size_t length = left.size();
    for (std::size_t w = 0; w < wanted.size(); ++w) {
      if (next < left.size() && left[next] == wantedKeys[w]) {
        ++next;
        continue;
      }
      // Rules before w already stand as wanted, so w goes to position w+1.
      const bool atEnd = w == length;
      m_adds.push_back(RuleChange(ChangeKind::AddRule, chain, wanted[w], atEnd ? -1 : static_cast<std::int32_t>(w + 1)));
      ++length;
    }
  }

  ChangeList& m_deletes;
  ChangeList& m_adds;
};

}  // namespace

std::string RuleKey(const Rule& rule) {
  std::vector<std::string_view> match;
  match.reserve(rule.match.size());
  for (const auto& token : rule.match) match.push_back(Unquoted(token));
  std::sort(match.begin(), match.end());
  std::string key(1, rule.isGoto ? 'g' : 'j');
  for (auto token : match) (key += token) += kTokenSeparator;
  key += kPartSeparator;
  for (const auto& token : rule.target) (key += token) += kTokenSeparator;
  return key;
}

bool RulesEqual(const Rule& a, const Rule& b) { return RuleKey(a) == RuleKey(b); }

TableReconciler::TableReconciler(const tracing::Tracer& tracer, std::string tracePrefix)
    : m_tracer(tracer), m_prefix(std::move(tracePrefix)) {}

TableSyncResult TableReconciler::Reconcile(const State& previous, const State& current, const State& next) const {
  TableSyncResult result;
  const ChainIndex previousChains(previous), currentChains(current), nextChains(next);
  ChangeList creates, deletes, adds, flushes, removals;
  ChainComposer composer(deletes, adds);

  for (const auto& chain : next.chainList) {
    m_tracer.Write(Detail, m_prefix, "Start processing chain ", chain.name);
    const bool owned = ChainLayout::KindOf(chain.name) == ChainKind::Owned;
    const auto previousRules = WithoutPolicy(previousChains.RulesOf(chain.name));
    const auto currentRules = WithoutPolicy(currentChains.RulesOf(chain.name));
    const auto previousKeys = KeysOf(previousRules), currentKeys = KeysOf(currentRules),
               nextKeys = KeysOf(chain.ruleList);
    const auto previousSet = KeySet(previousKeys), currentSet = KeySet(currentKeys), nextSet = KeySet(nextKeys);

    std::vector<Rule> missing, extra;
    for (std::size_t i = 0; i < previousRules.size(); ++i) {
      if (!currentSet.count(previousKeys[i]) && nextSet.count(previousKeys[i])) {
        m_tracer.Write(Warning, m_prefix, "Missing rule '", RuleText(previousRules[i]), "' will be re-added");
        missing.push_back(previousRules[i]);
      }
    }
    for (std::size_t i = 0; owned && i < currentRules.size(); ++i) {
      if (!previousSet.count(currentKeys[i]) && !nextSet.count(currentKeys[i])) {
        m_tracer.Write(Warning, m_prefix, "Extra rule '", RuleText(currentRules[i]), "' will be removed");
        extra.push_back(currentRules[i]);
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

    if (!currentChains.Find(chain.name)) {
      m_tracer.Write(Detail, m_prefix, "Custom chain '", chain.name, "' should be created");
      creates.push_back(Change{ChangeKind::CreateChain, chain.name, "", "", false, -1});
    }
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
    if (!ChainLayout::IsModuleChain(chain.name) || nextChains.Find(chain.name)) continue;
    std::size_t references = 0;
    for (const auto& other : current.chainList) {
      for (const auto& rule : other.ruleList) {
        if (rule.target.size() != 1 || rule.target[0] != chain.name) continue;
        ++references;
        m_tracer.Write(Detail, m_prefix, "Rule '", RuleText(rule), "' is referenced in the chain '", other.name, "'");
        if (!nextChains.Find(other.name) && !ChainLayout::IsModuleChain(other.name)) {
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
    result.changes.insert(result.changes.end(), part->begin(), part->end());
  }
  return result;
}

}  // namespace qel::firewall
