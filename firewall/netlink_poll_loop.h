// A netlink listener's wait (the NFLOG listener's, the uevent listener's):
// poll the netlink socket and the stop event until the stop event fires or a
// descriptor breaks. Kept apart from the socket so that the decisions (what
// wins when both are ready, what ends the loop) run against any descriptors.
#pragma once

#include "oro/result.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

// What the loop does with the socket when it is ready.
class NetlinkSocketEvents {
 public:
  virtual ~NetlinkSocketEvents() = default;
  // Reads what is pending; a failure is traced and the loop goes on.
  virtual oro::result_t ReadPending() noexcept = 0;
  // The socket's receive buffer overflowed and the kernel dropped messages.
  virtual void OnOverrun() noexcept = 0;
};

// What the loop traces, naming the listener it runs for.
struct PollLoopTexts {
  const char* stopped = "NFLOG listener thread stopped";
  const char* readFailed = "Cannot read from nflog netlink socket";
};

class NetlinkPollLoop {
 public:
  // `stopFd` is a DescriptorNotifier's: readable once notified, drained by
  // an 8-byte read.
  NetlinkPollLoop(const tracing::Tracer& tracer, int netlinkFd, int stopFd, NetlinkSocketEvents& socket,
                PollLoopTexts texts = {}) noexcept;

  // Returns errOk once stopped; errUnexpected when poll or a descriptor
  // fails. Pending socket data does not delay a stop: a stop that is ready
  // ends the loop before any read.
  oro::result_t Run() noexcept;

 private:
  enum class Step { Continue, Stopped, Failed };

  Step Once();
  // POLLERR, POLLHUP or POLLNVAL on the socket.
  Step OnSocketError(short events);

  const tracing::Tracer& m_tracer;
  int m_netlinkFd;
  int m_stopFd;
  NetlinkSocketEvents& m_socket;
  PollLoopTexts m_texts;
};

}  // namespace qel::firewall
