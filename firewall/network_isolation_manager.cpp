#include "firewall/network_isolation_manager.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <sstream>
#include <utility>

#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using namespace network_isolation_data;
using oro::result_t;
using tracing::Detail;
using tracing::Error;
using tracing::Skipped;
using tracing::Warning;

constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;

std::string Hex(std::uint32_t value) {
  std::ostringstream text;
  text << "0x" << std::hex << value;
  return text.str();
}

std::optional<std::uint16_t> ParsePort(std::string_view text) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value == 0 || value > 0xffff) return std::nullopt;
  return static_cast<std::uint16_t>(value);
}

std::optional<ip_t> LiteralAddress(const std::string& text) {
  try {
    return tools::ParseIpAddress(text);
  } catch (const tools::AddressParseError&) {
    return std::nullopt;
  }
}

EndpointPort OutboundTcp(std::uint16_t port) { return {std::nullopt, port, kTcp, kDirectionOutbound}; }

// The agent's ports are where the administration server connects to the
// host: inbound, on the host's side.
EndpointPort AgentPort(const OstraPort& port) {
  return {static_cast<std::uint16_t>(port.port), std::nullopt, port.protocol == 0 ? kTcp : kUdp, kDirectionInbound};
}

std::string Join(const std::vector<std::uint32_t>& ids) {
  std::string text;
  for (const auto id : ids) text += (text.empty() ? "" : ", ") + std::to_string(id);
  return text;
}

}  // namespace

// The timer's job. The timer may hold it after the manager is gone, so it
// reaches the manager through a pointer that the manager clears, under the
// job's own lock, before it goes.
class NetworkIsolationManager::VyxResolveJob final : public ObjectImpl<VyxResolveJob, oro::IRunnable> {
 public:
  explicit VyxResolveJob(NetworkIsolationManager* manager) : m_manager(manager) {}
  result_t Run() noexcept override {
    std::lock_guard lock(m_mutex);
    return m_manager ? m_manager->OnScheduledVyxResolve() : oro::errOk;
  }
  // Waits for a run in progress.
  void Detach() noexcept {
    std::lock_guard lock(m_mutex);
    m_manager = nullptr;
  }

 private:
  std::mutex m_mutex;
  NetworkIsolationManager* m_manager;
};

NetworkIsolationManager::NetworkIsolationManager(oro::RefPtr<oro::ITracer> tracer, oro::IServiceLocator* locator,
                                                 oro::RefPtr<INetworkIsolationBackendFactory> backends)
    : m_tracer(std::move(tracer)), m_backends(std::move(backends)) {
  m_vyxResolver = oro::RefPtr<VyxResolveJob>::Adopt(new VyxResolveJob(this));
  LocateServices(locator);
}

NetworkIsolationManager::~NetworkIsolationManager() = default;

template <class I>
oro::RefPtr<I> NetworkIsolationManager::Optional(oro::IServiceLocator* locator, const char* name) {
  result_t result;
  auto service = TryGetInterface<I>(locator, result);
  if (!service) m_tracer.Write(Warning, "Cannot get ", name, " interface, isolation goes on without it");
  return service;
}

void NetworkIsolationManager::LocateServices(oro::IServiceLocator* locator) {
  m_productSettings = Optional<oro::IProductSettings>(locator, "IProductSettings");
  m_policy = Optional<oro::IPolicyManager>(locator, "IPolicyManager");
  m_vyxSettings = Optional<oro::IVyxSettings>(locator, "IVyxSettings");
  m_taskManager = Optional<oro::IQelTaskManager>(locator, "IQelTaskManager");
  m_ostraPorts = Optional<IOstraPorts>(locator, "IOstraPorts");
  m_dns = Optional<oro::IDnsResolver>(locator, "IDnsResolver");
  m_timer = Optional<oro::ITimer>(locator, "ITimer");
  m_publisher = Optional<oro::IEventPublisher>(locator, "IEventPublisher");
  auto storage = Optional<oro::IStorage>(locator, "IStorage");
  auto serializer = Optional<oro::IStorageSerializer2>(locator, "IStorageSerializer2");
  oro::RefPtr<oro::IStorageNode> root;
  if (storage && serializer &&
      ORO_SUCCEEDED(QEL_CHECKED_CALL(m_tracer, storage->GetRootNode(root.Out()), "Cannot get storage root node"))) {
    m_storage = std::make_unique<NetworkIsolationStorage>(m_tracer, root.Get(), serializer.Get());
  } else {
    m_tracer.Write(Warning, "Network isolation is not persisted: there is no storage");
  }
}

