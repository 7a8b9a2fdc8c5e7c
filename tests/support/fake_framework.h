// Fakes of the host framework's services: tracer, locator, stop events.
#pragma once

#include <algorithm>
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
  bool IsEnabled(std::uint32_t) noexcept override { return true; }
  void Trace(std::uint32_t level, const char* text) noexcept override {
    std::lock_guard lock(m_mutex);
    m_lines.emplace_back(level, text);
  }

  std::vector<std::pair<std::uint32_t, std::string>> Lines() {
    std::lock_guard lock(m_mutex);
    return m_lines;
  }
  // Whether some line (of `level`, if given) contains `text`.
  bool Contains(const std::string& text) { return Contains(kAnyLevel, text); }
  bool Contains(std::uint32_t level, const std::string& text) {
    const auto lines = Lines();
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
      return (level == kAnyLevel || line.first == level) && line.second.find(text) != std::string::npos;
    });
  }
  static constexpr std::uint32_t kAnyLevel = ~0u;

 private:
  std::mutex m_mutex;
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

// A timer whose jobs run only when the test says so.
class FakeTimer final : public ObjectImpl<FakeTimer, oro::ITimer> {
 public:
  oro::result_t SetRepeated(oro::IRunnable* job, std::uint32_t intervalMs) noexcept override {
    m_job = oro::RefPtr<oro::IRunnable>::Share(job);
    interval = intervalMs;
    return oro::errOk;
  }
  oro::result_t CancelAndWait(oro::IRunnable* job) noexcept override {
    if (m_job.Get() == job) m_job.Reset();
    return oro::errOk;
  }
  bool Armed() const { return static_cast<bool>(m_job); }
  // Runs the armed job once, as the timer thread would.
  oro::result_t Fire() { return m_job ? m_job->Run() : oro::errInvalidState; }

  std::uint32_t interval = 0;

 private:
  oro::RefPtr<oro::IRunnable> m_job;
};

class FakePublisher final : public ObjectImpl<FakePublisher, oro::IEventPublisher> {
 public:
  oro::result_t PublishEvent(oro::Event&& event) noexcept override {
    std::lock_guard lock(m_mutex);
    events.push_back(std::move(event));
    return oro::errOk;
  }
  std::vector<oro::Event> events;

 private:
  std::mutex m_mutex;
};

template <class T, class... Args>
oro::RefPtr<T> Make(Args&&... args) {
  return oro::RefPtr<T>::Adopt(new T(std::forward<Args>(args)...));
}

}  // namespace qel::test
