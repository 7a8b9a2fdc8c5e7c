#include "module/module_network_isolation_backend_factory.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "firewall/lazy_dynamic_rules.h"
#include "firewall/network_isolation_backend_iptables.h"
#include "module/module_bridge_controller.h"
#include "module/module_network_interface_provider.h"
#include "qel_common/object_impl.h"
#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;

// Where the host's name servers are listed; isolation keeps them reachable.
constexpr const char* kResolvConfPath = "/etc/resolv.conf";

result_t ReadResolvConf(std::string& text) {
  std::ifstream file(kResolvConfPath);
  if (!file) return oro::errNotFound;
  std::ostringstream content;
  content << file.rdbuf();
  text = content.str();
  return oro::errOk;
}

// The collaborators the host offers win over the module's own, so that the
// process keeps one bridge controller and one interface watch.
template <class Own, class I>
oro::RefPtr<I> OfferedOrOwn(oro::IServiceLocator* locator) {
  result_t lookup;
  if (auto offered = TryGetInterface<I>(locator, lookup)) return offered;
  oro::RefPtr<Own> own;
  CreateInstance(own, locator);
  return oro::RefPtr<I>::Share(own.Get());
}

class ModuleNetworkIsolationBackendFactory final
    : public ObjectImpl<ModuleNetworkIsolationBackendFactory, INetworkIsolationBackendFactory> {
 public:
  ModuleNetworkIsolationBackendFactory(const tracing::Tracer& tracer, oro::IServiceLocator* locator)
      : m_tracer(tracer), m_locator(locator) {}

  result_t CreateBackend(const std::string& name, oro::RefPtr<INetworkIsolationBackend>& out) noexcept override {
    return tracing::Guarded(m_tracer, "CreateBackend", [&] {
      m_tracer.Write(tracing::Detail, "CreateBackend", "() ", "name=", name);
      if (name != kEbpfBackendName && name != kIptablesBackendName) {
        m_tracer.Write(tracing::Error, "Unknown network isolation backend '", name, "'");
        return oro::errInvalidArgument;
      }
      if (!Allowed(name)) {
        m_tracer.Write(tracing::Warning, "Network isolation backend '", name,
                       "' is left out by the isolation setting 'backends'");
        return oro::errInvalidState;
      }
      if (name == kEbpfBackendName) {
        m_tracer.Write(tracing::Warning, "This build has no eBPF network isolation backend");
        return oro::errNotImplemented;
      }
      return CreateIptablesBackend(out);
    });
  }

 private:
  // Every backend, unless the host's settings name the ones to try.
  bool Allowed(const std::string& name) const {
    result_t lookup;
    const auto settings = TryGetInterface<INetworkIsolationSettings>(m_locator, lookup);
    if (!settings) return true;
    std::vector<std::string> names;
    if (ORO_FAILED(QEL_CHECKED_CALL(m_tracer, settings->GetBackends(names), "Cannot read the isolation backends"))) {
      return true;
    }
    return std::find(names.begin(), names.end(), name) != names.end();
  }

  result_t CreateIptablesBackend(oro::RefPtr<INetworkIsolationBackend>& out) const {
    oro::RefPtr<IDynamicRules> dynamicRules;
    if (const result_t r = Locate(m_locator, m_tracer, "IDynamicRules", dynamicRules); ORO_FAILED(r)) return r;
    NetworkIsolationBackendIptables::Collaborators collaborators;
    if (const result_t r = CreateLazyDynamicRules(m_tracer, dynamicRules, collaborators.lazyFw); ORO_FAILED(r)) {
      return r;
    }
    collaborators.bridge = OfferedOrOwn<module::ModuleBridgeController, IBridgeController>(m_locator);
    collaborators.itfProvider =
        OfferedOrOwn<module::ModuleNetworkInterfaceProvider, INetworkInterfaceProvider>(m_locator);
    collaborators.itfEvents =
        oro::QueryInterface<INetworkInterfaceProviderEventsSubscription>(collaborators.itfProvider.Get());
    collaborators.resolvConf = ReadResolvConf;
    oro::RefPtr<NetworkIsolationBackendIptables> backend;
    if (const result_t r = CreateInstance(backend, oro::RefPtr<oro::ITracer>::Share(m_tracer.Get()),
                                          std::move(collaborators));
        ORO_FAILED(r)) {
      return r;
    }
    out = oro::RefPtr<INetworkIsolationBackend>::Share(backend.Get());
    return oro::errOk;
  }

  tracing::Tracer m_tracer;
  oro::IServiceLocator* m_locator;
};

}  // namespace

oro::result_t CreateModuleNetworkIsolationBackendFactory(const tracing::Tracer& tracer,
                                                         oro::IServiceLocator* locator,
                                                         oro::RefPtr<INetworkIsolationBackendFactory>& out) noexcept {
  return tracing::Guarded(tracer, "CreateModuleNetworkIsolationBackendFactory", [&] {
    oro::RefPtr<ModuleNetworkIsolationBackendFactory> factory;
    const result_t r = CreateInstance(factory, tracer, locator);
    if (ORO_SUCCEEDED(r)) out = oro::RefPtr<INetworkIsolationBackendFactory>::Share(factory.Get());
    return r;
  });
}

}  // namespace qel::firewall
