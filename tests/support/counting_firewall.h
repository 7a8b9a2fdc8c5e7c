// A decorator of the kernel side of the firewall service: it forwards both
// interfaces to the real object and counts the calls, so that a test can
// tell whether a synchronisation changed the kernel and what it wrote.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "oro/ref_ptr.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class CountingFirewall final
    : public ObjectImpl<CountingFirewall, firewall::IFirewallStateQuery, firewall::IFirewallStateChange> {
 public:
  template <class Real>
  explicit CountingFirewall(const oro::RefPtr<Real>& real)
      : m_query(oro::RefPtr<firewall::IFirewallStateQuery>::Share(real.Get())),
        m_change(oro::RefPtr<firewall::IFirewallStateChange>::Share(real.Get())) {}

  oro::result_t GetState(types::IPAddressFamily::Type family, const std::string& table,
                         firewall::State& out) const noexcept override {
    {
      std::lock_guard lock(m_mutex);
      ++m_queries;
    }
    return m_query->GetState(family, table, out);
  }

  oro::result_t ChangeState(types::IPAddressFamily::Type family, const std::string& table,
                            const firewall::ChangeList& changes) noexcept override {
    try {
      std::lock_guard lock(m_mutex);
      std::string script;
      for (const auto& change : changes) script += firewall::ChangeLine(change) + "\n";
      m_scripts.push_back(std::string(settings::EnumToString(family)) + " " + table + ":\n" + script);
    } catch (...) {
      return oro::errNoMemory;
    }
    return m_change->ChangeState(family, table, changes);
  }

  std::size_t Queries() const {
    std::lock_guard lock(m_mutex);
    return m_queries;
  }
  // Every change list handed on, as "IPv4 filter:" and its script lines.
  std::vector<std::string> Scripts() const {
    std::lock_guard lock(m_mutex);
    return m_scripts;
  }
  std::size_t Changes() const { return Scripts().size(); }
  // The change lists handed on since the first `since` of them, joined.
  std::string ScriptsSince(std::size_t since) const {
    std::string text;
    const auto scripts = Scripts();
    for (std::size_t i = since; i < scripts.size(); ++i) text += scripts[i];
    return text;
  }

 private:
  const oro::RefPtr<firewall::IFirewallStateQuery> m_query;
  const oro::RefPtr<firewall::IFirewallStateChange> m_change;
  mutable std::mutex m_mutex;
  mutable std::size_t m_queries = 0;
  std::vector<std::string> m_scripts;
};

}  // namespace qel::test
