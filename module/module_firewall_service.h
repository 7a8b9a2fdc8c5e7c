// The firewall service as the module hands it out: the service told whether
// the kernel tells connection directions apart.
#pragma once

#include "firewall/firewall_service.h"

namespace qel::module {

class ModuleFirewallService final : public firewall::FirewallService {
 public:
  explicit ModuleFirewallService(oro::IServiceLocator* locator);
};

}  // namespace qel::module
