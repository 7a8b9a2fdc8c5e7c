#include "module/module_bridge_controller.h"

#include "firewall/uevent_listener.h"
#include "qel_common/service_locator.h"

namespace qel::module {
namespace {

constexpr const char* kSavedTextsNodeName = "qel.firewall.BridgeController";

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

// Where the switches' own texts wait while they are held, for a run that
// follows a killed one; none when the host has no storage.
oro::RefPtr<oro::IStorageNode> SavedTextsNode(oro::IServiceLocator* locator) {
  oro::result_t lookup;
  const auto storage = TryGetInterface<oro::IStorage>(locator, lookup);
  oro::RefPtr<oro::IStorageNode> root, node;
  if (!storage || ORO_FAILED(storage->GetRootNode(root.Out()))) return {};
  if (ORO_FAILED(root->GetOrAppendNode(kSavedTextsNodeName, node.Out()))) return {};
  return node;
}

}  // namespace

ModuleBridgeController::ModuleBridgeController(oro::IServiceLocator* locator)
    : BridgeController(TracerOf(locator), kSwitchDirectory, UeventSource(locator), SavedTextsNode(locator)) {}

}  // namespace qel::module
