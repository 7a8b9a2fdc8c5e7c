#include "firewall/free_queue_search.h"

namespace qel::firewall {
namespace {

constexpr std::uint32_t kQueueNumberEnd = 0x10000;

// Whether [start, start + count) holds no used number and ends in range.
bool RunFits(const std::set<std::uint32_t>& inUse, std::uint32_t start, std::uint32_t count) {
  const std::uint32_t end = start + count;
  if (end > kQueueNumberEnd) return false;
  const auto next = inUse.lower_bound(start);
  return next == inUse.end() || end <= *next;
}

}  // namespace

// A free run starts either at 0 or right after a used number, so those are
// the only starts worth trying, lowest first.
std::optional<std::uint16_t> FindFreeQueueRun(const std::set<std::uint32_t>& inUse, std::uint16_t count) {
  if (count == 0) return 0;
  if (RunFits(inUse, 0, count)) return 0;
  for (const std::uint32_t used : inUse) {
    if (used + 1 >= kQueueNumberEnd) break;
    if (RunFits(inUse, used + 1, count)) return static_cast<std::uint16_t>(used + 1);
  }
  return std::nullopt;
}

}  // namespace qel::firewall
