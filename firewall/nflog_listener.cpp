#include "firewall/nflog_listener.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <system_error>

#include "firewall/netlink_poll_loop.h"
#include "firewall/nflog_socket_reader.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Warning;

constexpr std::uint32_t kCopyRange = 60;  // the IP and transport headers
constexpr char kThreadName[] = "vornNfLogPoll";

std::string GroupsText(const NflogGroupList& groups) {
  std::ostringstream text;
  for (std::size_t i = 0; i < groups.size(); ++i) text << (i ? ", " : "") << groups[i];
  return text.str();
}

// A configuration message of the nfnetlink log subsystem for `group`. No
// acknowledgement is asked for: an error the kernel answers with anyway
// reaches the poll thread, which traces it.
class ConfigMessage {
 public:
  ConfigMessage(std::uint8_t family, std::uint16_t group) {
    m_message = mnl_nlmsg_put_header(m_buffer);
    m_message->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG;
    m_message->nlmsg_flags = NLM_F_REQUEST;
    m_message->nlmsg_seq = 0;
    auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(m_message, sizeof(nfgenmsg)));
    header->nfgen_family = family;
    header->version = NFNETLINK_V0;
    header->res_id = htons(group);
  }

  static ConfigMessage Command(std::uint8_t family, std::uint16_t group, std::uint8_t command) {
    ConfigMessage message(family, group);
    const nfulnl_msg_config_cmd cmd{command};
    mnl_attr_put(message.m_message, NFULA_CFG_CMD, sizeof cmd, &cmd);
    return message;
  }

  static ConfigMessage CopyPackets(std::uint16_t group) {
    ConfigMessage message(AF_UNSPEC, group);
    nfulnl_msg_config_mode mode{};
    mode.copy_range = htonl(kCopyRange);
    mode.copy_mode = NFULNL_COPY_PACKET;
    mnl_attr_put(message.m_message, NFULA_CFG_MODE, sizeof mode, &mode);
    return message;
  }

  // The kernel numbers the group's messages (NFULA_SEQ); the gaps in the
  // numbering are the packets it dropped.
  static ConfigMessage NumberMessages(std::uint16_t group) {
    ConfigMessage message(AF_UNSPEC, group);
    mnl_attr_put_u16(message.m_message, NFULA_CFG_FLAGS, htons(NFULNL_CFG_F_SEQ));
    return message;
  }

  ConfigMessage(const ConfigMessage& other) { *this = other; }
  ConfigMessage& operator=(const ConfigMessage& other) {
    std::memcpy(m_buffer, other.m_buffer, sizeof m_buffer);
    m_message = reinterpret_cast<nlmsghdr*>(m_buffer);
    return *this;
  }

  const nlmsghdr& Get() const { return *m_message; }

 private:
  alignas(nlmsghdr) char m_buffer[MNL_ALIGN(sizeof(nlmsghdr)) + MNL_ALIGN(sizeof(nfgenmsg)) + 32] = {};
  nlmsghdr* m_message;
};

}  // namespace

NflogListener::NflogListener(oro::RefPtr<oro::ITracer> tracer, oro::RefPtr<INflogDataCallback> callback,
                             int receiveBufferBytes)
    : m_tracer(std::move(tracer)), m_callback(std::move(callback)), m_receiveBufferBytes(receiveBufferBytes) {}

// The thread uses the object: it must not outlive it.
NflogListener::~NflogListener() { StopRunning(); }

void NflogListener::FinalRelease() noexcept {
  std::lock_guard lock(m_mutex);
  StopRunning();
}

result_t NflogListener::Start(const NflogGroupList& logGroups) noexcept {
  return tracing::Guarded(m_tracer, "Start", [&] {
    m_tracer.Write(Detail, "Start", "() ", "logGroups=", GroupsText(logGroups));
    std::lock_guard lock(m_mutex);
    if (m_stop) {
      QEL_TRACE_FAILED_CONDITION(m_tracer, "!m_stop", "NFLOG listener already started");
      return oro::errInvalidState;
    }
    result_t r = QEL_CHECKED_CALL(m_tracer, InitNetlinkSocket(logGroups), "Cannot initialize netlink socket");
    if (ORO_FAILED(r)) return r;
    r = QEL_CHECKED_CALL(m_tracer, StartThread(logGroups), "Cannot start NFLOG listener thread");
    if (ORO_FAILED(r)) {
      m_stop.reset();
      m_handler.reset();
      m_socket = NetlinkSocket();
    }
    return r;
  });
}

result_t NflogListener::Stop() noexcept {
  return tracing::Guarded(m_tracer, "Stop", [&] {
    m_tracer.Write(Detail, "Stop", "() ");
    std::lock_guard lock(m_mutex);
    if (!m_stop) {
      m_tracer.Write(Warning, "Stop", ": ", "NFLOG listener not started");
      return oro::errOk;
    }
    return StopRunning();
  });
}

