#include "firewall/uevent_listener.h"

#include <linux/netlink.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

#include "firewall/netlink_poll_loop.h"
#include "firewall/uevent_message.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Skipped;
using tracing::Warning;

constexpr char kThreadName[] = "vornUevents";
// The kernel's own multicast group; udev re-broadcasts on the second.
constexpr std::uint32_t kKernelGroup = 1;
// A uevent is at most 2 KiB of variables plus its header.
constexpr std::size_t kDatagramBytes = 8192;
// Uevents come in bursts (a device with its queues, a module with its
// parameters); the one the sinks wait for must not drown in one.
constexpr int kReceiveBufferBytes = 1 << 20;

constexpr PollLoopTexts kLoopTexts{"Uevent listener thread stopped", "Cannot read from uevent netlink socket"};

// The listener whose thread this is; lets Unsubscribe tell a call from
// within a notification, which must not wait for itself.
thread_local const UeventListener* t_listenerOfThread = nullptr;

// Reads one datagram whenever the loop finds the socket readable.
class UeventSocketReader final : public NetlinkSocketEvents {
 public:
  UeventSocketReader(const tracing::Tracer& tracer, NetlinkSocket& socket,
                     std::function<void(const Uevent&)> deliver)
      : m_tracer(tracer), m_socket(socket), m_deliver(std::move(deliver)), m_buffer(kDatagramBytes) {}

  result_t ReadPending() noexcept override {
    try {
      const ssize_t received = m_socket.Receive(m_buffer.data(), m_buffer.size());
      if (received < 0) return ReceiveFailure(errno);
      Uevent uevent;
      std::string problem;
      const result_t parsed =
          UeventMessage::Parse(std::string_view(m_buffer.data(), static_cast<std::size_t>(received)), uevent, problem);
      if (parsed == oro::errOk) {
        m_deliver(uevent);
      } else if (ORO_FAILED(parsed)) {
        m_tracer.Write(Skipped, "Skipped uevent: ", problem);
      }
      return oro::errOk;
    } catch (...) {
      return oro::errUnexpected;
    }
  }

  void OnOverrun() noexcept override {
    try {
      m_tracer.Write(Warning, "Uevents lost: the socket's receive buffer overflowed");
    } catch (...) {
    }
  }

 private:
  result_t ReceiveFailure(int error) {
    if (error == ENOBUFS) {
      OnOverrun();
      return oro::errOk;
    }
    m_tracer.Write(tracing::Error, "Cannot receive uevent: ", std::strerror(error));
    return oro::ResultFromErrno(error);
  }

  const tracing::Tracer& m_tracer;
  NetlinkSocket& m_socket;
  std::function<void(const Uevent&)> m_deliver;
  std::vector<char> m_buffer;
};

}  // namespace

UeventListener::UeventListener(oro::RefPtr<oro::ITracer> tracer) : m_tracer(std::move(tracer)) {}

UeventListener::~UeventListener() { StopListening(); }

void UeventListener::FinalRelease() noexcept {
  std::lock_guard lock(m_lifeMutex);
  StopListening();
}

result_t UeventListener::Subscribe(IUevents* sink) noexcept {
  return tracing::Guarded(m_tracer, "Subscribe", [&] {
    m_tracer.Write(Detail, "Subscribe", "() ", "sink=", static_cast<const void*>(sink));
    if (!sink) {
      QEL_TRACE_FAILED_CONDITION(m_tracer, "sink", "uevent sink is nullptr");
      return oro::errInvalidArgument;
    }
    {
      std::lock_guard lock(m_sinksMutex);
      if (std::find(m_sinks.begin(), m_sinks.end(), sink) != m_sinks.end()) return oro::errAlreadyExists;
      // From within a notification: the thread runs, and m_lifeMutex may be
      // held by a release that is joining this very thread.
      if (t_listenerOfThread == this) {
        m_sinks.push_back(sink);
        return oro::errOk;
      }
    }
    std::lock_guard life(m_lifeMutex);
    if (!m_stop) {
      const result_t r = QEL_CHECKED_CALL(m_tracer, StartListening(), "Cannot start listening to uevents");
      if (ORO_FAILED(r)) return r;
    }
    std::lock_guard lock(m_sinksMutex);
    if (std::find(m_sinks.begin(), m_sinks.end(), sink) != m_sinks.end()) return oro::errAlreadyExists;
    m_sinks.push_back(sink);
    return oro::errOk;
  });
}

