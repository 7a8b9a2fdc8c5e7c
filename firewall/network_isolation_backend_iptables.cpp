#include "firewall/network_isolation_backend_iptables.h"

#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using network_isolation_data::BuiltinIsolationExcludesTag;
using network_isolation_data::ClientId2FWTag;
using oro::result_t;
using tracing::Detail;

constexpr bool kTurnOn = true;
constexpr bool kForce = true;

std::string InterfaceText(INetworkInterface* itf) {
  if (!itf) return "null";
  return std::string("{") + std::to_string(itf->GetIndex()) + ", " + (itf->IsEnabled() ? "up" : "down") + ", " +
         itf->GetName() + "}";
}

}  // namespace

NetworkIsolationBackendIptables::NetworkIsolationBackendIptables(oro::RefPtr<oro::ITracer> tracer,
                                                                 Collaborators collaborators)
    : m_tracer(std::move(tracer)),
      m_converter(m_tracer),
      m_lazyFw(std::move(collaborators.lazyFw)),
      m_bridge(std::move(collaborators.bridge)),
      m_itfProvider(std::move(collaborators.itfProvider)),
      m_itfEvents(std::move(collaborators.itfEvents)),
      m_resolvConf(std::move(collaborators.resolvConf)),
      m_builtinExcludes(m_tracer, m_lazyFw, BuiltinIsolationExcludesTag) {}

// Reached only without an interface subscription (the provider holds the
// backend while subscribed): a backend let go while isolating must not leave
// the host cut off with nobody to lift it.
void NetworkIsolationBackendIptables::FinalRelease() noexcept {
  tracing::Guarded(m_tracer, "FinalRelease", [&] {
    std::lock_guard lock(m_mutex);
    if (m_sessions.empty()) return oro::errOk;
    m_tracer.Write(tracing::Warning, "Isolation backend released with ", m_sessions.size(),
                   " sessions: lifting isolation");
    for (auto& [clientId, session] : m_sessions) session->Delete();
    m_sessions.clear();
    EndIsolation();
    return QEL_CHECKED_CALL(m_tracer, m_lazyFw->Submit(), "failed to remove rules from the firewall");
  });
}

result_t NetworkIsolationBackendIptables::CreateSession(std::uint32_t clientId,
                                                        const NetworkExclusionRules& rules) noexcept {
  return tracing::Guarded(m_tracer, "CreateSession", [&] {
    std::lock_guard lock(m_mutex);
    return DoCreateSession(clientId, rules);
  });
}

result_t NetworkIsolationBackendIptables::DeleteSession(std::uint32_t clientId) noexcept {
  return tracing::Guarded(m_tracer, "DeleteSession", [&] {
    std::lock_guard lock(m_mutex);
    return DoDeleteSession(clientId);
  });
}

result_t NetworkIsolationBackendIptables::UpdateBuiltInSession(const BuiltinRules& builtIn) noexcept {
  return tracing::Guarded(m_tracer, "UpdateBuiltInSession", [&] {
    std::lock_guard lock(m_mutex);
    return DoUpdateBuiltInSession(builtIn);
  });
}

result_t NetworkIsolationBackendIptables::DoCreateSession(std::uint32_t clientId,
                                                          const NetworkExclusionRules& rules) {
  m_tracer.Write(Detail, "CreateSession", "() ", network_isolation_data::TraceRequest(clientId, rules));
  RuleDescriptions fwRules;
  if (const result_t r = m_converter.Convert(rules, fwRules); ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "m_converter.Convert(rules, fwRules)", r, "cannot convert isolation rules");
    return r;
  }

  if (const auto it = m_sessions.find(clientId); it != m_sessions.end()) {
    // A refused batch is rolled back by the dynamic rules: the session keeps
    // its earlier rules, in the firewall as here.
    if (const result_t r = it->second->Update(fwRules); ORO_FAILED(r)) return r;
    return QEL_CHECKED_CALL(m_tracer, m_lazyFw->Submit(), "failed to update the firewall");
  }

  const bool first = m_sessions.empty();
  auto session = std::make_unique<NetworkIsolationSession>(m_tracer, m_lazyFw, ClientId2FWTag(clientId));
  if (const result_t r = session->Assign(fwRules); ORO_FAILED(r)) return r;
  if (first) {
    if (const result_t r = StartIsolation(); ORO_FAILED(r)) {
      session->Delete();
      return r;
    }
  }
  if (const result_t r = QEL_CHECKED_CALL(m_tracer, m_lazyFw->Submit(), "failed to update the firewall");
      ORO_FAILED(r)) {
    // Nothing of this call stays: the firewall is back where it was.
    session->Delete();
    if (first) EndIsolation();
    return r;
  }
  m_sessions.emplace(clientId, std::move(session));
  return oro::errOk;
}

result_t NetworkIsolationBackendIptables::DoDeleteSession(std::uint32_t clientId) {
  m_tracer.Write(Detail, "DeleteSession", "() ", "clientId=", clientId);
  const auto it = m_sessions.find(clientId);
  if (it == m_sessions.end()) {
    QEL_TRACE_FAILED_CONDITION(m_tracer, "0 != m_sessions.erase(clientId)",
                               "No isolation session for client " + std::to_string(clientId));
    return oro::errNotFound;
  }
  const std::string tag = it->second->Tag();
  it->second->Delete();
  m_sessions.erase(it);
  const bool last = m_sessions.empty();
  if (last) EndIsolation();
  if (ORO_FAILED(QEL_CHECKED_CALL(m_tracer, m_lazyFw->Submit(), "failed to remove rules from the firewall"))) {
    // The refused batch was rolled back and holds the groups again; drop
    // them once more so that the next batch takes them out.
    m_lazyFw->RemoveClient(tag);
    if (last) m_lazyFw->RemoveClient(BuiltinIsolationExcludesTag);
  }
  return oro::errOk;
}

