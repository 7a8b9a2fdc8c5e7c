#include "host/host_task_manager.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <new>

namespace qel::host {
namespace {

constexpr oro::TaskProfileId kFirstStopProfile = 1;

std::optional<oro::TaskProfileId> StopProfileOf(const std::string& taskName) {
  const auto* begin = std::begin(kIsolationStopTasks);
  const auto* end = std::end(kIsolationStopTasks);
  const auto* found = std::find_if(begin, end, [&](const char* name) { return taskName == name; });
  if (found == end) return std::nullopt;
  return kFirstStopProfile + static_cast<oro::TaskProfileId>(found - begin);
}

bool IsStopProfile(oro::TaskProfileId profile) {
  return profile >= kFirstStopProfile && profile < kFirstStopProfile + std::size(kIsolationStopTasks);
}

// Decimal digits only, within 32 bits.
std::optional<std::uint32_t> ParseClientId(const std::string& text) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

HostTaskManager::HostTaskManager(ServerNodes serverNodes)
    : m_serverNodes(std::move(serverNodes)), m_worker([this] { Work(); }) {}

HostTaskManager::~HostTaskManager() { Shutdown(); }

void HostTaskManager::Attach(oro::RefPtr<IsolationManager> manager) {
  std::lock_guard lock(m_mutex);
  m_manager = std::move(manager);
}

void HostTaskManager::Shutdown() {
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  if (m_worker.joinable()) m_worker.join();
  std::deque<StopJob> leftover;
  oro::RefPtr<IsolationManager> manager;
  {
    std::lock_guard lock(m_mutex);
    leftover.swap(m_jobs);
    manager = std::move(m_manager);
  }
  for (auto& job : leftover) job.completion->OnTaskCompleted(oro::errInvalidState);
}

oro::result_t HostTaskManager::GetTaskSettings(const std::string& taskName, oro::TaskSettings& out) noexcept try {
  if (taskName != kDefaultEdrTaskName) return oro::errNotFound;
  const std::vector<std::string> nodes = m_serverNodes ? m_serverNodes() : std::vector<std::string>{};
  if (nodes.empty()) return oro::errNotFound;
  oro::TaskSettings settings;
  for (const auto& node : nodes) settings.values.emplace_back(kServerNodeSetting, node);
  out = std::move(settings);
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostTaskManager::GetTaskProfile(const std::string& taskName, oro::TaskProfileId& out) noexcept {
  const auto profile = StopProfileOf(taskName);
  if (!profile) return oro::errNotFound;
  out = *profile;
  return oro::errOk;
}

oro::result_t HostTaskManager::CreateTaskSession(oro::TaskProfileId profile,
                                                 oro::session_creation_disposition disposition,
                                                 oro::TaskSessionId& out) noexcept try {
  if (!IsStopProfile(profile)) return oro::errNotFound;
  // A stop task runs once; there is no session of one to open again.
  if (disposition != oro::session_creation_disposition::CreateNew) return oro::errNotImplemented;
  std::lock_guard lock(m_mutex);
  const oro::TaskSessionId id = m_nextSession++;
  m_sessions[id] = Session{profile, std::nullopt};
  out = id;
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostTaskManager::UpdateTaskConfiguration(oro::TaskSessionId session,
                                                       const oro::TaskSettings& settings) noexcept {
  std::optional<std::uint32_t> clientId;
  for (const auto& [name, value] : settings.values) {
    if (name != kClientIdSetting) continue;
    clientId = ParseClientId(value);
    if (!clientId) return oro::errInvalidArgument;
  }
  if (!clientId) return oro::errInvalidArgument;
  std::lock_guard lock(m_mutex);
  const auto found = m_sessions.find(session);
  if (found == m_sessions.end()) return oro::errNotFound;
  found->second.clientId = clientId;
  return oro::errOk;
}

oro::result_t HostTaskManager::StartTaskAsync(oro::TaskSessionId session, const oro::RequestInitiator&,
                                              oro::ITaskCompletionEvent* completion) noexcept try {
  if (!completion) return oro::errInvalidArgument;
  {
    std::lock_guard lock(m_mutex);
    if (m_stopping) return oro::errInvalidState;
    const auto found = m_sessions.find(session);
    if (found == m_sessions.end()) return oro::errNotFound;
    // Not configured: no client to stop.
    if (!found->second.clientId) return oro::errInvalidState;
    m_jobs.push_back(StopJob{*found->second.clientId, oro::RefPtr<oro::ITaskCompletionEvent>::Share(completion)});
    m_sessions.erase(found);
  }
  m_wake.notify_all();
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

void HostTaskManager::Work() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    m_wake.wait(lock, [this] { return m_stopping || !m_jobs.empty(); });
    if (m_stopping) return;
    StopJob job = std::move(m_jobs.front());
    m_jobs.pop_front();
    lock.unlock();
    job.completion->OnTaskCompleted(Stop(job.clientId));
    job.completion.Reset();
    lock.lock();
  }
}

oro::result_t HostTaskManager::Stop(std::uint32_t clientId) {
  oro::RefPtr<IsolationManager> manager;
  {
    std::lock_guard lock(m_mutex);
    manager = m_manager;
  }
  if (!manager) return oro::errInvalidState;
  return manager->DeleteSession(clientId);
}

}  // namespace qel::host
