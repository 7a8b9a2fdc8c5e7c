#include "module/module_firewall_service.h"

#include <mutex>

#include "firewall/conntrack_probe.h"
#include "qel_common/service_locator.h"

namespace qel::module {
namespace {

// The kernel's answer does not change while the process runs, so it is
// asked once, when the first service is built.
bool SuitableConntrack(oro::IServiceLocator* locator) {
  static std::once_flag probed;
  std::call_once(probed, [locator] {
    oro::result_t ignored;
    firewall::SetSuitableConntrack(
        firewall::ProbeConntrackRevision(tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored))));
  });
  return firewall::IsSuitableConntrack();
}

}  // namespace

ModuleFirewallService::ModuleFirewallService(oro::IServiceLocator* locator)
    : FirewallService(locator, SuitableConntrack(locator)) {}

}  // namespace qel::module
