#include "host/ostra_port_text.h"

#include <algorithm>
#include <cctype>
#include <array>
#include <charconv>
#include <optional>

namespace qel::host {
namespace {

constexpr std::array<const char*, 2> kProtocols = {"tcp", "udp"};
constexpr std::array<const char*, 3> kDirections = {"in", "out", "inout"};

std::string Lowercase(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

// The index of `word` among `names`, ignoring letter case.
template <std::size_t N>
std::optional<std::uint32_t> IndexOf(std::string_view word, const std::array<const char*, N>& names) {
  const std::string lower = Lowercase(word);
  for (std::size_t i = 0; i < N; ++i) {
    if (lower == names[i]) return static_cast<std::uint32_t>(i);
  }
  return std::nullopt;
}

std::optional<std::uint32_t> PortNumber(std::string_view text) {
  std::uint32_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size() || port < 1 || port > 65535) return std::nullopt;
  return port;
}

}  // namespace

Outcome<firewall::OstraPort> ParseOstraPort(std::string_view text) {
  const auto fail = [&](const std::string& reason) {
    return Outcome<firewall::OstraPort>::Error("'" + std::string(text) + "': " + reason);
  };
  const auto firstSlash = text.find('/');
  const auto secondSlash = firstSlash == std::string_view::npos ? firstSlash : text.find('/', firstSlash + 1);
  if (secondSlash == std::string_view::npos || text.find('/', secondSlash + 1) != std::string_view::npos) {
    return fail("expected PORT/PROTOCOL/DIRECTION, e.g. 15000/tcp/in");
  }
  const std::string_view portText = text.substr(0, firstSlash);
  const std::string_view protocolText = text.substr(firstSlash + 1, secondSlash - firstSlash - 1);
  const std::string_view directionText = text.substr(secondSlash + 1);

  const auto port = PortNumber(portText);
  if (!port) return fail("port '" + std::string(portText) + "' is not a number from 1 to 65535");
  const auto protocol = IndexOf(protocolText, kProtocols);
  if (!protocol) return fail("protocol '" + std::string(protocolText) + "' is not one of tcp, udp");
  const auto direction = IndexOf(directionText, kDirections);
  if (!direction) return fail("direction '" + std::string(directionText) + "' is not one of in, out, inout");
  return firewall::OstraPort{*port, *protocol, *direction};
}

std::string OstraPortText(const firewall::OstraPort& port) {
  const auto name = [](const auto& names, std::uint32_t index) -> std::string {
    return index < names.size() ? names[index] : std::to_string(index);
  };
  return std::to_string(port.port) + "/" + name(kProtocols, port.protocol) + "/" + name(kDirections, port.direction);
}

}  // namespace qel::host
