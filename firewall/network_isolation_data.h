// The records of a network isolation: the exclusions a client asks for, the
// built-in exclusions the manager adds so that the product's own servers stay
// reachable, and the persistent form of sessions and of the manager. Their
// stored form is given by their descriptors (network_isolation_descriptors.h).
// Every member has a default initialiser, so that a record can be written
// with just the fields it has ({.protocol = 6}) without a warning.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qel_common/ip_address.h"
#include "qel_common/port_range.h"

namespace system_interceptors::network_isolation_manager {

// An IPv4 (4 bytes) or IPv6 (16 bytes) address; the firewall's own address
// type already is that choice, so isolation carries it too.
using ip_t = qel::tools::IpAddress;

// An inclusive port range; stored as its `start` and `end` ports.
using PortRange = qel::tools::PortRange;

namespace data_source {
// The callers of the isolation interface define its values; this module only
// carries them through, so it names none. Value-initialised it is 0.
enum class Enum : std::uint32_t {};
}  // namespace data_source

// One exclusion of an isolation request; an absent field means "any".
struct NetworkExclusionRule3 {
  std::optional<ip_t> remoteAddress{};
  std::optional<std::uint8_t> protocol{};
  std::optional<PortRange> localPortRange{};
  std::optional<PortRange> remotePortRange{};
  std::optional<data_source::Enum> dataSource{};
  std::optional<std::string> applicationPath{};

  bool operator==(const NetworkExclusionRule3&) const = default;
};

using NetworkExclusionRules = std::vector<NetworkExclusionRule3>;

}  // namespace system_interceptors::network_isolation_manager

namespace system_interceptors::connection_interceptor {

using network_isolation_manager::ip_t;

struct IpEndpoint {
  ip_t address{};
  std::uint16_t port = 0;

  bool operator==(const IpEndpoint&) const = default;
};

struct IpEndpointPair {
  IpEndpoint remoteEndpoint{};
  IpEndpoint localEndpoint{};

  bool operator==(const IpEndpointPair&) const = default;
};

}  // namespace system_interceptors::connection_interceptor

namespace qel::firewall::network_isolation_data {

using system_interceptors::network_isolation_manager::ip_t;
using system_interceptors::network_isolation_manager::NetworkExclusionRule3;
using system_interceptors::network_isolation_manager::NetworkExclusionRules;

// Inbound or outbound; the values belong to the isolation interface's users
// and are carried through as numbers. The two this module writes itself (the
// built-in endpoints it collects) are named; a backend treats any other value
// as both directions.
enum class Direction : std::uint32_t {};
inline constexpr Direction kDirectionInbound{1};
inline constexpr Direction kDirectionOutbound{2};

// One port opening of a built-in endpoint.
struct EndpointPort {
  std::optional<std::uint16_t> localPort{};
  std::optional<std::uint16_t> remotePort{};
  std::optional<std::uint8_t> protocol{};
  Direction direction{};

  bool operator==(const EndpointPort&) const = default;
};

// A server that must stay reachable. With a domain and no addresses it is
// still to be resolved.
struct Endpoint {
  std::optional<std::string> domain{};
  std::vector<ip_t> addresses{};
  std::vector<EndpointPort> ports{};

  bool operator==(const Endpoint&) const = default;
};

// The exclusions the manager adds by itself while the host is isolated.
struct BuiltinRules {
  std::vector<Endpoint> tamberServers{};
  std::optional<Endpoint> pelmServer{};
  std::optional<Endpoint> lumraVIISServer{};
  std::vector<Endpoint> lumraSVMServers{};
  std::vector<Endpoint> vyxProxies{};
  std::vector<Endpoint> vyxServers{};
  std::vector<Endpoint> ruskServers{};

  bool operator==(const BuiltinRules&) const = default;
};

// The persistent form of one client's session.
struct SessionData {
  std::string firewallTag{};
  NetworkExclusionRules endpointExclusions3{};

  bool operator==(const SessionData&) const = default;
};

// The persistent form of the manager: who is isolating, and the built-in
// exclusions as last collected.
struct ManagerData {
  std::vector<std::uint32_t> clients{};
  BuiltinRules builtIn{};

  bool operator==(const ManagerData&) const = default;
};

// Storage node of the manager record, and the node whose children hold the
// sessions, one per client, named by the client's tag.
inline constexpr const char* NetIsoNodeName = "qel.firewall.NetworkIsolationManager";
inline constexpr const char* NetIsoSessionsNodeName = "qel.firewall.NetworkIsolationManager.Sessions";
// The firewall tag of the built-in exclusions' rule group.
inline constexpr const char* BuiltinIsolationExcludesTag = "ni_builtin";

// The tag of a client's session, in the firewall and in storage: "ni_0x1f"
// for 31 (lower-case hexadecimal, no padding).
std::string ClientId2FWTag(std::uint32_t clientId);
// The client id back from its tag; none when `tag` is not one.
std::optional<std::uint32_t> FWTag2ClientId(const std::string& tag);

// Traced forms. A record is written in braces as its fields in order, each
// as "name":value, joined by ", ", with null for an absent field. Values:
// numbers (protocol, ports, data source, direction) in decimal; addresses as
// their text without quotes (10.77.0.2, fd77::2); texts in double quotes;
// a port range as {"start":443, "end":443}; a list in brackets, its items
// joined by ", ".
std::string TraceText(const NetworkExclusionRule3& rule);
std::string TraceText(const NetworkExclusionRules& rules);
// "clientId=31, rules=[{...}, ...]"
std::string TraceRequest(std::uint32_t clientId, const NetworkExclusionRules& rules);
// {"domain":"srv.example", "addresses":[10.0.0.1], "ports":[{"localPort":null,
// "remotePort":443, "protocol":6, "direction":1}]}
std::string TraceText(const Endpoint& endpoint);
// " endpoint=" and the endpoint's traced form, as a backend writes each
// built-in endpoint it takes.
std::string TraceEndpointTaken(const Endpoint& endpoint);

}  // namespace qel::firewall::network_isolation_data
