// Fakes around the network-interface provider: an interface list the test
// sets, and a sink that records the notifications it gets.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "firewall/interface_snapshot.h"
#include "firewall/network_interface_interfaces.h"
#include "firewall/network_interface_provider.h"
#include "qel_common/object_impl.h"

namespace qel::test {

// The list the provider reads; counts the readings so that a test can wait
// for passes of the monitoring thread.
class FakeInterfaceList {
 public:
  explicit FakeInterfaceList(firewall::InterfaceSnapshots interfaces = {}) : m_interfaces(std::move(interfaces)) {}

  void Set(firewall::InterfaceSnapshots interfaces) {
    std::lock_guard lock(m_mutex);
    m_interfaces = std::move(interfaces);
  }
  // While set, every reading fails with this code.
  void FailWith(oro::result_t code) {
    std::lock_guard lock(m_mutex);
    m_failure = code;
  }
  std::size_t Readings() {
    std::lock_guard lock(m_mutex);
    return m_readings;
  }
  // Waits until `more` readings beyond those done now have been made.
  bool WaitForReadings(std::size_t more, std::chrono::milliseconds limit) {
    std::unique_lock lock(m_mutex);
    const std::size_t target = m_readings + more;
    return m_read.wait_for(lock, limit, [&] { return m_readings >= target; });
  }

  // The source to hand to the provider; the list must outlive it.
  firewall::InterfaceListSource Source() {
    return [this](firewall::InterfaceSnapshots& out) {
      std::lock_guard lock(m_mutex);
      ++m_readings;
      m_read.notify_all();
      if (oro::Failed(m_failure)) return m_failure;
      out = m_interfaces;
      return oro::errOk;
    };
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_read;
  firewall::InterfaceSnapshots m_interfaces;
  oro::result_t m_failure = oro::errOk;
  std::size_t m_readings = 0;
};

// Records each notification as the difference it reports.
class RecordingInterfaceSink final
    : public ObjectImpl<RecordingInterfaceSink, firewall::INetworkInterfaceProviderEvents> {
 public:
  void OnInterfaceAdded(firewall::INetworkInterface* added) noexcept override { Record({std::nullopt, Read(added)}); }
  void OnInterfaceDeleted(firewall::INetworkInterface* deleted) noexcept override {
    Record({Read(deleted), std::nullopt});
  }
  void OnInterfaceChanged(firewall::INetworkInterface* before, firewall::INetworkInterface* after) noexcept override {
    Record({Read(before), Read(after)});
  }

  firewall::InterfaceChanges Changes() {
    std::lock_guard lock(m_mutex);
    return m_changes;
  }
  // Waits until some recorded change satisfies `match`.
  bool WaitFor(const std::function<bool(const firewall::InterfaceChange&)>& match, std::chrono::milliseconds limit) {
    std::unique_lock lock(m_mutex);
    return m_recorded.wait_for(lock, limit, [&] {
      for (const auto& change : m_changes) {
        if (match(change)) return true;
      }
      return false;
    });
  }
  bool WaitForCount(std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock lock(m_mutex);
    return m_recorded.wait_for(lock, limit, [&] { return m_changes.size() >= count; });
  }

  // Runs inside each notification, after it is recorded; set before the
  // sink is subscribed.
  std::function<void()> duringCall;

  // Makes the first notification wait, after it is recorded, until LetGo.
  void HoldFirstCall() {
    duringCall = [this, first = true]() mutable {
      if (!std::exchange(first, false)) return;
      std::unique_lock lock(m_mutex);
      m_held = true;
      m_recorded.notify_all();
      m_recorded.wait(lock, [&] { return m_letGo; });
    };
  }
  bool WaitUntilHeld(std::chrono::milliseconds limit) {
    std::unique_lock lock(m_mutex);
    return m_recorded.wait_for(lock, limit, [&] { return m_held; });
  }
  void LetGo() {
    std::lock_guard lock(m_mutex);
    m_letGo = true;
    m_recorded.notify_all();
  }

 private:
  static firewall::InterfaceSnapshot Read(firewall::INetworkInterface* itf) {
    return {itf->GetIndex(), itf->IsEnabled(), itf->GetName()};
  }
  void Record(firewall::InterfaceChange change) {
    {
      std::lock_guard lock(m_mutex);
      m_changes.push_back(std::move(change));
    }
    m_recorded.notify_all();
    if (duringCall) duringCall();
  }

  std::mutex m_mutex;
  std::condition_variable m_recorded;
  firewall::InterfaceChanges m_changes;
  bool m_held = false;
  bool m_letGo = false;
};

// A provider with a fixed list whose subscription only records who is
// subscribed; it sends nothing by itself.
class FakeInterfaceProvider final
    : public ObjectImpl<FakeInterfaceProvider, firewall::INetworkInterfaceProvider,
                        firewall::INetworkInterfaceProviderEventsSubscription> {
 public:
  oro::result_t GetInterfaces(firewall::NetworkInterfaces& interfaces) noexcept override {
    interfaces = list;
    return oro::errOk;
  }
  oro::result_t Subscribe(firewall::INetworkInterfaceProviderEvents* sink) noexcept override {
    std::lock_guard lock(m_mutex);
    if (Find(sink) != m_sinks.end()) return oro::errAlreadyExists;
    m_sinks.push_back(oro::RefPtr<firewall::INetworkInterfaceProviderEvents>::Share(sink));
    return oro::errOk;
  }
  oro::result_t Unsubscribe(firewall::INetworkInterfaceProviderEvents* sink) noexcept override {
    std::lock_guard lock(m_mutex);
    const auto it = Find(sink);
    if (it == m_sinks.end()) return oro::errNotFound;
    m_sinks.erase(it);
    return oro::errOk;
  }
  oro::result_t UnsubscribeAndWait(firewall::INetworkInterfaceProviderEvents* sink) noexcept override {
    return Unsubscribe(sink);
  }
  std::size_t Subscribers() {
    std::lock_guard lock(m_mutex);
    return m_sinks.size();
  }

  firewall::NetworkInterfaces list;

 private:
  using Sinks = std::vector<oro::RefPtr<firewall::INetworkInterfaceProviderEvents>>;
  Sinks::iterator Find(firewall::INetworkInterfaceProviderEvents* sink) {
    return std::find_if(m_sinks.begin(), m_sinks.end(), [&](const auto& held) { return held.Get() == sink; });
  }

  std::mutex m_mutex;
  Sinks m_sinks;
};

}  // namespace qel::test
