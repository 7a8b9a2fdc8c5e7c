// What the module knows of one network interface at one moment, and the
// differences between two readings of the interface list.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace qel::firewall {

struct InterfaceSnapshot {
  std::uint32_t index = 0;
  bool enabled = false;  // administratively up
  std::string name;

  bool operator==(const InterfaceSnapshot&) const = default;
};
using InterfaceSnapshots = std::vector<InterfaceSnapshot>;

// "{index=3, enabled=true, name=eth0}"
std::ostream& operator<<(std::ostream& out, const InterfaceSnapshot& snapshot);

// One difference between two readings: only `after` for an interface that
// appeared, only `before` for one that went away, both for one that changed.
struct InterfaceChange {
  std::optional<InterfaceSnapshot> before;
  std::optional<InterfaceSnapshot> after;

  bool operator==(const InterfaceChange&) const = default;
};
using InterfaceChanges = std::vector<InterfaceChange>;

// The differences from `previous` to `current`: deletions first, then
// changes and additions in the order of `current`.
//
// Entries are matched by index, not by name: the kernel keeps an interface's
// index for its whole life and never gives one index to two live interfaces
// of a namespace, while a rename keeps the index and changes the name.
// Matching by name would report a rename as a deletion and an addition, and
// the users key what they attach to an interface by its index.
InterfaceChanges CompareSnapshots(const InterfaceSnapshots& previous, const InterfaceSnapshots& current);

}  // namespace qel::firewall
