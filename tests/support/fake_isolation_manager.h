// The isolation manager as its callers see it: sessions by client, created
// or replaced by CreateSession, ended by DeleteSession (an unknown client is
// refused and changes nothing), listed and reported in ascending order.
// Every deletion is recorded; a test can make the report fail.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "firewall/isolation_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

namespace nim = system_interceptors::network_isolation_manager;

class FakeIsolationManager final
    : public ObjectImpl<FakeIsolationManager, nim::INetworkIsolationManager3,
                        nim::INetworkIsolationManagerOverallStatusProvider, firewall::INetworkIsolationReport> {
 public:
  oro::result_t CreateSession(std::uint32_t clientId, const nim::NetworkExclusionRules& rules) noexcept override {
    std::lock_guard lock(m_mutex);
    m_sessions[clientId] = rules;
    return oro::errOk;
  }
  oro::result_t DeleteSession(std::uint32_t clientId) noexcept override {
    std::lock_guard lock(m_mutex);
    m_deleted.push_back(clientId);
    return m_sessions.erase(clientId) ? oro::errOk : oro::errNotFound;
  }
  oro::result_t GetActiveSessions(std::vector<std::uint32_t>& clients) noexcept override {
    std::lock_guard lock(m_mutex);
    clients.clear();
    for (const auto& session : m_sessions) clients.push_back(session.first);
    return oro::errOk;
  }
  oro::result_t GetReport(firewall::NetworkIsolationReport& out) noexcept override {
    std::lock_guard lock(m_mutex);
    if (oro::Failed(reportResult)) return reportResult;
    out = {};
    out.backend = m_sessions.empty() ? "" : "iptables";
    for (const auto& [client, rules] : m_sessions) out.clients.push_back({client, rules});
    return oro::errOk;
  }

  // Its primary interface, for QueryInterface.
  oro::IObject* Object() { return static_cast<nim::INetworkIsolationManager3*>(this); }

  std::vector<std::uint32_t> Deleted() {
    std::lock_guard lock(m_mutex);
    return m_deleted;
  }

  oro::result_t reportResult = oro::errOk;

 private:
  std::mutex m_mutex;
  std::map<std::uint32_t, nim::NetworkExclusionRules> m_sessions;
  std::vector<std::uint32_t> m_deleted;
};

// Turns isolation off the way the module's facade does, without tasks: each
// client the manager lists is ended; `result` is what TurnOff answers.
class FakeIsolationFacade final : public ObjectImpl<FakeIsolationFacade, firewall::INetworkIsolationFacade> {
 public:
  explicit FakeIsolationFacade(oro::RefPtr<FakeIsolationManager> manager) : m_manager(std::move(manager)) {}
  oro::result_t GetRunningIsolationClients(firewall::NetworkIsolationClientStates& states) noexcept override {
    return GetRunningIsolationClients(states, nullptr);
  }
  oro::result_t GetRunningIsolationClients(firewall::NetworkIsolationClientStates& states,
                                           nim::NetworkExclusionRules*) noexcept override {
    std::vector<std::uint32_t> clients;
    m_manager->GetActiveSessions(clients);
    states.clear();
    for (auto client : clients) states.push_back({.clientId = client, .isRunning = true});
    return oro::errOk;
  }
  oro::result_t TurnOff() noexcept override {
    std::vector<std::uint32_t> clients;
    m_manager->GetActiveSessions(clients);
    for (auto client : clients) {
      if (client != keep) m_manager->DeleteSession(client);
    }
    return result;
  }

  // A client whose stop task fails.
  std::uint32_t keep = 0xffffffff;
  oro::result_t result = oro::errOk;

 private:
  oro::RefPtr<FakeIsolationManager> m_manager;
};

}  // namespace qel::test
