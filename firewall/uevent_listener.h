// The module's own source of kernel uevents: a NETLINK_KOBJECT_UEVENT socket
// on the kernel's multicast group, read on a thread of its own
// ("vornUevents"). Each event is handed to every subscribed sink in turn.
// The socket is opened and the thread started when the first sink
// subscribes; both last until the listener goes. Stopping them whenever the
// last sink left would have to join the thread from Unsubscribe, and a sink
// may well subscribe again from within its own notification; an idle thread
// blocked in poll costs nothing.
//
// The socket sees the uevents of the network namespace it was opened in:
// module events everywhere, device events of that namespace's devices.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "firewall/bridge_interfaces.h"
#include "firewall/netlink_socket.h"
#include "qel_common/descriptor_notifier.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class UeventListener final : public ObjectImpl<UeventListener, IUeventsSubscription> {
 public:
  explicit UeventListener(oro::RefPtr<oro::ITracer> tracer);
  // The thread uses the object: it must not outlive it.
  ~UeventListener() override;

  void FinalRelease() noexcept;

  // IUeventsSubscription. Subscribe fails with the socket's or the
  // thread's error when listening cannot start; the sink is then not
  // subscribed.
  oro::result_t Subscribe(IUevents* sink) noexcept override;
  oro::result_t Unsubscribe(IUevents* sink) noexcept override;

 private:
  // Hands `uevent` to every sink in turn; on the listening thread.
  void Deliver(const Uevent& uevent);
  oro::result_t StartListening();
  void StopListening() noexcept;
  void Run() noexcept;

  tracing::Tracer m_tracer;

  // Serialises starting and stopping the thread. The thread never takes it.
  std::mutex m_lifeMutex;
  NetlinkSocket m_socket;                   // open while listening
  std::optional<tools::DescriptorNotifier> m_stop;  // present while listening
  std::jthread m_thread;

  // Guards the sinks and the one being notified. The thread holds it
  // between notifications, never during one, so a sink may subscribe or
  // unsubscribe from within its notification.
  std::mutex m_sinksMutex;
  std::condition_variable m_notified;
  std::vector<IUevents*> m_sinks;
  IUevents* m_notifying = nullptr;
};

}  // namespace qel::firewall
