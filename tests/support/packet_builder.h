// Packets as bytes, header by header, for running packet classifiers on
// fixtures: Ethernet (with VLAN tags), ARP, IPv4 (options, fragments), IPv6
// (extension headers), TCP, UDP, ICMP and ICMPv6. Lengths are filled in;
// checksums are left zero, since nothing that reads these looks at them.
// Every header's start and end is kept, so a test can cut the packet inside
// any one of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qel::test {

class PacketBuilder {
 public:
  struct Header {
    std::string name;
    std::size_t begin = 0;
    std::size_t end = 0;
  };

  static constexpr std::uint16_t kEtherIpv4 = 0x0800;
  static constexpr std::uint16_t kEtherIpv6 = 0x86dd;
  static constexpr std::uint16_t kEtherArp = 0x0806;
  static constexpr std::uint16_t kEtherVlan = 0x8100;
  static constexpr std::uint8_t kTcp = 6;
  static constexpr std::uint8_t kUdp = 17;
  static constexpr std::uint8_t kIcmp = 1;
  static constexpr std::uint8_t kIcmpv6 = 58;
  static constexpr std::uint8_t kHopByHop = 0;
  static constexpr std::uint8_t kRouting = 43;
  static constexpr std::uint8_t kFragment = 44;
  static constexpr std::uint8_t kDestinationOptions = 60;
  static constexpr std::uint8_t kAuthentication = 51;
  // IPv6 "no next header", which the padding of extension headers repeats.
  static constexpr std::uint8_t kNoNextHeader = 59;

  PacketBuilder& Ethernet(std::uint16_t etherType);
  PacketBuilder& Vlan(std::uint16_t innerEtherType);
  // A request for 10.0.0.2 from 10.0.0.1.
  PacketBuilder& Arp();
  // `optionBytes` (a multiple of 4, at most 40) of no-op options follow the
  // fixed header. `fragmentOffset` is in 8-byte units.
  PacketBuilder& Ipv4(const std::string& source, const std::string& destination, std::uint8_t protocol,
                      std::size_t optionBytes = 0, std::uint16_t fragmentOffset = 0, bool moreFragments = false);
  PacketBuilder& Ipv6(const std::string& source, const std::string& destination, std::uint8_t nextHeader);
  // An options-type extension header (hop-by-hop, routing, destination
  // options) of `length` bytes, a multiple of 8.
  PacketBuilder& Ipv6Extension(std::uint8_t type, std::uint8_t nextHeader, std::size_t length = 8);
  // An authentication header of `length` bytes, a multiple of 4, at least 12.
  PacketBuilder& Ipv6Authentication(std::uint8_t nextHeader, std::size_t length = 16);
  PacketBuilder& Ipv6Fragment(std::uint8_t nextHeader, std::uint16_t fragmentOffset, bool moreFragments);
  PacketBuilder& Tcp(std::uint16_t sourcePort, std::uint16_t destinationPort);
  PacketBuilder& Udp(std::uint16_t sourcePort, std::uint16_t destinationPort);
  PacketBuilder& Icmp(std::uint8_t type);
  PacketBuilder& Icmpv6(std::uint8_t type);
  PacketBuilder& Payload(std::size_t bytes);

  // The packet, with the IP length fields counting what follows them.
  std::vector<std::uint8_t> Build() const;
  const std::vector<Header>& Headers() const { return m_headers; }

 private:
  void Append(const std::string& name, const std::vector<std::uint8_t>& bytes);
  static void Put16(std::vector<std::uint8_t>& bytes, std::size_t at, std::uint16_t value);

  std::vector<std::uint8_t> m_bytes;
  std::vector<Header> m_headers;
};

}  // namespace qel::test
