#include "module/module_bridge_controller.h"

#include "firewall/uevent_listener.h"
#include "qel_common/service_locator.h"

namespace qel::module {
namespace {

oro::RefPtr<oro::ITracer> TracerOf(oro::IServiceLocator* locator) {
  oro::result_t ignored;
  return TryGetInterface<oro::ITracer>(locator, ignored);
}

// A host that already listens to uevents shares its source, so the process
// keeps one socket for them; otherwise the module listens itself.
oro::RefPtr<firewall::IUeventsSubscription> UeventSource(oro::IServiceLocator* locator) {
  oro::result_t lookup;
  if (auto shared = TryGetInterface<firewall::IUeventsSubscription>(locator, lookup)) return shared;
  oro::RefPtr<firewall::UeventListener> own;
  CreateInstance(own, TracerOf(locator));
  return oro::RefPtr<firewall::IUeventsSubscription>::Adopt(own.Detach());
}

}  // namespace

ModuleBridgeController::ModuleBridgeController(oro::IServiceLocator* locator)
    : BridgeController(TracerOf(locator), kSwitchDirectory, UeventSource(locator)) {}

}  // namespace qel::module
