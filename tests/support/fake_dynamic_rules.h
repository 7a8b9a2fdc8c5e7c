// The firewall's dynamic rules as the service keeps them: AddRules appends
// every rule under its tag, RemoveRules drops every equal rule whatever its
// tag, and a refused call changes nothing. Every call is recorded; tests can
// refuse calls and wait for them.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

// Each rule as the kernel gets it for IPv4, after its side:
// "in -p tcp -m tcp --dport 22 -j ACCEPT"; sorted, so that tests compare
// what the rules do rather than the order they were made in.
inline std::vector<std::string> KernelTexts(const firewall::RuleDescriptions& rules) {
  std::vector<std::string> texts;
  for (const auto& rule : rules) {
    const auto translated = firewall::TranslateDescription(rule, types::IPAddressFamily::IPv4, rule.side);
    texts.push_back((rule.side == firewall::Side::Incoming ? "in " : "out ") +
                    (translated ? firewall::RuleText(*translated) : "(no IPv4 rule)"));
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

class FakeDynamicRules final : public ObjectImpl<FakeDynamicRules, firewall::IDynamicRules> {
 public:
  struct Call {
    bool add = false;  // else a removal
    firewall::RuleDescriptions rules;
    std::string tag;  // of an addition
    std::thread::id thread;
  };

  oro::result_t AddRules(const firewall::RuleDescriptions& rules, const std::string& tag) noexcept override {
    if (duringAdd) duringAdd();
    std::lock_guard lock(m_mutex);
    const oro::result_t r = Answer(true, rules, tag);
    if (ORO_SUCCEEDED(r)) {
      for (const auto& rule : rules) m_held.push_back({rule, tag});
    }
    return r;
  }

  oro::result_t RemoveRules(const firewall::RuleDescriptions& rules) noexcept override {
    std::lock_guard lock(m_mutex);
    const oro::result_t r = Answer(false, rules, {});
    if (ORO_SUCCEEDED(r)) {
      std::erase_if(m_held, [&](const firewall::TaggedRule& held) {
        return std::find(rules.begin(), rules.end(), held.description) != rules.end();
      });
    }
    return r;
  }

  // The next calls answer these codes, in order, whatever they are.
  void Refuse(std::initializer_list<oro::result_t> codes) {
    std::lock_guard lock(m_mutex);
    m_refusals.insert(m_refusals.end(), codes);
  }

  std::vector<Call> Calls() {
    std::lock_guard lock(m_mutex);
    return m_calls;
  }
  std::vector<firewall::TaggedRule> Held() {
    std::lock_guard lock(m_mutex);
    return m_held;
  }
  // The held rules as the kernel gets them; see KernelTexts.
  std::vector<std::string> HeldTexts() {
    firewall::RuleDescriptions rules;
    for (const auto& held : Held()) rules.push_back(held.description);
    return KernelTexts(rules);
  }
  // Waits until `count` calls were answered; false when they were not
  // within `limit` (a guard against hanging, not a timing).
  bool WaitForCalls(std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock lock(m_mutex);
    return m_called.wait_for(lock, limit, [&] { return m_calls.size() >= count; });
  }

  // Runs at the start of each AddRules, outside the fake's lock; set before
  // the fake is used.
  std::function<void()> duringAdd;

 private:
  oro::result_t Answer(bool add, const firewall::RuleDescriptions& rules, const std::string& tag) {
    m_calls.push_back({add, rules, tag, std::this_thread::get_id()});
    m_called.notify_all();
    if (m_refusals.empty()) return oro::errOk;
    const oro::result_t r = m_refusals.front();
    m_refusals.pop_front();
    return r;
  }

  std::mutex m_mutex;
  std::condition_variable m_called;
  std::vector<Call> m_calls;
  std::vector<firewall::TaggedRule> m_held;
  std::deque<oro::result_t> m_refusals;
};

}  // namespace qel::test
