#include "host/run_command.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "firewall/firewall_interfaces.h"
#include "host/control_handler.h"
#include "host/control_server.h"
#include "host/control_socket.h"
#include "host/file_storage.h"
#include "host/host_dns_resolver.h"
#include "host/host_isolation_state_provider.h"
#include "host/host_product_settings.h"
#include "host/host_task_manager.h"
#include "host/host_services.h"
#include "host/json_event_publisher.h"
#include "host/loaded_module.h"
#include "host/lumra_host_type.h"
#include "host/rule_names.h"
#include "host/settings_ini.h"
#include "host/storage_serializer.h"
#include "oro/task.h"

namespace qel::host {
namespace {

class StopReporter final : public ObjectImpl<StopReporter, oro::ITaskStopEvents> {
 public:
  explicit StopReporter(std::ostream& err) : m_err(err) {}
  void OnTaskCompleted(const oro::TaskCompletion& completion) noexcept override {
    m_err << "firewall-host: " << completion.text << std::endl;
  }

 private:
  std::ostream& m_err;
};

// The signals the host waits for; blocked in every thread so that sigwait
// receives them.
sigset_t HostSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) sigaddset(&set, signal);
  return set;
}

struct FileCloser {
  void operator()(std::FILE* f) const {
    if (f && f != stderr) std::fclose(f);
  }
};

template <class I>
oro::RefPtr<I> Require(const oro::RefPtr<oro::IObject>& object, const char* name) {
  auto p = oro::QueryInterface<I>(object.Get());
  if (!p) throw std::runtime_error(std::string("the module's object does not offer ") + name);
  return p;
}

// One run of the module, from loading to the last release.
class Session {
 public:
  Session(const RunOptions& options, const oro::RefPtr<FileStorage>& storage, std::ostream& events,
          std::ostream& err)
      : m_options(options),
        m_err(err),
        m_traceFile(options.traceFile ? std::fopen(options.traceFile->c_str(), "ae") : stderr),
        m_timer(oro::RefPtr<HostTimer>::Adopt(new HostTimer(options.timerSpeedup))),
        m_publisher(oro::RefPtr<JsonEventPublisher>::Adopt(new JsonEventPublisher(events, &m_ruleNames))),
        m_locator(oro::RefPtr<HostLocator>::Adopt(new HostLocator)),
        m_module(options.modulePath) {
    if (!m_traceFile) throw std::runtime_error("cannot open trace file " + *options.traceFile);
    RegisterNew(new HostTracer(m_traceFile.get(), options.traceLevel));
    m_locator->Register(static_cast<oro::ITimer*>(m_timer.Get()));
    m_locator->Register(static_cast<oro::IEventPublisher*>(m_publisher.Get()));
    RegisterNew(new HostFeatureRegistry);
    m_locator->Register(storage.Get());
    RegisterNew(new StorageSerializer(err));
  }

  ~Session() { Shutdown(); }

  // Creates the module's objects, hands the agent's ports over and starts
  // the task.
  bool Start(const LoadedSettings& loaded) {
    RegisterIsolationServices(loaded.isolation);
    m_locator->Register(m_module.CreateDirectly(oro::clsid::IptablesInfoProvider, m_locator.Get()).Get());
    m_locator->Register(m_module.CreateDirectly(oro::clsid::IptablesFirewall, m_locator.Get()).Get());
    m_service = m_module.CreateWithFactory(oro::clsid::FirewallService, m_locator.Get());
    m_locator->Register(m_service.Get());
    // The agent's ports turn into the service's dynamic rules, and the task
    // switches them: after the one, before the other.
    m_ostraPortsObject = m_module.CreateWithFactory(oro::clsid::OstraPorts, m_locator.Get());
    m_locator->Register(m_ostraPortsObject.Get());
    m_ostraPorts = Require<firewall::IOstraPorts>(m_ostraPortsObject, "IOstraPorts");
    if (loaded.agentPorts && !SetAgentPorts(*loaded.agentPorts)) return false;
    // Isolation recovers its sessions before the task's first
    // synchronisation: after a crash, that synchronisation would otherwise
    // find the isolation rules the killed run left unwanted, and take them
    // away until the recovery puts them back.
    CreateIsolation();

    CreateQueueQuery();

    m_taskObject = m_module.CreateWithFactory(oro::clsid::FirewallTask, m_locator.Get());
    auto construct = Require<firewall::IFirewallTaskConstruct>(m_taskObject, "IFirewallTaskConstruct");
    m_task = Require<oro::ITask>(m_taskObject, "ITask");
    m_settings = Require<firewall::IFirewallTaskSettings>(m_taskObject, "IFirewallTaskSettings");
    // Packets are logged from the start on: their rules' names must be there
    // before the first event.
    m_ruleNames.Set(RuleNames::Of(loaded.settings));
    oro::result_t r = construct->Construct(&loaded.settings);
    if (ORO_SUCCEEDED(r)) {
      m_stopReporter = oro::RefPtr<StopReporter>::Adopt(new StopReporter(m_err));
      r = m_task->Start(1, m_stopReporter.Get());
    }
    if (ORO_FAILED(r)) {
      m_err << "firewall-host: the firewall task did not start (result " << std::hex << r << std::dec
            << "); see the trace" << std::endl;
      return false;
    }
    m_started = true;
    m_err << "firewall-host: firewall task started" << std::endl;
    if (loaded.lumraHostType) StartLumraExclusions(*loaded.lumraHostType);
    return true;
  }

