// Batched dynamic rules as a client of them sees them: the groups it holds
// by tag, each call recorded, and submits that can be refused. A refused
// submit puts the groups back as the last accepted submit left them, as the
// real batching does.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeDynamicRules2 final : public ObjectImpl<FakeDynamicRules2, firewall::IDynamicRules2> {
 public:
  using Groups = std::map<std::string, firewall::RuleDescriptions>;

  oro::result_t AddClient(const std::string& tag, const firewall::RuleDescriptions& rules) noexcept override {
    std::lock_guard lock(m_mutex);
    m_calls.push_back("add " + tag + " " + std::to_string(rules.size()));
    auto& group = m_pending[tag];
    group.insert(group.end(), rules.begin(), rules.end());
    return oro::errOk;
  }
  oro::result_t UpdateClient(const std::string& tag, const firewall::RuleDescriptions& rules) noexcept override {
    std::lock_guard lock(m_mutex);
    m_calls.push_back("update " + tag + " " + std::to_string(rules.size()));
    const auto it = m_pending.find(tag);
    if (it == m_pending.end()) return oro::errNotFound;
    it->second = rules;
    return oro::errOk;
  }
  oro::result_t RemoveClient(const std::string& tag) noexcept override {
    std::lock_guard lock(m_mutex);
    m_calls.push_back("remove " + tag);
    return m_pending.erase(tag) != 0 ? oro::errOk : oro::errFalse;
  }
  oro::result_t Submit() noexcept override {
    std::lock_guard lock(m_mutex);
    m_calls.push_back("submit");
    if (!m_refusals.empty()) {
      const oro::result_t refusal = m_refusals.front();
      m_refusals.pop_front();
      m_pending = m_submitted;
      return refusal;
    }
    m_submitted = m_pending;
    return oro::errOk;
  }

  // The next submits answer these codes.
  void RefuseSubmits(std::initializer_list<oro::result_t> codes) {
    std::lock_guard lock(m_mutex);
    m_refusals.insert(m_refusals.end(), codes);
  }
  // The calls since the last look, as "add TAG N", "update TAG N",
  // "remove TAG", "submit".
  std::vector<std::string> TakeCalls() {
    std::lock_guard lock(m_mutex);
    return std::exchange(m_calls, {});
  }
  // What the firewall holds: the groups of the last accepted submit.
  Groups Submitted() {
    std::lock_guard lock(m_mutex);
    return m_submitted;
  }

 private:
  std::mutex m_mutex;
  std::vector<std::string> m_calls;
  Groups m_pending;
  Groups m_submitted;
  std::deque<oro::result_t> m_refusals;
};

}  // namespace qel::test
