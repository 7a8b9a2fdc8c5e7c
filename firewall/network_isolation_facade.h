// The product's front of isolation: which clients hold the host isolated,
// and turning isolation off by starting, for each client, the stop task of
// the component that isolated it. It never talks to the backends: the state
// comes from the host's INetworkIsolationStateProvider.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "firewall/isolation_interfaces.h"
#include "oro/product_services.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class NetworkIsolationFacade : public ObjectImpl<NetworkIsolationFacade, INetworkIsolationFacade> {
 public:
  // How long TurnOff waits for each client's stop task.
  static constexpr std::chrono::milliseconds StopNetworkIsolationTimeout{30000};

  // The tracer, the state provider and the task manager come from `locator`
  // when they are asked for.
  explicit NetworkIsolationFacade(oro::IServiceLocator* locator,
                                  std::chrono::milliseconds stopTimeout = StopNetworkIsolationTimeout);

  // INetworkIsolationFacade
  oro::result_t GetRunningIsolationClients(NetworkIsolationClientStates& states) noexcept override;
  oro::result_t GetRunningIsolationClients(NetworkIsolationClientStates& states,
                                           NetworkExclusionRules* rules) noexcept override;
  oro::result_t TurnOff() noexcept override;

  // The stop task of a client of that kind.
  static const char* StopTaskName(std::uint32_t clientKind) noexcept;

 private:
  class StopTaskCompletion;

  oro::result_t RunningClients(NetworkIsolationClientStates& states, NetworkExclusionRules* rules);
  oro::result_t StopClient(oro::IQelTaskManager* tasks, const NetworkIsolationClientState& state);
  oro::result_t StartTaskAsync(oro::IQelTaskManager* tasks, const std::string& taskName, oro::TaskSettings settings,
                               const oro::RequestInitiator& initiator, oro::ITaskCompletionEvent* completion);

  const oro::RefPtr<oro::IServiceLocator> m_locator;
  tracing::Tracer m_tracer;
  const std::chrono::milliseconds m_stopTimeout;
};

}  // namespace qel::firewall
