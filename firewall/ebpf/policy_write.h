// One write to the isolation classifier's policy maps, as the policy book
// yields it and the skeleton carries it out; header-only, so the kernel layer
// can execute writes without the pure layer that computes them.
#pragma once

#include <cstdint>
#include <vector>

namespace qel::firewall::ebpf {

// The maps that hold policy, in the order the object declares them.
enum class PolicyMap : std::uint8_t { AppStep0, RemoteStep1, LocalStep3, PortsStep2And4 };

inline const char* PolicyMapName(PolicyMap map) noexcept {
  switch (map) {
    case PolicyMap::AppStep0: return "PolicyPacketExcludeForAppStep0";
    case PolicyMap::RemoteStep1: return "PolicyPacketExcludeDestIpStep1";
    case PolicyMap::LocalStep3: return "PolicyPacketExcludeSrcIpStep3";
    case PolicyMap::PortsStep2And4: return "PolicyPacketExcludePortsRangeStep2And4";
  }
  return "unknown";
}

// `previous` is the value an Update or Remove replaces, so that the write
// can be undone.
struct PolicyWrite {
  enum class Kind : std::uint8_t { Insert, Update, Remove };
  Kind kind = Kind::Insert;
  PolicyMap map = PolicyMap::RemoteStep1;
  std::vector<std::uint8_t> key;
  std::vector<std::uint8_t> value;
  std::vector<std::uint8_t> previous;

  bool operator==(const PolicyWrite&) const = default;
};
using PolicyWrites = std::vector<PolicyWrite>;

// The write that undoes `write`.
inline PolicyWrite Inverse(const PolicyWrite& write) {
  PolicyWrite inverse = write;
  switch (write.kind) {
    case PolicyWrite::Kind::Insert:
      inverse.kind = PolicyWrite::Kind::Remove;
      inverse.previous = write.value;
      inverse.value.clear();
      break;
    case PolicyWrite::Kind::Update:
      inverse.value = write.previous;
      inverse.previous = write.value;
      break;
    case PolicyWrite::Kind::Remove:
      inverse.kind = PolicyWrite::Kind::Insert;
      inverse.value = write.previous;
      inverse.previous.clear();
      break;
  }
  return inverse;
}

// The writes that undo `writes` (all of them done), in the order to do them.
inline PolicyWrites Inverse(const PolicyWrites& writes) {
  PolicyWrites inverse;
  inverse.reserve(writes.size());
  for (auto it = writes.rbegin(); it != writes.rend(); ++it) inverse.push_back(Inverse(*it));
  return inverse;
}

}  // namespace qel::firewall::ebpf
