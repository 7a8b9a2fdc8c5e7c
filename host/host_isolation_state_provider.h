// Which clients hold the host isolated, as the isolation facade reads it:
// the ids and rules come from the isolation manager, the kind of each client
// (which decides its stop task) from what its `isolate` request said. The
// kinds live in memory only: a client the manager recovered after a restart
// has kind 0 until it isolates again.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "firewall/isolation_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class HostIsolationStateProvider final
    : public ObjectImpl<HostIsolationStateProvider, firewall::INetworkIsolationStateProvider> {
 public:
  using StatusProvider = system_interceptors::network_isolation_manager::INetworkIsolationManagerOverallStatusProvider;

  // The manager is created after this object; the host links them, and
  // unlinks them before it releases the manager.
  void Attach(oro::RefPtr<StatusProvider> status, oro::RefPtr<firewall::INetworkIsolationReport> report);
  void Detach();

  // The kind the client's isolate request named, and forgetting it.
  void RememberKind(std::uint32_t clientId, std::uint32_t kind);
  void ForgetKind(std::uint32_t clientId);
  std::uint32_t KindOf(std::uint32_t clientId) const;

  oro::result_t GetClientIds(std::vector<std::uint32_t>& ids) noexcept override;
  // A client that is not isolating (any more) is reported, not running.
  oro::result_t GetClientState(std::uint32_t clientId, firewall::NetworkIsolationClientState& state) noexcept override;
  // errNotFound for a client that is not isolating.
  oro::result_t GetClientExclusionRules(std::uint32_t clientId, firewall::NetworkExclusionRules& rules) noexcept override;

 private:
  struct Links {
    oro::RefPtr<StatusProvider> status;
    oro::RefPtr<firewall::INetworkIsolationReport> report;
  };
  Links Linked() const;

  mutable std::mutex m_mutex;
  Links m_links;
  std::map<std::uint32_t, std::uint32_t> m_kinds;
};

}  // namespace qel::host
