// The texts of the product's servers in the settings file: "HOST:PORT" and
// the cloud network's "https://HOST:PORT/PATH".
#pragma once

#include <optional>
#include <string>

namespace qel::host {

// What is wrong with "HOST:PORT", or none. HOST is a name of letters, digits,
// '-' and '.', an IPv4 address, or an IPv6 address in brackets; PORT is 1 to
// 65535.
std::optional<std::string> ServerAddressProblem(const std::string& text);

// What is wrong with "https://HOST:PORT" followed by an optional "/PATH", or
// none. The port is required: the module opens exactly that one.
std::optional<std::string> DiscoveryUrlProblem(const std::string& text);

}  // namespace qel::host
