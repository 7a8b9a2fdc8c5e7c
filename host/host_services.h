// The framework services the reference host gives the module: tracer, timer,
// feature registry, and the service locator that hands them out together
// with the module's own objects (the event publisher has a unit of its own).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "oro/timer.h"
#include "oro/tracer.h"
#include "qel_common/feature_techs_aggregator.h"
#include "qel_common/object_impl.h"

namespace qel::host {

// Writes messages up to a level, one line each, with a time stamp.
class HostTracer final : public ObjectImpl<HostTracer, oro::ITracer> {
 public:
  HostTracer(std::FILE* out, std::uint32_t maxLevel) : m_out(out), m_maxLevel(maxLevel) {}
  bool IsEnabled(std::uint32_t level) noexcept override { return level <= m_maxLevel; }
  void Trace(std::uint32_t level, const char* text) noexcept override;

 private:
  std::mutex m_mutex;
  std::FILE* m_out;
  std::uint32_t m_maxLevel;
};

// Runs repeated jobs on one thread of its own. `speedup` divides every
// interval (the module still asks for its own periods); RunDueNow runs every
// armed job at once.
class HostTimer final : public ObjectImpl<HostTimer, oro::ITimer> {
 public:
  explicit HostTimer(double speedup);
  ~HostTimer() override;

  oro::result_t SetRepeated(oro::IRunnable* job, std::uint32_t intervalMs) noexcept override;
  oro::result_t CancelAndWait(oro::IRunnable* job) noexcept override;
  void RunDueNow();
  // Stops the thread; jobs still armed are dropped.
  void Shutdown();

 private:
  using Clock = std::chrono::steady_clock;
  struct Job {
    oro::RefPtr<oro::IRunnable> runnable;
    Clock::duration interval;
    Clock::time_point due;
  };
  void Loop();

  double m_speedup;
  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::condition_variable m_idle;
  std::vector<Job> m_jobs;
  oro::IRunnable* m_running = nullptr;
  bool m_stop = false;
  std::thread m_thread;
};

// Records the features the module reports; the host shows them in its trace.
class HostFeatureRegistry final : public ObjectImpl<HostFeatureRegistry, tools::IFeatureTechsAggregator> {
 public:
  oro::result_t OpenGroup(std::uint32_t) noexcept override { return oro::errOk; }
  oro::result_t SetFeature(std::uint32_t group, std::uint32_t feature) noexcept override;
  oro::result_t CloseGroup(std::uint32_t) noexcept override { return oro::errOk; }
  std::vector<std::pair<std::uint32_t, std::uint32_t>> Features();

 private:
  std::mutex m_mutex;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> m_features;
};

// Answers GetInterface from the objects registered with it, newest first,
// so a module object can stand in for a host default.
class HostLocator final : public ObjectImpl<HostLocator, oro::IServiceLocator> {
 public:
  void Register(oro::IObject* object);
  void Unregister(oro::IObject* object);
  // Drops every registered object, newest first.
  void Clear();
  oro::result_t GetInterface(oro::iid_t iid, void** out) noexcept override;

 private:
  std::mutex m_mutex;
  std::vector<oro::RefPtr<oro::IObject>> m_objects;
};

}  // namespace qel::host
