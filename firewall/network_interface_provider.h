// Tells the module which network interfaces the host has and tells
// subscribers when one appears, goes away or changes. A monitoring thread
// reads the interface list once per check period and compares it with the
// previous reading.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "firewall/interface_snapshot.h"
#include "firewall/network_interface_interfaces.h"
#include "firewall/network_interface_itf.h"
#include "oro/tracer.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

// Reads the current interface list into `out` (replacing it); must be safe to
// call from several threads at once.
using InterfaceListSource = std::function<oro::result_t(InterfaceSnapshots& out)>;

class NetworkInterfaceProvider
    : public ObjectImpl<NetworkInterfaceProvider, INetworkInterfaceProvider,
                        INetworkInterfaceProviderEventsSubscription> {
 public:
  static constexpr std::chrono::milliseconds kCheckPeriod = std::chrono::seconds(5);
  static constexpr const char* kSysfsRoot = "/sys/class/net";

  // Reads the list once, so that the first pass reports only what changed
  // since, and starts the monitoring thread.
  NetworkInterfaceProvider(oro::RefPtr<oro::ITracer> tracer, InterfaceListSource source,
                           std::filesystem::path sysfsRoot, std::chrono::milliseconds checkPeriod);
  // Stops and joins the monitoring thread. Must not run on that thread: a
  // subscriber does not drop the last reference from inside a notification.
  ~NetworkInterfaceProvider() override;

  void FinalRelease() noexcept;

  // INetworkInterfaceProvider
  oro::result_t GetInterfaces(NetworkInterfaces& interfaces) noexcept override;
  // INetworkInterfaceProviderEventsSubscription
  oro::result_t Subscribe(INetworkInterfaceProviderEvents* sink) noexcept override;
  oro::result_t Unsubscribe(INetworkInterfaceProviderEvents* sink) noexcept override;
  oro::result_t UnsubscribeAndWait(INetworkInterfaceProviderEvents* sink) noexcept override;

 private:
  using Sink = oro::RefPtr<INetworkInterfaceProviderEvents>;

  void Monitor() noexcept;
  // False when the provider is stopping.
  bool WaitForNextPass();
  void CheckInterfaces();
  void Notify(const InterfaceChange& change);
  void NotifyEachSink(const std::function<void(INetworkInterfaceProviderEvents*)>& call);
  // Whether the call to `sink` may start; if so it is marked running.
  bool BeginCall(INetworkInterfaceProviderEvents* sink);
  void EndCall();
  void StopMonitoring() noexcept;
  void TraceException(const char* function) const noexcept;
  oro::result_t RemoveSink(INetworkInterfaceProviderEvents* sink, bool waitForRunningCall);
  oro::RefPtr<NetworkInterfaceItf> MakeItf(const InterfaceSnapshot& snapshot) const;

  tracing::Tracer m_tracer;
  const InterfaceListSource m_source;
  const std::filesystem::path m_sysfsRoot;
  const std::chrono::milliseconds m_checkPeriod;

  // Notifications run without the mutex, so a plain one is enough: a sink
  // may call back into the provider from its notification.
  std::mutex m_mutex;
  std::condition_variable m_wakeUp;     // the stop flag was set
  std::condition_variable m_callEnded;  // a notification returned
  bool m_stopping = false;
  std::vector<Sink> m_sinks;
  // The sink being notified and the thread doing it, while a call runs.
  INetworkInterfaceProviderEvents* m_notifying = nullptr;
  std::thread::id m_notifyingThread;

  // The previous reading; only the monitoring thread touches it once the
  // constructor has made it.
  InterfaceSnapshots m_last;
  std::jthread m_thread;
};

}  // namespace qel::firewall
