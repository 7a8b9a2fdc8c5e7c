// Port ranges as the firewall settings write them, and their text as the
// iptables tools print it back.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace qel::tools {

// A port or port range text that does not parse.
class PortParseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An inclusive port range; a single port has first == last.
struct PortRange {
  std::uint16_t first = 0;
  std::uint16_t last = 0;

  // A range of every port restricts nothing: the tools drop it and print
  // only the protocol module.
  bool CoversAllPorts() const noexcept { return first == 0 && last == 0xffff; }
  // "80", or "1000:2000" for a range, as the tools print it back.
  std::string ToString() const;

  bool operator==(const PortRange&) const = default;
};

// "443" or "1024-65535", blanks and tabs next to the numbers ignored. A
// number that does not convert to 16 bits throws PortParseError with the
// conversion's own message; so does a range whose last port is below the
// first one.
PortRange ParsePortRange(std::string_view text);

}  // namespace qel::tools
