// The host's task manager (IQelTaskManager), as far as isolation needs one:
// the settings of the default targeted-attack EDR task (its server nodes,
// which the isolation manager keeps reachable), and the stop tasks that the
// isolation facade starts to end a client's isolation. A stop task ends the
// isolation session of the client its configuration names, on a worker
// thread of the host, and tells its completion event the result.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "firewall/isolation_interfaces.h"
#include "oro/product_services.h"
#include "qel_common/object_impl.h"

namespace qel::host {

// The task whose settings carry the targeted-attack server nodes, as repeated
// "serverNode" values.
inline constexpr const char* kDefaultEdrTaskName = "TamberEdr";
inline constexpr const char* kServerNodeSetting = "serverNode";
// The stop task's setting naming the client, in decimal.
inline constexpr const char* kClientIdSetting = "clientId";
// The stop tasks, one per kind of isolating component.
inline constexpr const char* kIsolationStopTasks[] = {"TamberNetworkIsolationStop", "RuskNetworkIsolationStop",
                                                      "xdr_networkisolation_stop"};

class HostTaskManager final : public ObjectImpl<HostTaskManager, oro::IQelTaskManager> {
 public:
  using ServerNodes = std::function<std::vector<std::string>()>;
  using IsolationManager = system_interceptors::network_isolation_manager::INetworkIsolationManager3;

  // `serverNodes` gives the targeted-attack nodes as the settings now say;
  // with none configured the EDR task does not exist.
  explicit HostTaskManager(ServerNodes serverNodes);
  ~HostTaskManager() override;

  // The manager whose sessions stop tasks end; created after this object,
  // which it may hold, so the link is made (and broken) by the host.
  void Attach(oro::RefPtr<IsolationManager> manager);
  // Tells every stop task not yet run that it failed, joins the worker and
  // drops the manager. Tasks started afterwards are refused.
  void Shutdown();

  oro::result_t GetTaskSettings(const std::string& taskName, oro::TaskSettings& out) noexcept override;
  oro::result_t GetTaskProfile(const std::string& taskName, oro::TaskProfileId& out) noexcept override;
  oro::result_t CreateTaskSession(oro::TaskProfileId profile, oro::session_creation_disposition disposition,
                                  oro::TaskSessionId& out) noexcept override;
  oro::result_t UpdateTaskConfiguration(oro::TaskSessionId session, const oro::TaskSettings& settings) noexcept override;
  oro::result_t StartTaskAsync(oro::TaskSessionId session, const oro::RequestInitiator& initiator,
                               oro::ITaskCompletionEvent* completion) noexcept override;

 private:
  struct Session {
    oro::TaskProfileId profile = 0;
    std::optional<std::uint32_t> clientId;
  };
  struct StopJob {
    std::uint32_t clientId = 0;
    oro::RefPtr<oro::ITaskCompletionEvent> completion;
  };

  void Work();
  oro::result_t Stop(std::uint32_t clientId);

  ServerNodes m_serverNodes;
  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::map<oro::TaskSessionId, Session> m_sessions;
  oro::TaskSessionId m_nextSession = 1;
  std::deque<StopJob> m_jobs;
  oro::RefPtr<IsolationManager> m_manager;
  bool m_stopping = false;
  std::thread m_worker;
};

}  // namespace qel::host