result_t NetworkIsolationManager::FinalConstruct() {
  if (ORO_FAILED(RecoverFromStorage())) m_tracer.Write(Error, "Cannot recover network isolation settings");
  return oro::errOk;
}

void NetworkIsolationManager::FinalRelease() noexcept {
  m_vyxResolver->Detach();
  if (m_timer) m_timer->CancelAndWait(m_vyxResolver.Get());
}

// --- Client calls -------------------------------------------------------------

result_t NetworkIsolationManager::CreateSession(std::uint32_t clientId, const NetworkExclusionRules& rules) noexcept {
  return tracing::Guarded(m_tracer, "CreateSession", [&] {
    m_tracer.Write(Detail, "CreateSession", "() ", TraceRequest(clientId, rules));
    std::lock_guard calls(m_callsMutex);
    if (m_isShutDown) {
      m_tracer.Write(Error, "The network isolation manager is shut down, client=", Hex(clientId), " refused");
      return oro::errInvalidState;
    }
    bool began = false;
    nim::NetworkIsolationStatus status;
    {
      std::lock_guard lock(m_mutex);
      const result_t r = CreateSessionLocked(clientId, rules, began);
      if (ORO_FAILED(r)) return r;
      status = StatusLocked();
    }
    if (began) StartResolveTimer();
    OnStatusChanged(status);
    return oro::errOk;
  });
}

result_t NetworkIsolationManager::CreateSessionLocked(std::uint32_t clientId, const NetworkExclusionRules& rules,
                                                      bool& began) {
  if (const auto it = m_sessions.find(clientId); it != m_sessions.end()) {
    const result_t r = m_backend->CreateSession(clientId, rules);
    if (ORO_FAILED(r)) {
      m_tracer.Write(Error, "cannot replace network isolation settings for client=", Hex(clientId), ", result = ",
                     tracing::FormatResult(r));
      return r;
    }
    it->second = rules;
    if (ORO_FAILED(SaveClientToStorage(clientId)))
      m_tracer.Write(Error, "failed to save client network isolation data");
    return oro::errOk;
  }
  if (m_backend) {
    const result_t r = QEL_CHECKED_CALL(m_tracer, m_backend->CreateSession(clientId, rules),
                                        "Cannot create network isolation session");
    if (ORO_FAILED(r)) return r;
  } else {
    const result_t r = StartBackend(clientId, rules);
    if (ORO_FAILED(r)) return r;
    began = true;
  }
  m_sessions[clientId] = rules;
  if (ORO_FAILED(SaveClientToStorage(clientId))) m_tracer.Write(Error, "failed to save client network isolation data");
  if (ORO_FAILED(SaveToStorage())) m_tracer.Write(Error, "failed to save network isolation data");
  if (began && !m_isRecoverMode) GenerateHostIsolatedEvent(clientId);
  return oro::errOk;
}

result_t NetworkIsolationManager::StartBackend(std::uint32_t clientId, const NetworkExclusionRules& rules) {
  m_tracer.Write(Warning, "built-in excludes will be created");
  BuiltinRules builtIn;
  CollectBuiltInExcludes(builtIn);
  m_builtIn = std::move(builtIn);

  m_tracer.Write(Warning, "first try eBPF backend");
  oro::RefPtr<INetworkIsolationBackend> backend;
  const result_t ebpf = TryBackend(kEbpfBackendName, clientId, rules, backend);
  if (ORO_SUCCEEDED(ebpf)) {
    m_backend = std::move(backend);
    return oro::errOk;
  }
  // Turned off by the host's settings is a choice, not a failure.
  m_tracer.Write(Warning, ebpf == oro::errInvalidState ? "eBPF backend is turned off, using iptables"
                                                       : "eBPF backend failed, fallback to iptables");
  const result_t r = TryBackend(kIptablesBackendName, clientId, rules, backend);
  if (ORO_FAILED(r)) {
    m_tracer.Write(Error, "cannot startup network isolation with any backend, result = ", tracing::FormatResult(r));
    m_builtIn = {};
    return r;
  }
  m_backend = std::move(backend);
  return oro::errOk;
}

