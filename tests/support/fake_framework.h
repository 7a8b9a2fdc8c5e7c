// Fakes of the host framework's services: tracer, locator, stop events.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "oro/event_publisher.h"
#include "oro/task.h"
#include "oro/timer.h"
#include "oro/tracer.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeTracer final : public ObjectImpl<FakeTracer, oro::ITracer> {
 public:
  bool IsEnabled(std::uint32_t level) noexcept override { return level <= enabledUpTo; }
  void Trace(std::uint32_t level, const char* text) noexcept override {
    std::lock_guard lock(m_mutex);
    m_lines.emplace_back(level, text);
    m_traced.notify_all();
  }
  // Waits until `count` lines hold `text`; false when they did not within
  // `limit`.
  bool WaitFor(const std::string& text, std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock lock(m_mutex);
    return m_traced.wait_for(lock, limit, [&] {
      return static_cast<std::size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const auto& line) {
               return line.second.find(text) != std::string::npos;
             })) >= count;
    });
  }

  std::vector<std::pair<std::uint32_t, std::string>> Lines() {
    std::lock_guard lock(m_mutex);
    return m_lines;
  }
  // Whether some line (of `level`, if given) contains `text`.
  bool Contains(const std::string& text) { return Contains(kAnyLevel, text); }
  bool Contains(std::uint32_t level, const std::string& text) { return Count(level, text) > 0; }
  // How many lines (of `level`, if given) contain `text`.
  std::size_t Count(std::uint32_t level, const std::string& text) {
    const auto lines = Lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
      return (level == kAnyLevel || line.first == level) && line.second.find(text) != std::string::npos;
    }));
  }
  static constexpr std::uint32_t kAnyLevel = ~0u;

  // Lines above this level are not asked for; the default takes every one.
  std::atomic<std::uint32_t> enabledUpTo = kAnyLevel;

 private:
  std::mutex m_mutex;
  std::condition_variable m_traced;
  std::vector<std::pair<std::uint32_t, std::string>> m_lines;
};

// Answers GetInterface from the objects registered with it, in order.
class FakeLocator final : public ObjectImpl<FakeLocator, oro::IServiceLocator> {
 public:
  template <class T>
  void Register(const oro::RefPtr<T>& object) { Register(object.Get()); }
  void Register(oro::IObject* object) { m_objects.push_back(oro::RefPtr<oro::IObject>::Share(object)); }

  oro::result_t GetInterface(oro::iid_t iid, void** out) noexcept override {
    *out = nullptr;
    for (const auto& object : m_objects) {
      if (ORO_SUCCEEDED(object->QueryInterface(iid, out))) return oro::errOk;
    }
    return oro::errNotFound;
  }

 private:
  std::vector<oro::RefPtr<oro::IObject>> m_objects;
};

class FakeStopEvents final : public ObjectImpl<FakeStopEvents, oro::ITaskStopEvents> {
 public:
  void OnTaskCompleted(const oro::TaskCompletion& completion) noexcept override {
    completions.emplace_back(completion.result, completion.text);
  }
  std::vector<std::pair<oro::result_t, std::string>> completions;
};

// A timer whose jobs run only when the test says so, on whatever thread
// calls Fire. As the framework's timer, it keeps a reference to its job
// while armed, and CancelAndWait waits for a run in progress.
class FakeTimer final : public ObjectImpl<FakeTimer, oro::ITimer> {
 public:
  oro::result_t SetRepeated(oro::IRunnable* job, std::uint32_t intervalMs) noexcept override {
    if (failSetRepeated) return oro::errUnexpected;
    std::lock_guard lock(m_mutex);
    m_job = oro::RefPtr<oro::IRunnable>::Share(job);
    interval = intervalMs;
    return oro::errOk;
  }
  oro::result_t CancelAndWait(oro::IRunnable* job) noexcept override {
    if (failCancel) return oro::errUnexpected;
    if (duringCancel) duringCancel();
    std::unique_lock lock(m_mutex);
    if (m_job.Get() == job) m_job.Reset();
    m_idle.wait(lock, [&] { return m_running.Get() != job; });
    return oro::errOk;
  }
  // Lets go of the job, as the framework's timer does when it shuts down.
  void Disarm() {
    std::lock_guard lock(m_mutex);
    m_job.Reset();
  }
  bool Armed() {
    std::lock_guard lock(m_mutex);
    return static_cast<bool>(m_job);
  }
  // Runs the armed job once, as the timer thread would.
  oro::result_t Fire() {
    oro::RefPtr<oro::IRunnable> job;
    {
      std::unique_lock lock(m_mutex);
      m_idle.wait(lock, [&] { return !m_running; });  // one run at a time
      if (!m_job) return oro::errInvalidState;
      job = m_running = m_job;
    }
    const oro::result_t result = job->Run();
    std::lock_guard lock(m_mutex);
    m_running.Reset();
    m_idle.notify_all();
    return result;
  }

  std::atomic<std::uint32_t> interval = 0;
  std::atomic<bool> failSetRepeated = false;
  std::atomic<bool> failCancel = false;
  // Called inside each CancelAndWait before the job is let go; set before
  // the timer is used.
  std::function<void()> duringCancel;

 private:
  std::mutex m_mutex;
  std::condition_variable m_idle;
  oro::RefPtr<oro::IRunnable> m_job;
  oro::RefPtr<oro::IRunnable> m_running;
};

class FakePublisher final : public ObjectImpl<FakePublisher, oro::IEventPublisher> {
 public:
  oro::result_t PublishEvent(oro::Event&& event) noexcept override {
    if (failWith) return failWith;
    std::lock_guard lock(m_mutex);
    events.push_back(std::move(event));
    return oro::errOk;
  }
  std::vector<oro::Event> events;
  // A failure code makes every publish fail with it.
  std::atomic<oro::result_t> failWith = oro::errOk;

 private:
  std::mutex m_mutex;
};

template <class T, class... Args>
oro::RefPtr<T> Make(Args&&... args) {
  return oro::RefPtr<T>::Adopt(new T(std::forward<Args>(args)...));
}

}  // namespace qel::test
