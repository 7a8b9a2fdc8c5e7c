// Services of the product that the isolation manager and facade use: name
// resolution, the task manager, and where the product's own servers are.
// The host provides them; each may be absent, and its users then go on
// without what it would have given.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "oro/object.h"
#include "oro/task.h"

namespace oro {

struct IDnsResolver : IObject {
  static constexpr iid_t iid = iid::IDnsResolver;
  // The addresses of `host` as texts ("10.0.0.1", "fd00::1"), waiting at most
  // `timeoutMs`; errTimeout when the answer did not come in time, errNotFound
  // when the name does not exist. `addresses` is untouched on failure.
  virtual result_t ResolveHostWithTimeout(const std::string& host, std::vector<std::string>& addresses,
                                          std::uint32_t timeoutMs) noexcept = 0;
};

// A task's settings: named values, a name may repeat ("serverNode").
struct TaskSettings {
  std::vector<std::pair<std::string, std::string>> values;
};

using TaskProfileId = std::uint32_t;

enum class session_creation_disposition : std::uint32_t { CreateNew = 1, OpenExisting = 2 };

// Who asked for a task to run.
struct RequestInitiator {
  std::uint32_t initiatorId = 0;
  std::string name;
};

// Told once when a task started with StartTaskAsync has ended.
struct ITaskCompletionEvent : IObject {
  static constexpr iid_t iid = iid::ITaskCompletionEvent;
  virtual void OnTaskCompleted(result_t taskResult) noexcept = 0;
};

struct IQelTaskManager : IObject {
  static constexpr iid_t iid = iid::IQelTaskManager;
  // The settings of the task of that name; errNotFound when there is none.
  virtual result_t GetTaskSettings(const std::string& taskName, TaskSettings& out) noexcept = 0;
  virtual result_t GetTaskProfile(const std::string& taskName, TaskProfileId& out) noexcept = 0;
  virtual result_t CreateTaskSession(TaskProfileId profile, session_creation_disposition disposition,
                                     TaskSessionId& out) noexcept = 0;
  virtual result_t UpdateTaskConfiguration(TaskSessionId session, const TaskSettings& settings) noexcept = 0;
  // Starts the session's task and returns; `completion` is told when the
  // task ends, on a thread of the task manager.
  virtual result_t StartTaskAsync(TaskSessionId session, const RequestInitiator& initiator,
                                  ITaskCompletionEvent* completion) noexcept = 0;
};

// Where the product's servers are. Each server is "HOST" or "HOST:PORT"
// ("[fd00::1]:443" for an IPv6 literal); an empty text or list: none.
struct IProductSettings : IObject {
  static constexpr iid_t iid = iid::IProductSettings;
  // The administration server that manages this host.
  virtual result_t GetPelmServer(std::string& out) noexcept = 0;
  // The virtualisation mode's integration server and security machines.
  virtual result_t GetLumraServers(std::string& viisServer, std::vector<std::string>& svmServers) noexcept = 0;
  // The industrial-security product's servers.
  virtual result_t GetRuskServers(std::vector<std::string>& out) noexcept = 0;
};

struct VyxProxySettings {
  std::string tcpProxy;    // "HOST:PORT", empty: none
  std::string httpsProxy;  // "HOST:PORT", empty: none
};

struct IPolicyManager : IObject {
  static constexpr iid_t iid = iid::IPolicyManager;
  virtual result_t GetVyxProxySettings(VyxProxySettings& out) noexcept = 0;
};

// The cloud reputation network's discovery: its URL ("https://host:443/")
// and the routes to its servers ("HOST:PORT").
struct IVyxSettings : IObject {
  static constexpr iid_t iid = iid::IVyxSettings;
  virtual result_t GetDiscoverySettings(std::string& discoveryUrl, std::vector<std::string>& routes) noexcept = 0;
};

namespace vyx {
// The cloud reputation network's status news.
struct IVyxStatusEvent : IObject {
  static constexpr iid_t iid = iid::IVyxStatusEvent;
  virtual void OnVyxConnected() noexcept = 0;
  virtual void OnVyxDisconnected() noexcept = 0;
  virtual void OnVyxStatusChanged() noexcept = 0;
};
}  // namespace vyx

}  // namespace oro
