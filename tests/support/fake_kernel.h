// An in-memory packet filter that applies change lists the way the restore
// tool does: all of a script or nothing, "-D" removing the first equal
// rule, "-I n" counting from 1, and no chain deleted while it is referenced
// or not empty.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "firewall/table_reconciler.h"
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
    out = TableOf({family, table});
    return oro::errOk;
  }

  oro::result_t ChangeState(types::IPAddressFamily::Type family, const std::string& table,
                            const firewall::ChangeList& changes) noexcept override {
    ++changeCalls;
    scripts.push_back(firewall::RestoreScript(table, changes));
    firewall::State state = TableOf({family, table});
    for (const auto& change : changes) {
      if (!Apply(state, change)) return oro::errUnexpected;  // nothing is committed
    }
    m_tables[{family, table}] = std::move(state);
    return oro::errOk;
  }

  // The table as the listing shows it: built-in chains with their policy.
  firewall::State TableOf(const Table& table) const {
    auto it = m_tables.find(table);
    if (it != m_tables.end()) return it->second;
    firewall::State state;
    std::vector<const char*> builtins = {"INPUT", "FORWARD", "OUTPUT"};
    if (table.second == "mangle") builtins = {"PREROUTING", "INPUT", "FORWARD", "OUTPUT", "POSTROUTING"};
    if (table.second == "nat") builtins = {"PREROUTING", "INPUT", "OUTPUT", "POSTROUTING"};
    for (const char* chain : builtins) {
      firewall::Rule policy;
      policy.isPolicy = true;
      policy.target = {"ACCEPT"};
      state.chainList.push_back({chain, {policy}});
    }
    return state;
  }
  firewall::State& Edit(const Table& table) {
    if (!m_tables.count(table)) m_tables[table] = TableOf(table);
    return m_tables[table];
  }
  firewall::Chain* FindChain(const Table& table, const std::string& name) {
    for (auto& chain : Edit(table).chainList) {
      if (chain.name == name) return &chain;
    }
    return nullptr;
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

  mutable int queries = 0;
  int changeCalls = 0;
  bool failQuery = false;
  std::vector<std::string> scripts;

 private:
  static bool IsBuiltin(const std::string& name) {
    return name == "INPUT" || name == "FORWARD" || name == "OUTPUT" || name == "PREROUTING" || name == "POSTROUTING";
  }
  static firewall::Chain* Find(firewall::State& state, const std::string& name) {
    for (auto& chain : state.chainList) {
      if (chain.name == name) return &chain;
    }
    return nullptr;
  }
  static firewall::Rule RuleOf(const firewall::Change& change) {
    firewall::Rule rule;
    rule.match = firewall::SplitTokens(change.match);
    rule.target = firewall::SplitTokens(change.target);
    rule.isGoto = change.isGoto;
    return rule;
  }
  static bool Referenced(const firewall::State& state, const std::string& name) {
    for (const auto& chain : state.chainList) {
      for (const auto& rule : chain.ruleList) {
        if (!rule.isPolicy && rule.target.size() == 1 && rule.target[0] == name) return true;
      }
    }
    return false;
  }
  // Rules of a chain are kept ahead of a built-in chain's policy.
  static std::size_t RuleCount(const firewall::Chain& chain) {
    return chain.ruleList.size() - (IsBuiltin(chain.name) ? 1 : 0);
  }

  static bool Apply(firewall::State& state, const firewall::Change& change) {
    using firewall::ChangeKind;
    firewall::Chain* chain = Find(state, change.chain);
    switch (change.kind) {
      case ChangeKind::CreateChain:
        if (chain) return false;
        state.chainList.push_back({change.chain, {}});
        return true;
      case ChangeKind::AddRule: {
        if (!chain) return false;
        const auto rule = RuleOf(change);
        if (rule.target.size() == 1 && !IsKnownTarget(rule.target[0]) && !Find(state, rule.target[0])) return false;
        const std::size_t count = RuleCount(*chain);
        if (change.position == -1) {
          chain->ruleList.insert(chain->ruleList.begin() + static_cast<std::ptrdiff_t>(count), rule);
          return true;
        }
        if (change.position < 1 || static_cast<std::size_t>(change.position) > count + 1) return false;
        chain->ruleList.insert(chain->ruleList.begin() + change.position - 1, rule);
        return true;
      }
      case ChangeKind::DeleteRule: {
        if (!chain) return false;
        const auto rule = RuleOf(change);
        auto it = std::find_if(chain->ruleList.begin(), chain->ruleList.end(), [&](const firewall::Rule& r) {
          return !r.isPolicy && firewall::RulesEqual(r, rule);
        });
        if (it == chain->ruleList.end()) return false;
        chain->ruleList.erase(it);
        return true;
      }
      case ChangeKind::FlushChain:
        if (!chain) return false;
        std::erase_if(chain->ruleList, [](const firewall::Rule& r) { return !r.isPolicy; });
        return true;
      case ChangeKind::DeleteChain:
        if (!chain || IsBuiltin(chain->name) || !chain->ruleList.empty() || Referenced(state, change.chain)) {
          return false;
        }
        std::erase_if(state.chainList, [&](const firewall::Chain& c) { return c.name == change.chain; });
        return true;
      case ChangeKind::SetPolicy:
        return chain && IsBuiltin(chain->name);
    }
    return false;
  }
  static bool IsKnownTarget(const std::string& target) {
    return target == "ACCEPT" || target == "DROP" || target == "RETURN" || target == "REJECT" || target == "NFLOG" ||
           target == "LOG";
  }

  std::map<Table, firewall::State> m_tables;
};

}  // namespace qel::test
