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
  opened.m_socket.reset(mnl_socket_open2(bus, SOCK_CLOEXEC));
  if (!opened.m_socket) return LastError();
  if (mnl_socket_bind(opened.m_socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) return LastError();
  out = std::move(opened);
  return oro::errOk;
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
