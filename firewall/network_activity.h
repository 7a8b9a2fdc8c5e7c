// What a logged packet says about the connection it belongs to: addresses,
// ports and protocol, seen from this host's side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>

namespace qel::firewall {

// Which way a logged packet went, by the hook that logged it.
enum class PacketDirection { Incoming, Outgoing };

// "Incoming" or "Outgoing", the product's names.
const char* DirectionName(PacketDirection direction);

struct NetworkActivity {
  int ipVersion = 0;          // 4 or 6
  std::uint8_t protocol = 0;  // IPv4 protocol or IPv6 next-header byte
  std::string localAddress;
  std::string remoteAddress;
  // Only for TCP and UDP, and only when their header was copied.
  std::optional<std::uint16_t> localPort;
  std::optional<std::uint16_t> remotePort;
  std::size_t payloadLength = 0;  // bytes of the packet that were logged

  bool operator==(const NetworkActivity&) const = default;
};

// Why a logged payload yields no addresses ("version is neither 4 nor 6").
struct ActivityParseFailure {
  std::string reason;
  std::size_t payloadLength = 0;
  bool operator==(const ActivityParseFailure&) const = default;
};

using ActivityOrFailure = std::variant<NetworkActivity, ActivityParseFailure>;

// Reads the IP header (and the TCP or UDP ports) at the start of `payload`,
// the first bytes of a logged packet. An outgoing packet's source is the
// local side, an incoming packet's destination is.
ActivityOrFailure ParseNetworkActivity(std::span<const std::uint8_t> payload, PacketDirection direction);

}  // namespace qel::firewall
