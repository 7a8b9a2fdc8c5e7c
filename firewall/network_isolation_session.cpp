#include "firewall/network_isolation_session.h"

namespace qel::firewall {

NetworkIsolationSession::NetworkIsolationSession(tracing::Tracer tracer, oro::RefPtr<IDynamicRules2> fw,
                                                 std::string firewallTag)
    : m_tracer(std::move(tracer)), m_fw(std::move(fw)), m_firewallTag(std::move(firewallTag)) {}

oro::result_t NetworkIsolationSession::Assign(const RuleDescriptions& fwRules) {
  m_tracer.Write(tracing::Detail, "Assign", "() ", "clientTag=", m_firewallTag, ", fwRules.size=", fwRules.size());
  const oro::result_t r = m_fw->AddClient(m_firewallTag, fwRules);
  if (ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "m_fw->AddClient(m_firewallTag, fwRules)", r,
                          "failed to add rules to the firewall: " + tracing::FormatResult(r));
    return r;
  }
  m_isAdded = true;
  return r;
}

oro::result_t NetworkIsolationSession::Update(const RuleDescriptions& fwRules) {
  m_tracer.Write(tracing::Detail, "Update", "() ", "firewallTag=", m_firewallTag, ", m_isAdded=", m_isAdded);
  if (!m_isAdded) return Assign(fwRules);
  return QEL_CHECKED_CALL(m_tracer, m_fw->UpdateClient(m_firewallTag, fwRules),
                          "failed to update rules of " + m_firewallTag + " in the firewall");
}

void NetworkIsolationSession::Delete() {
  m_tracer.Write(tracing::Detail, "Delete", "() ", "firewallTag=", m_firewallTag, ", m_isAdded=", m_isAdded);
  m_isAdded = false;
  // errFalse: the group was not held (a refused batch took it back already).
  QEL_CHECKED_CALL(m_tracer, m_fw->RemoveClient(m_firewallTag), m_firewallTag + " cannot remove firewall rules");
}

}  // namespace qel::firewall
