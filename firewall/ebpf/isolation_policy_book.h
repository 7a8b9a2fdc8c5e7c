// The policy in the classifier's maps, as user space keeps it: which
// exclusions (of which clients) stand behind each map entry. Entries are
// shared: an address or executable used by several exclusions has one entry,
// one id and a reference count. For each change the book yields the map
// writes that bring the maps from the old policy to the new one; the inverse
// of those writes, in reverse order, brings them back exactly.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "firewall/ebpf/isolation_policy.h"
#include "firewall/ebpf/policy_write.h"

namespace qel::firewall::ebpf {

// Names a set of exclusions added together (one client's policy).
using PolicyHandle = std::uint64_t;

class IsolationPolicyBook {
 public:
  struct Change {
    PolicyHandle handle = 0;
    PolicyWrites writes;
  };

  // Adds `policy` next to what the book holds. Entries the maps gain are
  // inserted before the entries that point to them, so the classifier never
  // sees an address whose ports are missing.
  Change Add(const PolicyExclusions& policy);
  // Takes away what Add(…) gave `handle`; no writes for an unknown handle.
  PolicyWrites Remove(PolicyHandle handle);

  bool Empty() const noexcept { return m_addresses.empty() && m_applications.empty(); }

 private:
  using Image = std::map<std::pair<PolicyMap, std::vector<std::uint8_t>>, std::vector<std::uint8_t>>;
  // A local port range with the kIsolationPort* bits it passes.
  using LocalPorts = std::tuple<std::uint16_t, std::uint16_t, std::uint8_t>;
  using LocalSet = std::vector<LocalPorts>;
  // An address entry with the exclusions behind it, by the handle that
  // brought each, and the map entries it stands for as last written.
  struct AddressEntry {
    std::uint32_t id = 0;
    std::multimap<PolicyHandle, AddressExclusion> exclusions;
    // Ids of the distinct sets of local port ranges its remote ports chain
    // to, kept while the entry lives.
    std::map<LocalSet, std::uint32_t> chains;
    Image image;
  };
  using AddressId = std::pair<PolicyMap, std::vector<std::uint8_t>>;
  using ApplicationId = std::pair<std::uint64_t, std::uint32_t>;  // inode, device
  struct ApplicationEntry {
    std::uint32_t id = 0;
    std::multiset<PolicyHandle> handles;
  };

  // The map entries that `entry` stands for: its own, its ports, its chains.
  // A set of local ranges seen before keeps its chain id.
  const Image& Render(const AddressId& address, AddressEntry& entry);
  void RenderPorts(AddressEntry& entry, Image& image);
  // Writes from `before` to `after`.
  static void Diff(const Image& before, const Image& after, PolicyWrites& writes);
  static PolicyWrites Ordered(PolicyWrites writes);
  static std::vector<std::uint8_t> AppKeyBytes(const ApplicationId& id);
  static std::vector<std::uint8_t> AppValueBytes(const ApplicationEntry& entry);

  std::uint32_t m_nextId = 1;
  PolicyHandle m_nextHandle = 1;
  std::map<AddressId, AddressEntry> m_addresses;
  std::map<ApplicationId, ApplicationEntry> m_applications;
  std::map<PolicyHandle, std::set<AddressId>> m_handleAddresses;
  std::map<PolicyHandle, std::set<ApplicationId>> m_handleApplications;
};

}  // namespace qel::firewall::ebpf
