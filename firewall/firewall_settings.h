// The firewall settings handed in by the host: default actions, the
// administrator's packet rules and the network zones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "oro/object.h"

namespace qel::types {
struct IPAddressFamily {
  enum Type : std::uint32_t { IPv4 = 0, IPv6 = 1 };
};
}  // namespace qel::types

namespace qel::settings {

// Packet rule i (0-based) that logs uses NFLOG group MinNflogGroup + i; the
// packet logger subtracts it again to find the rule a packet belongs to.
inline constexpr std::uint16_t MinNflogGroup = 10001;

enum class PacketRuleAction : std::uint32_t { Allow = 0, Block = 1 };

enum class PacketRuleDirection : std::uint32_t {
  IncomingOutgoing = 0,
  Incoming = 1,
  Outgoing = 2,
  IncomingOutgoingPacket = 3,
  IncomingPacket = 4,
  OutgoingPacket = 5,
};

// The value is the IP protocol number.
enum class PacketRuleProtocol : std::uint32_t {
  Any = 0,
  ICMP = 1,
  IGMP = 2,
  TCP = 6,
  UDP = 17,
  GRE = 47,
  ICMPv6 = 58,
};

// Text fields hold "Any" for no restriction; see the compiler for formats.
struct PacketRule {
  oro::string16_t name;
  PacketRuleAction action = PacketRuleAction::Allow;
  PacketRuleDirection direction = PacketRuleDirection::IncomingOutgoing;
  PacketRuleProtocol protocol = PacketRuleProtocol::Any;
  oro::string16_t remotePorts = u"Any";
  oro::string16_t localPorts = u"Any";
  oro::string16_t icmpType = u"Any";
  oro::string16_t icmpCode = u"Any";
  oro::string16_t remoteAddress = u"Any";
  oro::string16_t localAddress = u"Any";
  bool doLogAttempts = false;

  bool operator==(const PacketRule&) const = default;
};

struct FirewallSettings {
  PacketRuleAction defaultIncomingAction = PacketRuleAction::Block;
  PacketRuleAction defaultIncomingPacketAction = PacketRuleAction::Allow;
  std::vector<PacketRule> packetRules;
  bool openOstraPorts = false;
  std::vector<oro::string16_t> networkZonesTrusted;
  std::vector<oro::string16_t> networkZonesLocal;
  std::vector<oro::string16_t> networkZonesPublic;

  bool operator==(const FirewallSettings&) const = default;
};

// Names of the enumeration values ("Allow", "IncomingPacket", "ICMPv6",
// "IPv6"). A value outside the enumeration throws std::invalid_argument with
// "EnumToString, invalid 'PacketRuleAction' enum value: 7" and the like.
const char* EnumToString(PacketRuleAction value);
const char* EnumToString(PacketRuleDirection value);
const char* EnumToString(PacketRuleProtocol value);
const char* EnumToString(types::IPAddressFamily::Type value);

// The reverse look-up by exact, case-sensitive name; false when the name is
// not one of the enumeration's.
bool EnumFromString(std::string_view name, PacketRuleAction& out);
bool EnumFromString(std::string_view name, PacketRuleDirection& out);
bool EnumFromString(std::string_view name, PacketRuleProtocol& out);

}  // namespace qel::settings
