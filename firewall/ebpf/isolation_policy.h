// What a client's isolation exclusions become in the classifier's maps. The
// rules are first turned into exclusions (PreparePolicyExclude: one per rule
// the maps can express, the rest skipped with a trace); the policy book
// (isolation_policy_book.h) then turns exclusions into map writes, sharing
// entries between exclusions and clients. Nothing here touches the kernel:
// the executable files of application exclusions are looked up through
// IExecutableLookup.
#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "firewall/ebpf/network_isolation_maps.h"
#include "firewall/ebpf/policy_write.h"
#include "firewall/network_isolation_data.h"
#include "qel_common/port_range.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall::ebpf {


// A canonical executable path is longer than the kernel side can compare.
inline constexpr std::size_t kMaxApplicationPathLength = 256;

// The executable files behind application exclusions.
class IExecutableLookup {
 public:
  virtual ~IExecutableLookup() = default;
  // The canonical absolute path of `path`; none when it cannot be resolved.
  virtual std::optional<std::string> Canonical(const std::string& path) const = 0;
  // The file's identity as the kernel records it for a task's executable;
  // none when the file cannot be examined.
  virtual std::optional<IsolationAppKey> Identity(const std::string& canonicalPath) const = 0;
};

// One exclusion by address (and maybe ports): an entry of the remote-address
// trie, or of the local-address trie under ::/0 when no remote address is
// given, with the port entries under that entry's id.
struct AddressExclusion {
  // Key of the address entry (its map given by `map`).
  PolicyMap map = PolicyMap::LocalStep3;
  IsolationAddressKey address{};
  // Protocols passed outright (an exclusion without ports).
  std::bitset<256> protocols{};
  // kIsolationPort* bits of an exclusion with ports, over remotePorts and, if
  // given, localPorts.
  std::uint8_t portProtocols = 0;
  tools::PortRange remotePorts{0, 0xffff};
  std::optional<tools::PortRange> localPorts{};

  bool operator==(const AddressExclusion& other) const noexcept;
};

// One excluded executable.
struct ApplicationExclusion {
  IsolationAppKey identity{};
  std::string canonicalPath;

  bool operator==(const ApplicationExclusion& other) const noexcept;
};

struct PolicyExclusions {
  std::vector<AddressExclusion> addresses;
  std::vector<ApplicationExclusion> applications;
};

// A client's rules as exclusions. Rules the maps cannot express are traced
// at the skipped level and left out; they never fail the request.
PolicyExclusions PreparePolicyExclude(const network_isolation_data::NetworkExclusionRules& rules,
                                      const IExecutableLookup& executables, const tracing::Tracer& tracer);

// The key of an address entry: an IPv4 address as its IPv4-mapped form, the
// whole address significant.
IsolationAddressKey AddressKey(const network_isolation_data::ip_t& address) noexcept;
// ::/0, where exclusions without a remote address live.
IsolationAddressKey AnyAddressKey() noexcept;

// An aligned block of 2^hostBits ports starting at `first`.
struct PortBlock {
  std::uint16_t first = 0;
  unsigned hostBits = 0;
  bool operator==(const PortBlock&) const = default;
};
// The fewest aligned blocks that cover `range` exactly, in ascending order.
std::vector<PortBlock> PortBlocks(tools::PortRange range);
// The ports-trie key of a block under `id`.
IsolationPortsKey PortsKey(std::uint32_t id, PortBlock block) noexcept;

}  // namespace qel::firewall::ebpf