  // Answers requests on `socket` until the session ends.
  void Serve(ControlSocket socket) {
    const std::string path = socket.Path();
    ControlTargets targets{Require<firewall::IFirewallStatus>(m_service, "IFirewallStatus"),
                           Require<firewall::IDynamicRules>(m_service, "IDynamicRules"), m_ostraPorts,
                           oro::QueryInterface<firewall::INflogCounters>(m_taskObject.Get()), m_queues,
                           IsolationTargetsNow()};
    ControlHandler handler(std::move(targets),
                           [this] { return HostFacts{m_started.load(), m_publisher->IntegrityEvents()}; },
                           m_ruleNames);
    m_control = std::make_unique<ControlServer>(
        std::move(socket), [handler = std::move(handler)](std::string_view line) mutable {
          return handler.Handle(line);
        });
    m_err << "firewall-host: control socket " << path << std::endl;
  }

  void Reload() {
    try {
      const LoadedSettings loaded = LoadSettingsFile(m_options.settingsPath);
      ValidateRuleFields(loaded);
      // A port list the module could not put in force is reported; the
      // settings are still worth applying.
      if (loaded.agentPorts) SetAgentPorts(*loaded.agentPorts);
      // Read by the isolation manager the next time it collects its
      // built-in exclusions.
      m_productSettings->Set(loaded.isolation);
      m_ruleNames.BeginChange(RuleNames::Of(loaded.settings));
      const oro::result_t r = m_settings->SetSettings(&loaded.settings);
      m_ruleNames.EndChange(ORO_SUCCEEDED(r));
      if (ORO_FAILED(r)) {
        m_err << "firewall-host: settings not applied (result " << std::hex << r << std::dec
              << "); the rules in force stay" << std::endl;
      } else {
        m_err << "firewall-host: settings reloaded" << std::endl;
      }
    } catch (const SettingsError& e) {
      m_err << "firewall-host: " << e.what() << "; the rules in force stay" << std::endl;
    }
  }

  void PollNow() { m_timer->RunDueNow(); }

 private:
  template <class T>
  void RegisterNew(T* object) {
    m_locator->Register(object);
    object->Release();
  }

  // The services the isolation manager looks up when it is created; its
  // collaborators that the module makes itself are found there too.
  void RegisterIsolationServices(const IsolationSettings& settings) {
    RegisterNew(new HostDnsResolver);
    m_productSettings = oro::RefPtr<HostProductSettings>::Adopt(new HostProductSettings(settings));
    m_locator->Register(static_cast<oro::IProductSettings*>(m_productSettings.Get()));
    m_taskManager = oro::RefPtr<HostTaskManager>::Adopt(
        new HostTaskManager([settings = m_productSettings] { return settings->Get().tamberServers; }));
    m_locator->Register(m_taskManager.Get());
    m_isolationStates = oro::RefPtr<HostIsolationStateProvider>::Adopt(new HostIsolationStateProvider);
    m_locator->Register(m_isolationStates.Get());
  }

