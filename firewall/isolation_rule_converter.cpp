#include "firewall/isolation_rule_converter.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace qel::firewall {
namespace {

using network_isolation_data::BuiltinRules;
using network_isolation_data::Direction;
using network_isolation_data::Endpoint;
using network_isolation_data::EndpointPort;
using network_isolation_data::NetworkExclusionRule3;
using network_isolation_data::NetworkExclusionRules;
using tools::PortRange;

constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint16_t kDnsPort = 53;

// An accepting isolation rule: the firewall lets the named traffic through
// the isolation chains and adds the replies itself.
RuleDescription LetThrough(Side side, std::optional<std::uint8_t> protocol, std::optional<tools::IpNetwork> remote,
                           std::optional<PortRange> localPorts, std::optional<PortRange> remotePorts) {
  RuleDescription rule;
  rule.side = side;
  rule.protocol = protocol;
  rule.remote = std::move(remote);
  rule.localPorts = localPorts;
  rule.remotePorts = remotePorts;
  rule.action = IsolationAction{0};
  return rule;
}

void AddOnce(RuleDescriptions& rules, RuleDescription rule) {
  if (std::find(rules.begin(), rules.end(), rule) == rules.end()) rules.push_back(std::move(rule));
}

tools::IpNetwork HostNetwork(const tools::IpAddress& address) { return {address, address.FullPrefixLength()}; }

// 0 is "any protocol" in a description as in a request.
std::optional<std::uint8_t> NamedProtocol(std::optional<std::uint8_t> protocol) {
  return protocol == std::uint8_t{0} ? std::nullopt : protocol;
}

// The protocols one opening stands for: a port match needs TCP or UDP, so
// ports without a protocol mean both.
std::vector<std::optional<std::uint8_t>> ProtocolsOf(std::optional<std::uint8_t> protocol, bool hasPorts) {
  if (!protocol && hasPorts) return {kTcp, kUdp};
  return {protocol};
}

// Why the ports of an opening cannot be written; nullopt when they can.
std::optional<std::string> PortProblem(std::optional<std::uint8_t> protocol,
                                       std::initializer_list<const std::optional<PortRange>*> ranges) {
  bool hasPorts = false;
  for (const auto* range : ranges) {
    if (!*range) continue;
    hasPorts = true;
    if ((*range)->first > (*range)->last) return "the port range " + (*range)->ToString() + " ends before it starts";
  }
  if (hasPorts && protocol && *protocol != kTcp && *protocol != kUdp) {
    return "ports need protocol 6 (TCP) or 17 (UDP), not " + std::to_string(*protocol);
  }
  return std::nullopt;
}

std::vector<Side> SidesOf(Direction direction) {
  if (direction == network_isolation_data::kDirectionInbound) return {Side::Incoming};
  if (direction == network_isolation_data::kDirectionOutbound) return {Side::Outgoing};
  return {Side::Incoming, Side::Outgoing};
}

std::optional<PortRange> SinglePort(std::optional<std::uint16_t> port) {
  if (!port) return std::nullopt;
  return PortRange{*port, *port};
}

// The address of a "nameserver ADDRESS" line; a zone ("fe80::1%eth0") does
// not change which packets the rule is for and is cut off.
std::optional<tools::IpAddress> NameServerAddress(const std::string& text) {
  try {
    return tools::ParseIpAddress(text.substr(0, text.find('%')));
  } catch (const tools::AddressParseError&) {
    return std::nullopt;
  }
}

bool IsLoopback(const tools::IpAddress& address) {
  if (address.version == tools::IpVersion::V4) return address.bytes[0] == 127;
  return std::all_of(address.bytes.begin(), address.bytes.end() - 1, [](std::uint8_t b) { return b == 0; }) &&
         address.bytes.back() == 1;
}

}  // namespace

IsolationRuleConverter::IsolationRuleConverter(tracing::Tracer tracer) : m_tracer(std::move(tracer)) {}

