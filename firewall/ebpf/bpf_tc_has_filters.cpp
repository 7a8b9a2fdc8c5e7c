#include "firewall/ebpf/bpf_tc_has_filters.h"

#include <libmnl/libmnl.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

#include <cerrno>

#include "firewall/ebpf/tc_filter_dump.h"
#include "firewall/netlink_socket.h"

namespace qel::firewall {
namespace {

int ErrnoOr(int fallback) { return errno != 0 ? errno : fallback; }

bool ParentOf(const bpf_tc_hook& hook, std::uint32_t& parent) {
  switch (hook.attach_point) {
    case BPF_TC_INGRESS:
      parent = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS);
      return true;
    case BPF_TC_EGRESS:
      parent = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_EGRESS);
      return true;
    case BPF_TC_CUSTOM:
      parent = hook.parent;
      return parent != 0;
    default:
      return false;
  }
}

// One dump on a socket of its own: an interrupted dump still runs to its
// end in the kernel, and its late parts must not mix with the next one's.
int CountOnce(int ifindex, std::uint32_t parent) {
  NetlinkSocket socket;
  errno = 0;
  if (ORO_FAILED(NetlinkSocket::Open(NETLINK_ROUTE, socket))) return -ErrnoOr(EIO);
  constexpr std::uint32_t kSequence = 1;
  const auto request = tc_filter_dump::BuildRequest(ifindex, parent, kSequence);
  errno = 0;
  if (ORO_FAILED(socket.Send(*reinterpret_cast<const nlmsghdr*>(request.data())))) return -ErrnoOr(EIO);
  std::vector<std::uint8_t> buffer(MNL_SOCKET_BUFFER_SIZE);
  std::size_t filters = 0;
  for (;;) {
    const ssize_t received = socket.Receive(buffer.data(), buffer.size());
    if (received < 0) return -ErrnoOr(EIO);
    const auto part =
        tc_filter_dump::ParseReply(buffer.data(), static_cast<std::size_t>(received), kSequence, socket.PortId());
    if (part.error != 0) return -part.error;
    filters += part.filters;
    if (part.finished) return static_cast<int>(filters);
  }
}

}  // namespace

int bpf_tc_has_filters(const bpf_tc_hook* hook) {
  std::uint32_t parent = 0;
  if (!hook || hook->ifindex <= 0 || !ParentOf(*hook, parent)) return -EINVAL;
  int answer = -EINTR;
  for (int attempt = 0; attempt < tc_filter_dump::kAttempts && answer == -EINTR; ++attempt) {
    answer = CountOnce(hook->ifindex, parent);
  }
  return answer;
}

}  // namespace qel::firewall
