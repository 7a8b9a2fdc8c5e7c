#include "firewall/firewall_task.h"

#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {

using oro::result_t;
using settings::FirewallSettings;
using tracing::Detail;
using tracing::Error;

FirewallTask::FirewallTask(oro::IServiceLocator* locator, std::unique_ptr<RuleLogger> logger)
    : m_locator(locator), m_fwLogger(std::move(logger)) {
  result_t ignored;
  m_tracer = tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored));
}

result_t FirewallTask::FinalConstruct() {
  result_t r = Locate(m_locator, m_tracer, "IOstraPortsControl", m_ostraPorts);
  if (ORO_FAILED(r)) return r;
  r = Locate(m_locator, m_tracer, "IPacketRules", m_packetRules);
  if (ORO_FAILED(r)) return r;
  return oro::errOk;
}

void FirewallTask::FinalRelease() noexcept {
  try {
    m_tracer.Write(Detail, "FinalRelease", "() ");
  } catch (...) {
  }
}

NflogGroupList FirewallTask::GetLogGroups(const FirewallSettings& settings) {
  NflogGroupList groups;
  for (std::size_t i = 0; i < settings.packetRules.size(); ++i) {
    // Rules past the last 16-bit group cannot log; the compiler refuses them.
    if (settings.packetRules[i].doLogAttempts && MinNflogGroup + i <= 65535) {
      groups.push_back(static_cast<std::uint16_t>(MinNflogGroup + i));
    }
  }
  return groups;
}

result_t FirewallTask::Start(oro::TaskSessionId session, oro::ITaskStopEvents* stopEvents) noexcept {
  return tracing::Guarded(m_tracer, "Start", [&] {
    m_tracer.Write(Detail, "Start", "() ", "session=", session, ", stopEvents=", static_cast<void*>(stopEvents));
    std::lock_guard lock(m_taskMutex);
    return DoStart(stopEvents);
  });
}

result_t FirewallTask::DoStart(oro::ITaskStopEvents* stopEvents) {
  const FirewallSettings settings = CopySettings();
  if (m_state != oro::types::TaskState::Stopped) {
    QEL_TRACE_FAILED_CONDITION(m_tracer, "m_state == types::TaskState::Stopped",
                               "Firewall task is not stopped so it cannot be started");
    return oro::errInvalidState;
  }
  result_t r = QEL_CHECKED_CALL(m_tracer, m_fwLogger->Start(GetLogGroups(settings)),
                                "Cannot start firewall rules logger");
  if (ORO_FAILED(r)) return r;

  r = QEL_CHECKED_CALL(m_tracer, m_ostraPorts->SetApply(settings.openOstraPorts), "Cannot control ostra ports");
  if (ORO_FAILED(r)) {
    RollBackStart(false);
    return r;
  }
  r = QEL_CHECKED_CALL(m_tracer, m_packetRules->SetPacketRules(settings), "Cannot set firewall packet rules");
  if (ORO_FAILED(r)) {
    RollBackStart(true);
    return r;
  }
  r = QEL_CHECKED_CALL(m_tracer, m_packetRules->SetEnforce(true), "Cannot turn on firewall packet rules enforcing");
  if (ORO_FAILED(r)) {
    // The service keeps enforcing after a failed start and retries on its
    // poll; a task that did not start must leave nothing enforced.
    QEL_CHECKED_CALL(m_tracer, m_packetRules->SetEnforce(false), "Cannot turn off firewall packet rules enforcing");
    RollBackStart(true);
    return r;
  }
  m_stopEvents = stopEvents;
  m_state = oro::types::TaskState::Started;
  m_tracer.Write(tracing::Warning, "Firewall task started");
  return oro::errOk;
}

void FirewallTask::RollBackStart(bool closePorts) {
  if (closePorts) QEL_CHECKED_CALL(m_tracer, m_ostraPorts->SetApply(false), "Cannot control ostra ports");
  QEL_CHECKED_CALL(m_tracer, m_fwLogger->Stop(), "Cannot stop firewall rules logger");
}

result_t FirewallTask::Stop() noexcept {
  return tracing::Guarded(m_tracer, "Stop", [&] {
    m_tracer.Write(Detail, "Stop", "() ");
    std::lock_guard lock(m_taskMutex);
    return DoStop();
  });
}

