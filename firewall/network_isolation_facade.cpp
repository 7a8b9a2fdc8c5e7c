#include "firewall/network_isolation_facade.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <sstream>
#include <utility>

#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Error;
using tracing::Warning;

const char* StopReasonText(StopReason reason) {
  switch (reason) {
    case StopReason::Unknown:
      return "Unknown";
    case StopReason::ExplicitRequest:
      return "ExplicitRequest";
    default:
      return "TimeoutExpired";
  }
}

std::string StatesText(const NetworkIsolationClientStates& states) {
  std::ostringstream text;
  text << "[";
  for (std::size_t i = 0; i < states.size(); ++i) {
    text << (i ? ", " : "") << "{clientId=" << states[i].clientId << ", initiatorId=" << states[i].initiatorId
         << ", stopReason=" << StopReasonText(states[i].stopReason) << "}";
  }
  text << "]";
  return text.str();
}

std::string IdsText(const std::vector<std::uint32_t>& ids) {
  std::ostringstream text;
  text << "[";
  for (std::size_t i = 0; i < ids.size(); ++i) text << (i ? ", " : "") << ids[i];
  text << "]";
  return text.str();
}

oro::RefPtr<oro::ITracer> TracerOf(oro::IServiceLocator* locator) {
  result_t ignored;
  return TryGetInterface<oro::ITracer>(locator, ignored);
}

}  // namespace

