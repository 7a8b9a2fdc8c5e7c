// Reads the NFLOG listener's netlink socket: one datagram per call, parsed
// into messages that go to the message handler.
#pragma once

#include <array>

#include "firewall/netlink_socket.h"
#include "firewall/nflog_message_handler.h"
#include "firewall/netlink_poll_loop.h"
#include "qel_common/mnl_parser.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class NflogSocketReader final : public NetlinkSocketEvents {
 public:
  // The kernel never sends a datagram larger than a page's worth of
  // messages to a reader that has not asked for more.
  static constexpr std::size_t kBufferSize = 8192;

  NflogSocketReader(const tracing::Tracer& tracer, NetlinkSocket& socket, NflogMessageHandler& handler);

  oro::result_t ReadPending() noexcept override;
  void OnOverrun() noexcept override { m_handler.OnOverrun(); }

 private:
  const tracing::Tracer& m_tracer;
  NetlinkSocket& m_socket;
  NflogMessageHandler& m_handler;
  tools::MnlParser m_parser;
  std::array<char, kBufferSize> m_buffer;
};

}  // namespace qel::firewall
