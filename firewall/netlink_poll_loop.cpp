#include "firewall/netlink_poll_loop.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace qel::firewall {
namespace {

using tracing::Warning;

constexpr short kBroken = POLLERR | POLLHUP | POLLNVAL;

// The error the socket holds, taken from it as a receive would take it; 0
// when none, -1 when the descriptor is no socket.
int TakeSocketError(int fd) {
  int error = 0;
  socklen_t length = sizeof error;
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return -1;
  return error;
}

}  // namespace

NetlinkPollLoop::NetlinkPollLoop(const tracing::Tracer& tracer, int netlinkFd, int stopFd, NetlinkSocketEvents& socket,
                             PollLoopTexts texts) noexcept
    : m_tracer(tracer), m_netlinkFd(netlinkFd), m_stopFd(stopFd), m_socket(socket), m_texts(texts) {}

oro::result_t NetlinkPollLoop::Run() noexcept {
  try {
    for (;;) {
      switch (Once()) {
        case Step::Continue:
          break;
        case Step::Stopped:
          return oro::errOk;
        case Step::Failed:
          return oro::errUnexpected;
      }
    }
  } catch (...) {
    // Only tracing allocates here; a loop that cannot trace cannot go on.
    return oro::errUnexpected;
  }
}

NetlinkPollLoop::Step NetlinkPollLoop::Once() {
  pollfd entries[2] = {{m_netlinkFd, POLLIN, 0}, {m_stopFd, POLLIN, 0}};
  int eventCount;
  do {
    eventCount = ::poll(entries, 2, -1);
  } while (eventCount < 0 && errno == EINTR);  // a signal to the host is no reason to stop
  if (eventCount <= 0) {
    const int error = errno;
    QEL_TRACE_FAILED_CONDITION(m_tracer, "eventCount > 0", std::string("Poll error: ") + std::strerror(error));
    return Step::Failed;
  }
  const short netlinkEvents = entries[0].revents;
  const short stopEvents = entries[1].revents;
  if ((netlinkEvents & kBroken) != 0 && OnSocketError(netlinkEvents) == Step::Failed) return Step::Failed;
  if ((stopEvents & kBroken) != 0) {
    QEL_TRACE_FAILED_CONDITION(m_tracer, "(stopEvents & (0x010 | 0x008 | 0x020)) == 0", "Stop fd is corrupted");
    return Step::Failed;
  }
  if ((stopEvents & POLLIN) != 0) {
    std::uint64_t counter;
    if (::read(m_stopFd, &counter, sizeof counter) < 0) {
      // Nothing to drain (a spurious wake-up); the stop was still asked for.
    }
    m_tracer.Write(Warning, m_texts.stopped);
    return Step::Stopped;
  }
  if ((netlinkEvents & POLLIN) != 0 && ORO_FAILED(m_socket.ReadPending())) {
    m_tracer.Write(tracing::Error, m_texts.readFailed);
  }
  return Step::Continue;
}

// A netlink socket whose receive buffer overflowed reports POLLERR with
// ENOBUFS pending until it is read: the kernel has dropped messages, and the
// socket works on. Anything else means the socket is gone.
NetlinkPollLoop::Step NetlinkPollLoop::OnSocketError(short events) {
  if ((events & (POLLHUP | POLLNVAL)) == 0) {
    const int error = TakeSocketError(m_netlinkFd);
    if (error == ENOBUFS) {
      m_socket.OnOverrun();
      return Step::Continue;
    }
    if (error == 0) return Step::Continue;  // taken by a receive in between
  }
  QEL_TRACE_FAILED_CONDITION(m_tracer, "(netlinkEvents & (0x010 | 0x008 | 0x020)) == 0", "Netlink socket is corrupted");
  return Step::Failed;
}

}  // namespace qel::firewall
