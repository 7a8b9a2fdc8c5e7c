// Finding a run of consecutive NFQUEUE numbers that nobody uses.
#pragma once

#include <cstdint>
#include <optional>
#include <set>

namespace qel::firewall {

// The lowest s such that none of s .. s + count - 1 is in `inUse` and the
// run ends at or below 65536; nullopt when there is none. A count of 0 fits
// at 0.
std::optional<std::uint16_t> FindFreeQueueRun(const std::set<std::uint32_t>& inUse, std::uint16_t count);

}  // namespace qel::firewall