// A backend gets the built-in record before the client's session, so that
// the first rules it writes already let the product's servers through.
result_t NetworkIsolationManager::TryBackend(const char* name, std::uint32_t clientId,
                                             const NetworkExclusionRules& rules,
                                             oro::RefPtr<INetworkIsolationBackend>& out) {
  if (!m_backends) {
    m_tracer.Write(Error, "There is no maker of network isolation backends, cannot create '", name, "' backend");
    return oro::errNotImplemented;
  }
  oro::RefPtr<INetworkIsolationBackend> backend;
  result_t r = m_backends->CreateBackend(name, backend);
  if (r == oro::errInvalidState) {
    m_tracer.Write(Warning, "Network isolation backend '", name, "' is turned off by the settings");
    return r;
  }
  if (ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "m_backends->CreateBackend(name, backend)", r,
                          std::string("Cannot create '") + name + "' network isolation backend");
    return r;
  }
  r = QEL_CHECKED_CALL(m_tracer, backend->UpdateBuiltInSession(m_builtIn), "Cannot update built-in session data");
  if (ORO_FAILED(r)) return r;
  r = QEL_CHECKED_CALL(m_tracer, backend->CreateSession(clientId, rules),
                       std::string("Cannot create network isolation session with '") + name + "' backend");
  if (ORO_FAILED(r)) return r;
  out = std::move(backend);
  return oro::errOk;
}

result_t NetworkIsolationManager::DeleteSession(std::uint32_t clientId) noexcept {
  return tracing::Guarded(m_tracer, "DeleteSession", [&] {
    m_tracer.Write(Detail, "DeleteSession", "() ", "clientId=", Hex(clientId));
    std::lock_guard calls(m_callsMutex);
    bool ended = false;
    nim::NetworkIsolationStatus status;
    {
      std::lock_guard lock(m_mutex);
      const result_t r = DeleteSessionLocked(clientId, ended);
      if (ORO_FAILED(r)) return r;
      status = StatusLocked();
    }
    if (ended) StopResolveTimer();
    OnStatusChanged(status);
    return oro::errOk;
  });
}

result_t NetworkIsolationManager::DeleteSessionLocked(std::uint32_t clientId, bool& ended) {
  if (m_sessions.erase(clientId) == 0) {
    QEL_TRACE_FAILED_CONDITION(m_tracer, "0 != m_sessions.erase(clientId)",
                               "There is no network isolation session of client=" + Hex(clientId));
    return oro::errNotFound;
  }
  ended = m_sessions.empty();
  if (ended) m_tracer.Write(Warning, "built-in excludes will be removed");
  QEL_CHECKED_CALL(m_tracer, m_backend->DeleteSession(clientId), "Cannot delete network isolation session");
  ClearClientInStorage(clientId);
  if (ORO_FAILED(SaveToStorage())) m_tracer.Write(Error, "failed to save network isolation data");
  if (ended) {
    m_backend.Reset();
    if (!m_isRecoverMode) GenerateHostIsolationCanceledEvent(clientId);
    m_builtIn = {};
  }
  return oro::errOk;
}

result_t NetworkIsolationManager::Shutdown() noexcept {
  return tracing::Guarded(m_tracer, "Shutdown", [&] {
    m_tracer.Write(Detail, "Shutdown", "() ");
    std::lock_guard calls(m_callsMutex);
    m_isShutDown = true;
    nim::NetworkIsolationStatus status;
    bool wasIsolated;
    {
      std::lock_guard lock(m_mutex);
      wasIsolated = static_cast<bool>(m_backend);
      for (const auto& ses : m_sessions) {
        QEL_CHECKED_CALL(m_tracer, m_backend->DeleteSession(ses.first), "Cannot lift network isolation session");
      }
      // Storage keeps the sessions: the next start isolates again.
      m_sessions.clear();
      m_backend.Reset();
      m_builtIn = {};
      status = StatusLocked();
    }
    if (!wasIsolated) return oro::errOk;
    StopResolveTimer();
    OnStatusChanged(status);
    return oro::errOk;
  });
}