result_t FirewallTask::DoStop() {
  if (m_state != oro::types::TaskState::Started) {
    QEL_TRACE_FAILED_CONDITION(m_tracer, "m_state == types::TaskState::Started",
                               "Firewall task is not started so it cannot be stopped");
    return oro::errInvalidState;
  }
  // Each step is attempted whatever the previous one did: a stop must get
  // as far as it can.
  QEL_CHECKED_CALL(m_tracer, m_packetRules->SetEnforce(false), "Cannot turn off firewall packet rules enforcing");
  QEL_CHECKED_CALL(m_tracer, m_fwLogger->Stop(), "Cannot stop firewall rules logger");
  QEL_CHECKED_CALL(m_tracer, m_ostraPorts->SetApply(false), "Cannot control ostra ports");
  m_state = oro::types::TaskState::Stopped;
  m_tracer.Write(tracing::Warning, "Firewall task stopped");
  if (auto* sink = std::exchange(m_stopEvents, nullptr)) {
    sink->OnTaskCompleted(oro::TaskCompletion{oro::errOk, "Task successfully stopped"});
  }
  return oro::errOk;
}

result_t FirewallTask::Pause() noexcept {
  return tracing::Guarded(m_tracer, "Pause", [&] {
    m_tracer.Write(Detail, "Pause", "() ");
    return oro::errNotImplemented;
  });
}

result_t FirewallTask::Resume() noexcept {
  return tracing::Guarded(m_tracer, "Resume", [&] {
    m_tracer.Write(Detail, "Resume", "() ");
    return oro::errNotImplemented;
  });
}

result_t FirewallTask::Construct(const FirewallSettings* settings) noexcept {
  return tracing::Guarded(m_tracer, "Construct", [&] {
    m_tracer.Write(Detail, "Construct", "() ", "settings=", static_cast<const void*>(settings));
    return SetSettings(settings);
  });
}

result_t FirewallTask::GetSettings(FirewallSettings* out) noexcept {
  return tracing::Guarded(m_tracer, "GetSettings", [&] {
    if (!out) return oro::errInvalidArgument;
    *out = CopySettings();
    return oro::errOk;
  });
}

result_t FirewallTask::SetSettings(const FirewallSettings* settings) noexcept {
  return tracing::Guarded(m_tracer, "SetSettings", [&] {
    m_tracer.Write(Detail, "SetSettings", "() ", "settings=", static_cast<const void*>(settings));
    if (!settings) return oro::errInvalidArgument;
    {
      std::lock_guard lock(m_taskMutex);
      if (m_state == oro::types::TaskState::Started) {
        const result_t r = DoSetSettings(*settings);
        if (ORO_FAILED(r)) return r;
      }
    }
    StoreSettings(*settings);
    return oro::errOk;
  });
}

result_t FirewallTask::GetNflogCounts(NflogCounts& out) noexcept {
  return tracing::Guarded(m_tracer, "GetNflogCounts", [&] {
    std::lock_guard lock(m_taskMutex);
    out = m_state == oro::types::TaskState::Started ? m_fwLogger->GetCounts() : NflogCounts{};
    return oro::errOk;
  });
}

// Applies new settings to a running task. The logger is restarted on the new
// groups even when the rules could not be updated, so that it always follows
// the groups the administrator asked for.
result_t FirewallTask::DoSetSettings(const FirewallSettings& newSettings) {
  const FirewallSettings* settings = &newSettings;
  result_t r = QEL_CHECKED_CALL(m_tracer, m_fwLogger->Stop(), "Cannot stop firewall rules logger");
  if (ORO_FAILED(r)) return r;

  r = QEL_CHECKED_CALL(m_tracer, m_ostraPorts->SetApply(settings->openOstraPorts), "Cannot control ostra ports");
  if (ORO_SUCCEEDED(r)) {
    r = QEL_CHECKED_CALL(m_tracer, m_packetRules->SetPacketRules(*settings), "Cannot update firewall packet rules");
  }
  QEL_CHECKED_CALL(m_tracer, m_fwLogger->Start(GetLogGroups(*settings)), "Cannot start firewall rules logger");
  return r;
}

FirewallSettings FirewallTask::CopySettings() {
  std::lock_guard lock(m_settingsMutex);
  return m_settings;
}

void FirewallTask::StoreSettings(const FirewallSettings& settings) {
  std::lock_guard lock(m_settingsMutex);
  m_settings = settings;
}

}  // namespace qel::firewall
