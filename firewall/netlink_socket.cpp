#include "firewall/netlink_socket.h"

#include <libmnl/libmnl.h>
#include <sys/socket.h>

#include <cerrno>
#include <vector>

namespace qel::firewall {
namespace {

oro::result_t LastError() { return oro::ResultFromErrno(errno); }

int HandOver(const nlmsghdr* message, void* handler) {
  (*static_cast<const NetlinkSocket::MessageHandler*>(handler))(*message);
  return MNL_CB_OK;
}

}  // namespace

void NetlinkSocket::Closer::operator()(mnl_socket* socket) const noexcept { mnl_socket_close(socket); }

oro::result_t NetlinkSocket::Open(int bus, NetlinkSocket& out) noexcept {
  NetlinkSocket opened;
  oro::result_t r = Create(bus, opened);
  if (ORO_SUCCEEDED(r)) r = opened.Bind();
  if (ORO_SUCCEEDED(r)) out = std::move(opened);
  return r;
}

oro::result_t NetlinkSocket::Create(int bus, NetlinkSocket& out) noexcept {
  std::unique_ptr<mnl_socket, Closer> socket(mnl_socket_open2(bus, SOCK_CLOEXEC));
  if (!socket) return LastError();
  out.m_socket = std::move(socket);
  out.m_sequence = 0;
  return oro::errOk;
}

oro::result_t NetlinkSocket::Bind(std::uint32_t groups) noexcept {
  if (!m_socket) return oro::errInvalidState;
  return mnl_socket_bind(m_socket.get(), groups, MNL_SOCKET_AUTOPID) < 0 ? LastError() : oro::errOk;
}

int NetlinkSocket::Fd() const noexcept { return m_socket ? mnl_socket_get_fd(m_socket.get()) : -1; }

std::uint32_t NetlinkSocket::PortId() const noexcept { return m_socket ? mnl_socket_get_portid(m_socket.get()) : 0; }

oro::result_t NetlinkSocket::Send(const nlmsghdr& message) noexcept {
  if (!m_socket) return oro::errInvalidState;
  return mnl_socket_sendto(m_socket.get(), &message, message.nlmsg_len) < 0 ? LastError() : oro::errOk;
}

ssize_t NetlinkSocket::Receive(void* buffer, std::size_t size) noexcept {
  if (!m_socket) {
    errno = EBADF;
    return -1;
  }
  ssize_t received;
  do {
    received = mnl_socket_recvfrom(m_socket.get(), buffer, size);
  } while (received < 0 && errno == EINTR);
  return received;
}

oro::result_t NetlinkSocket::SetReceiveBuffer(int bytes) noexcept {
  const int fd = Fd();
  if (fd < 0) return oro::errInvalidState;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) return oro::errOk;
  return setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) == 0 ? oro::errOk : LastError();
}

int NetlinkSocket::ReceiveBuffer() const noexcept {
  int bytes = 0;
  socklen_t length = sizeof bytes;
  return getsockopt(Fd(), SOL_SOCKET, SO_RCVBUF, &bytes, &length) == 0 ? bytes : -1;
}

oro::result_t NetlinkSocket::Dump(nlmsghdr& request, const MessageHandler& onMessage) {
  if (!m_socket) return oro::errInvalidState;
  request.nlmsg_flags |= NLM_F_REQUEST | NLM_F_DUMP;
  request.nlmsg_seq = ++m_sequence;
  if (mnl_socket_sendto(m_socket.get(), &request, request.nlmsg_len) < 0) return LastError();
  // The kernel fits the parts of a dump to the size its reader asks for.
  std::vector<char> buffer(MNL_SOCKET_BUFFER_SIZE);
  const unsigned int portId = mnl_socket_get_portid(m_socket.get());
  for (;;) {
    const ssize_t received = mnl_socket_recvfrom(m_socket.get(), buffer.data(), buffer.size());
    if (received < 0) return LastError();
    const int outcome = mnl_cb_run(buffer.data(), static_cast<size_t>(received), request.nlmsg_seq, portId, &HandOver,
                                   const_cast<MessageHandler*>(&onMessage));
    if (outcome == MNL_CB_ERROR) return LastError();
    if (outcome == MNL_CB_STOP) return oro::errOk;
  }
}

}  // namespace qel::firewall