result_t NflogListener::GetNflogCounts(NflogCounts& out) noexcept {
  return tracing::Guarded(m_tracer, "GetNflogCounts", [&] {
    std::lock_guard lock(m_mutex);
    out = m_stop && m_handler ? m_handler->Counts() : NflogCounts{};
    return oro::errOk;
  });
}

result_t NflogListener::InitNetlinkSocket(const NflogGroupList& logGroups) {
  NetlinkSocket netlinkSocket;
  if (ORO_FAILED(NetlinkSocket::Create(NETLINK_NETFILTER, netlinkSocket))) {
    QEL_TRACE_FAILED_CONDITION(m_tracer, "netlinkSocket.IsValid()",
                               std::string("Cannot create netlink socket: ") + std::strerror(errno));
    return oro::errUnexpected;
  }
  if (ORO_FAILED(netlinkSocket.Bind())) {
    QEL_TRACE_FAILED_CONDITION(m_tracer, "mnl_socket_bind(netlinkSocket, 0, 0) >= 0",
                               std::string("Cannot bind netlink socket: ") + std::strerror(errno));
    return oro::errUnexpected;
  }
  if (ORO_FAILED(netlinkSocket.SetReceiveBuffer(m_receiveBufferBytes))) {
    // The default buffer still works; it only overflows sooner.
    m_tracer.Write(Warning, "Cannot enlarge the NFLOG socket's receive buffer: ", std::strerror(errno));
  }
  const auto send = [&](const ConfigMessage& message, const char* failure) {
    if (ORO_SUCCEEDED(netlinkSocket.Send(message.Get()))) return true;
    QEL_TRACE_FAILED_CONDITION(m_tracer, "mnl_socket_sendto(netlinkSocket, nl, nl->nlmsg_len) >= 0",
                               std::string(failure) + std::strerror(errno));
    return false;
  };
  bool sent =
      send(ConfigMessage::Command(AF_INET, 0, NFULNL_CFG_CMD_PF_UNBIND), "Cannot send NFLOG PF_UNBIND request: ") &&
      send(ConfigMessage::Command(AF_INET, 0, NFULNL_CFG_CMD_PF_BIND), "Cannot send NFLOG PF_BIND request: ");
  for (std::size_t i = 0; sent && i < logGroups.size(); ++i) {
    const std::uint16_t group = logGroups[i];
    sent = send(ConfigMessage::Command(AF_INET, group, NFULNL_CFG_CMD_BIND), "Cannot send NFLOG BIND request: ") &&
           send(ConfigMessage::CopyPackets(group), "Cannot send NFLOG MODE request: ") &&
           send(ConfigMessage::NumberMessages(group), "Cannot send NFLOG FLAGS request: ");
  }
  if (!sent) return oro::errUnexpected;
  m_socket = std::move(netlinkSocket);
  return oro::errOk;
}

result_t NflogListener::StartThread(const NflogGroupList& logGroups) {
  tools::DescriptorNotifier stop;
  if (const result_t r = tools::DescriptorNotifier::Create(stop); ORO_FAILED(r)) return r;
  m_handler = std::make_unique<NflogMessageHandler>(
      m_tracer, logGroups, [callback = m_callback](std::uint16_t group, NflogAttributes attributes) {
        return callback->OnNflogData(group, attributes);
      });
  m_stop = std::move(stop);
  try {
    m_thread = std::jthread(&NflogListener::Run, this);
  } catch (const std::system_error& e) {
    return oro::ResultFromErrno(e.code().value());
  }
  // Named here rather than by the thread itself: once Start returns, the
  // thread shows under its name.
  ::pthread_setname_np(m_thread.native_handle(), kThreadName);
  return oro::errOk;
}

// Called with the mutex held (or from the destructor, when nobody else can
// reach the object).
result_t NflogListener::StopRunning() {
  if (!m_stop) return oro::errOk;
  QEL_CHECKED_CALL(m_tracer, m_stop->Notify(), "Cannot stop NFLOG listener thread");
  if (m_thread.joinable()) m_thread.join();
  m_stop.reset();
  m_socket = NetlinkSocket();
  m_handler.reset();
  return oro::errOk;
}

void NflogListener::Run() noexcept {
  NflogSocketReader reader(m_tracer, m_socket, *m_handler);
  NetlinkPollLoop(m_tracer, m_socket.Fd(), m_stop->Fd(), reader).Run();
  try {
    m_handler->FlushLossTrace();
  } catch (...) {
  }
}

}  // namespace qel::firewall
