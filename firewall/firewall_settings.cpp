#include "firewall/firewall_settings.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <utility>

namespace qel::settings {
namespace {


constexpr std::pair<PacketRuleAction, const char*> kActionNames[] = {
    {PacketRuleAction::Allow, "Allow"},
    {PacketRuleAction::Block, "Block"},
};

constexpr std::pair<PacketRuleDirection, const char*> kDirectionNames[] = {
    {PacketRuleDirection::IncomingOutgoing, "IncomingOutgoing"},
    {PacketRuleDirection::Incoming, "Incoming"},
    {PacketRuleDirection::Outgoing, "Outgoing"},
    {PacketRuleDirection::IncomingOutgoingPacket, "IncomingOutgoingPacket"},
    {PacketRuleDirection::IncomingPacket, "IncomingPacket"},
    {PacketRuleDirection::OutgoingPacket, "OutgoingPacket"},
};

constexpr std::pair<PacketRuleProtocol, const char*> kProtocolNames[] = {
    {PacketRuleProtocol::Any, "Any"},   {PacketRuleProtocol::ICMP, "ICMP"}, {PacketRuleProtocol::IGMP, "IGMP"},
    {PacketRuleProtocol::TCP, "TCP"},   {PacketRuleProtocol::UDP, "UDP"},   {PacketRuleProtocol::GRE, "GRE"},
    {PacketRuleProtocol::ICMPv6, "ICMPv6"},
};

constexpr std::pair<types::IPAddressFamily::Type, const char*> kFamilyNames[] = {
    {types::IPAddressFamily::IPv4, "IPv4"},
    {types::IPAddressFamily::IPv6, "IPv6"},
};

// The tables are sorted by value, so the look-up is a binary search.
template <class E, std::size_t N>
const char* NameOf(const std::pair<E, const char*> (&table)[N], E value, const char* typeName) {
  const auto it = std::lower_bound(std::begin(table), std::end(table), value,
                                   [](const auto& entry, E v) { return entry.first < v; });
  if (it == std::end(table) || it->first != value) {
    throw std::invalid_argument(std::string("EnumToString, invalid '") + typeName +
                                "' enum value: " + std::to_string(static_cast<std::uint32_t>(value)));
  }
  return it->second;
}

template <class E, std::size_t N>
bool ValueOf(const std::pair<E, const char*> (&table)[N], std::string_view name, E& out) {
  for (const auto& [value, text] : table) {
    if (name == text) {
      out = value;
      return true;
    }
  }
  return false;
}

}  // namespace

const char* EnumToString(PacketRuleAction value) { return NameOf(kActionNames, value, "PacketRuleAction"); }
const char* EnumToString(PacketRuleDirection value) { return NameOf(kDirectionNames, value, "PacketRuleDirection"); }
const char* EnumToString(PacketRuleProtocol value) { return NameOf(kProtocolNames, value, "PacketRuleProtocol"); }
const char* EnumToString(types::IPAddressFamily::Type value) { return NameOf(kFamilyNames, value, "IPAddressFamily"); }

bool EnumFromString(std::string_view name, PacketRuleAction& out) { return ValueOf(kActionNames, name, out); }
bool EnumFromString(std::string_view name, PacketRuleDirection& out) { return ValueOf(kDirectionNames, name, out); }
bool EnumFromString(std::string_view name, PacketRuleProtocol& out) { return ValueOf(kProtocolNames, name, out); }

}  // namespace qel::settings
