// Isolation through the host firewall: each client's exclusions and the
// built-in ones become tagged groups of isolation rules, which the firewall
// places in its isolation chains; while at least one group stands the host
// is isolated. It writes no iptables itself: groups go to the firewall's
// dynamic rules in batches, one submit per change. While isolated it asks
// the bridge controller to send bridged traffic through the chains too, so
// that guests behind a bridge are cut off as well.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "firewall/bridge_interfaces.h"
#include "firewall/firewall_interfaces.h"
#include "firewall/isolation_interfaces.h"
#include "firewall/isolation_rule_converter.h"
#include "firewall/network_interface_interfaces.h"
#include "firewall/network_isolation_session.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

// The backend's client id towards the bridge controller. Not in the class
// tables: the backend is made by the module's backend factory, not by id.
inline constexpr std::uint32_t ClsIdNetworkIsolationBackendIptables = 0x5e1f0c3a;

// Reads the resolver configuration (resolv.conf) text. A file of the
// machine, so tests hand in text of their own.
using ResolvConfSource = std::function<oro::result_t(std::string& text)>;

class NetworkIsolationBackendIptables
    : public ObjectImpl<NetworkIsolationBackendIptables, INetworkIsolationBackend, INetworkInterfaceProviderEvents> {
 public:
  struct Collaborators {
    oro::RefPtr<IDynamicRules2> lazyFw;
    oro::RefPtr<IBridgeController> bridge;
    oro::RefPtr<INetworkInterfaceProvider> itfProvider;
    oro::RefPtr<INetworkInterfaceProviderEventsSubscription> itfEvents;
    ResolvConfSource resolvConf;
  };

  NetworkIsolationBackendIptables(oro::RefPtr<oro::ITracer> tracer, Collaborators collaborators);

  // Lifts isolation still in force, so that dropping the backend never
  // leaves the host cut off.
  void FinalRelease() noexcept;

  // INetworkIsolationBackend. The built-in record given by
  // UpdateBuiltInSession before the first session is the one the first
  // session puts in place; the resolvers are read again on each built-in
  // change, so the periodic re-resolution also follows resolv.conf.
  oro::result_t CreateSession(std::uint32_t clientId, const NetworkExclusionRules& rules) noexcept override;
  oro::result_t DeleteSession(std::uint32_t clientId) noexcept override;
  oro::result_t ReportInterfaces() noexcept override { return oro::errOk; }
  const char* Name() const noexcept override { return kIptablesBackendName; }
  oro::result_t UpdateBuiltInSession(const BuiltinRules& builtIn) noexcept override;

  // INetworkInterfaceProviderEvents: the chains hold for every interface,
  // so changes are only traced.
  void OnInterfaceAdded(INetworkInterface* addedInterface) noexcept override;
  void OnInterfaceDeleted(INetworkInterface* deletedInterface) noexcept override;
  void OnInterfaceChanged(INetworkInterface* oldInterface, INetworkInterface* newInterface) noexcept override;

 private:
  oro::result_t DoCreateSession(std::uint32_t clientId, const NetworkExclusionRules& rules);
  oro::result_t DoDeleteSession(std::uint32_t clientId);
  oro::result_t DoUpdateBuiltInSession(const BuiltinRules& builtIn);

  // Puts the built-in group, the bridge request and the interface
  // subscription in place for the first session, and takes them away.
  oro::result_t StartIsolation();
  void EndIsolation();
  // The built-in record's rules and the resolvers'.
  RuleDescriptions BuiltinFwRules() const;
  void ItfSubscribe();
  void ItfUnsubscribe();
  void ListInternalInterfaces();

  tracing::Tracer m_tracer;
  const IsolationRuleConverter m_converter;
  const oro::RefPtr<IDynamicRules2> m_lazyFw;
  const oro::RefPtr<IBridgeController> m_bridge;
  const oro::RefPtr<INetworkInterfaceProvider> m_itfProvider;
  const oro::RefPtr<INetworkInterfaceProviderEventsSubscription> m_itfEvents;
  const ResolvConfSource m_resolvConf;

  // The manager calls one at a time already; the lock keeps the backend
  // whole if another caller does not. Never taken by the interface events,
  // so unsubscribing with it held cannot wait on itself.
  std::mutex m_mutex;
  std::map<std::uint32_t, std::unique_ptr<NetworkIsolationSession>> m_sessions;
  BuiltinRules m_builtinData;
  NetworkIsolationSession m_builtinExcludes;
  bool m_itfSubscribed = false;
};

}  // namespace qel::firewall