  // Once the firewall runs: the manager recovers the sessions it stored and
  // isolates again at once. A module without the classes still runs the
  // firewall; isolation requests are then refused with the reason.
  void CreateIsolation() {
    try {
      m_isolationObject = m_module.CreateDirectly(oro::clsid::NetworkIsolationManager, m_locator.Get());
      m_isolationManager =
          Require<system_interceptors::network_isolation_manager::INetworkIsolationManager3>(m_isolationObject,
                                                                                               "INetworkIsolationManager3");
      m_isolationHolder = Require<firewall::INetworkIsolationHolder>(m_isolationObject, "INetworkIsolationHolder");
    } catch (const std::runtime_error& e) {
      m_isolationUnavailable = std::string("no network isolation: ") + e.what();
      m_err << "firewall-host: " << m_isolationUnavailable << "; isolation requests will be refused" << std::endl;
      m_isolationObject.Reset();
      m_isolationManager.Reset();
      m_isolationHolder.Reset();
      return;
    }
    m_taskManager->Attach(m_isolationManager);
    m_isolationStates->Attach(
        oro::QueryInterface<system_interceptors::network_isolation_manager::INetworkIsolationManagerOverallStatusProvider>(
            m_isolationObject.Get()),
        oro::QueryInterface<firewall::INetworkIsolationReport>(m_isolationObject.Get()));
    try {
      m_facadeObject = m_module.CreateDirectly(oro::clsid::NetworkIsolationFacade, m_locator.Get());
    } catch (const std::runtime_error& e) {
      m_err << "firewall-host: no isolation facade, turn-off requests will be refused: " << e.what() << std::endl;
    }
    m_err << "firewall-host: network isolation manager created" << std::endl;
  }

  IsolationTargets IsolationTargetsNow() const {
    namespace nim = system_interceptors::network_isolation_manager;
    IsolationTargets targets;
    targets.manager = m_isolationManager;
    targets.status = oro::QueryInterface<nim::INetworkIsolationManagerOverallStatusProvider>(m_isolationObject.Get());
    targets.report = oro::QueryInterface<firewall::INetworkIsolationReport>(m_isolationObject.Get());
    targets.facade = oro::QueryInterface<firewall::INetworkIsolationFacade>(m_facadeObject.Get());
    targets.states = m_isolationStates;
    if (!m_isolationUnavailable.empty()) targets.unavailable = m_isolationUnavailable;
    return targets;
  }

  // Lifts isolation while the firewall service can still remove its rules;
  // the manager keeps its record, so that the next start isolates again.
  // Then no stop task runs any more and the links to the manager go.
  void ShutdownIsolation() {
    if (m_isolationHolder) {
      const oro::result_t r = m_isolationHolder->Shutdown();
      if (ORO_FAILED(r)) {
        m_err << "firewall-host: isolation was not lifted (result " << std::hex << r << std::dec << "); see the trace"
              << std::endl;
      }
    }
    if (m_taskManager) m_taskManager->Shutdown();
    if (m_isolationStates) m_isolationStates->Detach();
    m_facadeObject.Reset();
    m_isolationHolder.Reset();
    m_isolationManager.Reset();
    m_isolationObject.Reset();
  }

  // The virtualisation mode's ports are excluded once the firewall runs, on
  // the module's own thread; the host type is read at start only.
  void StartLumraExclusions(const std::string& hostType) {
    RegisterNew(new LumraHostType(hostType));
    m_lumraObject = m_module.CreateDirectly(oro::clsid::LumraModePortsExclude, m_locator.Get());
    const oro::result_t r = Require<firewall::ILumraModePortsExclude>(m_lumraObject, "ILumraModePortsExclude")->Apply();
    if (ORO_FAILED(r)) {
      m_err << "firewall-host: the virtualisation mode's exclusions did not start (result " << std::hex << r
            << std::dec << "); see the trace" << std::endl;
    }
  }

  // A module without the class still runs the firewall; queue requests are
  // then refused.
  void CreateQueueQuery() {
    try {
      m_queueObject = m_module.CreateWithFactory(oro::clsid::NfqueueQuery, m_locator.Get());
      m_queues = oro::QueryInterface<firewall::INfqueueQuery>(m_queueObject.Get());
    } catch (const std::runtime_error& e) {
      m_err << "firewall-host: no NFQUEUE query, queue requests will be refused: " << e.what() << std::endl;
    }
  }

  bool SetAgentPorts(const firewall::OstraPortList& ports) {
    const oro::result_t r = m_ostraPorts->SetOstraPorts(ports);
    if (ORO_FAILED(r)) {
      m_err << "firewall-host: the agent's ports were not applied (result " << std::hex << r << std::dec
            << "); see the trace" << std::endl;
    }
    return ORO_SUCCEEDED(r);
  }

