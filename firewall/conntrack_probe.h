// Whether the kernel's "conntrack" match can be trusted with the direction
// of a connection (revision 3). Where it cannot, the rule compiler swaps the
// direction words it writes.
#pragma once

#include "qel_tracing/tracer.h"

namespace qel::firewall {

// Asks the kernel for revision 3 of the "conntrack" match through the
// iptables revision query on a raw IPv4 socket. Any failure, including a
// socket that cannot be opened, answers false.
bool ProbeConntrackRevision(const tracing::Tracer& tracer);

// The process-wide answer of the probe; false until set. The firewall
// service sets it once when it is constructed.
bool IsSuitableConntrack() noexcept;
void SetSuitableConntrack(bool suitable) noexcept;

}  // namespace qel::firewall
