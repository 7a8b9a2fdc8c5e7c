// Settings that write every form of every packet-rule field the rule
// compiler knows: each direction, each protocol, the port forms, ICMP type
// alone and with a code, the address forms (networks with host bits set,
// hosts, ranges, lists, zones of both families, IPv6), logging on and off.
// Whatever reads compiled rules back, such as the kernel's tools, meets
// every token the compiler can write.
#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>

#include "firewall/firewall_settings.h"

namespace qel::test {

inline constexpr settings::PacketRuleProtocol kAllProtocols[] = {
    settings::PacketRuleProtocol::Any, settings::PacketRuleProtocol::ICMP, settings::PacketRuleProtocol::IGMP,
    settings::PacketRuleProtocol::TCP, settings::PacketRuleProtocol::UDP,  settings::PacketRuleProtocol::GRE,
    settings::PacketRuleProtocol::ICMPv6};

// The rules of one protocol, every direction times every form. Protocols
// without fields of their own go through every address form; the others
// through their own forms, the addresses cycling beside them.
inline settings::FirewallSettings FieldFormCorpus(settings::PacketRuleProtocol protocol) {
  using namespace settings;
  // Remote and local, or ICMP type and code.
  using FieldPair = std::pair<const char16_t*, const char16_t*>;
  // Remote only, local only, a range and a single port, neither, every port
  // (which the tools drop), two ranges.
  static constexpr FieldPair kPorts[] = {{u"80", u"Any"},  {u"Any", u"22"},      {u"1000-2000", u"53"},
                                         {u"Any", u"Any"}, {u"0-65535", u"Any"}, {u"1024-65535", u"8080-8090"}};
  // The type alone, type and code, neither, zeros, and the type that the
  // IPv4 match takes for any message.
  static constexpr FieldPair kIcmp[] = {{u"8", u"Any"}, {u"3", u"1"}, {u"Any", u"Any"}, {u"0", u"0"}, {u"255", u"Any"}};
  static constexpr FieldPair kAddresses[] = {
      {u"10.1.2.3/8", u"Any"},                     // host bits set: the tools keep the network
      {u"192.0.2.7", u"192.168.1.1;192.168.1.2"},  // a host; a list
      {u"10.20.0.5-10.20.0.9", u"Any"},            // a range
      {u"Any", u"10.30.0.1-10.30.0.9"},
      {u"Trusted", u"Any"},  // a zone of both families
      {u"fd00::/8", u"Any"},
      {u"2001:db8::1", u"fe80::1-fe80::9"},
      {u"2001:db8::abcd/32", u"Any"},
      {u"10.0.0.0/8;fd00::/8", u"Any"},  // a list of both families
      {u"Local", u"2001:db8::1;192.168.5.0/24"},
      {u"Public", u"Any"},  // prefix length 0: no address match at all
      {u"Any", u"Any"},     // with protocol Any a catch-all, which drops defaults
  };
  FirewallSettings s;
  s.defaultIncomingPacketAction = PacketRuleAction::Block;
  s.networkZonesTrusted = {u"10.0.0.0/8",    u"fd00::/8",           u"192.168.10.5",
                           u"2001:db8:1::1", u"10.40.0.1-10.40.0.4", u"fd00::1-fd00::9"};
  s.networkZonesLocal = {u"172.16.1.1/12", u"fe80::/10"};
  s.networkZonesPublic = {u"0.0.0.0/0", u"::/0"};
  const bool ports = protocol == PacketRuleProtocol::TCP || protocol == PacketRuleProtocol::UDP;
  const bool icmp = protocol == PacketRuleProtocol::ICMP || protocol == PacketRuleProtocol::ICMPv6;
  const std::size_t forms = ports ? std::size(kPorts) : icmp ? std::size(kIcmp) : std::size(kAddresses);
  // The directions by their values, IncomingOutgoing (0) to OutgoingPacket (5).
  for (std::uint32_t direction = 0; direction <= 5; ++direction) {
    for (std::size_t form = 0; form < forms; ++form) {
      const std::size_t index = s.packetRules.size();
      PacketRule rule;
      rule.name = u"rule " + std::u16string(1, static_cast<char16_t>(u'a' + index % 26));
      rule.action = index % 2 ? PacketRuleAction::Block : PacketRuleAction::Allow;
      rule.direction = static_cast<PacketRuleDirection>(direction);
      rule.protocol = protocol;
      if (ports) std::tie(rule.remotePorts, rule.localPorts) = kPorts[form];
      if (icmp) std::tie(rule.icmpType, rule.icmpCode) = kIcmp[form];
      // 5 and the 12 address forms have no common factor: every address
      // meets several port or ICMP forms.
      std::tie(rule.remoteAddress, rule.localAddress) =
          (ports || icmp) ? kAddresses[index * 5 % std::size(kAddresses)] : kAddresses[form];
      rule.doLogAttempts = index % 3 == 0;
      s.packetRules.push_back(rule);
    }
  }
  return s;
}

}  // namespace qel::test
