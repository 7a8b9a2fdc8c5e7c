// The isolation manager as the module hands it out: with the host's maker of
// isolation backends when it offers one, else the module's own.
#pragma once

#include "firewall/network_isolation_manager.h"

namespace qel::module {

class ModuleNetworkIsolationManager final : public firewall::NetworkIsolationManager {
 public:
  explicit ModuleNetworkIsolationManager(oro::IServiceLocator* locator);
};

}  // namespace qel::module
