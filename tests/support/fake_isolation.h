// Fakes around network isolation: backends that record what they are told
// and can be told to fail, their maker, and the product services the
// isolation manager and facade use (resolver, settings, task manager).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "firewall/isolation_interfaces.h"
#include "oro/product_services.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeIsolationBackend final : public ObjectImpl<FakeIsolationBackend, firewall::INetworkIsolationBackend> {
 public:
  explicit FakeIsolationBackend(std::string name) : m_name(std::move(name)) {}

  oro::result_t CreateSession(std::uint32_t clientId, const firewall::NetworkExclusionRules& rules) noexcept override {
    std::lock_guard lock(m_mutex);
    if (failCreate) return failCreate;
    sessions[clientId] = rules;
    ++createCalls;
    return oro::errOk;
  }
  oro::result_t DeleteSession(std::uint32_t clientId) noexcept override {
    std::lock_guard lock(m_mutex);
    sessions.erase(clientId);
    return oro::errOk;
  }
  oro::result_t ReportInterfaces() noexcept override { return oro::errOk; }
  const char* Name() const noexcept override { return m_name.c_str(); }
  oro::result_t UpdateBuiltInSession(const firewall::BuiltinRules& rules) noexcept override {
    std::lock_guard lock(m_mutex);
    builtIn = rules;
    ++builtInUpdates;
    return oro::errOk;
  }

  std::map<std::uint32_t, firewall::NetworkExclusionRules> Sessions() {
    std::lock_guard lock(m_mutex);
    return sessions;
  }

  std::atomic<oro::result_t> failCreate = oro::errOk;
  std::map<std::uint32_t, firewall::NetworkExclusionRules> sessions;
  firewall::BuiltinRules builtIn;
  int builtInUpdates = 0;
  int createCalls = 0;

 private:
  std::mutex m_mutex;
  std::string m_name;
};

// Makes one backend per name, kept so that a test can look at it; a name in
// `refused` is not made (errNotImplemented, as a build without it answers),
// one in `turnedOff` is refused as the host's settings leave it out.
class FakeBackendFactory final : public ObjectImpl<FakeBackendFactory, firewall::INetworkIsolationBackendFactory> {
 public:
  oro::result_t CreateBackend(const std::string& name,
                              oro::RefPtr<firewall::INetworkIsolationBackend>& out) noexcept override {
    std::lock_guard lock(m_mutex);
    asked.push_back(name);
    if (refused.count(name)) return oro::errNotImplemented;
    if (turnedOff.count(name)) return oro::errInvalidState;
    auto backend = oro::RefPtr<FakeIsolationBackend>::Adopt(new FakeIsolationBackend(name));
    if (failSessions.count(name)) backend->failCreate = oro::errUnexpected;
    made[name] = backend;
    out = oro::RefPtr<firewall::INetworkIsolationBackend>::Share(backend.Get());
    return oro::errOk;
  }
  FakeIsolationBackend* Made(const std::string& name) {
    std::lock_guard lock(m_mutex);
    const auto it = made.find(name);
    return it == made.end() ? nullptr : it->second.Get();
  }

  std::set<std::string> refused;       // not made at all
  std::set<std::string> turnedOff;     // left out by the host's settings
  std::set<std::string> failSessions;  // made, but refuse every session
  std::vector<std::string> asked;
  std::map<std::string, oro::RefPtr<FakeIsolationBackend>> made;

 private:
  std::mutex m_mutex;
};

// Answers from a table; a name not in it does not exist.
class FakeDns final : public ObjectImpl<FakeDns, oro::IDnsResolver> {
 public:
  oro::result_t ResolveHostWithTimeout(const std::string& host, std::vector<std::string>& addresses,
                                       std::uint32_t timeoutMs) noexcept override {
    std::lock_guard lock(m_mutex);
    lastTimeout = timeoutMs;
    ++calls;
    const auto it = answers.find(host);
    if (it == answers.end()) return oro::errNotFound;
    addresses = it->second;
    return oro::errOk;
  }
  void Answer(const std::string& host, std::vector<std::string> addresses) {
    std::lock_guard lock(m_mutex);
    answers[host] = std::move(addresses);
  }

  std::uint32_t lastTimeout = 0;
  int calls = 0;

 private:
  std::mutex m_mutex;
  std::map<std::string, std::vector<std::string>> answers;
};