// The job takes m_mutex, so the timer is armed and cancelled with only
// m_callsMutex held: CancelAndWait waits for a run in progress, which could
// never end while this thread held m_mutex. m_callsMutex, which the job
// never takes, keeps a new first session from arming the job between the
// last session's end and its cancellation.
void NetworkIsolationManager::StartResolveTimer() {
  if (!m_timer) {
    m_tracer.Write(Warning, "There is no timer: the cloud network's servers are not re-resolved while isolated");
    return;
  }
  QEL_CHECKED_CALL(m_tracer, m_timer->SetRepeated(m_vyxResolver.Get(), DnsResolvePeriodMS), "Cannot set timer");
}

void NetworkIsolationManager::StopResolveTimer() {
  if (!m_timer) return;
  QEL_CHECKED_CALL(m_tracer, m_timer->CancelAndWait(m_vyxResolver.Get()), "Error while cancelling timer");
}

result_t NetworkIsolationManager::GetActiveSessions(std::vector<std::uint32_t>& clients) noexcept {
  return tracing::Guarded(m_tracer, "GetActiveSessions", [&] {
    {
      std::lock_guard lock(m_mutex);
      clients = StatusLocked().clients;
    }
    m_tracer.Write(Detail, "Active sessions count: ", clients.size());
    return oro::errOk;
  });
}

result_t NetworkIsolationManager::GetReport(NetworkIsolationReport& out) noexcept {
  return tracing::Guarded(m_tracer, "GetReport", [&] {
    NetworkIsolationReport report;
    std::lock_guard lock(m_mutex);
    if (m_backend) report.backend = m_backend->Name();
    for (const auto& [clientId, rules] : m_sessions) report.clients.push_back({clientId, rules});
    std::sort(report.clients.begin(), report.clients.end(),
              [](const auto& a, const auto& b) { return a.clientId < b.clientId; });
    report.builtIn = m_builtIn;
    out = std::move(report);
    return oro::errOk;
  });
}

// --- Status and events --------------------------------------------------------

nim::NetworkIsolationStatus NetworkIsolationManager::StatusLocked() const {
  nim::NetworkIsolationStatus status;
  for (const auto& session : m_sessions) status.clients.push_back(session.first);
  std::sort(status.clients.begin(), status.clients.end());
  status.isolated = !status.clients.empty();
  return status;
}

result_t NetworkIsolationManager::Subscribe(nim::INetworkIsolationManagerEvents* sink) noexcept {
  if (!sink) return oro::errInvalidArgument;
  return tracing::Guarded(m_tracer, "Subscribe", [&] {
    std::lock_guard lock(m_sinksMutex);
    const auto same = [&](const auto& held) { return held.Get() == sink; };
    if (std::any_of(m_sinks.begin(), m_sinks.end(), same)) return oro::errAlreadyExists;
    m_sinks.push_back(oro::RefPtr<nim::INetworkIsolationManagerEvents>::Share(sink));
    return oro::errOk;
  });
}

result_t NetworkIsolationManager::Unsubscribe(nim::INetworkIsolationManagerEvents* sink) noexcept {
  return tracing::Guarded(m_tracer, "Unsubscribe", [&] {
    std::lock_guard lock(m_sinksMutex);
    const auto it = std::find_if(m_sinks.begin(), m_sinks.end(), [&](const auto& held) { return held.Get() == sink; });
    if (it == m_sinks.end()) return oro::errFalse;
    m_sinks.erase(it);
    return oro::errOk;
  });
}

void NetworkIsolationManager::OnStatusChanged(const nim::NetworkIsolationStatus& status) {
  std::vector<oro::RefPtr<nim::INetworkIsolationManagerEvents>> sinks;
  {
    std::lock_guard lock(m_sinksMutex);
    sinks = m_sinks;
  }
  m_tracer.Write(Warning, "Network isolation status: isolated=", status.isolated, ", clients=[", Join(status.clients),
                 "]");
  for (const auto& sink : sinks) sink->OnStatusChanged(status);
}

