#include "module/module_firewall_task.h"

#include <memory>

#include "module/no_packet_logger.h"

namespace qel::module {

ModuleFirewallTask::ModuleFirewallTask(oro::IServiceLocator* locator)
    : FirewallTask(locator, std::make_unique<NoPacketLogger>()) {}

}  // namespace qel::module