result_t UeventListener::Unsubscribe(IUevents* sink) noexcept {
  return tracing::Guarded(m_tracer, "Unsubscribe", [&] {
    m_tracer.Write(Detail, "Unsubscribe", "() ", "sink=", static_cast<const void*>(sink));
    std::unique_lock lock(m_sinksMutex);
    const auto it = std::find(m_sinks.begin(), m_sinks.end(), sink);
    if (it == m_sinks.end()) return oro::errNotFound;
    m_sinks.erase(it);
    if (t_listenerOfThread != this) m_notified.wait(lock, [&] { return m_notifying != sink; });
    return oro::errOk;
  });
}

void UeventListener::Deliver(const Uevent& uevent) {
  std::unique_lock lock(m_sinksMutex);
  const std::vector<IUevents*> sinks = m_sinks;
  for (IUevents* sink : sinks) {
    // One that left while an earlier one was notified is not called.
    if (std::find(m_sinks.begin(), m_sinks.end(), sink) == m_sinks.end()) continue;
    m_notifying = sink;
    lock.unlock();
    const result_t r = sink->OnUevent(uevent);
    lock.lock();
    m_notifying = nullptr;
    m_notified.notify_all();
    if (ORO_FAILED(r)) {
      m_tracer.Write(Warning, "Uevent sink failed: ", tracing::FormatResult(r), ", action=", uevent.action,
                     ", devpath=", uevent.devpath);
    }
  }
}

// Called with m_lifeMutex held.
result_t UeventListener::StartListening() {
  NetlinkSocket socket;
  if (const result_t r = NetlinkSocket::Create(NETLINK_KOBJECT_UEVENT, socket); ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "NetlinkSocket::Create(NETLINK_KOBJECT_UEVENT, socket)", r,
                          "Cannot create uevent netlink socket");
    return r;
  }
  if (const result_t r = socket.Bind(kKernelGroup); ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "socket.Bind(kKernelGroup)", r, "Cannot bind uevent netlink socket");
    return r;
  }
  if (ORO_FAILED(socket.SetReceiveBuffer(kReceiveBufferBytes))) {
    // The default buffer still works; it only overflows sooner.
    m_tracer.Write(Warning, "Cannot enlarge the uevent socket's receive buffer: ", std::strerror(errno));
  }
  tools::DescriptorNotifier stop;
  if (const result_t r = tools::DescriptorNotifier::Create(stop); ORO_FAILED(r)) return r;
  m_socket = std::move(socket);
  m_stop = std::move(stop);
  try {
    m_thread = std::jthread(&UeventListener::Run, this);
  } catch (const std::system_error& e) {
    m_stop.reset();
    m_socket = NetlinkSocket();
    return oro::ResultFromErrno(e.code().value());
  }
  ::pthread_setname_np(m_thread.native_handle(), kThreadName);
  return oro::errOk;
}

// Called with m_lifeMutex held, or from the destructor.
void UeventListener::StopListening() noexcept {
  if (!m_stop) return;
  QEL_CHECKED_CALL(m_tracer, m_stop->Notify(), "Cannot stop uevent listener thread");
  if (m_thread.joinable()) m_thread.join();
  m_stop.reset();
  m_socket = NetlinkSocket();
}

void UeventListener::Run() noexcept {
  t_listenerOfThread = this;
  try {
    UeventSocketReader reader(m_tracer, m_socket, [this](const Uevent& uevent) { Deliver(uevent); });
    NetlinkPollLoop(m_tracer, m_socket.Fd(), m_stop->Fd(), reader, kLoopTexts).Run();
  } catch (...) {
    // Only the reader's buffer allocates; without it nothing can be heard.
  }
}

}  // namespace qel::firewall
