#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "firewall/firewall_settings.h"

namespace qel::host {

// firewall-host compile SETTINGS.ini [--family ipv4|ipv6]
//
// Prints, for each family asked for, "# IPv4 incoming" and one canonical rule
// text per line, then "# IPv4 outgoing" and its rules. Nothing reaches `out`
// unless every family compiled. Returns the process exit code.
int RunCompileCommand(const std::string& settingsPath, std::optional<types::IPAddressFamily::Type> family,
                      std::ostream& out, std::ostream& err);

}  // namespace qel::host
