#include "firewall/ebpf/isolation_policy.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace qel::firewall::ebpf {

using network_isolation_data::NetworkExclusionRule3;
using network_isolation_data::NetworkExclusionRules;

bool AddressExclusion::operator==(const AddressExclusion& other) const noexcept {
  return map == other.map && address.prefixlen == other.address.prefixlen &&
         std::memcmp(address.addr, other.address.addr, sizeof(address.addr)) == 0 && protocols == other.protocols &&
         portProtocols == other.portProtocols && remotePorts == other.remotePorts && localPorts == other.localPorts;
}

bool ApplicationExclusion::operator==(const ApplicationExclusion& other) const noexcept {
  return identity.inode == other.identity.inode && identity.device == other.identity.device &&
         canonicalPath == other.canonicalPath;
}

IsolationAddressKey AddressKey(const network_isolation_data::ip_t& address) noexcept {
  IsolationAddressKey key{};
  key.prefixlen = 128;
  if (address.version == tools::IpVersion::V4) {
    key.addr[10] = key.addr[11] = 0xff;
    std::memcpy(key.addr + 12, address.bytes.data(), 4);
  } else {
    std::memcpy(key.addr, address.bytes.data(), 16);
  }
  return key;
}

IsolationAddressKey AnyAddressKey() noexcept { return IsolationAddressKey{}; }

std::vector<PortBlock> PortBlocks(tools::PortRange range) {
  std::vector<PortBlock> blocks;
  std::uint32_t first = range.first;
  const std::uint32_t last = range.last;
  while (first <= last) {
    unsigned bits = 0;
    // Grow while the block stays aligned at `first` and ends inside the range.
    while (bits < 16 && (first & ((2u << bits) - 1)) == 0 && first + (2u << bits) - 1 <= last) ++bits;
    blocks.push_back({static_cast<std::uint16_t>(first), bits});
    first += 1u << bits;
  }
  return blocks;
}

IsolationPortsKey PortsKey(std::uint32_t id, PortBlock block) noexcept {
  return {64 - block.hostBits, id, htonl(block.first)};
}

namespace {

constexpr std::uint8_t kTcp = IPPROTO_TCP;
constexpr std::uint8_t kUdp = IPPROTO_UDP;

std::optional<ApplicationExclusion> PrepareApplication(const NetworkExclusionRule3& rule,
                                                       const IExecutableLookup& executables,
                                                       const tracing::Tracer& tracer) {
  const std::string& path = *rule.applicationPath;
  // Only TCP connections of a process are tracked back to its executable.
  if (rule.protocol && *rule.protocol != kTcp) {
    tracer.Write(tracing::Skipped, "Currently support only tcp protocol for application exclude: '", path,
                 "' skipped");
    return std::nullopt;
  }
  const auto canonical = executables.Canonical(path);
  if (!canonical) {
    tracer.Write(tracing::Skipped, "Application exclude: '", path, "' skipped");
    return std::nullopt;
  }
  if (canonical->size() > kMaxApplicationPathLength) {
    tracer.Write(tracing::Skipped, "Application exclude: '", path, "' too long. Currently support only len=",
                 kMaxApplicationPathLength);
    return std::nullopt;
  }
  const auto identity = executables.Identity(*canonical);
  if (!identity) {
    tracer.Write(tracing::Skipped, "Application exclude: '", path, "' skipped");
    return std::nullopt;
  }
  return ApplicationExclusion{*identity, *canonical};
}

std::optional<AddressExclusion> PrepareAddress(const NetworkExclusionRule3& rule, const tracing::Tracer& tracer) {
  AddressExclusion exclusion;
  if (rule.remoteAddress) {
    exclusion.map = PolicyMap::RemoteStep1;
    exclusion.address = AddressKey(*rule.remoteAddress);
  } else {
    exclusion.map = PolicyMap::LocalStep3;
    exclusion.address = AnyAddressKey();
  }
  const bool hasPorts = rule.remotePortRange || rule.localPortRange;
  if (!hasPorts) {
    if (rule.protocol)
      exclusion.protocols.set(*rule.protocol);
    else
      exclusion.protocols.set();
    return exclusion;
  }
  if (!rule.protocol) {
    exclusion.portProtocols = kIsolationPortTcp | kIsolationPortUdp;
  } else if (*rule.protocol == kTcp) {
    exclusion.portProtocols = kIsolationPortTcp;
  } else if (*rule.protocol == kUdp) {
    exclusion.portProtocols = kIsolationPortUdp;
  } else {
    tracer.Write(tracing::Skipped, "Ports specified but unsupported protocol ", unsigned{*rule.protocol},
                 " skipped");
    return std::nullopt;
  }
  for (const auto& range : {rule.remotePortRange, rule.localPortRange}) {
    if (range && range->last < range->first) {
      tracer.Write(tracing::Skipped, "Port range ", range->first, "-", range->last, " ends before it starts, skipped");
      return std::nullopt;
    }
  }
  if (rule.remotePortRange) exclusion.remotePorts = *rule.remotePortRange;
  exclusion.localPorts = rule.localPortRange;
  return exclusion;
}

}  // namespace

PolicyExclusions PreparePolicyExclude(const NetworkExclusionRules& rules, const IExecutableLookup& executables,
                                      const tracing::Tracer& tracer) {
  PolicyExclusions policy;
  for (const auto& rule : rules) {
    tracer.Write(tracing::Detail, "PreparePolicyExclude() policy=", network_isolation_data::TraceText(rule));
    if (rule.applicationPath) {
      if (auto application = PrepareApplication(rule, executables, tracer))
        policy.applications.push_back(std::move(*application));
      continue;
    }
    if (auto address = PrepareAddress(rule, tracer)) policy.addresses.push_back(std::move(*address));
  }
  return policy;
}

}  // namespace qel::firewall::ebpf
