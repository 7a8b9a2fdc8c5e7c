#include "support/packet_builder.h"

#include <arpa/inet.h>

#include <stdexcept>

namespace qel::test {
namespace {

std::vector<std::uint8_t> AddressBytes(int family, const std::string& text) {
  std::vector<std::uint8_t> bytes(family == AF_INET ? 4 : 16);
  if (inet_pton(family, text.c_str(), bytes.data()) != 1) throw std::invalid_argument("not an address: " + text);
  return bytes;
}

void Insert(std::vector<std::uint8_t>& into, const std::vector<std::uint8_t>& bytes) {
  into.insert(into.end(), bytes.begin(), bytes.end());
}

}  // namespace

void PacketBuilder::Put16(std::vector<std::uint8_t>& bytes, std::size_t at, std::uint16_t value) {
  bytes[at] = static_cast<std::uint8_t>(value >> 8);
  bytes[at + 1] = static_cast<std::uint8_t>(value);
}

void PacketBuilder::Append(const std::string& name, const std::vector<std::uint8_t>& bytes) {
  m_headers.push_back({name, m_bytes.size(), m_bytes.size() + bytes.size()});
  Insert(m_bytes, bytes);
}

PacketBuilder& PacketBuilder::Ethernet(std::uint16_t etherType) {
  std::vector<std::uint8_t> h{0x02, 0, 0, 0, 0, 0x02, 0x02, 0, 0, 0, 0, 0x01, 0, 0};
  Put16(h, 12, etherType);
  Append("ethernet", h);
  return *this;
}

PacketBuilder& PacketBuilder::Vlan(std::uint16_t innerEtherType) {
  std::vector<std::uint8_t> h{0x00, 0x07, 0, 0};
  Put16(h, 2, innerEtherType);
  Append("vlan", h);
  return *this;
}

PacketBuilder& PacketBuilder::Arp() {
  std::vector<std::uint8_t> h{0, 1, 0x08, 0, 6, 4, 0, 1};
  Insert(h, {0x02, 0, 0, 0, 0, 0x01, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 10, 0, 0, 2});
  Append("arp", h);
  return *this;
}

PacketBuilder& PacketBuilder::Ipv4(const std::string& source, const std::string& destination, std::uint8_t protocol,
                                   std::size_t optionBytes, std::uint16_t fragmentOffset, bool moreFragments) {
  if (optionBytes % 4 != 0 || optionBytes > 40) throw std::invalid_argument("IPv4 options: a multiple of 4, at most 40");
  std::vector<std::uint8_t> h(20 + optionBytes, 1 /* no-op option */);
  h[0] = static_cast<std::uint8_t>(0x40 | (h.size() / 4));
  h[1] = 0;
  Put16(h, 4, 0x1234);
  Put16(h, 6, static_cast<std::uint16_t>((moreFragments ? 0x2000 : 0) | (fragmentOffset & 0x1fff)));
  h[8] = 64;
  h[9] = protocol;
  h[10] = h[11] = 0;
  const auto src = AddressBytes(AF_INET, source), dst = AddressBytes(AF_INET, destination);
  std::copy(src.begin(), src.end(), h.begin() + 12);
  std::copy(dst.begin(), dst.end(), h.begin() + 16);
  Append("ipv4", h);
  return *this;
}

PacketBuilder& PacketBuilder::Ipv6(const std::string& source, const std::string& destination, std::uint8_t nextHeader) {
  std::vector<std::uint8_t> h{0x60, 0, 0, 0, 0, 0, nextHeader, 64};
  Insert(h, AddressBytes(AF_INET6, source));
  Insert(h, AddressBytes(AF_INET6, destination));
  Append("ipv6", h);
  return *this;
}

PacketBuilder& PacketBuilder::Ipv6Extension(std::uint8_t type, std::uint8_t nextHeader, std::size_t length) {
  if (length % 8 != 0 || length == 0 || length > 2048) throw std::invalid_argument("extension header: a multiple of 8");
  // One padding option (PadN) fills the rest. Its data is ignored by
  // receivers; "no next header" there makes a reader that misjudges the
  // header's length stop instead of finding a plausible header.
  std::vector<std::uint8_t> h(length, kNoNextHeader);
  h[0] = nextHeader;
  h[1] = static_cast<std::uint8_t>(length / 8 - 1);
  h[2] = 1;
  h[3] = static_cast<std::uint8_t>(length - 4);
  Append(type == kRouting ? "ipv6 routing" : type == kHopByHop ? "ipv6 hop-by-hop" : "ipv6 options", h);
  return *this;
}

PacketBuilder& PacketBuilder::Ipv6Authentication(std::uint8_t nextHeader, std::size_t length) {
  if (length % 4 != 0 || length < 12 || length > 1028) throw std::invalid_argument("authentication header: a multiple of 4");
  std::vector<std::uint8_t> h(length, kNoNextHeader);
  h[0] = nextHeader;
  h[1] = static_cast<std::uint8_t>(length / 4 - 2);
  h[2] = h[3] = 0;
  Append("ipv6 authentication", h);
  return *this;
}

PacketBuilder& PacketBuilder::Ipv6Fragment(std::uint8_t nextHeader, std::uint16_t fragmentOffset, bool moreFragments) {
  std::vector<std::uint8_t> h{nextHeader, 0, 0, 0, 0, 0, 0x56, 0x78};
  Put16(h, 2, static_cast<std::uint16_t>((fragmentOffset << 3) | (moreFragments ? 1 : 0)));
  Append("ipv6 fragment", h);
  return *this;
}

PacketBuilder& PacketBuilder::Tcp(std::uint16_t sourcePort, std::uint16_t destinationPort) {
  std::vector<std::uint8_t> h(20, 0);
  Put16(h, 0, sourcePort);
  Put16(h, 2, destinationPort);
  h[12] = 5 << 4;
  h[13] = 0x02;  // SYN
  Put16(h, 14, 64240);
  Append("tcp", h);
  return *this;
}

PacketBuilder& PacketBuilder::Udp(std::uint16_t sourcePort, std::uint16_t destinationPort) {
  std::vector<std::uint8_t> h(8, 0);
  Put16(h, 0, sourcePort);
  Put16(h, 2, destinationPort);
  Append("udp", h);
  return *this;
}

PacketBuilder& PacketBuilder::Icmp(std::uint8_t type) {
  Append("icmp", {type, 0, 0, 0, 0, 1, 0, 1});
  return *this;
}

PacketBuilder& PacketBuilder::Icmpv6(std::uint8_t type) {
  Append("icmpv6", {type, 0, 0, 0, 0, 0, 0, 0});
  return *this;
}

PacketBuilder& PacketBuilder::Payload(std::size_t bytes) {
  Insert(m_bytes, std::vector<std::uint8_t>(bytes, 0xab));
  return *this;
}

std::vector<std::uint8_t> PacketBuilder::Build() const {
  auto bytes = m_bytes;
  for (const auto& header : m_headers) {
    const std::size_t after = bytes.size() - header.end;
    if (header.name == "ipv4") Put16(bytes, header.begin + 2, static_cast<std::uint16_t>(bytes.size() - header.begin));
    if (header.name == "ipv6") Put16(bytes, header.begin + 4, static_cast<std::uint16_t>(after));
    if (header.name == "udp") Put16(bytes, header.begin + 4, static_cast<std::uint16_t>(bytes.size() - header.begin));
  }
  return bytes;
}

}  // namespace qel::test
