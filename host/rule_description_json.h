// Rule descriptions in JSON, for the control socket. Each key is the key
// word of the description's printed form ("proto", "remote", "localPorts",
// "ctstate", ...), a negated condition is the key with "! " before it
// ("! iface", "! mark"), and "kind" holds the kind word. docs/host.md lists
// every key with its type.
#pragma once

#include "firewall/rule_description.h"
#include "host/json.h"
#include "host/outcome.h"

namespace qel::host {

// Writes the conditions that are present and every field of the kind.
Json RuleDescriptionToJson(const firewall::RuleDescription& description);

// Refuses unknown keys, keys of another kind, missing fields of the kind and
// values of the wrong type or range; the error begins with the key.
Outcome<firewall::RuleDescription> RuleDescriptionFromJson(const Json& object);

}  // namespace qel::host
