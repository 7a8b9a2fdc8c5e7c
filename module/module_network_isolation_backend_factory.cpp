#include "module/module_network_isolation_backend_factory.h"

namespace qel::firewall {

// Not built yet: no backend can be made.
oro::result_t CreateModuleNetworkIsolationBackendFactory(
    const tracing::Tracer &, oro::IServiceLocator *,
    oro::RefPtr<INetworkIsolationBackendFactory> &) noexcept {
  return oro::errNotImplemented;
}

} // namespace qel::firewall
