#include "module/class_table.h"

#include "firewall/ebpf/qdisc_controller.h"
#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
#include "firewall/lumra_mode_ports_exclude.h"
#include "firewall/network_isolation_facade.h"
#include "firewall/nflog_listener_factory.h"
#include "firewall/nfqueue_query.h"
#include "firewall/ostra_ports.h"
#include "firewall/type_descriptor_static_registry.h"
#include "module/class_factory.h"
#include "module/module_bridge_controller.h"
#include "module/module_firewall_service.h"
#include "module/module_firewall_task.h"
#include "module/module_network_interface_provider.h"
#include "module/module_network_isolation_manager.h"

namespace qel::module {
namespace {

using FirewallServiceFactory = ClassFactory<&Create<ModuleFirewallService, firewall::IPacketRules>>;
using FirewallTaskFactory = ClassFactory<&Create<ModuleFirewallTask, oro::ITask>>;
using TypeDescriptorRegistryFactory =
    ClassFactory<&Create<firewall::TypeDescriptorStaticRegistry, oro::ITypeDescriptorRegistry>>;
using OstraPortsFactory = ClassFactory<&Create<firewall::OstraPorts, firewall::IOstraPorts>>;
using NfqueueQueryFactory = ClassFactory<&Create<firewall::NfqueueQuery, firewall::INfqueueQuery>>;

// Searched in this order.
constexpr FactoryEntry kFactoryClasses[] = {
    {oro::clsid::FirewallService, &FirewallServiceFactory::Make},
    {oro::clsid::FirewallTask, &FirewallTaskFactory::Make},
    {oro::clsid::TypeDescriptorStaticRegistry, &TypeDescriptorRegistryFactory::Make},
    {oro::clsid::OstraPorts, &OstraPortsFactory::Make},
    {oro::clsid::NfqueueQuery, &NfqueueQueryFactory::Make},
};

// Searched in this order. Each class keeps its fixed position: the isolation
// manager and isolation facade come before the virtualisation-mode port
// exclusion, the bridge controller and NFLOG listener factory after it and
// before the iptables firewall, the qdisc controller and interface provider
// after the info provider; their entries come with their classes.
constexpr ClassEntry kDirectClasses[] = {
    {oro::clsid::NetworkIsolationManager,
     &Create<ModuleNetworkIsolationManager, system_interceptors::network_isolation_manager::INetworkIsolationManager3>},
    {oro::clsid::NetworkIsolationFacade,
     &Create<firewall::NetworkIsolationFacade, firewall::INetworkIsolationFacade>},
    {oro::clsid::LumraModePortsExclude,
     &Create<firewall::LumraModePortsExclude, firewall::ILumraModePortsExclude>},
    {oro::clsid::BridgeController, &Create<ModuleBridgeController, firewall::IBridgeController>},
    {oro::clsid::NflogListenerFactory, &Create<firewall::NflogListenerFactory, firewall::INflogListenerFactory>},
    {oro::clsid::IptablesFirewall, &Create<firewall::IptablesFirewall, firewall::IFirewallStateQuery>},
    {oro::clsid::IptablesInfoProvider, &Create<firewall::IptablesInfoProvider, firewall::IIptablesInfoProvider>},
    {oro::clsid::QdiscController, &Create<firewall::QdiscController, firewall::IQdiscController>},
    {oro::clsid::NetworkInterfaceProvider,
     &Create<ModuleNetworkInterfaceProvider, firewall::INetworkInterfaceProvider>},
};

// The factory's handle is a pointer and a count; keep it that small.
static_assert(sizeof(void*) != 8 || sizeof(FirewallTaskFactory) == 16);

}  // namespace

std::span<const FactoryEntry> FactoryClasses() { return kFactoryClasses; }

std::span<const ClassEntry> DirectClasses() { return kDirectClasses; }

}  // namespace qel::module
