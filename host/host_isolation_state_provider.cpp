#include "host/host_isolation_state_provider.h"

#include <algorithm>
#include <new>

namespace qel::host {

void HostIsolationStateProvider::Attach(oro::RefPtr<StatusProvider> status,
                                        oro::RefPtr<firewall::INetworkIsolationReport> report) {
  std::lock_guard lock(m_mutex);
  m_links = Links{std::move(status), std::move(report)};
}

void HostIsolationStateProvider::Detach() {
  Links dropped;
  std::lock_guard lock(m_mutex);
  std::swap(dropped, m_links);
}

void HostIsolationStateProvider::RememberKind(std::uint32_t clientId, std::uint32_t kind) {
  std::lock_guard lock(m_mutex);
  m_kinds[clientId] = kind;
}

void HostIsolationStateProvider::ForgetKind(std::uint32_t clientId) {
  std::lock_guard lock(m_mutex);
  m_kinds.erase(clientId);
}

std::uint32_t HostIsolationStateProvider::KindOf(std::uint32_t clientId) const {
  std::lock_guard lock(m_mutex);
  const auto found = m_kinds.find(clientId);
  return found == m_kinds.end() ? 0 : found->second;
}

HostIsolationStateProvider::Links HostIsolationStateProvider::Linked() const {
  std::lock_guard lock(m_mutex);
  return m_links;
}

oro::result_t HostIsolationStateProvider::GetClientIds(std::vector<std::uint32_t>& ids) noexcept try {
  const Links links = Linked();
  if (!links.status) return oro::errInvalidState;
  std::vector<std::uint32_t> active;
  if (const auto r = links.status->GetActiveSessions(active); oro::Failed(r)) return r;
  ids = std::move(active);
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostIsolationStateProvider::GetClientState(std::uint32_t clientId,
                                                         firewall::NetworkIsolationClientState& state) noexcept try {
  std::vector<std::uint32_t> active;
  if (const auto r = GetClientIds(active); oro::Failed(r)) return r;
  firewall::NetworkIsolationClientState result;
  result.clientId = clientId;
  result.clientKind = KindOf(clientId);
  result.isRunning = std::find(active.begin(), active.end(), clientId) != active.end();
  state = result;
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostIsolationStateProvider::GetClientExclusionRules(std::uint32_t clientId,
                                                                  firewall::NetworkExclusionRules& rules) noexcept try {
  const Links links = Linked();
  if (!links.report) return oro::errInvalidState;
  firewall::NetworkIsolationReport report;
  if (const auto r = links.report->GetReport(report); oro::Failed(r)) return r;
  for (auto& client : report.clients) {
    if (client.clientId != clientId) continue;
    rules = std::move(client.rules);
    return oro::errOk;
  }
  return oro::errNotFound;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

}  // namespace qel::host
