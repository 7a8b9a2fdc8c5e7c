#include "host/server_address_text.h"

#include <algorithm>
#include <cctype>

#include "qel_common/ip_address.h"

namespace qel::host {
namespace {

bool IsHostName(const std::string& name) {
  return !name.empty() && name.size() <= 253 && name.front() != '-' && name.front() != '.' &&
         std::all_of(name.begin(), name.end(),
                     [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '.'; });
}

bool IsAddress(const std::string& text) {
  try {
    tools::ParseIpAddress(text);
    return true;
  } catch (const tools::AddressParseError&) {
    return false;
  }
}

std::optional<std::string> PortProblem(const std::string& port) {
  const bool digits = !port.empty() && port.size() <= 5 &&
                      std::all_of(port.begin(), port.end(), [](unsigned char c) { return std::isdigit(c); });
  if (!digits || std::stoul(port) == 0 || std::stoul(port) > 65535) {
    return "port '" + port + "' is not a number from 1 to 65535";
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> ServerAddressProblem(const std::string& text) {
  const std::string expected = "'" + text + "' is not HOST:PORT";
  if (text.empty()) return expected;
  std::string host, port;
  if (text.front() == '[') {
    const auto close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
      return expected + " (an IPv6 address stands in brackets: [fd00::1]:443)";
    }
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
    if (host.find(':') == std::string::npos || !IsAddress(host)) {
      return expected + ": '" + host + "' is not an IPv6 address";
    }
  } else {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos) return expected + " (the port is missing)";
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (host.find(':') != std::string::npos) return expected + " (an IPv6 address stands in brackets: [fd00::1]:443)";
    if (!IsHostName(host)) return expected + ": '" + host + "' is not a host name or address";
  }
  if (auto problem = PortProblem(port)) return expected + ": " + *problem;
  return std::nullopt;
}

std::optional<std::string> DiscoveryUrlProblem(const std::string& text) {
  const std::string scheme = "https://";
  if (text.rfind(scheme, 0) != 0) return "'" + text + "' does not start with https://";
  const std::string rest = text.substr(scheme.size());
  const std::string authority = rest.substr(0, rest.find('/'));
  if (auto problem = ServerAddressProblem(authority)) return "'" + text + "': " + *problem;
  return std::nullopt;
}

}  // namespace qel::host
