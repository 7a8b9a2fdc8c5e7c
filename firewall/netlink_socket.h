// A netlink socket of the module's own, closed when the object goes.
#pragma once

#include <linux/netlink.h>
#include <sys/types.h>

#include <cstddef>
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
  // The two steps of Open, for callers that tell their failures apart.
  // `groups` is the bit mask of multicast groups to join (bit 0: group 1).
  static oro::result_t Create(int bus, NetlinkSocket& out) noexcept;
  oro::result_t Bind(std::uint32_t groups = 0) noexcept;

  bool IsValid() const noexcept { return static_cast<bool>(m_socket); }
  int Fd() const noexcept;
  // The address the kernel gave at Bind.
  std::uint32_t PortId() const noexcept;

  // Sends one message as it is; errno's code on failure.
  oro::result_t Send(const nlmsghdr& message) noexcept;
  // Receives one datagram into `buffer`: its size, or -1 with errno set
  // (ENOBUFS: the receive buffer overflowed and messages were dropped).
  ssize_t Receive(void* buffer, std::size_t size) noexcept;
  // Asks for a receive buffer of `bytes`, above the system's limit when the
  // process may (SO_RCVBUFFORCE), within it otherwise (SO_RCVBUF).
  oro::result_t SetReceiveBuffer(int bytes) noexcept;
  // What the kernel granted (it books twice the size asked for, to cover
  // its own overhead).
  int ReceiveBuffer() const noexcept;

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
