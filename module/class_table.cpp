#include "module/class_table.h"

#include <mutex>

#include "firewall/conntrack_probe.h"
#include "firewall/firewall_service.h"
#include "firewall/firewall_task.h"
#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
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

// Whether the kernel tells connection directions apart is asked once per
// process, when the first service is built.
class ModuleFirewallService final : public firewall::FirewallService {
 public:
  explicit ModuleFirewallService(oro::IServiceLocator* locator)
      : FirewallService(locator, SuitableConntrack(locator)) {}

 private:
  static bool SuitableConntrack(oro::IServiceLocator* locator) {
    static std::once_flag probed;
    std::call_once(probed, [locator] {
      oro::result_t ignored;
      firewall::SetSuitableConntrack(
          firewall::ProbeConntrackRevision(tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored))));
    });
    return firewall::IsSuitableConntrack();
  }
};

using FirewallServiceFactory = ClassFactory<&Create<ModuleFirewallService, firewall::IPacketRules>>;
using FirewallTaskFactory = ClassFactory<&Create<ModuleFirewallTask, oro::ITask>>;

// Searched in this order.
constexpr FactoryEntry kFactoryClasses[] = {
    {oro::clsid::FirewallService, &FirewallServiceFactory::Make},
    {oro::clsid::FirewallTask, &FirewallTaskFactory::Make},
};

// Searched in this order. Each class keeps its fixed position: the isolation
// manager, isolation facade, virtualisation-mode port exclusion, bridge
// controller and NFLOG listener factory come before the iptables firewall,
// the qdisc controller and interface provider after the info provider; their
// entries come with their classes.
constexpr ClassEntry kDirectClasses[] = {
    {oro::clsid::IptablesFirewall, &Create<firewall::IptablesFirewall, firewall::IFirewallStateQuery>},
    {oro::clsid::IptablesInfoProvider, &Create<firewall::IptablesInfoProvider, firewall::IIptablesInfoProvider>},
};

// The factory's handle is a pointer and a count; keep it that small.
static_assert(sizeof(void*) != 8 || sizeof(FirewallTaskFactory) == 16);

}  // namespace

std::span<const FactoryEntry> FactoryClasses() { return kFactoryClasses; }

std::span<const ClassEntry> DirectClasses() { return kDirectClasses; }

}  // namespace qel::module