// Told by the task manager, on one of its threads, when a stop task ended;
// TurnOff waits for it.
class NetworkIsolationFacade::StopTaskCompletion final : public ObjectImpl<StopTaskCompletion, oro::ITaskCompletionEvent> {
 public:
  void OnTaskCompleted(result_t taskResult) noexcept override {
    std::lock_guard lock(m_mutex);
    m_result = taskResult;
    m_completed.notify_all();
  }
  // False when the task did not end within `timeout`, measured on the
  // steady clock so that a change of the wall clock cannot cut it short.
  bool Wait(std::chrono::milliseconds timeout, result_t& taskResult) {
    std::unique_lock lock(m_mutex);
    if (!m_completed.wait_until(lock, std::chrono::steady_clock::now() + timeout, [&] { return m_result.has_value(); }))
      return false;
    taskResult = *m_result;
    return true;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_completed;
  std::optional<result_t> m_result;
};

NetworkIsolationFacade::NetworkIsolationFacade(oro::IServiceLocator* locator, std::chrono::milliseconds stopTimeout)
    : m_locator(oro::RefPtr<oro::IServiceLocator>::Share(locator)),
      m_tracer(TracerOf(locator)),
      m_stopTimeout(stopTimeout) {}

const char* NetworkIsolationFacade::StopTaskName(std::uint32_t clientKind) noexcept {
  switch (clientKind) {
    case 0:
    case 1:
      return "TamberNetworkIsolationStop";
    case 2:
      return "RuskNetworkIsolationStop";
    default:
      return "xdr_networkisolation_stop";
  }
}

result_t NetworkIsolationFacade::GetRunningIsolationClients(NetworkIsolationClientStates& states) noexcept {
  return tracing::Guarded(m_tracer, "GetRunningIsolationClients", [&] { return RunningClients(states, nullptr); });
}

result_t NetworkIsolationFacade::GetRunningIsolationClients(NetworkIsolationClientStates& states,
                                                            NetworkExclusionRules* rules) noexcept {
  return tracing::Guarded(m_tracer, "GetRunningIsolationClients", [&] { return RunningClients(states, rules); });
}

result_t NetworkIsolationFacade::RunningClients(NetworkIsolationClientStates& states, NetworkExclusionRules* rules) {
  oro::RefPtr<INetworkIsolationStateProvider> provider;
  result_t r = Locate(m_locator.Get(), m_tracer, "INetworkIsolationStateProvider", provider);
  if (!provider) return r;
  std::vector<std::uint32_t> ids;
  r = QEL_CHECKED_CALL(m_tracer, provider->GetClientIds(ids), "Cannot get network isolation clients");
  if (ORO_FAILED(r)) return r;
  m_tracer.Write(Detail, "got isolation clients: ", IdsText(ids));
  NetworkIsolationClientStates running;
  NetworkExclusionRules runningRules;
  for (const auto client : ids) {
    NetworkIsolationClientState state;
    r = QEL_CHECKED_CALL(m_tracer, provider->GetClientState(client, state), "Cannot get network isolation client state");
    if (ORO_FAILED(r)) return r;
    if (!state.isRunning) continue;
    if (rules) {
      NetworkExclusionRules clientRules;
      r = QEL_CHECKED_CALL(m_tracer, provider->GetClientExclusionRules(client, clientRules),
                           "Cannot get network isolation client exclusion rules");
      if (ORO_FAILED(r)) return r;
      runningRules.insert(runningRules.end(), clientRules.begin(), clientRules.end());
    }
    running.push_back(state);
  }
  m_tracer.Write(Detail, "got such running clients: ", StatesText(running));
  states = std::move(running);
  if (rules) rules->insert(rules->end(), runningRules.begin(), runningRules.end());
  return oro::errOk;
}

result_t NetworkIsolationFacade::TurnOff() noexcept {
  return tracing::Guarded(m_tracer, "TurnOff", [&] {
    m_tracer.Write(Detail, "TurnOff", "() ");
    NetworkIsolationClientStates states;
    result_t r = RunningClients(states, nullptr);
    if (ORO_FAILED(r)) {
      m_tracer.Write(Error, " Cannot get isolation clients");
      return r;
    }
    if (states.empty()) {
      m_tracer.Write(Warning, "There aren't isolation network clients");
      return oro::errOk;
    }
    oro::RefPtr<oro::IQelTaskManager> tasks;
    r = Locate(m_locator.Get(), m_tracer, "IQelTaskManager", tasks);
    if (!tasks) return r;
    // One client after the other: each stop task changes the isolation the
    // next one sees.
    result_t first = oro::errOk;
    for (const auto& state : states) {
      r = StopClient(tasks.Get(), state);
      if (ORO_FAILED(r) && ORO_SUCCEEDED(first)) first = r;
    }
    return first;
  });
}

result_t NetworkIsolationFacade::StopClient(oro::IQelTaskManager* tasks, const NetworkIsolationClientState& state) {
  const std::string taskName = StopTaskName(state.clientKind);
  m_tracer.Write(Warning, "network isolation client=", state.clientId, " mapped to taskName=", taskName);
  oro::TaskSettings settings;
  settings.values.emplace_back("clientId", std::to_string(state.clientId));
  const oro::RequestInitiator initiator{state.initiatorId, "NetworkIsolationFacade"};
  auto stopEvent = oro::RefPtr<StopTaskCompletion>::Adopt(new StopTaskCompletion);
  result_t r = StartTaskAsync(tasks, taskName, std::move(settings), initiator, stopEvent.Get());
  if (ORO_FAILED(r)) return r;
  result_t taskResult = oro::errOk;
  if (!stopEvent->Wait(m_stopTimeout, taskResult)) {
    m_tracer.Write(Error, "Waiting is timed out");
    return oro::errTimeout;
  }
  if (ORO_FAILED(taskResult)) {
    m_tracer.Write(Error, " Stop network isolation task failed", " taskResult=", tracing::FormatResult(taskResult));
    return taskResult;
  }
  return oro::errOk;
}

result_t NetworkIsolationFacade::StartTaskAsync(oro::IQelTaskManager* tasks, const std::string& taskName,
                                                oro::TaskSettings settings, const oro::RequestInitiator& initiator,
                                                oro::ITaskCompletionEvent* completion) {
  oro::TaskProfileId profile = 0;
  result_t r = QEL_CHECKED_CALL(m_tracer, tasks->GetTaskProfile(taskName, profile),
                                "Cannot get task profile of '" + taskName + "'");
  if (ORO_FAILED(r)) return r;
  oro::TaskSessionId session = 0;
  r = QEL_CHECKED_CALL(m_tracer,
                       tasks->CreateTaskSession(profile, oro::session_creation_disposition::CreateNew, session),
                       "Cannot create session of '" + taskName + "'");
  if (ORO_FAILED(r)) return r;
  r = QEL_CHECKED_CALL(m_tracer, tasks->UpdateTaskConfiguration(session, settings),
                       "Cannot configure '" + taskName + "'");
  if (ORO_FAILED(r)) return r;
  return QEL_CHECKED_CALL(m_tracer, tasks->StartTaskAsync(session, initiator, completion),
                          "Cannot start '" + taskName + "'");
}

}  // namespace qel::firewall