void NetworkIsolationManager::GenerateHostIsolatedEvent(std::uint32_t clientId) {
  oro::Event event{"HostIsolated", {}};
  AddHostNameField(event);
  event.Add("clientId", static_cast<std::int64_t>(clientId));
  Publish(std::move(event), "Cannot publish HostIsolated event");
}

void NetworkIsolationManager::GenerateHostIsolationCanceledEvent(std::uint32_t clientId) {
  oro::Event event{"HostIsolationCanceled", {}};
  AddHostNameField(event);
  event.Add("clientId", static_cast<std::int64_t>(clientId));
  Publish(std::move(event), "Cannot publish HostIsolationCanceled event");
}

void NetworkIsolationManager::AddHostNameField(oro::Event& event) {
  std::array<char, HOST_NAME_MAX + 1> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) {
    m_tracer.Write(Error, "Cannot get host name");
    return;
  }
  event.Add("hostName", std::string(name.data()));
}

void NetworkIsolationManager::Publish(oro::Event event, const char* failure) {
  if (!m_publisher) {
    m_tracer.Write(Error, failure, ": there is no event publisher");
    return;
  }
  QEL_CHECKED_CALL(m_tracer, m_publisher->PublishEvent(std::move(event)), failure);
}

// --- Built-in exclusions ------------------------------------------------------

void NetworkIsolationManager::CollectBuiltInExcludes(BuiltinRules& builtIn) {
  if (ORO_FAILED(CollectTamberServer(builtIn.tamberServers)))
    m_tracer.Write(Warning, "Failed to get tamber nodes. This is ignored");
  if (ORO_FAILED(CollectPELMServer(builtIn.pelmServer)))
    m_tracer.Write(Warning, "Failed to get PELM server. This is ignored");
  if (ORO_FAILED(FillLumraServer(builtIn.lumraVIISServer, builtIn.lumraSVMServers)))
    m_tracer.Write(Warning, "Failed to get lumra servers. This is ignored");
  if (ORO_FAILED(CollectVyxProxies(builtIn.vyxProxies)))
    m_tracer.Write(Warning, "Failed to get VYX Proxies. This is ignored");
  if (ORO_FAILED(CollectVyxServers(builtIn.vyxServers)))
    m_tracer.Write(Warning, "Failed to get VYX servers. This is ignored");
  if (ORO_FAILED(CollectRuskServers(builtIn.ruskServers)))
    m_tracer.Write(Warning, "Failed to get rusk servers. This is ignored");
}

std::optional<NetworkIsolationManager::ServerAddress> NetworkIsolationManager::ParseServer(const std::string& text) {
  if (text.empty()) return std::nullopt;
  if (text.front() == '[') {
    const auto close = text.find(']');
    if (close == std::string::npos || close == 1) return std::nullopt;
    ServerAddress server{text.substr(1, close - 1), std::nullopt};
    if (close + 1 == text.size()) return server;
    if (text[close + 1] != ':' || !(server.port = ParsePort(std::string_view(text).substr(close + 2))))
      return std::nullopt;
    return server;
  }
  const auto colon = text.find(':');
  // More than one colon: a bare IPv6 address, no port.
  if (colon == std::string::npos || text.find(':', colon + 1) != std::string::npos) return ServerAddress{text, {}};
  if (colon == 0) return std::nullopt;
  ServerAddress server{text.substr(0, colon), ParsePort(std::string_view(text).substr(colon + 1))};
  if (!server.port) return std::nullopt;
  return server;
}

std::optional<NetworkIsolationManager::Endpoint> NetworkIsolationManager::ServerEndpoint(const ServerAddress& server,
                                                                                          const std::string& what,
                                                                                          bool withTimeout) {
  Endpoint endpoint{server.host, {}, {}};
  const result_t r =
      withTimeout ? ResolveDomainTimeout(server.host, endpoint.addresses) : ResolveDomain(server.host, endpoint.addresses);
  if (ORO_FAILED(r)) {
    m_tracer.Write(Skipped, what, server.host, "'");
    return std::nullopt;
  }
  if (server.port) endpoint.ports.push_back(OutboundTcp(*server.port));
  return endpoint;
}

