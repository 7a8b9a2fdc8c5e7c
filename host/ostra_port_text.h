// The administration agent's ports as people write them: "15000/tcp/in",
// "13000/tcp/inout", "15001/udp/out". The settings file and the control
// socket both take this form.
#pragma once

#include <string>
#include <string_view>

#include "firewall/firewall_interfaces.h"
#include "host/outcome.h"

namespace qel::host {

// PORT/PROTOCOL/DIRECTION with a port from 1 to 65535, tcp or udp, and in,
// out or inout, in any letter case. The error quotes the entry and names the
// part that is wrong.
Outcome<firewall::OstraPort> ParseOstraPort(std::string_view text);

// The canonical form, lowercase: "13000/tcp/inout".
std::string OstraPortText(const firewall::OstraPort& port);

}  // namespace qel::host
