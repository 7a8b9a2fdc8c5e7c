#include "firewall/network_interface_provider.h"

#include <algorithm>

#include "qel_common/exception_result.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Error;

double Seconds(std::chrono::milliseconds period) { return std::chrono::duration<double>(period).count(); }

}  // namespace

NetworkInterfaceProvider::NetworkInterfaceProvider(oro::RefPtr<oro::ITracer> tracer, InterfaceListSource source,
                                                   std::filesystem::path sysfsRoot,
                                                   std::chrono::milliseconds checkPeriod)
    : m_tracer(std::move(tracer)),
      m_source(std::move(source)),
      m_sysfsRoot(std::move(sysfsRoot)),
      m_checkPeriod(checkPeriod) {
  m_tracer.Write(Detail, "NetworkInterfaceProvider", "() ", "checkPeriod=", Seconds(m_checkPeriod));
  // Should this first reading fail, the first pass that succeeds reports
  // every interface as added, which is still true for the subscribers.
  QEL_CHECKED_CALL(m_tracer, m_source(m_last), "Cannot read the interface list");
  m_thread = std::jthread([this] { Monitor(); });
}

NetworkInterfaceProvider::~NetworkInterfaceProvider() { StopMonitoring(); }

// The sinks go outside the lock: releasing one may run its owner's code.
void NetworkInterfaceProvider::FinalRelease() noexcept {
  StopMonitoring();
  std::vector<Sink> sinks;
  std::lock_guard lock(m_mutex);
  sinks.swap(m_sinks);
}

result_t NetworkInterfaceProvider::GetInterfaces(NetworkInterfaces& interfaces) noexcept {
  return tracing::Guarded(m_tracer, "GetInterfaces", [&] {
    InterfaceSnapshots current;
    const result_t r = QEL_CHECKED_CALL(m_tracer, m_source(current), "Cannot read the interface list");
    if (ORO_FAILED(r)) return r;
    NetworkInterfaces fresh;
    fresh.reserve(current.size());
    for (const auto& snapshot : current) {
      fresh.push_back(oro::RefPtr<INetworkInterface>::Adopt(MakeItf(snapshot).Detach()));
    }
    interfaces = std::move(fresh);
    return oro::errOk;
  });
}

result_t NetworkInterfaceProvider::Subscribe(INetworkInterfaceProviderEvents* sink) noexcept {
  return tracing::Guarded(m_tracer, "Subscribe", [&] {
    if (!sink) {
      QEL_TRACE_FAILED_CONDITION(m_tracer, "sink", "Interface events sink is nullptr");
      return oro::errInvalidArgument;
    }
    std::lock_guard lock(m_mutex);
    if (std::any_of(m_sinks.begin(), m_sinks.end(), [&](const Sink& s) { return s.Get() == sink; })) {
      return oro::errAlreadyExists;
    }
    m_sinks.push_back(Sink::Share(sink));
    return oro::errOk;
  });
}

result_t NetworkInterfaceProvider::Unsubscribe(INetworkInterfaceProviderEvents* sink) noexcept {
  return tracing::Guarded(m_tracer, "Unsubscribe", [&] { return RemoveSink(sink, false); });
}

result_t NetworkInterfaceProvider::UnsubscribeAndWait(INetworkInterfaceProviderEvents* sink) noexcept {
  return tracing::Guarded(m_tracer, "UnsubscribeAndWait", [&] { return RemoveSink(sink, true); });
}

// The reference is dropped outside the lock: it may be the sink's last, and
// its destruction is the subscriber's business.
result_t NetworkInterfaceProvider::RemoveSink(INetworkInterfaceProviderEvents* sink, bool waitForRunningCall) {
  Sink removed;
  std::unique_lock lock(m_mutex);
  const auto found = std::find_if(m_sinks.begin(), m_sinks.end(), [&](const Sink& s) { return s.Get() == sink; });
  if (found == m_sinks.end()) return oro::errNotFound;
  removed = std::move(*found);
  m_sinks.erase(found);
  if (waitForRunningCall) {
    // From inside the sink's own notification, waiting would never end.
    m_callEnded.wait(lock, [&] { return m_notifying != sink || m_notifyingThread == std::this_thread::get_id(); });
  }
  lock.unlock();
  return oro::errOk;
}

