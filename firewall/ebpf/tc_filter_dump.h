// The messages of a dump of tc filters: the request, and the reading of
// the kernel's answer, kept apart from the socket so that both can be
// checked byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qel::firewall {
namespace tc_filter_dump {

// Times a dump is asked for before an interrupted answer is given up on.
inline constexpr int kAttempts = 4;

// An RTM_GETTFILTER dump request for the filters under `parent` of
// `ifindex`.
std::vector<std::uint8_t> BuildRequest(int ifindex, std::uint32_t parent, std::uint32_t sequence);

// What one datagram of the answer said.
struct Part {
  // Filters in it: RTM_NEWTFILTER messages with options (the kernel also
  // sends one message without options for each protocol/priority pair).
  std::size_t filters = 0;
  // The dump ended with this datagram (done, failed or interrupted).
  bool finished = false;
  // 0, or the errno of a failure; EINTR when the kernel marked the dump as
  // interrupted.
  int error = 0;
};

// Reads one datagram of the answer to the request with `sequence`, sent
// from `portId`.
Part ParseReply(const void* buffer, std::size_t size, std::uint32_t sequence, std::uint32_t portId);

}  // namespace tc_filter_dump
}  // namespace qel::firewall