  // Stops answering requests, lifts isolation, waits for the exclusions' thread, then
  // stops the task; releases the agent's
  // ports and then the service while the backend is still reachable, so
  // that the service can remove its rules; then everything else.
  void Shutdown() {
    m_control.reset();
    ShutdownIsolation();
    m_lumraObject.Reset();  // waits for its thread
    if (m_started) m_task->Stop();
    m_started = false;
    m_task.Reset();
    m_settings.Reset();
    m_taskObject.Reset();
    m_queues.Reset();
    m_queueObject.Reset();
    m_ostraPorts.Reset();
    if (m_ostraPortsObject) m_locator->Unregister(m_ostraPortsObject.Get());
    m_ostraPortsObject.Reset();
    if (m_service) m_locator->Unregister(m_service.Get());
    m_service.Reset();
    m_timer->Shutdown();
    m_locator->Clear();
    m_stopReporter.Reset();
    if (!m_module.CanUnload()) m_err << "firewall-host: module objects are still alive at exit" << std::endl;
  }

  const RunOptions& m_options;
  std::ostream& m_err;
  // Before the publisher, which names the rules of logged packets by it.
  RuleNames m_ruleNames;
  std::unique_ptr<std::FILE, FileCloser> m_traceFile;
  oro::RefPtr<HostTimer> m_timer;
  oro::RefPtr<JsonEventPublisher> m_publisher;
  oro::RefPtr<HostLocator> m_locator;
  LoadedModule m_module;
  oro::RefPtr<oro::IObject> m_service;
  oro::RefPtr<oro::IObject> m_ostraPortsObject;
  oro::RefPtr<firewall::IOstraPorts> m_ostraPorts;
  oro::RefPtr<oro::IObject> m_taskObject;
  oro::RefPtr<oro::ITask> m_task;
  oro::RefPtr<firewall::IFirewallTaskSettings> m_settings;
  oro::RefPtr<StopReporter> m_stopReporter;
  oro::RefPtr<oro::IObject> m_lumraObject;
  oro::RefPtr<oro::IObject> m_queueObject;
  oro::RefPtr<firewall::INfqueueQuery> m_queues;
  oro::RefPtr<HostProductSettings> m_productSettings;
  oro::RefPtr<HostTaskManager> m_taskManager;
  oro::RefPtr<HostIsolationStateProvider> m_isolationStates;
  oro::RefPtr<oro::IObject> m_isolationObject;
  oro::RefPtr<system_interceptors::network_isolation_manager::INetworkIsolationManager3> m_isolationManager;
  oro::RefPtr<firewall::INetworkIsolationHolder> m_isolationHolder;
  oro::RefPtr<oro::IObject> m_facadeObject;
  std::string m_isolationUnavailable;
  std::atomic<bool> m_started = false;
  std::unique_ptr<ControlServer> m_control;
};

}  // namespace

int RunFirewall(const RunOptions& options, std::ostream& events, std::ostream& err) {
  const sigset_t signals = HostSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  LoadedSettings loaded;
  try {
    loaded = LoadSettingsFile(options.settingsPath);
    ValidateRuleFields(loaded);
  } catch (const SettingsError& e) {
    err << "firewall-host: " << e.what() << std::endl;
    return 2;
  }
  // Before the module touches anything: a second host on the same socket
  // must not start at all.
  auto socket = ControlSocket::Open(options.controlPath);
  if (!socket) {
    err << "firewall-host: control socket: " << socket.ErrorText() << std::endl;
    return 2;
  }
  // Before the module too: it may read what it stored at its start.
  auto storage = FileStorage::Open(options.stateDir, err);
  if (!storage) {
    err << "firewall-host: " << storage.ErrorText() << std::endl;
    return 2;
  }
  try {
    Session session(options, storage.Value(), events, err);
    if (!session.Start(loaded)) return 1;
    session.Serve(std::move(socket).Value());
    for (;;) {
      int signal = 0;
      if (sigwait(&signals, &signal) != 0) continue;
      if (signal == SIGHUP) {
        session.Reload();
      } else if (signal == SIGUSR1) {
        session.PollNow();
      } else {
        err << "firewall-host: stopping" << std::endl;
        break;
      }
    }
  } catch (const std::exception& e) {
    err << "firewall-host: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}

}  // namespace qel::host