result_t NetworkIsolationManager::CollectTamberServer(Endpoints& out) {
  if (!m_taskManager) return oro::errNoInterface;
  oro::TaskSettings settings;
  const result_t r = m_taskManager->GetTaskSettings(kTamberEdrTaskName, settings);
  if (ORO_FAILED(r)) {
    m_tracer.Write(Skipped, "Cannot get settings for '", kTamberEdrTaskName, "' task, result = ",
                   tracing::FormatResult(r));
    return r;
  }
  bool anyNode = false;
  for (const auto& [name, value] : settings.values) {
    if (name != "serverNode") continue;
    anyNode = true;
    const auto server = ParseServer(value);
    std::optional<Endpoint> endpoint;
    if (server) endpoint = ServerEndpoint(*server, "Couldn't resolve the address of tamber endpoint '", false);
    else m_tracer.Write(Skipped, "Couldn't resolve the address of tamber endpoint '", value, "'");
    if (endpoint) out.push_back(std::move(*endpoint));
  }
  if (anyNode && out.empty()) {
    m_tracer.Write(Skipped, "Couldn't get any addresses of tamber server");
    return oro::errNotFound;
  }
  return oro::errOk;
}

result_t NetworkIsolationManager::CollectPELMServer(std::optional<Endpoint>& out) {
  if (!m_productSettings) return oro::errNoInterface;
  std::string text;
  result_t r = QEL_CHECKED_CALL(m_tracer, m_productSettings->GetPelmServer(text), "Cannot get PELM server");
  if (ORO_FAILED(r)) return r;
  if (text.empty()) {
    m_tracer.Write(Warning, "There's no pelm server");
    return oro::errOk;
  }
  const auto server = ParseServer(text);
  std::optional<Endpoint> endpoint;
  if (server) endpoint = ServerEndpoint(*server, "Couldn't resolve the address of PELM endpoint '", false);
  if (!endpoint) {
    m_tracer.Write(Skipped, "Cannot resolve non empty PELM address '", text, "'");
    return oro::errNotFound;
  }
  if (m_ostraPorts) {
    OstraPortList ports;
    r = QEL_CHECKED_CALL(m_tracer, m_ostraPorts->GetOstraPorts(ports), "Cannot get agent ports");
    for (const auto& port : ports) endpoint->ports.push_back(AgentPort(port));
  }
  out = std::move(endpoint);
  return oro::errOk;
}

result_t NetworkIsolationManager::FillLumraServer(std::optional<Endpoint>& viis, Endpoints& svms) {
  if (!m_productSettings) return oro::errNoInterface;
  std::string viisText;
  std::vector<std::string> svmTexts;
  const result_t r = QEL_CHECKED_CALL(m_tracer, m_productSettings->GetLumraServers(viisText, svmTexts),
                                      "Cannot get lumra servers");
  if (ORO_FAILED(r)) return r;
  const auto take = [&](const std::string& text) -> std::optional<Endpoint> {
    const auto server = ParseServer(text);
    if (!server || !server->port) {
      m_tracer.Write(Skipped, "Cannot get lumra svm port: '", text, "'");
      return std::nullopt;
    }
    auto endpoint = ServerEndpoint(*server, "Cannot resolve lumra server '", false);
    if (!endpoint) m_tracer.Write(Skipped, "Resolved addresses are empty, cannot add exclude rules");
    return endpoint;
  };
  if (!viisText.empty()) viis = take(viisText);
  for (const auto& text : svmTexts) {
    if (auto endpoint = take(text)) svms.push_back(std::move(*endpoint));
  }
  return oro::errOk;
}

result_t NetworkIsolationManager::CollectVyxProxies(Endpoints& out) {
  if (!m_policy) return oro::errNoInterface;
  oro::VyxProxySettings proxies;
  const result_t r =
      QEL_CHECKED_CALL(m_tracer, m_policy->GetVyxProxySettings(proxies), "Cannot get VYX proxy settings");
  if (ORO_FAILED(r)) return r;
  const auto take = [&](const std::string& text, const char* what) {
    if (text.empty()) return;
    const auto server = ParseServer(text);
    std::optional<Endpoint> endpoint;
    if (server) endpoint = ServerEndpoint(*server, what, false);
    else m_tracer.Write(Skipped, what, text, "'");
    if (endpoint) out.push_back(std::move(*endpoint));
  };
  take(proxies.tcpProxy, "Couldn't resolve the address of VYX TCP Proxy endpoint '");
  take(proxies.httpsProxy, "Couldn't resolve the address of VYX HTTPS Proxy endpoint '");
  return oro::errOk;
}