oro::result_t IsolationRuleConverter::Convert(const NetworkExclusionRules& rules, RuleDescriptions& out) const {
  RuleDescriptions converted;
  for (const auto& rule : rules) {
    if (rule.applicationPath) {
      m_tracer.Write(tracing::Skipped, "NetworkIsolation: exclude by application path '", *rule.applicationPath,
                     "' isn't support, this rule's skipped");
      continue;
    }
    const auto protocol = NamedProtocol(rule.protocol);
    if (const auto problem = PortProblem(protocol, {&rule.localPortRange, &rule.remotePortRange})) {
      m_tracer.Write(tracing::Error, "Cannot convert isolation exclusion ", network_isolation_data::TraceText(rule),
                     ": ", *problem);
      return oro::errInvalidArgument;
    }
    for (const auto proto : ProtocolsOf(protocol, rule.localPortRange || rule.remotePortRange)) {
      for (const Side side : {Side::Incoming, Side::Outgoing}) {
        std::optional<tools::IpNetwork> remote;
        if (rule.remoteAddress) remote = HostNetwork(*rule.remoteAddress);
        AddOnce(converted, LetThrough(side, proto, remote, rule.localPortRange, rule.remotePortRange));
      }
    }
  }
  out = std::move(converted);
  return oro::errOk;
}

RuleDescriptions IsolationRuleConverter::Convert(const BuiltinRules& builtIn) const {
  RuleDescriptions rules;
  const auto addAll = [&](const std::vector<Endpoint>& endpoints, const char* missing) {
    if (endpoints.empty()) m_tracer.Write(tracing::Detail, missing);
    for (const auto& endpoint : endpoints) AddEndpoint(endpoint, rules);
  };
  const auto addOne = [&](const std::optional<Endpoint>& endpoint, const char* missing) {
    if (!endpoint) {
      m_tracer.Write(tracing::Detail, missing);
      return;
    }
    AddEndpoint(*endpoint, rules);
  };
  addAll(builtIn.tamberServers, "There're no any tamber nodes");
  addOne(builtIn.pelmServer, "There's no pelm server");
  addOne(builtIn.lumraVIISServer, "There's no viis server");
  addAll(builtIn.lumraSVMServers, "There're no any svm servers");
  addAll(builtIn.vyxProxies, "There're no any VYX proxies");
  addAll(builtIn.vyxServers, "There're no VYX servers to exclude");
  addAll(builtIn.ruskServers, "There're no any rusk nodes");
  return rules;
}

void IsolationRuleConverter::AddEndpoint(const Endpoint& endpoint, RuleDescriptions& out) const {
  m_tracer.Write(tracing::Detail, network_isolation_data::TraceEndpointTaken(endpoint));
  for (const EndpointPort& port : endpoint.ports) {
    const auto local = SinglePort(port.localPort);
    const auto remote = SinglePort(port.remotePort);
    const auto protocol = NamedProtocol(port.protocol);
    if (const auto problem = PortProblem(protocol, {&local, &remote})) {
      m_tracer.Write(tracing::Skipped, "Built-in endpoint port skipped: ", *problem);
      continue;
    }
    for (const auto& address : endpoint.addresses) {
      for (const auto proto : ProtocolsOf(protocol, local || remote)) {
        for (const Side side : SidesOf(port.direction)) {
          AddOnce(out, LetThrough(side, proto, HostNetwork(address), local, remote));
        }
      }
    }
  }
}

RuleDescriptions IsolationRuleConverter::ConvertResolvers(std::string_view resolvConf) const {
  RuleDescriptions rules;
  std::istringstream lines{std::string(resolvConf)};
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line.substr(0, line.find_first_of("#;")));
    std::string keyword, address, extra;
    if (!(words >> keyword) || keyword != "nameserver") continue;
    words >> address;
    const auto server = address.empty() || (words >> extra) ? std::nullopt : NameServerAddress(address);
    if (!server) {
      m_tracer.Write(tracing::Skipped, "Malformed nameserver line ignored: '", line, "'");
      continue;
    }
    if (IsLoopback(*server)) continue;
    for (const std::uint8_t protocol : {kUdp, kTcp}) {
      AddOnce(rules, LetThrough(Side::Outgoing, protocol, HostNetwork(*server), std::nullopt,
                                PortRange{kDnsPort, kDnsPort}));
    }
  }
  return rules;
}

}  // namespace qel::firewall
