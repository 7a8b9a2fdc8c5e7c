#include "host/run_command.h"

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "firewall/firewall_interfaces.h"
#include "host/host_services.h"
#include "host/json_event_publisher.h"
#include "host/loaded_module.h"
#include "host/settings_ini.h"
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
  Session(const RunOptions& options, std::ostream& events, std::ostream& err)
      : m_options(options),
        m_err(err),
        m_traceFile(options.traceFile ? std::fopen(options.traceFile->c_str(), "ae") : stderr),
        m_timer(oro::RefPtr<HostTimer>::Adopt(new HostTimer(options.timerSpeedup))),
        m_publisher(oro::RefPtr<JsonEventPublisher>::Adopt(new JsonEventPublisher(events))),
        m_locator(oro::RefPtr<HostLocator>::Adopt(new HostLocator)),
        m_module(options.modulePath) {
    if (!m_traceFile) throw std::runtime_error("cannot open trace file " + *options.traceFile);
    RegisterNew(new HostTracer(m_traceFile.get(), options.traceLevel));
    m_locator->Register(static_cast<oro::ITimer*>(m_timer.Get()));
    m_locator->Register(static_cast<oro::IEventPublisher*>(m_publisher.Get()));
    RegisterNew(new HostFeatureRegistry);
    RegisterNew(new NoAgentPorts);
  }

  ~Session() { Shutdown(); }

  // Creates the module's objects and starts the task.
  bool Start(const settings::FirewallSettings& settings) {
    m_locator->Register(m_module.CreateDirectly(oro::clsid::IptablesInfoProvider, m_locator.Get()).Get());
    m_locator->Register(m_module.CreateDirectly(oro::clsid::IptablesFirewall, m_locator.Get()).Get());
    m_service = m_module.CreateWithFactory(oro::clsid::FirewallService, m_locator.Get());
    m_locator->Register(m_service.Get());
    m_taskObject = m_module.CreateWithFactory(oro::clsid::FirewallTask, m_locator.Get());
    auto construct = Require<firewall::IFirewallTaskConstruct>(m_taskObject, "IFirewallTaskConstruct");
    m_task = Require<oro::ITask>(m_taskObject, "ITask");
    m_settings = Require<firewall::IFirewallTaskSettings>(m_taskObject, "IFirewallTaskSettings");
    oro::result_t r = construct->Construct(&settings);
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
    return true;
  }

  void Reload() {
    try {
      const LoadedSettings loaded = LoadSettingsFile(m_options.settingsPath);
      ValidateRuleFields(loaded);
      const oro::result_t r = m_settings->SetSettings(&loaded.settings);
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

  // Stops the task, then releases the service while the backend is still
  // reachable, so that it can remove its rules; then everything else.
  void Shutdown() {
    if (m_started) m_task->Stop();
    m_started = false;
    m_task.Reset();
    m_settings.Reset();
    m_taskObject.Reset();
    if (m_service) m_locator->Unregister(m_service.Get());
    m_service.Reset();
    m_timer->Shutdown();
    m_locator->Clear();
    m_stopReporter.Reset();
    if (!m_module.CanUnload()) m_err << "firewall-host: module objects are still alive at exit" << std::endl;
  }

  const RunOptions& m_options;
  std::ostream& m_err;
  std::unique_ptr<std::FILE, FileCloser> m_traceFile;
  oro::RefPtr<HostTimer> m_timer;
  oro::RefPtr<JsonEventPublisher> m_publisher;
  oro::RefPtr<HostLocator> m_locator;
  LoadedModule m_module;
  oro::RefPtr<oro::IObject> m_service;
  oro::RefPtr<oro::IObject> m_taskObject;
  oro::RefPtr<oro::ITask> m_task;
  oro::RefPtr<firewall::IFirewallTaskSettings> m_settings;
  oro::RefPtr<StopReporter> m_stopReporter;
  bool m_started = false;
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
  try {
    Session session(options, events, err);
    if (!session.Start(loaded.settings)) return 1;
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
