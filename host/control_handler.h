// Answers the control socket's requests through the module's interfaces:
// the service's status and dynamic rules, the agent's port list, the task's
// packet-log counts, the free NFQUEUE numbers, and network isolation.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "firewall/firewall_interfaces.h"
#include "firewall/isolation_interfaces.h"
#include "firewall/packet_log_interfaces.h"
#include "host/control_request.h"
#include "host/host_isolation_state_provider.h"
#include "host/json.h"
#include "host/rule_names.h"
#include "oro/ref_ptr.h"

namespace qel::host {

// What only the host knows, for the status reply.
struct HostFacts {
  bool taskStarted = false;
  std::uint64_t integrityEvents = 0;
};

// The isolation manager's interfaces, its facade, and the host's record of
// each client's kind. Without a manager, isolation requests are refused with
// `unavailable`.
struct IsolationTargets {
  oro::RefPtr<system_interceptors::network_isolation_manager::INetworkIsolationManager3> manager;
  oro::RefPtr<system_interceptors::network_isolation_manager::INetworkIsolationManagerOverallStatusProvider> status;
  oro::RefPtr<firewall::INetworkIsolationReport> report;
  oro::RefPtr<firewall::INetworkIsolationFacade> facade;
  oro::RefPtr<HostIsolationStateProvider> states;
  std::string unavailable = "the module has no network isolation manager";
};

// The module's objects that requests reach.
struct ControlTargets {
  oro::RefPtr<firewall::IFirewallStatus> status;
  oro::RefPtr<firewall::IDynamicRules> dynamicRules;
  oro::RefPtr<firewall::IOstraPorts> ostraPorts;
  // The task's counts of logged packets; without them the status has no
  // "packetLog".
  oro::RefPtr<firewall::INflogCounters> packetLog;
  // Without it, queue requests are refused: the module offers no such class.
  oro::RefPtr<firewall::INfqueueQuery> queues;
  IsolationTargets isolation;
};

class ControlHandler {
 public:
  // `names` (the rules in force, for the packet-log groups) must outlive the
  // handler.
  ControlHandler(ControlTargets targets, std::function<HostFacts()> facts, const RuleNames& names);

  // One request line, without its newline, in; one reply line, without its
  // newline, out: {"ok":true,...} or {"ok":false,"error":"..."}. A request
  // that does not parse reaches none of the module's interfaces.
  std::string Handle(std::string_view line) noexcept;

 private:
  Json Status();
  Json AddRules(const AddRulesRequest& request);
  Json RemoveRules(const RemoveRulesRequest& request);
  Json AgentPorts(const AgentPortsRequest& request);
  Json Queue(const QueueRequest& request);
  Json Isolate(const IsolateRequest& request);
  Json Release(const ReleaseRequest& request);
  Json Isolation();
  Json TurnOff();
  std::vector<std::uint32_t> ActiveClients();
  Json Answer(const ControlRequest& request);
  Json PacketLogJson(const firewall::NflogCounts& counts) const;

  ControlTargets m_targets;
  std::function<HostFacts()> m_facts;
  const RuleNames& m_names;
};

// {"ok":false,"error":TEXT}, as a line.
std::string ErrorReply(const std::string& text);

}  // namespace qel::host