result_t NetworkIsolationManager::CollectVyxServers(Endpoints& out) {
  if (!m_vyxSettings) return oro::errNoInterface;
  std::string url;
  std::vector<std::string> routes;
  const result_t r = QEL_CHECKED_CALL(m_tracer, m_vyxSettings->GetDiscoverySettings(url, routes),
                                      "Cannot get VYX discovery settings");
  if (ORO_FAILED(r)) return r;
  if (!url.empty()) {
    // scheme://host:port/path
    const auto hostStart = url.find("://");
    const auto from = hostStart == std::string::npos ? 0 : hostStart + 3;
    const auto server = ParseServer(url.substr(from, url.find('/', from) - from));
    if (!server || !server->port) {
      m_tracer.Write(Skipped, "Provided discovery URL doesn't contain digestable port number: ", url);
    } else if (auto endpoint = ServerEndpoint(*server, "Cannot resolve VYX discovery server '", true)) {
      out.push_back(std::move(*endpoint));
    }
  }
  for (const auto& route : routes) {
    const auto server = ParseServer(route);
    if (!server || !server->port) {
      m_tracer.Write(Skipped, "Cannot parse VYX route: ", route);
      continue;
    }
    if (auto endpoint = ServerEndpoint(*server, "Cannot resolve VYX server '", true)) out.push_back(std::move(*endpoint));
  }
  return oro::errOk;
}

result_t NetworkIsolationManager::CollectRuskServers(Endpoints& out) {
  if (!m_productSettings) return oro::errNoInterface;
  std::vector<std::string> texts;
  const result_t r = QEL_CHECKED_CALL(m_tracer, m_productSettings->GetRuskServers(texts), "Cannot get rusk servers");
  if (ORO_FAILED(r)) return r;
  for (const auto& text : texts) {
    const auto server = ParseServer(text);
    if (!server || !server->port) {
      m_tracer.Write(Skipped, "Cannot parse rusk server: ", text);
      continue;
    }
    if (auto endpoint = ServerEndpoint(*server, "Couldn't resolve the address of rusk endpoint '", false))
      out.push_back(std::move(*endpoint));
  }
  return oro::errOk;
}

// The re-resolution needs the host's resolver; a host may offer it only
// after the manager started, so a missing one is no reason to give up yet.
result_t NetworkIsolationManager::CreateVyxResolveSession() {
  return m_dns ? oro::errOk : oro::errNoInterface;
}

result_t NetworkIsolationManager::ResolveDomain(const std::string& domain, std::vector<ip_t>& addresses) {
  if (auto literal = LiteralAddress(domain)) {
    addresses.push_back(*literal);
    return oro::errOk;
  }
  if (!m_dns) {
    m_tracer.Write(Skipped, "Cannot resolve domain name '", domain, "': there is no name resolver");
    return oro::errNoInterface;
  }
  std::vector<std::string> texts;
  const result_t r = m_dns->ResolveHostWithTimeout(domain, texts, DnsResolveTimeoutMS);
  if (ORO_FAILED(r)) {
    m_tracer.Write(Skipped, "Cannot resolve domain name '", domain, "', result = ", tracing::FormatResult(r));
    return r;
  }
  if (texts.empty()) m_tracer.Write(Skipped, "The domain name '", domain, "' has been resolved to an empty list");
  const auto before = addresses.size();
  for (const auto& text : texts) {
    if (auto address = LiteralAddress(text)) addresses.push_back(*address);
    else m_tracer.Write(Skipped, "Cannot convert address '", text, "' to any ip address, this was skipped");
  }
  if (addresses.size() == before) {
    m_tracer.Write(Skipped, "There's no valid ip address for '", domain, "'");
    return oro::errNotFound;
  }
  return oro::errOk;
}

result_t NetworkIsolationManager::ResolveDomainTimeout(const std::string& domain, std::vector<ip_t>& addresses) {
  const result_t r = ResolveDomain(domain, addresses);
  if (r == oro::errTimeout) m_tracer.Write(Skipped, "Resolve operation ceased by timeout");
  return r;
}