void NetworkInterfaceProvider::Monitor() noexcept {
  while (WaitForNextPass()) {
    try {
      CheckInterfaces();
    } catch (...) {
      TraceException("CheckInterfaces");
    }
  }
  try {
    m_tracer.Write(Detail, "Monitoring thread going to stop");
  } catch (...) {
  }
}

void NetworkInterfaceProvider::TraceException(const char* function) const noexcept {
  try {
    m_tracer.Write(Error, function, ": exception: ", ExceptionText(std::current_exception()));
  } catch (...) {
  }
}

// A steady clock: a system clock set back would hold the next pass back by
// as much.
bool NetworkInterfaceProvider::WaitForNextPass() {
  const auto deadline = std::chrono::steady_clock::now() + m_checkPeriod;
  std::unique_lock lock(m_mutex);
  m_wakeUp.wait_until(lock, deadline, [&] { return m_stopping; });
  return !m_stopping;
}

void NetworkInterfaceProvider::CheckInterfaces() {
  InterfaceSnapshots current;
  // A reading that failed says nothing about the interfaces: keep the
  // previous one rather than report every interface as gone.
  if (ORO_FAILED(QEL_CHECKED_CALL(m_tracer, m_source(current), "Cannot read the interface list"))) return;
  for (const auto& change : CompareSnapshots(m_last, current)) Notify(change);
  m_last = std::move(current);
}

void NetworkInterfaceProvider::Notify(const InterfaceChange& change) {
  if (!change.before) {
    const auto added = MakeItf(*change.after);
    m_tracer.Write(Detail, "OnInterfaceAdded", "() ", "addedInterface=", *change.after);
    NotifyEachSink([&](INetworkInterfaceProviderEvents* sink) { sink->OnInterfaceAdded(added.Get()); });
  } else if (!change.after) {
    const auto deleted = MakeItf(*change.before);
    m_tracer.Write(Detail, "OnInterfaceDeleted", "() ", "deletedInterface=", *change.before);
    NotifyEachSink([&](INetworkInterfaceProviderEvents* sink) { sink->OnInterfaceDeleted(deleted.Get()); });
  } else {
    const auto before = MakeItf(*change.before);
    const auto after = MakeItf(*change.after);
    m_tracer.Write(Detail, "OnInterfaceChanged", "() ", "oldInterface=", *change.before,
                   ", newInterface=", *change.after);
    NotifyEachSink(
        [&](INetworkInterfaceProviderEvents* sink) { sink->OnInterfaceChanged(before.Get(), after.Get()); });
  }
}

// Each call is checked against the subscriptions as they are when it
// starts, so a sink unsubscribed during the pass hears nothing more.
void NetworkInterfaceProvider::NotifyEachSink(const std::function<void(INetworkInterfaceProviderEvents*)>& call) {
  std::vector<Sink> sinks;
  {
    std::lock_guard lock(m_mutex);
    sinks = m_sinks;
  }
  for (const auto& sink : sinks) {
    if (!BeginCall(sink.Get())) continue;
    call(sink.Get());
    EndCall();
  }
}

bool NetworkInterfaceProvider::BeginCall(INetworkInterfaceProviderEvents* sink) {
  std::lock_guard lock(m_mutex);
  if (m_stopping) return false;
  if (std::none_of(m_sinks.begin(), m_sinks.end(), [&](const Sink& s) { return s.Get() == sink; })) return false;
  m_notifying = sink;
  m_notifyingThread = std::this_thread::get_id();
  return true;
}

void NetworkInterfaceProvider::EndCall() {
  {
    std::lock_guard lock(m_mutex);
    m_notifying = nullptr;
    m_notifyingThread = {};
  }
  m_callEnded.notify_all();
}

void NetworkInterfaceProvider::StopMonitoring() noexcept {
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_wakeUp.notify_all();
  if (!m_thread.joinable()) return;
  try {
    m_tracer.Write(Detail, "Waiting end of monitoring thread ...");
  } catch (...) {
  }
  m_thread.join();
}

oro::RefPtr<NetworkInterfaceItf> NetworkInterfaceProvider::MakeItf(const InterfaceSnapshot& snapshot) const {
  return oro::RefPtr<NetworkInterfaceItf>::Adopt(new NetworkInterfaceItf(m_tracer, m_sysfsRoot, snapshot));
}

}  // namespace qel::firewall
