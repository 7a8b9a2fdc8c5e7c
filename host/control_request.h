// The requests of the host's control socket: one JSON object per line.
//
//   {"cmd":"status"}
//   {"cmd":"add-rules","tag":"web","rules":[{"kind":"access","action":0,...}]}
//   {"cmd":"remove-rules","rules":[...]}
//   {"cmd":"agent-ports","ports":["15000/tcp/in","13000/tcp/inout"]}
//   {"cmd":"queue","count":4}
//   {"cmd":"isolate","client":31,"kind":2,"rules":[{"remoteAddress":"10.77.0.2","protocol":6}]}
//   {"cmd":"release","client":31}
//   {"cmd":"isolation"}
//   {"cmd":"turn-off"}
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "firewall/firewall_interfaces.h"
#include "firewall/isolation_interfaces.h"
#include "host/outcome.h"

namespace qel::host {

struct StatusRequest {
  bool operator==(const StatusRequest&) const = default;
};

struct AddRulesRequest {
  std::string tag;
  firewall::RuleDescriptions rules;
  bool operator==(const AddRulesRequest&) const = default;
};

struct RemoveRulesRequest {
  firewall::RuleDescriptions rules;
  bool operator==(const RemoveRulesRequest&) const = default;
};

struct AgentPortsRequest {
  firewall::OstraPortList ports;
  bool operator==(const AgentPortsRequest&) const = default;
};

// Reserve `count` consecutive NFQUEUE numbers that nobody uses.
struct QueueRequest {
  std::uint16_t count = 0;
  bool operator==(const QueueRequest&) const = default;
};

// Isolate the host for `client`, letting through what `rules` name; a client
// that isolates already gets its rules replaced. `kind` says which component
// the client is, which chooses its stop task when isolation is turned off.
struct IsolateRequest {
  std::uint32_t client = 0;
  std::uint32_t kind = 0;
  firewall::NetworkExclusionRules rules;
  bool operator==(const IsolateRequest&) const = default;
};

struct ReleaseRequest {
  std::uint32_t client = 0;
  bool operator==(const ReleaseRequest&) const = default;
};

// Who isolates, with which rules, through which backend.
struct IsolationRequest {
  bool operator==(const IsolationRequest&) const = default;
};

// Stop every client's isolation through its own stop task.
struct TurnOffRequest {
  bool operator==(const TurnOffRequest&) const = default;
};

using ControlRequest = std::variant<StatusRequest, AddRulesRequest, RemoveRulesRequest, AgentPortsRequest,
                                    QueueRequest, IsolateRequest, ReleaseRequest, IsolationRequest, TurnOffRequest>;

// Objects nest at most this deep in a request; deeper text is refused before
// it is parsed, so that no line can exhaust the stack.
inline constexpr int kMaxRequestDepth = 8;

// Reads one line, without its newline. Anything but a well-formed request of
// a known command with exactly its keys is refused, with the key (as a path
// like "rules[2].proto") and what is wrong.
Outcome<ControlRequest> ParseControlRequest(std::string_view line);

}  // namespace qel::host
