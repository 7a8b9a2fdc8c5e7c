// Answers the control socket's requests through the module's interfaces:
// the service's status and dynamic rules, and the agent's port list.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "firewall/firewall_interfaces.h"
#include "host/control_request.h"
#include "host/json.h"
#include "oro/ref_ptr.h"

namespace qel::host {

// What only the host knows, for the status reply.
struct HostFacts {
  bool taskStarted = false;
  std::uint64_t integrityEvents = 0;
};

class ControlHandler {
 public:
  ControlHandler(oro::RefPtr<firewall::IFirewallStatus> status, oro::RefPtr<firewall::IDynamicRules> dynamicRules,
                 oro::RefPtr<firewall::IOstraPorts> ostraPorts, std::function<HostFacts()> facts);

  // One request line, without its newline, in; one reply line, without its
  // newline, out: {"ok":true,...} or {"ok":false,"error":"..."}. A request
  // that does not parse reaches none of the module's interfaces.
  std::string Handle(std::string_view line) noexcept;

 private:
  Json Status();
  Json AddRules(const AddRulesRequest& request);
  Json RemoveRules(const RemoveRulesRequest& request);
  Json AgentPorts(const AgentPortsRequest& request);
  Json Answer(const ControlRequest& request);

  oro::RefPtr<firewall::IFirewallStatus> m_status;
  oro::RefPtr<firewall::IDynamicRules> m_dynamicRules;
  oro::RefPtr<firewall::IOstraPorts> m_ostraPorts;
  std::function<HostFacts()> m_facts;
};

// {"ok":false,"error":TEXT}, as a line.
std::string ErrorReply(const std::string& text);

}  // namespace qel::host
