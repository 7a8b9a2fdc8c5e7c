#include "firewall/diagnostic_dump.h"

#include <boost/format.hpp>
#include <stdexcept>

#include "qel_common/string_conv.h"

namespace qel::firewall {
namespace {

using tools::ToUtf8;

template <class Items, class Render>
std::string JoinWithCommas(const Items& items, Render render) {
  std::string text;
  for (const auto& item : items) {
    if (!text.empty()) text += ',';
    text += render(item);
  }
  return text;
}

// A dump shows what it was given and never fails the call that traces it:
// a value outside its enumeration is written as its number.
template <class Enum>
std::string NameOrNumber(Enum value) {
  try {
    return settings::EnumToString(value);
  } catch (const std::invalid_argument&) {
    return std::to_string(static_cast<std::uint32_t>(value));
  }
}

std::string ListForm(const std::string& elements) { return boost::str(boost::format("[%1%]") % elements); }

std::string DumpPacketRuleList(const std::vector<settings::PacketRule>& rules) {
  return ListForm(JoinWithCommas(rules, DumpPacketRule));
}

}  // namespace

std::string DumpTokens(const Tokens& tokens) {
  return boost::str(boost::format(R"({"tokens":[%1%]})") %
                    JoinWithCommas(tokens, [](std::string_view token) { return token; }));
}

std::string DumpRule(const Rule& rule) {
  return boost::str(
      boost::format(
          R"({"match":"%1%","target":"%2%","isGoto":"%3%","isPolicy":"%4%","tag":"%5%","ruleName":"%6%","ruleItem":"%7%","zoneName":"%8%"})") %
      DumpTokens(rule.match) % DumpTokens(rule.target) % rule.isGoto % rule.isPolicy % rule.tag % rule.ruleName %
      rule.ruleItem % rule.zoneName);
}

std::string DumpRuleList(const std::vector<Rule>& rules) { return ListForm(JoinWithCommas(rules, DumpRule)); }

std::string DumpChain(const Chain& chain) {
  return boost::str(boost::format(R"({"name":"%1%", "ruleList":%2%})") % chain.name % DumpRuleList(chain.ruleList));
}

std::string DumpChainList(const std::vector<Chain>& chains) { return ListForm(JoinWithCommas(chains, DumpChain)); }

std::string DumpState(const State& state) {
  return boost::str(boost::format(R"({"chainList":%1%})") % DumpChainList(state.chainList));
}

std::string DumpZone(const std::vector<oro::string16_t>& addresses) {
  return boost::str(boost::format(R"({"address":[%1%]})") %
                    JoinWithCommas(addresses, [](const oro::string16_t& address) { return ToUtf8(address); }));
}

std::string DumpPacketRule(const settings::PacketRule& rule) {
  return boost::str(
      boost::format(
          R"({"name":"%1%","action":"%2%","direction":"%3%","protocol":"%4%","remotePorts":"%5%","localPorts":"%6%","icmpType":"%7%","icmpCode":"%8%","remoteAddress":"%9%","localAddress":"%10%","doLogAttempts":"%11%"})") %
      ToUtf8(rule.name) % NameOrNumber(rule.action) % NameOrNumber(rule.direction) % NameOrNumber(rule.protocol) % ToUtf8(rule.remotePorts) % ToUtf8(rule.localPorts) %
      ToUtf8(rule.icmpType) % ToUtf8(rule.icmpCode) % ToUtf8(rule.remoteAddress) % ToUtf8(rule.localAddress) %
      rule.doLogAttempts);
}

std::string DumpSettings(const settings::FirewallSettings& settings) {
  return boost::str(
      boost::format(
          R"({"defaultIncomingAction":"%1%","defaultIncomingPacketAction":"%2%",openOstraPorts":"%3%","packetRules":"%4%","networkZonesTrusted":"%5%","networkZonesLocal":"%6%","networkZonesPublic":"%7%"})") %
      NameOrNumber(settings.defaultIncomingAction) %
      NameOrNumber(settings.defaultIncomingPacketAction) % settings.openOstraPorts %
      DumpPacketRuleList(settings.packetRules) % DumpZone(settings.networkZonesTrusted) %
      DumpZone(settings.networkZonesLocal) % DumpZone(settings.networkZonesPublic));
}

}  // namespace qel::firewall