result_t NetworkIsolationBackendIptables::DoUpdateBuiltInSession(const BuiltinRules& builtIn) {
  m_tracer.Write(Detail, "UpdateBuiltInSession", "() ", "sessions=", m_sessions.size());
  // Kept even when the firewall refuses it: it is the newest knowledge of
  // the servers, and the next isolation starts from it.
  m_builtinData = builtIn;
  if (m_sessions.empty()) return oro::errOk;
  if (const result_t r = m_builtinExcludes.Update(BuiltinFwRules()); ORO_FAILED(r)) return r;
  return QEL_CHECKED_CALL(m_tracer, m_lazyFw->Submit(), "failed to udptable rules on the firewall");
}

result_t NetworkIsolationBackendIptables::StartIsolation() {
  m_tracer.Write(Detail, "built-in excludes will be created");
  if (const result_t r = m_builtinExcludes.Assign(BuiltinFwRules()); ORO_FAILED(r)) return r;
  ItfSubscribe();
  ListInternalInterfaces();
  // Without the switches isolation still holds for the host itself, and a
  // request that could not be written is applied once the bridge netfilter
  // module loads: traced, not a failure.
  QEL_CHECKED_CALL(m_tracer, m_bridge->AddBridgeNfCallsClient(ClsIdNetworkIsolationBackendIptables, kTurnOn, kForce),
                   "Cannot turn on bridge netfilter for isolation");
  return oro::errOk;
}

void NetworkIsolationBackendIptables::EndIsolation() {
  m_tracer.Write(Detail, "built-in excludes will be removed");
  m_builtinExcludes.Delete();
  ItfUnsubscribe();
  QEL_CHECKED_CALL(m_tracer, m_bridge->DeleteBridgeNfCallsClient(ClsIdNetworkIsolationBackendIptables),
                   "Cannot give back the bridge netfilter setting");
}

RuleDescriptions NetworkIsolationBackendIptables::BuiltinFwRules() const {
  RuleDescriptions rules = m_converter.Convert(m_builtinData);
  std::string resolvConf;
  const result_t r = m_resolvConf ? m_resolvConf(resolvConf) : oro::errNotFound;
  if (ORO_FAILED(r)) {
    m_tracer.Write(tracing::Warning, "Cannot read the resolver configuration, no name server stays reachable: ",
                   tracing::FormatResult(r));
    return rules;
  }
  const RuleDescriptions resolvers = m_converter.ConvertResolvers(resolvConf);
  rules.insert(rules.end(), resolvers.begin(), resolvers.end());
  return rules;
}

void NetworkIsolationBackendIptables::ItfSubscribe() {
  if (m_itfSubscribed || !m_itfEvents) return;
  m_itfSubscribed = ORO_SUCCEEDED(QEL_CHECKED_CALL(m_tracer, m_itfEvents->Subscribe(this),
                                                   "Cannot subscribe to network interface events"));
}

void NetworkIsolationBackendIptables::ItfUnsubscribe() {
  if (!m_itfSubscribed) return;
  m_itfSubscribed = false;
  QEL_CHECKED_CALL(m_tracer, m_itfEvents->UnsubscribeAndWait(this), "Cannot unsubscribe from network interface events");
}

// Traced so that a person can tell which interfaces are the host's own
// virtual ones (bridges, veths of guests) while it is isolated.
void NetworkIsolationBackendIptables::ListInternalInterfaces() {
  if (!m_itfProvider) return;
  NetworkInterfaces interfaces;
  if (ORO_FAILED(QEL_CHECKED_CALL(m_tracer, m_itfProvider->GetInterfaces(interfaces),
                                  "Cannot get network interfaces"))) {
    return;
  }
  std::string internal;
  for (const auto& iface : interfaces) {
    const bool physical = iface->IsPhysical() == oro::errOk;
    m_tracer.Write(Detail, "Interface ", iface->GetName(), physical ? " physical" : " not physical");
    if (!physical) internal += (internal.empty() ? "" : ", ") + std::string(iface->GetName());
  }
  m_tracer.Write(Detail, "Internal interfaces: ", internal);
}

void NetworkIsolationBackendIptables::OnInterfaceAdded(INetworkInterface* addedInterface) noexcept {
  tracing::Guarded(m_tracer, "OnInterfaceAdded", [&] {
    m_tracer.Write(Detail, "OnInterfaceAdded", "() ", "addedInterface=", InterfaceText(addedInterface));
    return oro::errOk;
  });
}

void NetworkIsolationBackendIptables::OnInterfaceDeleted(INetworkInterface* deletedInterface) noexcept {
  tracing::Guarded(m_tracer, "OnInterfaceDeleted", [&] {
    m_tracer.Write(Detail, "OnInterfaceDeleted", "() ", "deletedInterface=", InterfaceText(deletedInterface));
    return oro::errOk;
  });
}

void NetworkIsolationBackendIptables::OnInterfaceChanged(INetworkInterface* oldInterface,
                                                         INetworkInterface* newInterface) noexcept {
  tracing::Guarded(m_tracer, "OnInterfaceChanged", [&] {
    m_tracer.Write(Detail, "OnInterfaceChanged", "() ", "oldInterface=", InterfaceText(oldInterface),
                   ", newInterface=", InterfaceText(newInterface));
    return oro::errOk;
  });
}

}  // namespace qel::firewall
