// The firewall task as the module hands it out: the task with the packet
// logger the module has.
#pragma once

#include "firewall/firewall_task.h"

namespace qel::module {

class ModuleFirewallTask final : public firewall::FirewallTask {
 public:
  explicit ModuleFirewallTask(oro::IServiceLocator* locator);
};

}  // namespace qel::module
