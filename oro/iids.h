// Every interface identifier of the module and of the framework services it
// uses, in one place so that no two interfaces can share an id by accident.
#pragma once

#include <cstdint>

namespace oro {

using iid_t = std::uint32_t;
using clsid_t = std::uint32_t;

namespace iid {
// Framework
inline constexpr iid_t IObject = 0x00000000;
inline constexpr iid_t IObjectFactory = 0x0b7e51a3;
inline constexpr iid_t IServiceLocator = 0x1c0fd2a6;
inline constexpr iid_t ITracer = 0x6ef3329b;
inline constexpr iid_t ITask = 0xa47bf9af;
inline constexpr iid_t ITaskStopEvents = 0x3d9c0b61;
inline constexpr iid_t ITimer = 0x58e1a0c4;
inline constexpr iid_t IRunnable = 0x7a2d44f0;
inline constexpr iid_t IEventPublisher = 0x4f6b9e27;
inline constexpr iid_t IStorage = 0x2e85c7d3;
inline constexpr iid_t IServiceShutdown = 0x13f6b8e5;
inline constexpr iid_t IStorageNode = 0x5b17d0e4;
inline constexpr iid_t IStorageSerializer2 = 0x0e6a93f1;
inline constexpr iid_t ITypeDescriptorRegistry = 0x6c2f85a9;
inline constexpr iid_t IUevents = 0x27d9a4c3;
inline constexpr iid_t IUeventsSubscription = 0x71b5e30a;
inline constexpr iid_t IDnsResolver = 0x3c7e15b9;
inline constexpr iid_t IQelTaskManager = 0x52a8d0f3;
inline constexpr iid_t ITaskCompletionEvent = 0x6b41c2e8;
inline constexpr iid_t IProductSettings = 0x1d93e7a4;
inline constexpr iid_t IPolicyManager = 0x7f2a5b16;
inline constexpr iid_t IVyxSettings = 0x28c6f4d0;
inline constexpr iid_t IVyxStatusEvent = 0x45e0a93c;

// Firewall task
inline constexpr iid_t IFirewallTaskConstruct = 0x5a22f946;
inline constexpr iid_t IFirewallTaskSettings = 0x32e60bc5;

// Firewall service and its collaborators
inline constexpr iid_t IPacketRules = 0x61c3e8b2;
inline constexpr iid_t IDynamicRules = 0x1f4a7d95;
inline constexpr iid_t IDynamicRules2 = 0x9b2e63c1;
inline constexpr iid_t IOstraPorts = 0x44d1f0a8;
inline constexpr iid_t IOstraPortsControl = 0x8c5a2e17;
inline constexpr iid_t IFirewallStateQuery = 0x2a7f5c39;
inline constexpr iid_t IFirewallStateChange = 0x6d0e9b4a;
inline constexpr iid_t IIptablesInfoProvider = 0x35b8c6e2;
inline constexpr iid_t IFeatureTechsAggregator = 0x70c4a9d1;
inline constexpr iid_t IFirewallStatus = 0x5e93b1d7;
inline constexpr iid_t ILumraModePortsExclude = 0x2b7c4f08;
// Packet logging and NFQUEUE numbers
inline constexpr iid_t INflogDataCallback = 0x5c19e7a3;
inline constexpr iid_t INflogListener = 0x2d86f1b4;
inline constexpr iid_t INflogListenerFactory = 0x7e40a2c5;
inline constexpr iid_t INflogCounters = 0x48b3d6e9;
inline constexpr iid_t INfqueueQuery = 0x19f5c8a7;
// Network interfaces and bridge filtering
inline constexpr iid_t INetworkInterface = 0x3e92c5a1;
inline constexpr iid_t INetworkInterfaceProvider = 0x4a07f6d2;
inline constexpr iid_t INetworkInterfaceProviderEvents = 0x16c8b3e7;
inline constexpr iid_t INetworkInterfaceProviderEventsSubscription = 0x59e1a4b8;
inline constexpr iid_t IBridgeController = 0x0f5d7c26;
// Network isolation
inline constexpr iid_t INetworkIsolationManager3 = 0x0c59e2b7;
inline constexpr iid_t INetworkIsolationManagerOverallStatusProvider = 0x3a1d8f65;
inline constexpr iid_t INetworkIsolationHolder = 0x67b0c3d2;
inline constexpr iid_t INetworkIsolationManagerEvents = 0x1e7f4a90;
inline constexpr iid_t INetworkIsolationManagerEventsSubscription = 0x5d2c96e1;
inline constexpr iid_t INetworkIsolationReport = 0x74a3e05b;
inline constexpr iid_t INetworkIsolationBackend = 0x2f68b1c4;
inline constexpr iid_t INetworkIsolationBackendFactory = 0x4c95d7a2;
inline constexpr iid_t INetworkIsolationSettings = 0x0a4e7c39;
inline constexpr iid_t INetworkIsolationFacade = 0x61f3a8e5;
inline constexpr iid_t INetworkIsolationStateProvider = 0x38b7e21f;
// Traffic-control hooks of the eBPF isolation
inline constexpr iid_t IQdisc = 0x2d4f9a61;
inline constexpr iid_t IQdiscController = 0x6e1b3c85;
// Host services of the virtualisation mode
inline constexpr iid_t ILumraHostType = 0x6a3d18e9;
inline constexpr iid_t ILumraPortsFile = 0x3f0c7b52;
}  // namespace iid

namespace clsid {
// Classes with a factory (oroGetObjectFactory)
inline constexpr clsid_t FirewallService = 0x36abb259;
inline constexpr clsid_t FirewallTask = 0x736c7fac;
inline constexpr clsid_t TypeDescriptorStaticRegistry = 0x97246c1c;
inline constexpr clsid_t OstraPorts = 0x2c0c955f;
inline constexpr clsid_t NfqueueQuery = 0x87fb871c;
// Classes created directly (oroCreateObject)
inline constexpr clsid_t NetworkIsolationManager = 0x72f9d8cb;
inline constexpr clsid_t NetworkIsolationFacade = 0x4255454f;
inline constexpr clsid_t LumraModePortsExclude = 0xe98b6a82;
inline constexpr clsid_t BridgeController = 0x0db0d30d;
inline constexpr clsid_t NflogListenerFactory = 0x07a0917b;
inline constexpr clsid_t IptablesFirewall = 0x667ec845;
inline constexpr clsid_t IptablesInfoProvider = 0x41ab4516;
inline constexpr clsid_t QdiscController = 0xa0a96d7d;
inline constexpr clsid_t NetworkInterfaceProvider = 0x3b3831d9;
// Asking for this id crashes the process on purpose (a crash-report hook).
inline constexpr clsid_t CrashHook = 0xbad1bad1;
}  // namespace clsid

}  // namespace oro
