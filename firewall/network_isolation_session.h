// One tagged group of isolation rules in the firewall: a client's session
// ("ni_0x1f") or the built-in exclusions ("ni_builtin"). It knows whether the
// firewall's dynamic rules hold its group, so that a change adds or replaces
// it as needed. Changes take effect when the owner submits the batch.
#pragma once

#include <string>

#include "firewall/firewall_interfaces.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class NetworkIsolationSession {
 public:
  NetworkIsolationSession(tracing::Tracer tracer, oro::RefPtr<IDynamicRules2> fw, std::string firewallTag);

  const std::string& Tag() const noexcept { return m_firewallTag; }
  bool IsAdded() const noexcept { return m_isAdded; }

  // Adds the group with `fwRules`.
  oro::result_t Assign(const RuleDescriptions& fwRules);
  // Replaces the group's rules, adding the group when it is not held.
  oro::result_t Update(const RuleDescriptions& fwRules);
  // Drops the group. A failure is traced only: the session is gone for its
  // owner either way.
  void Delete();

 private:
  tracing::Tracer m_tracer;
  oro::RefPtr<IDynamicRules2> m_fw;
  std::string m_firewallTag;
  bool m_isAdded = false;
};

}  // namespace qel::firewall
