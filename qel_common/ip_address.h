// IP addresses, networks, address ranges and port ranges as the firewall
// settings write them, and their text as the iptables tools print it back.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

namespace qel::tools {

// An address, network or range text that does not parse; what() is one of the
// fixed messages ("Invalid format of ip address", ...).
class AddressParseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A port or port range text that does not parse.
class PortParseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The IP version number, which is also how the iptables side names a family.
enum class IpVersion : int { V4 = 4, V6 = 6 };

struct IpAddress {
  IpVersion version = IpVersion::V4;
  // Network byte order; an IPv4 address uses the first four bytes and leaves
  // the rest zero, so that ordering compares addresses numerically.
  std::array<std::uint8_t, 16> bytes{};

  std::size_t Size() const noexcept { return version == IpVersion::V4 ? 4 : 16; }
  unsigned FullPrefixLength() const noexcept { return static_cast<unsigned>(Size() * 8); }
  // The platform's canonical text: "10.0.0.1", "fe80::1".
  std::string ToString() const;

  auto operator<=>(const IpAddress&) const = default;
};

// A network. The tools keep only its network part and print that back, so
// "10.1.2.3/8" is 10.0.0.0/8: ParseIpNetwork clears the host bits, and a
// network built otherwise is written through MaskHostBits.
struct IpNetwork {
  IpAddress address;
  unsigned prefixLength = 32;

  // "10.0.0.0/8", "fe80::/10", "192.168.1.5/32".
  std::string ToString() const;

  bool operator==(const IpNetwork&) const = default;
};

// An inclusive range whose last address is greater than the first.
struct IpRange {
  IpAddress first;
  IpAddress last;

  // "10.0.0.1-10.0.0.9".
  std::string ToString() const;

  bool operator==(const IpRange&) const = default;
};

// One element of an address list: a range when the text holds "-", else a
// network.
using AddressElement = std::variant<IpNetwork, IpRange>;

// `address` with every bit after the first `prefixLength` cleared.
IpAddress MaskHostBits(IpAddress address, unsigned prefixLength) noexcept;

// A bare IPv4 or IPv6 address (an IPv6 one may stand in brackets).
IpAddress ParseIpAddress(std::string_view text);
// "address[/prefix]"; a bare address gets its family's full prefix length.
IpNetwork ParseIpNetwork(std::string_view text);
// "first-last", both of one family.
IpRange ParseIpRange(std::string_view text);
AddressElement ParseAddressElement(std::string_view text);
IpVersion VersionOf(const AddressElement& element) noexcept;

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
