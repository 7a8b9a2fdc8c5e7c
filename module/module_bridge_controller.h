// The bridge controller as the module hands it out: the kernel's switch
// directory, and the host's uevent source when it offers one, else a uevent
// listener of the module's own.
#pragma once

#include "firewall/bridge_controller.h"

namespace qel::module {

class ModuleBridgeController final : public firewall::BridgeController {
 public:
  explicit ModuleBridgeController(oro::IServiceLocator* locator);
};

}  // namespace qel::module
