// Holds the isolation sessions of the product's clients. The host is isolated
// while at least one client holds a session; the manager adds the product's
// own servers as built-in exclusions, picks a backend (eBPF first, iptables
// as fallback) once per isolated period, keeps the sessions in the host's
// storage so that isolation survives a restart, re-resolves the cloud
// network's servers while isolated, and publishes "HostIsolated" and
// "HostIsolationCanceled".
//
// Events: "HostIsolated" when the first client isolates the host,
// "HostIsolationCanceled" when the last one releases it; both carry
// "hostName" and "clientId" (the client whose call began or ended the
// isolation). A start that recovers sessions from storage publishes nothing,
// and neither does Shutdown: the clients never asked for the isolation to
// end, so to them it goes on across the restart, and the product was told
// once when it began.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "firewall/isolation_interfaces.h"
#include "firewall/network_isolation_storage.h"
#include "oro/event_publisher.h"
#include "oro/product_services.h"
#include "oro/timer.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

namespace nim = system_interceptors::network_isolation_manager;

class NetworkIsolationManager
    : public ObjectImpl<NetworkIsolationManager, nim::INetworkIsolationManager3,
                        nim::INetworkIsolationManagerOverallStatusProvider, INetworkIsolationHolder,
                        nim::INetworkIsolationManagerEventsSubscription, oro::vyx::IVyxStatusEvent,
                        INetworkIsolationReport> {
 public:
  static constexpr std::uint32_t DnsResolvePeriodMS = 660000;
  static constexpr std::uint32_t DnsResolveTimeoutMS = 10000;
  // The default targeted-attack EDR task, whose settings name its server
  // nodes ("serverNode", "HOST:PORT", repeated).
  static constexpr const char* kTamberEdrTaskName = "TamberEdr";

  // Product services (settings, policy, cloud settings, task manager, agent
  // ports, resolver, timer, publisher, storage) come from `locator`; each
  // may be missing, and what it would give is then left out, traced.
  NetworkIsolationManager(oro::RefPtr<oro::ITracer> tracer, oro::IServiceLocator* locator,
                          oro::RefPtr<INetworkIsolationBackendFactory> backends);
  ~NetworkIsolationManager() override;

  // Replays the saved sessions, so that a restarted service isolates the
  // host again as it was.
  oro::result_t FinalConstruct();
  // Stops the re-resolution job; sessions stay as the backend holds them.
  void FinalRelease() noexcept;

  // INetworkIsolationManager3
  oro::result_t CreateSession(std::uint32_t clientId, const NetworkExclusionRules& rules) noexcept override;
  oro::result_t DeleteSession(std::uint32_t clientId) noexcept override;
  // INetworkIsolationManagerOverallStatusProvider
  oro::result_t GetActiveSessions(std::vector<std::uint32_t>& clients) noexcept override;
  // INetworkIsolationHolder: lifts the isolation, keeps the saved record;
  // the manager then refuses new sessions (errInvalidState).
  oro::result_t Shutdown() noexcept override;
  // INetworkIsolationManagerEventsSubscription. A sink is told after each
  // change took effect, with no lock of the manager held except the one
  // that orders client calls: it must not create or delete sessions from
  // within the notification.
  oro::result_t Subscribe(nim::INetworkIsolationManagerEvents* sink) noexcept override;
  oro::result_t Unsubscribe(nim::INetworkIsolationManagerEvents* sink) noexcept override;
  // oro::vyx::IVyxStatusEvent
  void OnVyxConnected() noexcept override {}
  void OnVyxDisconnected() noexcept override {}
  void OnVyxStatusChanged() noexcept override;
  // INetworkIsolationReport
  oro::result_t GetReport(NetworkIsolationReport& out) noexcept override;

  // The timer job's entry.
  oro::result_t OnScheduledVyxResolve() noexcept;

 private:
  class VyxResolveJob;
  using Endpoint = network_isolation_data::Endpoint;
  using Endpoints = std::vector<Endpoint>;
  using ip_t = network_isolation_data::ip_t;

  // A server as the settings write it: "HOST", "HOST:PORT", "[v6]:PORT".
  struct ServerAddress {
    std::string host;
    std::optional<std::uint16_t> port;
  };
  static std::optional<ServerAddress> ParseServer(const std::string& text);

  void LocateServices(oro::IServiceLocator* locator);
  template <class I>
  oro::RefPtr<I> Optional(oro::IServiceLocator* locator, const char* name);

  oro::result_t CreateSessionLocked(std::uint32_t clientId, const NetworkExclusionRules& rules, bool& began);
  oro::result_t StartBackend(std::uint32_t clientId, const NetworkExclusionRules& rules);
  oro::result_t TryBackend(const char* name, std::uint32_t clientId, const NetworkExclusionRules& rules,
                           oro::RefPtr<INetworkIsolationBackend>& out);
  oro::result_t DeleteSessionLocked(std::uint32_t clientId, bool& ended);
  void StartResolveTimer();
  void StopResolveTimer();

  void CollectBuiltInExcludes(network_isolation_data::BuiltinRules& builtIn);
  oro::result_t CollectTamberServer(Endpoints& out);
  oro::result_t CollectPELMServer(std::optional<Endpoint>& out);
  oro::result_t FillLumraServer(std::optional<Endpoint>& viis, Endpoints& svms);
  oro::result_t CollectVyxProxies(Endpoints& out);
  oro::result_t CollectVyxServers(Endpoints& out);
  oro::result_t CollectRuskServers(Endpoints& out);
  oro::result_t CreateVyxResolveSession();
  // An outbound TCP endpoint of `server` when it resolves; `what` names it
  // in the trace of a failed resolution.
  std::optional<Endpoint> ServerEndpoint(const ServerAddress& server, const std::string& what, bool withTimeout);
  oro::result_t ResolveDomain(const std::string& domain, std::vector<ip_t>& addresses);
  oro::result_t ResolveDomainTimeout(const std::string& domain, std::vector<ip_t>& addresses);

  nim::NetworkIsolationStatus StatusLocked() const;
  void OnStatusChanged(const nim::NetworkIsolationStatus& status);
  void GenerateHostIsolatedEvent(std::uint32_t clientId);
  void GenerateHostIsolationCanceledEvent(std::uint32_t clientId);
  void Publish(oro::Event event, const char* failure);
  void AddHostNameField(oro::Event& event);

  oro::result_t SaveToStorage();
  oro::result_t SaveClientToStorage(std::uint32_t clientId);
  oro::result_t ClearClientInStorage(std::uint32_t clientId);
  oro::result_t RecoverFromStorage();

  tracing::Tracer m_tracer;
  const oro::RefPtr<INetworkIsolationBackendFactory> m_backends;
  oro::RefPtr<oro::IProductSettings> m_productSettings;
  oro::RefPtr<oro::IPolicyManager> m_policy;
  oro::RefPtr<oro::IVyxSettings> m_vyxSettings;
  oro::RefPtr<oro::IQelTaskManager> m_taskManager;
  oro::RefPtr<IOstraPorts> m_ostraPorts;
  oro::RefPtr<oro::IDnsResolver> m_dns;
  oro::RefPtr<oro::ITimer> m_timer;
  oro::RefPtr<oro::IEventPublisher> m_publisher;
  std::unique_ptr<NetworkIsolationStorage> m_storage;  // null: nothing persists
  oro::RefPtr<VyxResolveJob> m_vyxResolver;

  // Orders the client calls (create, delete, shutdown) from start to end,
  // including arming and cancelling the timer job and telling the sinks,
  // which happen outside m_mutex. The timer job never takes it.
  std::mutex m_callsMutex;
  bool m_isShutDown = false;  // guarded by m_callsMutex

  // Guards the sessions, the backend and the built-in record; held across
  // every call into the backend. Taken after m_callsMutex.
  mutable std::mutex m_mutex;
  std::unordered_map<std::uint32_t, NetworkExclusionRules> m_sessions;
  oro::RefPtr<INetworkIsolationBackend> m_backend;  // empty while not isolated
  network_isolation_data::BuiltinRules m_builtIn;
  bool m_isRecoverMode = false;

  std::mutex m_sinksMutex;
  std::vector<oro::RefPtr<nim::INetworkIsolationManagerEvents>> m_sinks;
};

}  // namespace qel::firewall
