#include "module/module_network_isolation_manager.h"

#include "module/module_network_isolation_backend_factory.h"
#include "qel_common/service_locator.h"

namespace qel::module {
namespace {

oro::RefPtr<oro::ITracer> TracerOf(oro::IServiceLocator* locator) {
  oro::result_t ignored;
  return TryGetInterface<oro::ITracer>(locator, ignored);
}

// A host (or a test) that makes backends itself decides which ones exist;
// without one the module makes its own. A module that cannot make any still
// hands out a manager: each isolation request then fails with a clear trace.
oro::RefPtr<firewall::INetworkIsolationBackendFactory> BackendFactory(oro::IServiceLocator* locator) {
  oro::result_t lookup;
  if (auto offered = TryGetInterface<firewall::INetworkIsolationBackendFactory>(locator, lookup)) return offered;
  oro::RefPtr<firewall::INetworkIsolationBackendFactory> own;
  const tracing::Tracer tracer(TracerOf(locator));
  const oro::result_t r = firewall::CreateModuleNetworkIsolationBackendFactory(tracer, locator, own);
  if (ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(tracer, "CreateModuleNetworkIsolationBackendFactory(tracer, locator, own)", r,
                          "Cannot make the module's isolation backends");
    own.Reset();
  }
  return own;
}

}  // namespace

ModuleNetworkIsolationManager::ModuleNetworkIsolationManager(oro::IServiceLocator* locator)
    : NetworkIsolationManager(TracerOf(locator), locator, BackendFactory(locator)) {}

}  // namespace qel::module
