#include "firewall/network_activity.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <utility>

namespace qel::firewall {
namespace {

constexpr std::size_t kIpv4MinHeader = 20;
constexpr std::size_t kIpv6Header = 40;
constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;

struct Endpoints {
  std::string sourceAddress;
  std::string destinationAddress;
  std::optional<std::uint16_t> sourcePort;
  std::optional<std::uint16_t> destinationPort;
};

std::uint16_t ReadBigEndian16(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return static_cast<std::uint16_t>((bytes[offset] << 8) | bytes[offset + 1]);
}

std::string AddressText(int family, const std::uint8_t* address) {
  char text[INET6_ADDRSTRLEN] = {};
  // Cannot fail: the family is one of the two and the buffer fits either.
  ::inet_ntop(family, address, text, sizeof text);
  return text;
}

ActivityParseFailure TooShort(std::size_t length, std::size_t needed) {
  return {"payload length " + std::to_string(length) + " is less than " + std::to_string(needed), length};
}

// Ports are read only from a TCP or UDP header whose first 4 bytes were
// logged; anything else would be bytes of some other header or none.
void ReadPorts(std::span<const std::uint8_t> payload, std::uint8_t protocol, std::size_t transportOffset,
               Endpoints& endpoints) {
  if (protocol != kTcp && protocol != kUdp) return;
  if (transportOffset > payload.size() || payload.size() - transportOffset < 4) return;
  endpoints.sourcePort = ReadBigEndian16(payload, transportOffset);
  endpoints.destinationPort = ReadBigEndian16(payload, transportOffset + 2);
}

std::variant<Endpoints, ActivityParseFailure> ReadIpv4(std::span<const std::uint8_t> payload,
                                                       std::uint8_t& protocol) {
  if (payload.size() < kIpv4MinHeader) return TooShort(payload.size(), kIpv4MinHeader);
  // The transport header starts after the IHL's worth of 32-bit words, not
  // at a fixed 20 bytes: a packet with IP options would otherwise have its
  // options read as ports.
  const std::size_t headerLength = static_cast<std::size_t>(payload[0] & 0x0f) * 4;
  if (headerLength < kIpv4MinHeader) {
    return ActivityParseFailure{"IPv4 header length " + std::to_string(headerLength) + " is less than 20",
                                payload.size()};
  }
  protocol = payload[9];
  Endpoints endpoints{AddressText(AF_INET, &payload[12]), AddressText(AF_INET, &payload[16]), {}, {}};
  // Only the first fragment carries the transport header.
  const bool laterFragment = (ReadBigEndian16(payload, 6) & 0x1fff) != 0;
  if (!laterFragment) ReadPorts(payload, protocol, headerLength, endpoints);
  return endpoints;
}

std::variant<Endpoints, ActivityParseFailure> ReadIpv6(std::span<const std::uint8_t> payload,
                                                       std::uint8_t& protocol) {
  if (payload.size() < kIpv6Header) return TooShort(payload.size(), kIpv6Header);
  protocol = payload[6];
  Endpoints endpoints{AddressText(AF_INET6, &payload[8]), AddressText(AF_INET6, &payload[24]), {}, {}};
  // An extension header (hop-by-hop, routing, fragment, ...) sits between
  // the fixed header and the transport header; its next-header value is not
  // TCP or UDP, so no ports are taken rather than reading its bytes as such.
  ReadPorts(payload, protocol, kIpv6Header, endpoints);
  return endpoints;
}

}  // namespace

const char* DirectionName(PacketDirection direction) {
  return direction == PacketDirection::Incoming ? "Incoming" : "Outgoing";
}

ActivityOrFailure ParseNetworkActivity(std::span<const std::uint8_t> payload, PacketDirection direction) {
  if (payload.empty()) return TooShort(0, 1);
  NetworkActivity activity;
  activity.ipVersion = payload[0] >> 4;
  activity.payloadLength = payload.size();
  std::variant<Endpoints, ActivityParseFailure> read;
  if (activity.ipVersion == 4) {
    read = ReadIpv4(payload, activity.protocol);
  } else if (activity.ipVersion == 6) {
    read = ReadIpv6(payload, activity.protocol);
  } else {
    return ActivityParseFailure{"version is neither 4 nor 6", payload.size()};
  }
  if (auto* failure = std::get_if<ActivityParseFailure>(&read)) return std::move(*failure);

  auto& endpoints = std::get<Endpoints>(read);
  const bool outgoing = direction == PacketDirection::Outgoing;
  activity.localAddress = std::move(outgoing ? endpoints.sourceAddress : endpoints.destinationAddress);
  activity.remoteAddress = std::move(outgoing ? endpoints.destinationAddress : endpoints.sourceAddress);
  activity.localPort = outgoing ? endpoints.sourcePort : endpoints.destinationPort;
  activity.remotePort = outgoing ? endpoints.destinationPort : endpoints.sourcePort;
  return activity;
}

}  // namespace qel::firewall
