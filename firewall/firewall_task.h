// The task that the host's task manager starts and stops to switch the
// firewall on and off. It holds the current settings and, while started,
// keeps the packet logger, the agent's ports and the enforcement service in
// line with them.
#pragma once

#include <memory>
#include <mutex>

#include "firewall/firewall_interfaces.h"
#include "firewall/rule_logger.h"
#include "oro/task.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class FirewallTask
    : public ObjectImpl<FirewallTask, oro::ITask, IFirewallTaskConstruct, IFirewallTaskSettings, INflogCounters> {
 public:
  FirewallTask(oro::IServiceLocator* locator, std::unique_ptr<RuleLogger> logger);

  oro::result_t FinalConstruct();
  void FinalRelease() noexcept;

  // ITask
  oro::result_t Start(oro::TaskSessionId session, oro::ITaskStopEvents* stopEvents) noexcept override;
  oro::result_t Stop() noexcept override;
  oro::result_t Pause() noexcept override;
  oro::result_t Resume() noexcept override;
  // IFirewallTaskConstruct
  oro::result_t Construct(const settings::FirewallSettings* settings) noexcept override;
  // IFirewallTaskSettings
  oro::result_t GetSettings(settings::FirewallSettings* out) noexcept override;
  oro::result_t SetSettings(const settings::FirewallSettings* settings) noexcept override;
  // INflogCounters: the packet logger's counts, empty while stopped.
  oro::result_t GetNflogCounts(NflogCounts& out) noexcept override;

  // Packet rule i that logs uses group MinNflogGroup + i; the index counts
  // every rule so a rule keeps its group whatever its neighbours do.
  static NflogGroupList GetLogGroups(const settings::FirewallSettings& settings);

 private:
  oro::result_t DoStart(oro::ITaskStopEvents* stopEvents);
  oro::result_t DoStop();
  oro::result_t DoSetSettings(const settings::FirewallSettings& settings);
  // Undoes a partial start: agent ports closed (when they were switched),
  // logger stopped.
  void RollBackStart(bool closePorts);
  settings::FirewallSettings CopySettings();
  void StoreSettings(const settings::FirewallSettings& settings);

  oro::IServiceLocator* m_locator;
  tracing::Tracer m_tracer;
  oro::RefPtr<IPacketRules> m_packetRules;
  oro::RefPtr<IOstraPortsControl> m_ostraPorts;
  std::unique_ptr<RuleLogger> m_fwLogger;

  std::mutex m_taskMutex;  // guards m_state and serialises Start, Stop, SetSettings
  oro::types::TaskState m_state = oro::types::TaskState::Stopped;
  oro::ITaskStopEvents* m_stopEvents = nullptr;  // not owned

  std::mutex m_settingsMutex;
  settings::FirewallSettings m_settings;
};

}  // namespace qel::firewall
