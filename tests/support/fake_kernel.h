// An in-memory packet filter that applies change lists the way the restore
// tool does: all of a script or nothing, "-D" removing the first rule of
// exactly the given text, "-I n" counting from 1, and no chain deleted while
// it is referenced or not empty. Tables may be listed and changed from
// several threads at once.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeKernel final
    : public ObjectImpl<FakeKernel, firewall::IFirewallStateQuery, firewall::IFirewallStateChange> {
 public:
  using Table = std::pair<types::IPAddressFamily::Type, std::string>;

  oro::result_t GetState(types::IPAddressFamily::Type family, const std::string& table,
                         firewall::State& out) const noexcept override {
    ++queries;
    if (failQuery) return oro::errUnexpected;
    std::lock_guard lock(m_mutex);
    m_listingThreads.push_back(std::this_thread::get_id());
    out = TableOf({family, table});
    return oro::errOk;
  }

  oro::result_t ChangeState(types::IPAddressFamily::Type family, const std::string& table,
                            const firewall::ChangeList& changes) noexcept override {
    const int call = ++changeCalls;
    if (beforeChange) beforeChange(changes);
    if (failChange || (failEveryNthChange > 0 && call % failEveryNthChange == 0)) return oro::errUnexpected;
    std::lock_guard lock(m_mutex);
    firewall::State state = TableOf({family, table});
    for (const auto& change : changes) {
      if (Refused(change) || !Apply(state, change)) return oro::errUnexpected;  // nothing is committed
    }
    m_tables[{family, table}] = std::move(state);
    return oro::errOk;
  }

  // The table as the listing shows it: built-in chains with their policy.
  firewall::State TableOf(const Table& table) const {
    if (auto it = m_tables.find(table); it != m_tables.end()) return it->second;
    firewall::Rule policy;
    policy.isPolicy = true;
    policy.target = {"ACCEPT"};
    firewall::State state;
    for (const char* chain : BuiltinsOf(table.second)) state.chainList.push_back({chain, {policy}});
    return state;
  }
  firewall::Chain* FindChain(const Table& table, const std::string& name) {
    if (!m_tables.count(table)) m_tables[table] = TableOf(table);
    return Find(m_tables[table], name);
  }
  // Rules of a chain without its policy, as canonical texts.
  std::vector<std::string> Texts(const Table& table, const std::string& chain) {
    std::vector<std::string> texts;
    if (auto* c = FindChain(table, chain)) {
      for (const auto& rule : c->ruleList) {
        if (!rule.isPolicy) texts.push_back(firewall::RuleText(rule));
      }
    }
    return texts;
  }
  // The threads that listed a table, in order.
  std::vector<std::thread::id> ListingThreads() const {
    std::lock_guard lock(m_mutex);
    return m_listingThreads;
  }

  mutable std::atomic<int> queries = 0;
  std::atomic<int> changeCalls = 0;
  std::atomic<bool> failQuery = false;
  std::atomic<bool> failChange = false;
  // Every n-th change fails, as under a lock held by someone else; 0: never.
  std::atomic<int> failEveryNthChange = 0;
  // A rule whose match holds this word is refused, as the kernel refuses a
  // rule it cannot load. Set before the service runs.
  std::string refusedWord;
  // Called with each change list before it is looked at; set before the
  // service runs.
  std::function<void(const firewall::ChangeList&)> beforeChange;

 private:
  // The built-in chains of each table, in the kernel's order.
  static std::vector<const char*> BuiltinsOf(const std::string& table) {
    if (table == "mangle") return {"PREROUTING", "INPUT", "FORWARD", "OUTPUT", "POSTROUTING"};
    if (table == "nat") return {"PREROUTING", "INPUT", "OUTPUT", "POSTROUTING"};
    return {"INPUT", "FORWARD", "OUTPUT"};
  }
  static bool IsBuiltin(const std::string& name) {
    for (const char* table : {"filter", "mangle", "nat"}) {
      for (const char* chain : BuiltinsOf(table)) {
        if (name == chain) return true;
      }
    }
    return false;
  }
  static bool IsVerdict(std::string_view target) {
    for (const char* verdict : {"ACCEPT", "DROP", "RETURN", "REJECT", "NFLOG", "LOG"}) {
      if (target == verdict) return true;
    }
    return false;
  }
  static firewall::Chain* Find(firewall::State& state, std::string_view name) {
    for (auto& chain : state.chainList) {
      if (chain.name == name) return &chain;
    }
    return nullptr;
  }
  static bool Referenced(const firewall::State& state, const std::string& name) {
    for (const auto& chain : state.chainList) {
      for (const auto& rule : chain.ruleList) {
        if (!rule.isPolicy && rule.target.size() == 1 && rule.target[0] == name) return true;
      }
    }
    return false;
  }
  // The restore tool reads a quoted word without its quotes.
  static std::string_view Unquoted(std::string_view word) {
    if (word.size() >= 2 && word.front() == '"' && word.back() == '"') return word.substr(1, word.size() - 2);
    return word;
  }
  static bool SameWords(const firewall::Tokens& a, const firewall::Tokens& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (Unquoted(a[i]) != Unquoted(b[i])) return false;
    }
    return true;
  }
  // "-D" takes the first rule written exactly so: the same words in the
  // same order.
  static bool SameSpec(const firewall::Rule& a, const firewall::Rule& b) {
    return a.isGoto == b.isGoto && SameWords(a.match, b.match) && SameWords(a.target, b.target);
  }
  bool Refused(const firewall::Change& change) const {
    return change.kind == firewall::ChangeKind::AddRule && !refusedWord.empty() &&
           (" " + change.match + " ").find(" " + refusedWord + " ") != std::string::npos;
  }

  static bool Apply(firewall::State& state, const firewall::Change& change) {
    using firewall::ChangeKind;
    firewall::Chain* chain = Find(state, change.chain);
    if (!chain) {
      if (change.kind == ChangeKind::CreateChain) state.chainList.push_back({change.chain, {}});
      return change.kind == ChangeKind::CreateChain;
    }
    firewall::Rule rule;
    rule.match = firewall::SplitTokens(change.match);
    rule.target = firewall::SplitTokens(change.target);
    rule.isGoto = change.isGoto;
    switch (change.kind) {
      case ChangeKind::CreateChain:
        return false;
      case ChangeKind::AddRule: {
        if (rule.target.size() == 1 && !IsVerdict(rule.target[0]) && !Find(state, rule.target[0])) return false;
        // Rules are kept ahead of a built-in chain's policy.
        const auto count = static_cast<std::int32_t>(chain->ruleList.size()) - (IsBuiltin(chain->name) ? 1 : 0);
        const auto position = change.position == -1 ? count + 1 : change.position;
        if (position < 1 || position > count + 1) return false;
        chain->ruleList.insert(chain->ruleList.begin() + position - 1, std::move(rule));
        return true;
      }
      case ChangeKind::DeleteRule: {
        auto it = std::find_if(chain->ruleList.begin(), chain->ruleList.end(),
                               [&](const firewall::Rule& r) { return !r.isPolicy && SameSpec(r, rule); });
        if (it == chain->ruleList.end()) return false;
        chain->ruleList.erase(it);
        return true;
      }
      case ChangeKind::FlushChain:
        std::erase_if(chain->ruleList, [](const firewall::Rule& r) { return !r.isPolicy; });
        return true;
      case ChangeKind::DeleteChain:
        if (IsBuiltin(chain->name) || !chain->ruleList.empty() || Referenced(state, change.chain)) return false;
        std::erase_if(state.chainList, [&](const firewall::Chain& c) { return c.name == change.chain; });
        return true;
      case ChangeKind::SetPolicy:
        return IsBuiltin(chain->name);
    }
    return false;
  }

  mutable std::mutex m_mutex;  // guards the two below while the service runs
  std::map<Table, firewall::State> m_tables;
  mutable std::vector<std::thread::id> m_listingThreads;
};

}  // namespace qel::test
