#include "firewall/interface_snapshot.h"

#include <unordered_map>

namespace qel::firewall {
namespace {

std::unordered_map<std::uint32_t, const InterfaceSnapshot*> ByIndex(const InterfaceSnapshots& snapshots) {
  std::unordered_map<std::uint32_t, const InterfaceSnapshot*> byIndex;
  for (const auto& snapshot : snapshots) byIndex.emplace(snapshot.index, &snapshot);
  return byIndex;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const InterfaceSnapshot& snapshot) {
  return out << "{index=" << snapshot.index << ", enabled=" << (snapshot.enabled ? "true" : "false")
             << ", name=" << snapshot.name << "}";
}

InterfaceChanges CompareSnapshots(const InterfaceSnapshots& previous, const InterfaceSnapshots& current) {
  const auto previousByIndex = ByIndex(previous);
  const auto currentByIndex = ByIndex(current);
  InterfaceChanges changes;
  for (const auto& old : previous) {
    if (!currentByIndex.contains(old.index)) changes.push_back({old, std::nullopt});
  }
  for (const auto& now : current) {
    const auto found = previousByIndex.find(now.index);
    if (found == previousByIndex.end()) {
      changes.push_back({std::nullopt, now});
    } else if (!(*found->second == now)) {
      changes.push_back({*found->second, now});
    }
  }
  return changes;
}

}  // namespace qel::firewall
