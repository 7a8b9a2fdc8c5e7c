#include "host/host_services.h"

#include <algorithm>
#include <ctime>

namespace qel::host {

void HostTracer::Trace(std::uint32_t level, const char* text) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
  std::lock_guard lock(m_mutex);
  std::fprintf(m_out, "%s.%03ld [%u] %s\n", stamp, now.tv_nsec / 1000000, level, text);
  std::fflush(m_out);
}

HostTimer::HostTimer(double speedup) : m_speedup(speedup > 0 ? speedup : 1.0), m_thread([this] { Loop(); }) {}

HostTimer::~HostTimer() { Shutdown(); }

void HostTimer::Shutdown() {
  {
    std::lock_guard lock(m_mutex);
    m_stop = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) m_thread.join();
  std::lock_guard lock(m_mutex);
  m_jobs.clear();
}

oro::result_t HostTimer::SetRepeated(oro::IRunnable* job, std::uint32_t intervalMs) noexcept {
  if (!job) return oro::errInvalidArgument;
  const auto interval = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double, std::milli>(intervalMs / m_speedup));
  {
    std::lock_guard lock(m_mutex);
    if (m_stop) return oro::errInvalidState;
    std::erase_if(m_jobs, [&](const Job& j) { return j.runnable.Get() == job; });
    m_jobs.push_back(Job{oro::RefPtr<oro::IRunnable>::Share(job), interval, Clock::now() + interval});
  }
  m_wake.notify_all();
  return oro::errOk;
}

oro::result_t HostTimer::CancelAndWait(oro::IRunnable* job) noexcept {
  std::unique_lock lock(m_mutex);
  std::vector<Job> removed;
  for (auto it = m_jobs.begin(); it != m_jobs.end();) {
    if (it->runnable.Get() == job) {
      removed.push_back(std::move(*it));
      it = m_jobs.erase(it);
    } else {
      ++it;
    }
  }
  // A job cancelling itself from its own run must not wait for itself.
  if (std::this_thread::get_id() != m_thread.get_id()) {
    m_idle.wait(lock, [&] { return m_running != job; });
  }
  lock.unlock();
  removed.clear();  // releases the references outside the lock
  return oro::errOk;
}

void HostTimer::RunDueNow() {
  {
    std::lock_guard lock(m_mutex);
    for (auto& job : m_jobs) job.due = Clock::now();
  }
  m_wake.notify_all();
}

void HostTimer::Loop() {
  std::unique_lock lock(m_mutex);
  while (!m_stop) {
    auto next = std::min_element(m_jobs.begin(), m_jobs.end(),
                                 [](const Job& a, const Job& b) { return a.due < b.due; });
    if (next == m_jobs.end()) {
      m_wake.wait(lock);
      continue;
    }
    if (next->due > Clock::now()) {
      m_wake.wait_until(lock, next->due);
      continue;
    }
    next->due = Clock::now() + next->interval;
    oro::RefPtr<oro::IRunnable> job = next->runnable;
    m_running = job.Get();
    lock.unlock();
    job->Run();
    lock.lock();
    m_running = nullptr;
    m_idle.notify_all();
  }
}

oro::result_t HostFeatureRegistry::SetFeature(std::uint32_t group, std::uint32_t feature) noexcept {
  std::lock_guard lock(m_mutex);
  m_features.emplace_back(group, feature);
  return oro::errOk;
}

std::vector<std::pair<std::uint32_t, std::uint32_t>> HostFeatureRegistry::Features() {
  std::lock_guard lock(m_mutex);
  return m_features;
}

void HostLocator::Register(oro::IObject* object) {
  std::lock_guard lock(m_mutex);
  m_objects.push_back(oro::RefPtr<oro::IObject>::Share(object));
}

void HostLocator::Unregister(oro::IObject* object) {
  oro::RefPtr<oro::IObject> dropped;
  std::lock_guard lock(m_mutex);
  for (auto it = m_objects.begin(); it != m_objects.end(); ++it) {
    if (it->Get() == object) {
      dropped = std::move(*it);
      m_objects.erase(it);
      break;
    }
  }
}

void HostLocator::Clear() {
  std::vector<oro::RefPtr<oro::IObject>> objects;
  {
    std::lock_guard lock(m_mutex);
    objects.swap(m_objects);
  }
  while (!objects.empty()) objects.pop_back();
}

oro::result_t HostLocator::GetInterface(oro::iid_t iid, void** out) noexcept {
  if (!out) return oro::errInvalidArgument;
  *out = nullptr;
  std::lock_guard lock(m_mutex);
  for (auto it = m_objects.rbegin(); it != m_objects.rend(); ++it) {
    if (ORO_SUCCEEDED((*it)->QueryInterface(iid, out))) return oro::errOk;
  }
  return oro::errNotFound;
}

}  // namespace qel::host
