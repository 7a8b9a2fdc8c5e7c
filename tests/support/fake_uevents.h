// A uevent source driven by the test: Send notifies the subscribed sinks on
// the calling thread, from any number of threads at once. Like a real
// source, Unsubscribe waits until no notification to that sink runs.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "firewall/bridge_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeUeventSource final : public ObjectImpl<FakeUeventSource, firewall::IUeventsSubscription> {
 public:
  oro::result_t Subscribe(firewall::IUevents* sink) noexcept override {
    if (failSubscribe) return oro::errUnexpected;
    std::lock_guard lock(m_mutex);
    if (std::find(m_sinks.begin(), m_sinks.end(), sink) != m_sinks.end()) return oro::errAlreadyExists;
    m_sinks.push_back(sink);
    ++subscribes;
    return oro::errOk;
  }
  oro::result_t Unsubscribe(firewall::IUevents* sink) noexcept override {
    if (failUnsubscribe) return oro::errUnexpected;
    std::unique_lock lock(m_mutex);
    const auto it = std::find(m_sinks.begin(), m_sinks.end(), sink);
    if (it == m_sinks.end()) return oro::errNotFound;
    m_sinks.erase(it);
    ++unsubscribes;
    m_idle.wait(lock, [&] { return std::count(m_notifying.begin(), m_notifying.end(), sink) == 0; });
    return oro::errOk;
  }

  // Notifies every subscribed sink of one uevent.
  void Send(const std::string& action, const std::string& devpath) {
    const firewall::Uevent uevent{action, devpath, {{"ACTION", action}, {"DEVPATH", devpath}}};
    std::unique_lock lock(m_mutex);
    const auto sinks = m_sinks;
    for (firewall::IUevents* sink : sinks) {
      if (std::find(m_sinks.begin(), m_sinks.end(), sink) == m_sinks.end()) continue;
      m_notifying.push_back(sink);
      lock.unlock();
      sink->OnUevent(uevent);
      lock.lock();
      m_notifying.erase(std::find(m_notifying.begin(), m_notifying.end(), sink));
      m_idle.notify_all();
    }
  }
  void SendModuleLoaded() { Send("add", "/module/br_netfilter"); }

  bool Subscribed(firewall::IUevents* sink) {
    std::lock_guard lock(m_mutex);
    return std::find(m_sinks.begin(), m_sinks.end(), sink) != m_sinks.end();
  }

  std::atomic<int> subscribes = 0;
  std::atomic<int> unsubscribes = 0;
  std::atomic<bool> failSubscribe = false;
  std::atomic<bool> failUnsubscribe = false;

 private:
  std::mutex m_mutex;
  std::condition_variable m_idle;
  std::vector<firewall::IUevents*> m_sinks;
  std::vector<firewall::IUevents*> m_notifying;  // several threads may send at once
};

// Keeps every uevent it is given, as "action devpath".
class RecordingUeventSink final : public ObjectImpl<RecordingUeventSink, firewall::IUevents> {
 public:
  oro::result_t OnUevent(const firewall::Uevent& uevent) noexcept override {
    std::lock_guard lock(m_mutex);
    m_seen.push_back(uevent.action + " " + uevent.devpath);
    m_arrived.notify_all();
    return oro::errOk;
  }
  // Waits until a uevent `action` arrived whose path ends with `pathEnd`.
  bool WaitFor(const std::string& action, const std::string& pathEnd, std::chrono::milliseconds limit) {
    std::unique_lock lock(m_mutex);
    return m_arrived.wait_for(lock, limit, [&] {
      return std::any_of(m_seen.begin(), m_seen.end(), [&](const std::string& seen) {
        return seen.starts_with(action + " ") && seen.ends_with(pathEnd);
      });
    });
  }
  std::vector<std::string> Seen() {
    std::lock_guard lock(m_mutex);
    return m_seen;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_arrived;
  std::vector<std::string> m_seen;
};

}  // namespace qel::test
