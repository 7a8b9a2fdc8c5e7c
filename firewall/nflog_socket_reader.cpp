#include "firewall/nflog_socket_reader.h"

#include <libmnl/libmnl.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace qel::firewall {

NflogSocketReader::NflogSocketReader(const tracing::Tracer& tracer, NetlinkSocket& socket, NflogMessageHandler& handler)
    : m_tracer(tracer),
      m_socket(socket),
      m_handler(handler),
      m_parser(
          tracer.Get(),
          [&handler](const nlmsghdr* message, tools::MnlParser::AttributeTable attributes) {
            return handler.OnMessage(message, attributes);
          },
          NflogHighestAttribute, nullptr) {}

oro::result_t NflogSocketReader::ReadPending() noexcept {
  try {
    const ssize_t bytesRead = m_socket.Receive(m_buffer.data(), m_buffer.size());
    if (bytesRead < 0) {
      const int error = errno;
      // The kernel dropped messages for want of room; the socket works on.
      if (error == ENOBUFS) {
        m_handler.OnOverrun();
        return oro::errOk;
      }
      QEL_TRACE_FAILED_CONDITION(m_tracer, "bytesRead >= 0",
                                 std::string("Cannot read netlink socket: ") + std::strerror(error));
      return oro::errUnexpected;
    }
    if (m_parser.Parse(m_buffer.data(), static_cast<std::size_t>(bytesRead), 0, m_socket.PortId()) == MNL_CB_ERROR) {
      m_tracer.Write(tracing::Error, "Cannot process netlink message");
      return oro::errUnexpected;
    }
    return oro::errOk;
  } catch (...) {
    return oro::errUnexpected;
  }
}

}  // namespace qel::firewall
