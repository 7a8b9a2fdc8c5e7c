// The interface provider as the module hands it out: the kernel's list and
// sysfs, checked every five seconds.
#pragma once

#include "firewall/network_interface_provider.h"

namespace qel::module {

class ModuleNetworkInterfaceProvider final : public firewall::NetworkInterfaceProvider {
 public:
  explicit ModuleNetworkInterfaceProvider(oro::IServiceLocator* locator);
};

}  // namespace qel::module
