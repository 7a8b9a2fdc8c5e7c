#include "firewall/network_activity.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace qel::test {
namespace {

using firewall::ActivityParseFailure;
using firewall::NetworkActivity;
using firewall::PacketDirection;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kTcp = 6, kUdp = 17, kIcmp = 1, kIcmpv6 = 58, kHopByHop = 0;

// 10.77.0.2:40312 -> 10.77.0.1:22, with `optionWords` 32-bit words of IP
// options, and 20 bytes of transport header after them.
Bytes Ipv4Packet(std::uint8_t protocol, int optionWords = 0) {
  Bytes p(static_cast<std::size_t>(20 + optionWords * 4), 0);
  p[0] = static_cast<std::uint8_t>(0x40 | (5 + optionWords));
  p[9] = protocol;
  const std::uint8_t source[] = {10, 77, 0, 2}, destination[] = {10, 77, 0, 1};
  std::copy(std::begin(source), std::end(source), p.begin() + 12);
  std::copy(std::begin(destination), std::end(destination), p.begin() + 16);
  // Options of NOPs: read as ports they would give 257.
  for (std::size_t i = 20; i < p.size(); ++i) p[i] = 1;
  const std::uint8_t transport[] = {0x9d, 0x78, 0x00, 0x16, 0xaa, 0xbb, 0xcc, 0xdd};  // 40312, 22
  p.insert(p.end(), std::begin(transport), std::end(transport));
  p.resize(p.size() + 32, 0);  // 60 bytes without options, as logged
  return p;
}

// fd77::2:40312 -> fd77::1:22.
Bytes Ipv6Packet(std::uint8_t nextHeader) {
  Bytes p(40, 0);
  p[0] = 0x60;
  p[6] = nextHeader;
  p[8] = 0xfd, p[9] = 0x77, p[23] = 2;
  p[24] = 0xfd, p[25] = 0x77, p[39] = 1;
  const std::uint8_t transport[] = {0x9d, 0x78, 0x00, 0x16, 0xaa, 0xbb, 0xcc, 0xdd};
  p.insert(p.end(), std::begin(transport), std::end(transport));
  p.resize(60, 0);
  return p;
}

Bytes Cut(Bytes p, std::size_t size) {
  p.resize(size);
  return p;
}

NetworkActivity Parsed(const Bytes& payload, PacketDirection direction = PacketDirection::Incoming) {
  auto result = firewall::ParseNetworkActivity(payload, direction);
  EXPECT_TRUE(std::holds_alternative<NetworkActivity>(result))
      << std::get<ActivityParseFailure>(result).reason;
  return std::holds_alternative<NetworkActivity>(result) ? std::get<NetworkActivity>(result) : NetworkActivity{};
}

std::string Failure(const Bytes& payload) {
  auto result = firewall::ParseNetworkActivity(payload, PacketDirection::Incoming);
  if (!std::holds_alternative<ActivityParseFailure>(result)) return "parsed";
  EXPECT_EQ(std::get<ActivityParseFailure>(result).payloadLength, payload.size());
  return std::get<ActivityParseFailure>(result).reason;
}

TEST(NetworkActivity, IncomingLocalSideIsTheDestinationAndOutgoingTheSource) {
  const auto incoming = Parsed(Ipv4Packet(kTcp), PacketDirection::Incoming);
  EXPECT_EQ(incoming, (NetworkActivity{4, kTcp, "10.77.0.1", "10.77.0.2", 22, 40312, 60}));
  const auto outgoing = Parsed(Ipv4Packet(kTcp), PacketDirection::Outgoing);
  EXPECT_EQ(outgoing, (NetworkActivity{4, kTcp, "10.77.0.2", "10.77.0.1", 40312, 22, 60}));
  const auto v6 = Parsed(Ipv6Packet(kUdp), PacketDirection::Outgoing);
  EXPECT_EQ(v6, (NetworkActivity{6, kUdp, "fd77::2", "fd77::1", 40312, 22, 60}));
}

TEST(NetworkActivity, PortsOnlyFromATcpOrUdpHeaderThatIsThere) {
  EXPECT_EQ(Parsed(Ipv4Packet(kUdp)).localPort, 22);
  EXPECT_EQ(Parsed(Ipv6Packet(kTcp)).remotePort, 40312);
  for (const auto& payload : {Ipv4Packet(kIcmp), Ipv6Packet(kIcmpv6), Ipv6Packet(kHopByHop),
                              Cut(Ipv4Packet(kTcp), 23), Cut(Ipv6Packet(kTcp), 43)}) {
    const auto activity = Parsed(payload);
    EXPECT_FALSE(activity.localPort || activity.remotePort) << "protocol " << int(activity.protocol)
                                                            << ", length " << payload.size();
    EXPECT_FALSE(activity.localAddress.empty());
  }
  EXPECT_EQ(Parsed(Ipv6Packet(kHopByHop)).protocol, kHopByHop);
  EXPECT_EQ(Parsed(Cut(Ipv4Packet(kTcp), 24)).localPort, 22);  // 4 bytes are enough
}

TEST(NetworkActivity, TransportHeaderFollowsTheIpv4Options) {
  const auto activity = Parsed(Ipv4Packet(kTcp, 2));
  EXPECT_EQ(activity.localPort, 22);
  EXPECT_EQ(activity.remotePort, 40312);
  // A fragment after the first carries no transport header.
  auto fragment = Ipv4Packet(kUdp);
  fragment[7] = 0x10;
  EXPECT_FALSE(Parsed(fragment).localPort);
}

TEST(NetworkActivity, ShortOrForeignPayloadsSayWhy) {
  EXPECT_EQ(Failure(Cut(Ipv6Packet(kTcp), 39)), "payload length 39 is less than 40");
  EXPECT_EQ(Failure(Cut(Ipv4Packet(kTcp), 19)), "payload length 19 is less than 20");
  EXPECT_EQ(Failure({}), "payload length 0 is less than 1");
  auto version5 = Ipv4Packet(kTcp);
  version5[0] = 0x55;
  EXPECT_EQ(Failure(version5), "version is neither 4 nor 6");
  auto shortHeader = Ipv4Packet(kTcp);
  shortHeader[0] = 0x44;
  EXPECT_EQ(Failure(shortHeader), "IPv4 header length 16 is less than 20");
}

}  // namespace
}  // namespace qel::test
