#include "module/class_table.h"

#include "firewall/firewall_task.h"
#include "module/class_factory.h"

namespace qel::module {
namespace {

// Packet logging is not wired in yet: the task runs a logger that accepts
// its groups and logs nothing.
class NoPacketLogger final : public firewall::RuleLogger {
 public:
  oro::result_t Start(const firewall::NflogGroupList&) override { return oro::errOk; }
  oro::result_t Stop() override { return oro::errOk; }
};

class ModuleFirewallTask final : public firewall::FirewallTask {
 public:
  explicit ModuleFirewallTask(oro::IServiceLocator* locator)
      : FirewallTask(locator, std::make_unique<NoPacketLogger>()) {}
};

using FirewallTaskFactory = ClassFactory<&Create<ModuleFirewallTask, oro::ITask>>;

// Searched in this order.
constexpr FactoryEntry kFactoryClasses[] = {
    {oro::clsid::FirewallTask, &FirewallTaskFactory::Make},
};

// The factory's handle is a pointer and a count; keep it that small.
static_assert(sizeof(void*) != 8 || sizeof(FirewallTaskFactory) == 16);

}  // namespace

std::span<const FactoryEntry> FactoryClasses() { return kFactoryClasses; }

// Searched in this order. No directly created class is built yet.
std::span<const ClassEntry> DirectClasses() { return {}; }

}  // namespace qel::module