void NetworkIsolationManager::OnVyxStatusChanged() noexcept {
  tracing::Guarded(m_tracer, "OnVyxStatusChanged", [&] {
    std::lock_guard lock(m_mutex);
    if (!m_backend) return oro::errOk;
    Endpoints servers;
    if (ORO_FAILED(CollectVyxServers(servers))) {
      m_tracer.Write(Warning, "Failed to get VYX servers");
      return oro::errOk;
    }
    m_builtIn.vyxServers = std::move(servers);
    QEL_CHECKED_CALL(m_tracer, m_backend->UpdateBuiltInSession(m_builtIn), "Cannot update built-in session data");
    if (ORO_FAILED(SaveToStorage())) m_tracer.Write(Error, "failed to save network isolation data");
    return oro::errOk;
  });
}

result_t NetworkIsolationManager::OnScheduledVyxResolve() noexcept {
  return tracing::Guarded(m_tracer, "OnScheduledVyxResolve", [&] {
    std::lock_guard lock(m_mutex);
    // The last session may have ended while this run waited for the lock.
    if (!m_backend) return oro::errOk;
    if (ORO_FAILED(CreateVyxResolveSession())) {
      m_tracer.Write(Error, "Failed to create DNS-resolve builtin session");
      return oro::errOk;
    }
    Endpoints servers;
    Endpoints proxies;
    CollectVyxServers(servers);
    CollectVyxProxies(proxies);
    if (servers == m_builtIn.vyxServers && proxies == m_builtIn.vyxProxies) return oro::errOk;
    m_builtIn.vyxServers = std::move(servers);
    m_builtIn.vyxProxies = std::move(proxies);
    const result_t r =
        QEL_CHECKED_CALL(m_tracer, m_backend->UpdateBuiltInSession(m_builtIn), "Cannot update built-in session data");
    if (ORO_SUCCEEDED(r)) m_tracer.Write(Warning, "Updated iptables VYX servers");
    if (ORO_FAILED(SaveToStorage())) m_tracer.Write(Error, "failed to save network isolation data");
    return r;
  });
}

// --- Persistence --------------------------------------------------------------

result_t NetworkIsolationManager::SaveToStorage() {
  if (!m_storage) return oro::errFalse;
  ManagerData data;
  data.clients = StatusLocked().clients;
  data.builtIn = m_builtIn;
  return m_storage->SaveManager(data);
}

result_t NetworkIsolationManager::SaveClientToStorage(std::uint32_t clientId) {
  if (!m_storage) return oro::errFalse;
  return m_storage->SaveSession(clientId, m_sessions.at(clientId));
}

result_t NetworkIsolationManager::ClearClientInStorage(std::uint32_t clientId) {
  if (!m_storage) return oro::errFalse;
  const result_t r = m_storage->ClearSession(clientId);
  if (ORO_FAILED(r)) m_tracer.Write(Error, "failed to clear client network isolation data");
  return r;
}

result_t NetworkIsolationManager::RecoverFromStorage() {
  if (!m_storage) return oro::errOk;
  ManagerData saved;
  result_t r = m_storage->LoadManager(saved);
  if (ORO_FAILED(r)) return r;
  if (r == oro::errFalse) return oro::errOk;  // nothing saved, as the storage traced
  std::vector<SavedSession> sessions;
  r = m_storage->LoadSessions(sessions);
  if (ORO_FAILED(r)) {
    m_tracer.Write(Error, "failed to recover sessions of clients");
    return r;
  }
  m_isRecoverMode = true;
  m_storage->SetRecoverMode(true);
  // Nothing is held at start, so each session is simply created again: the
  // backend and the built-in exclusions are built afresh.
  for (const auto& session : sessions) {
    if (ORO_FAILED(CreateSession(session.clientId, session.rules)))
      m_tracer.Write(Error, "CreateSession(clientId, rules) failed for client=", Hex(session.clientId));
  }
  m_storage->SetRecoverMode(false);
  m_isRecoverMode = false;
  std::lock_guard lock(m_mutex);
  if (ORO_FAILED(SaveToStorage())) m_tracer.Write(Error, "failed to save new builtin network isolation settings");
  return oro::errOk;
}

}  // namespace qel::firewall
