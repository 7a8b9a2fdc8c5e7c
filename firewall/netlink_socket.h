// A netlink socket of the module's own, closed when the object goes.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "oro/result.h"

struct mnl_socket;

namespace qel::firewall {

class NetlinkSocket {
 public:
  // Called with each message of an answer.
  using MessageHandler = std::function<void(const nlmsghdr& message)>;

  NetlinkSocket() noexcept = default;

  // Opens a socket of `bus` (NETLINK_NETFILTER, ...) and binds it to an
  // address the kernel picks. Opened close-on-exec: the module spawns tools,
  // which must not inherit it.
  static oro::result_t Open(int bus, NetlinkSocket& out) noexcept;

  // Sends `request` with the dump flag and the next sequence number, and
  // hands each message of the answer to `onMessage` until the kernel ends
  // the dump. An error the kernel answers with fails the call with its
  // errno's code.
  oro::result_t Dump(nlmsghdr& request, const MessageHandler& onMessage);

 private:
  struct Closer {
    void operator()(mnl_socket* socket) const noexcept;
  };

  std::unique_ptr<mnl_socket, Closer> m_socket;
  std::uint32_t m_sequence = 0;
};

}  // namespace qel::firewall