class FakeProductSettings final
    : public ObjectImpl<FakeProductSettings, oro::IProductSettings, oro::IPolicyManager, oro::IVyxSettings> {
 public:
  oro::result_t GetPelmServer(std::string& out) noexcept override {
    out = pelm;
    return oro::errOk;
  }
  oro::result_t GetLumraServers(std::string& viisServer, std::vector<std::string>& svmServers) noexcept override {
    viisServer = viis;
    svmServers = svms;
    return oro::errOk;
  }
  oro::result_t GetRuskServers(std::vector<std::string>& out) noexcept override {
    out = rusk;
    return oro::errOk;
  }
  oro::result_t GetVyxProxySettings(oro::VyxProxySettings& out) noexcept override {
    out = proxies;
    return oro::errOk;
  }
  oro::result_t GetDiscoverySettings(std::string& discoveryUrl, std::vector<std::string>& routes) noexcept override {
    discoveryUrl = vyxUrl;
    routes = vyxRoutes;
    return oro::errOk;
  }

  std::string pelm;
  std::string viis;
  std::vector<std::string> svms;
  std::vector<std::string> rusk;
  oro::VyxProxySettings proxies;
  std::string vyxUrl;
  std::vector<std::string> vyxRoutes;
};

// Records the task calls in order. A started task completes at once with
// `taskResult`, on a thread of its own as the task manager's would, unless
// `neverComplete`.
class FakeTaskManager final : public ObjectImpl<FakeTaskManager, oro::IQelTaskManager> {
 public:
  ~FakeTaskManager() override {
    for (auto& thread : m_threads) thread.join();
  }
  oro::result_t GetTaskSettings(const std::string& taskName, oro::TaskSettings& out) noexcept override {
    const auto it = settings.find(taskName);
    if (it == settings.end()) return oro::errNotFound;
    out = it->second;
    return oro::errOk;
  }
  oro::result_t GetTaskProfile(const std::string& taskName, oro::TaskProfileId& out) noexcept override {
    std::lock_guard lock(m_mutex);
    profiles.push_back(taskName);
    out = static_cast<oro::TaskProfileId>(profiles.size());
    return oro::errOk;
  }
  oro::result_t CreateTaskSession(oro::TaskProfileId profile, oro::session_creation_disposition disposition,
                                  oro::TaskSessionId& out) noexcept override {
    if (disposition != oro::session_creation_disposition::CreateNew) return oro::errInvalidArgument;
    out = profile + 100;
    return oro::errOk;
  }
  oro::result_t UpdateTaskConfiguration(oro::TaskSessionId, const oro::TaskSettings& taskSettings) noexcept override {
    std::lock_guard lock(m_mutex);
    configurations.push_back(taskSettings);
    return oro::errOk;
  }
  oro::result_t StartTaskAsync(oro::TaskSessionId session, const oro::RequestInitiator&,
                               oro::ITaskCompletionEvent* completion) noexcept override {
    std::lock_guard lock(m_mutex);
    // Started only after its profile and configuration: the session id
    // comes from the profile.
    started.push_back(profiles.at(session - 101));
    if (neverComplete) return oro::errOk;
    auto event = oro::RefPtr<oro::ITaskCompletionEvent>::Share(completion);
    m_threads.emplace_back([event, result = taskResult.load()] { event->OnTaskCompleted(result); });
    return oro::errOk;
  }

  std::map<std::string, oro::TaskSettings> settings;
  std::vector<std::string> profiles;
  std::vector<oro::TaskSettings> configurations;
  std::vector<std::string> started;
  std::atomic<bool> neverComplete = false;
  std::atomic<oro::result_t> taskResult = oro::errOk;

 private:
  std::mutex m_mutex;
  std::vector<std::thread> m_threads;
};

class FakeStateProvider final : public ObjectImpl<FakeStateProvider, firewall::INetworkIsolationStateProvider> {
 public:
  oro::result_t GetClientIds(std::vector<std::uint32_t>& ids) noexcept override {
    ids.clear();
    for (const auto& state : states) ids.push_back(state.clientId);
    return oro::errOk;
  }
  oro::result_t GetClientState(std::uint32_t clientId, firewall::NetworkIsolationClientState& out) noexcept override {
    for (const auto& state : states) {
      if (state.clientId == clientId) {
        out = state;
        return oro::errOk;
      }
    }
    return oro::errNotFound;
  }
  oro::result_t GetClientExclusionRules(std::uint32_t clientId, firewall::NetworkExclusionRules& out) noexcept override {
    out = rules[clientId];
    return oro::errOk;
  }

  firewall::NetworkIsolationClientStates states;
  std::map<std::uint32_t, firewall::NetworkExclusionRules> rules;
};

}  // namespace qel::test
