// Isolation in JSON, for the control socket. An exclusion rule's keys are
// its field names: "remoteAddress" ("10.77.0.2", "fd77::2"), "protocol"
// (0 to 255), "localPortRange" and "remotePortRange" ({"start":443,"end":443}),
// "dataSource" (a 32-bit number) and "applicationPath" (a text); every one is
// optional, and absent or null means any. Built-in endpoints are written with
// their field names too.
#pragma once

#include "firewall/isolation_interfaces.h"
#include "host/json.h"
#include "host/outcome.h"

namespace qel::host {

using system_interceptors::network_isolation_manager::NetworkExclusionRule3;

// Writes the fields that are present, in field order.
Json ExclusionRuleToJson(const NetworkExclusionRule3& rule);

// Refuses unknown keys and values of the wrong type or range; the error
// begins with the key ("remotePortRange.end: ...").
Outcome<NetworkExclusionRule3> ExclusionRuleFromJson(const Json& object);

// {"tamberServers":[ENDPOINT...],"pelmServer":ENDPOINT or null,...}, each
// endpoint as {"domain":...,"addresses":[...],"ports":[{"localPort":...,
// "remotePort":...,"protocol":...,"direction":1}]} with null for an absent
// value.
Json BuiltinRulesToJson(const firewall::BuiltinRules& builtIn);

}  // namespace qel::host
