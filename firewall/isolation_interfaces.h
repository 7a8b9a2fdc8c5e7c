// The interfaces of network isolation: what other components call to
// isolate the host, what the manager asks of a backend, and the facade that
// turns isolation off through each client's own stop task.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "firewall/network_isolation_data.h"
#include "oro/object.h"
#include "oro/ref_ptr.h"

namespace system_interceptors::network_isolation_manager {

struct INetworkIsolationManager3 : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationManager3;
  // Creates the client's session, or replaces its rules when it has one.
  virtual oro::result_t CreateSession(std::uint32_t clientId, const NetworkExclusionRules& rules) noexcept = 0;
  // Ends the client's session; fails, changing nothing, for an unknown client.
  virtual oro::result_t DeleteSession(std::uint32_t clientId) noexcept = 0;
};

struct INetworkIsolationManagerOverallStatusProvider : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationManagerOverallStatusProvider;
  virtual oro::result_t GetActiveSessions(std::vector<std::uint32_t>& clients) noexcept = 0;
};

struct NetworkIsolationStatus {
  bool isolated = false;
  std::vector<std::uint32_t> clients;  // ascending
};

// Told of every change of the set of sessions, after it took effect.
struct INetworkIsolationManagerEvents : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationManagerEvents;
  virtual void OnStatusChanged(const NetworkIsolationStatus& status) noexcept = 0;
};

struct INetworkIsolationManagerEventsSubscription : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationManagerEventsSubscription;
  virtual oro::result_t Subscribe(INetworkIsolationManagerEvents* sink) noexcept = 0;
  virtual oro::result_t Unsubscribe(INetworkIsolationManagerEvents* sink) noexcept = 0;
};

}  // namespace system_interceptors::network_isolation_manager

namespace qel::firewall {

using network_isolation_data::BuiltinRules;
using network_isolation_data::NetworkExclusionRules;

// Held by the service: lifts isolation when the service stops, keeping the
// record so that the next start isolates again.
struct INetworkIsolationHolder : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationHolder;
  virtual oro::result_t Shutdown() noexcept = 0;
};

// One way of enforcing isolation (eBPF, iptables). Driven by the manager
// with its mutex held, so a backend is called by one thread at a time.
struct INetworkIsolationBackend : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationBackend;
  // Creates or replaces the session of a client.
  virtual oro::result_t CreateSession(std::uint32_t clientId, const NetworkExclusionRules& rules) noexcept = 0;
  virtual oro::result_t DeleteSession(std::uint32_t clientId) noexcept = 0;
  // Traces which interfaces the backend watches over.
  virtual oro::result_t ReportInterfaces() noexcept = 0;
  // The backend's name, as the settings and reports use it.
  virtual const char* Name() const noexcept { return "unknown"; }
  // Replaces the built-in exclusions.
  virtual oro::result_t UpdateBuiltInSession(const BuiltinRules& builtIn) noexcept = 0;
};

// Backend names, in the order the manager tries them.
inline constexpr const char* kEbpfBackendName = "ebpf";
inline constexpr const char* kIptablesBackendName = "iptables";

// Makes a backend by name. The module has its own; a host or a test may
// offer another through the service locator.
struct INetworkIsolationBackendFactory : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationBackendFactory;
  // errNotImplemented for a backend this build lacks, errInvalidState for
  // one the settings turn off; `out` is untouched on failure.
  virtual oro::result_t CreateBackend(const std::string& name, oro::RefPtr<INetworkIsolationBackend>& out) noexcept = 0;
};

// Provided by the host when its settings restrict isolation: the backends
// the manager may try, by name. Absent: every backend.
struct INetworkIsolationSettings : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationSettings;
  virtual oro::result_t GetBackends(std::vector<std::string>& names) noexcept = 0;
};

// What the manager holds, for a person to read.
struct NetworkIsolationClientReport {
  std::uint32_t clientId = 0;
  NetworkExclusionRules rules;
};
struct NetworkIsolationReport {
  std::string backend;  // empty while not isolated
  std::vector<NetworkIsolationClientReport> clients;  // by client id
  BuiltinRules builtIn;
};

struct INetworkIsolationReport : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationReport;
  virtual oro::result_t GetReport(NetworkIsolationReport& out) noexcept = 0;
};

// A client's isolation as the product's state provider knows it.
enum class StopReason : std::uint32_t { Unknown = 0, ExplicitRequest = 1, TimeoutExpired = 2 };

struct NetworkIsolationClientState {
  std::uint32_t clientId = 0;
  std::uint32_t initiatorId = 0;
  StopReason stopReason = StopReason::Unknown;
  // Which component isolates: it chooses the stop task (0 and 1 the
  // targeted-attack component, 2 the industrial one, others the XDR one).
  std::uint32_t clientKind = 0;
  bool isRunning = false;
};
using NetworkIsolationClientStates = std::vector<NetworkIsolationClientState>;

// Provided by the host.
struct INetworkIsolationStateProvider : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationStateProvider;
  virtual oro::result_t GetClientIds(std::vector<std::uint32_t>& ids) noexcept = 0;
  virtual oro::result_t GetClientState(std::uint32_t clientId, NetworkIsolationClientState& state) noexcept = 0;
  virtual oro::result_t GetClientExclusionRules(std::uint32_t clientId, NetworkExclusionRules& rules) noexcept = 0;
};

struct INetworkIsolationFacade : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkIsolationFacade;
  virtual oro::result_t GetRunningIsolationClients(NetworkIsolationClientStates& states) noexcept = 0;
  // With each client's exclusion rules appended to `rules`.
  virtual oro::result_t GetRunningIsolationClients(NetworkIsolationClientStates& states,
                                                   NetworkExclusionRules* rules) noexcept = 0;
  // Starts the stop task of every running client, one after the other.
  virtual oro::result_t TurnOff() noexcept = 0;
};

}  // namespace qel::firewall
