#include "module/module_network_interface_provider.h"

#include "firewall/interface_list_reader.h"
#include "qel_common/service_locator.h"

namespace qel::module {
namespace {

oro::RefPtr<oro::ITracer> HostTracer(oro::IServiceLocator* locator) {
  oro::result_t ignored;
  return TryGetInterface<oro::ITracer>(locator, ignored);
}

}  // namespace

ModuleNetworkInterfaceProvider::ModuleNetworkInterfaceProvider(oro::IServiceLocator* locator)
    : NetworkInterfaceProvider(
          HostTracer(locator),
          [reader = firewall::InterfaceListReader(tracing::Tracer(HostTracer(locator)))](
              firewall::InterfaceSnapshots& out) { return reader.Read(out); },
          kSysfsRoot, kCheckPeriod) {}

}  // namespace qel::module
