// An in-memory packet filter that applies change lists the way the restore
// tool does: all of a script or nothing, "-D" removing the first equal
// rule, "-I n" counting from 1, and no chain deleted while it is referenced
// or not empty. Tables may be listed and changed from several threads at
// once, as the service reads later tables ahead.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
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
    AwaitOtherListings();
    std::lock_guard lock(m_mutex);
    out = TableOf({family, table});
    return oro::errOk;
  }

  oro::result_t ChangeState(types::IPAddressFamily::Type family, const std::string& table,
                            const firewall::ChangeList& changes) noexcept override {
    ++changeCalls;
    std::lock_guard lock(m_mutex);
    firewall::State state = TableOf({family, table});
    for (const auto& change : changes) {
      if (!Apply(state, change)) return oro::errUnexpected;  // nothing is committed
    }
    m_tables[{family, table}] = std::move(state);
    return oro::errOk;
  }

  // The table as the listing shows it: built-in chains with their policy.
  firewall::State TableOf(const Table& table) const {
    if (auto it = m_tables.find(table); it != m_tables.end()) return it->second;
    std::vector<const char*> builtins = {"INPUT", "FORWARD", "OUTPUT"};
    if (table.second == "mangle") builtins = {"PREROUTING", "INPUT", "FORWARD", "OUTPUT", "POSTROUTING"};
    if (table.second == "nat") builtins = {"PREROUTING", "INPUT", "OUTPUT", "POSTROUTING"};
    firewall::Rule policy;
    policy.isPolicy = true;
    policy.target = {"ACCEPT"};
    firewall::State state;
    for (const char* chain : builtins) state.chainList.push_back({chain, {policy}});
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

  // Each listing waits up to this long for a second one to run beside it,
  // so that a test sees how many listings the service runs at once.
  std::chrono::milliseconds listingsMeetWithin{0};
  mutable int mostListingsAtOnce = 0;  // guarded by m_meetingMutex

  mutable std::atomic<int> queries = 0;
  std::atomic<int> changeCalls = 0;
  std::atomic<bool> failQuery = false;

 private:
  void AwaitOtherListings() const {
    if (listingsMeetWithin.count() <= 0) return;
    std::unique_lock lock(m_meetingMutex);
    const int meetingsBefore = m_meetings;
    if (++m_listingsRunning > 1) ++m_meetings;
    mostListingsAtOnce = std::max(mostListingsAtOnce, m_listingsRunning);
    m_meeting.notify_all();
    m_meeting.wait_for(lock, listingsMeetWithin, [&] { return m_meetings != meetingsBefore; });
    --m_listingsRunning;
  }
  static bool OneOf(std::string_view word, std::initializer_list<const char*> words) {
    return std::find(words.begin(), words.end(), word) != words.end();
  }
  static bool IsBuiltin(const std::string& name) {
    return OneOf(name, {"INPUT", "FORWARD", "OUTPUT", "PREROUTING", "POSTROUTING"});
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
        if (!rule.isPolicy && rule.target == firewall::Tokens{name}) return true;
      }
    }
    return false;
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
        if (rule.target.size() == 1 && !OneOf(rule.target[0], {"ACCEPT", "DROP", "RETURN", "REJECT", "NFLOG", "LOG"}) &&
            !Find(state, rule.target[0])) {
          return false;
        }
        // Rules are kept ahead of a built-in chain's policy.
        const auto count = static_cast<std::int32_t>(chain->ruleList.size()) - (IsBuiltin(chain->name) ? 1 : 0);
        const auto position = change.position == -1 ? count + 1 : change.position;
        if (position < 1 || position > count + 1) return false;
        chain->ruleList.insert(chain->ruleList.begin() + position - 1, std::move(rule));
        return true;
      }
      case ChangeKind::DeleteRule: {
        auto it = std::find_if(chain->ruleList.begin(), chain->ruleList.end(),
                               [&](const firewall::Rule& r) { return !r.isPolicy && firewall::RulesEqual(r, rule); });
        if (it == chain->ruleList.end()) return false;
        chain->ruleList.erase(it);
        return true;
      }
      case ChangeKind::FlushChain:
        std::erase_if(chain->ruleList, [](const firewall::Rule& r) { return !r.isPolicy; });
        return true;
      case ChangeKind::DeleteChain:
        if (IsBuiltin(chain->name) || !chain->ruleList.empty() || Referenced(state, change.chain)) {
          return false;
        }
        std::erase_if(state.chainList, [&](const firewall::Chain& c) { return c.name == change.chain; });
        return true;
      case ChangeKind::SetPolicy:
        return IsBuiltin(chain->name);
    }
    return false;
  }

  mutable std::mutex m_meetingMutex;
  mutable std::condition_variable m_meeting;
  mutable int m_listingsRunning = 0;
  mutable int m_meetings = 0;
  mutable std::mutex m_mutex;  // guards m_tables while the service runs
  std::map<Table, firewall::State> m_tables;
};

}  // namespace qel::test
