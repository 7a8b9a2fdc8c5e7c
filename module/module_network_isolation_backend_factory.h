// The module's own maker of isolation backends, by name ("ebpf",
// "iptables"), restricted to the backends the host's settings allow
// (INetworkIsolationSettings). The backends find the firewall service, the
// bridge controller and the interface provider through the locator, or
// make the module's own.
#pragma once

#include "firewall/isolation_interfaces.h"
#include "oro/object.h"
#include "oro/ref_ptr.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

oro::result_t CreateModuleNetworkIsolationBackendFactory(
    const tracing::Tracer &tracer, oro::IServiceLocator *locator,
    oro::RefPtr<INetworkIsolationBackendFactory> &out) noexcept;

} // namespace qel::firewall
