// IP addresses, networks and address ranges as the firewall settings write
// them, and their text as the iptables tools print it back.
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

}  // namespace qel::tools
