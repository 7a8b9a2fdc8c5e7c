// Binds NFQUEUE numbers as a program that diverts traffic to user space
// does, so that they show in the kernel's list of bound queues. A queue
// stays bound while the binder (its netlink socket) lives.
#pragma once

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace qel::test {

class NfqueueBinder {
 public:
  NfqueueBinder() : m_socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC)) {
    if (!m_socket) Fail("opening a netfilter netlink socket");
    if (mnl_socket_bind(m_socket, 0, MNL_SOCKET_AUTOPID) < 0) {
      mnl_socket_close(m_socket);
      Fail("binding the netlink socket");
    }
  }
  ~NfqueueBinder() { mnl_socket_close(m_socket); }
  NfqueueBinder(const NfqueueBinder&) = delete;
  NfqueueBinder& operator=(const NfqueueBinder&) = delete;

  // Binds `queue` to this socket and waits for the kernel's acknowledgement;
  // throws with the kernel's reason when it refuses.
  void Bind(std::uint16_t queue) {
    std::vector<char> buffer(MNL_SOCKET_BUFFER_SIZE);
    nlmsghdr* nlh = mnl_nlmsg_put_header(buffer.data());
    nlh->nlmsg_type = (NFNL_SUBSYS_QUEUE << 8) | NFQNL_MSG_CONFIG;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    nlh->nlmsg_seq = ++m_sequence;
    auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nfgenmsg)));
    header->nfgen_family = AF_UNSPEC;
    header->version = NFNETLINK_V0;
    header->res_id = htons(queue);
    const nfqnl_msg_config_cmd command{NFQNL_CFG_CMD_BIND, 0, htons(AF_UNSPEC)};
    mnl_attr_put(nlh, NFQA_CFG_CMD, sizeof command, &command);
    if (mnl_socket_sendto(m_socket, nlh, nlh->nlmsg_len) < 0) Fail("sending the bind of queue " + std::to_string(queue));
    const ssize_t received = mnl_socket_recvfrom(m_socket, buffer.data(), buffer.size());
    if (received < 0 ||
        mnl_cb_run(buffer.data(), static_cast<std::size_t>(received), m_sequence, mnl_socket_get_portid(m_socket),
                   nullptr, nullptr) < 0) {
      Fail("binding queue " + std::to_string(queue));
    }
  }

 private:
  [[noreturn]] static void Fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
  }

  mnl_socket* m_socket;
  unsigned m_sequence = 0;
};

}  // namespace qel::test
