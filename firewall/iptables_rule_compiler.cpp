#include "firewall/iptables_rule_compiler.h"

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cstdio>
#include <optional>
#include <stdexcept>

#include "firewall/earlier_compilation.h"
#include "firewall/rule_description.h"
#include "qel_common/port_range.h"
#include "qel_common/string_conv.h"

namespace qel::firewall {
namespace {

using settings::FirewallSettings;
using settings::PacketRule;
using settings::PacketRuleAction;
using settings::PacketRuleDirection;
using settings::PacketRuleProtocol;
using tools::AddressElement;
using tools::IpVersion;
using tools::PortRange;

constexpr char kAny[] = "Any";

// A packet rule's fields in the 8-bit form that rule text is written in.
struct RuleFields {
  std::size_t index = 0;
  std::string name;
  std::string item;
  PacketRuleAction action = PacketRuleAction::Allow;
  PacketRuleDirection direction = PacketRuleDirection::IncomingOutgoing;
  PacketRuleProtocol protocol = PacketRuleProtocol::Any;
  std::string remotePorts;
  std::string localPorts;
  std::string icmpType;
  std::string icmpCode;
  std::string remoteAddress;
  std::string localAddress;
  bool doLogAttempts = false;
};

// The parsed pieces of one rule's match; absent pieces restrict nothing.
struct MatchParts {
  std::optional<AddressElement> remote;
  std::optional<AddressElement> local;
  std::optional<PortRange> remotePorts;
  std::optional<PortRange> localPorts;
  std::string icmp;  // "type" or "type/code"
};

// "item_%04zu", without the formatting machinery: it runs for every packet
// rule of every compilation.
std::string FormatRuleItem(std::size_t index) {
  constexpr std::size_t kDigits = 4;
  const std::string number = std::to_string(index);
  std::string text = "item_";
  if (number.size() < kDigits) text.append(kDigits - number.size(), '0');
  return text.append(number);
}

// Runs `parse` on a field's text and turns its failure into an error that
// names the rule, the field and the value.
template <class Parse>
auto ParseField(const RuleFields& rule, const char* field, const std::string& value, Parse parse) {
  try {
    return parse(value);
  } catch (const std::exception& e) {
    throw RuleCompileError(rule.index, rule.name, field, value, e.what());
  }
}

// An enumeration value outside its table would otherwise slip through as an
// accept rule or an empty log prefix.
template <class Enum>
void CheckEnumValue(const RuleFields& rule, const char* field, Enum value) {
  try {
    settings::EnumToString(value);
  } catch (const std::exception& e) {
    throw RuleCompileError(rule.index, rule.name, field, std::to_string(static_cast<std::uint32_t>(value)), e.what());
  }
}

// NFLOG groups are 16-bit: a logging rule too far down the list has none.
void CheckLogGroup(const RuleFields& rule) {
  constexpr std::size_t kLastLoggableIndex = 65535 - settings::MinNflogGroup;
  if (rule.doLogAttempts && rule.index > kLastLoggableIndex) {
    throw RuleCompileError(rule.index, rule.name, "doLogAttempts", "true",
                           "only the first " + std::to_string(kLastLoggableIndex + 1) + " packet rules can log");
  }
}

// Most fields of most rules say "Any"; they need no conversion.
std::string FieldToUtf8(const oro::string16_t& text) {
  if (text == u"Any") return kAny;
  return tools::ToUtf8(text);
}

RuleFields ReadRule(std::size_t index, const PacketRule& rule) {
  RuleFields fields{index,
                    tools::ToUtf8(rule.name),
                    FormatRuleItem(index),
                    rule.action,
                    rule.direction,
                    rule.protocol,
                    FieldToUtf8(rule.remotePorts),
                    FieldToUtf8(rule.localPorts),
                    FieldToUtf8(rule.icmpType),
                    FieldToUtf8(rule.icmpCode),
                    FieldToUtf8(rule.remoteAddress),
                    FieldToUtf8(rule.localAddress),
                    rule.doLogAttempts};
  CheckEnumValue(fields, "action", fields.action);
  CheckEnumValue(fields, "direction", fields.direction);
  CheckEnumValue(fields, "protocol", fields.protocol);
  CheckLogGroup(fields);
  return fields;
}

// Adjacent separators count as one; an empty text stays one empty element,
// which then fails to parse: only "Any" means no restriction.
std::vector<std::string> SplitAddressList(const std::string& text) {
  std::vector<std::string> elements;
  // Most fields hold one element; splitting would yield it unchanged.
  if (text.find(';') == std::string::npos) {
    elements.push_back(text);
  } else {
    boost::split(elements, text, boost::is_any_of(";"), boost::token_compress_on);
  }
  return elements;
}

bool HasPorts(PacketRuleProtocol protocol) {
  return protocol == PacketRuleProtocol::TCP || protocol == PacketRuleProtocol::UDP;
}

bool HasIcmpType(PacketRuleProtocol protocol) {
  return protocol == PacketRuleProtocol::ICMP || protocol == PacketRuleProtocol::ICMPv6;
}

const char* ProtocolFragment(PacketRuleProtocol protocol) {
  switch (protocol) {
    case PacketRuleProtocol::Any:
      return "";
    case PacketRuleProtocol::ICMP:
      return " -p icmp";
    case PacketRuleProtocol::IGMP:
      return " -p igmp";
    case PacketRuleProtocol::TCP:
      return " -p tcp";
    case PacketRuleProtocol::UDP:
      return " -p udp";
    case PacketRuleProtocol::GRE:
      return " -p gre";
    case PacketRuleProtocol::ICMPv6:
      return " -p ipv6-icmp";
  }
  return "";
}

// ICMP types and codes are single bytes; written back without leading zeros,
// as the tools print them.
std::string ParseIcmpNumber(const std::string& text) {
  const bool isByte = !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == std::string::npos &&
                      std::stoul(text) <= 255;
  if (!isByte) throw std::invalid_argument("not a number from 0 to 255");
  return std::to_string(std::stoul(text));
}

// The IPv4 match takes type 255 for every message whatever the code, and the
// tools print such a rule back as "any", without the code.
constexpr char kIcmpWildcardType[] = "255";
constexpr char kIcmpWildcardText[] = "any";

std::string IcmpMatchValue(const RuleFields& rule) {
  if (rule.icmpType == kAny) return "";
  std::string value = ParseField(rule, "icmpType", rule.icmpType, ParseIcmpNumber);
  std::string code;
  if (rule.icmpCode != kAny) code = ParseField(rule, "icmpCode", rule.icmpCode, ParseIcmpNumber);
  if (rule.protocol == PacketRuleProtocol::ICMP && value == kIcmpWildcardType) return kIcmpWildcardText;
  if (!code.empty()) value.append("/").append(code);
  return value;
}

std::optional<AddressElement> ParseAddress(const RuleFields& rule, const char* field, const std::string& element) {
  if (element == kAny) return std::nullopt;
  return ParseField(rule, field, element, [](const std::string& text) { return tools::ParseAddressElement(text); });
}

std::optional<PortRange> ParsePorts(const RuleFields& rule, const char* field, const std::string& ports) {
  if (ports == kAny) return std::nullopt;
  return ParseField(rule, field, ports, [](const std::string& text) { return tools::ParsePortRange(text); });
}

// Every field is parsed before the family is looked at, so that a bad value
// fails the compilation in both families alike.
MatchParts ParseMatchParts(const RuleFields& rule, const std::string& remote, const std::string& local) {
  MatchParts parts;
  parts.remote = ParseAddress(rule, "remoteAddress", remote);
  parts.local = ParseAddress(rule, "localAddress", local);
  if (HasPorts(rule.protocol)) {
    parts.remotePorts = ParsePorts(rule, "remotePorts", rule.remotePorts);
    parts.localPorts = ParsePorts(rule, "localPorts", rule.localPorts);
  }
  if (HasIcmpType(rule.protocol)) parts.icmp = IcmpMatchValue(rule);
  return parts;
}

// False for an address or protocol of the other family: the address pair
// then belongs to the other family's rule set. Not an exception: with rules
// of one family only, every rule would throw in the other family's run.
bool MatchesFamily(const RuleFields& rule, const MatchParts& parts, IpVersion version) {
  for (const auto* address : {&parts.remote, &parts.local}) {
    if (*address && tools::VersionOf(**address) != version) return false;
  }
  if (rule.protocol == PacketRuleProtocol::ICMP && version != IpVersion::V4) return false;
  if (rule.protocol == PacketRuleProtocol::ICMPv6 && version != IpVersion::V6) return false;
  return true;
}

// A zero-length prefix matches every address, and the tools leave it out.
void AppendNetwork(std::string& text, const char* option, const std::optional<AddressElement>& address) {
  const auto* network = address ? std::get_if<tools::IpNetwork>(&*address) : nullptr;
  if (network && network->prefixLength != 0) text += option + network->ToString();
}

void AppendRange(std::string& text, const char* option, const std::optional<AddressElement>& address) {
  const auto* range = address ? std::get_if<tools::IpRange>(&*address) : nullptr;
  if (range) text += std::string(" -m iprange") + option + range->ToString();
}

void AppendPort(std::string& text, const char* option, const std::optional<PortRange>& ports) {
  if (ports && !ports->CoversAllPorts()) text += option + ports->ToString();
}

void AppendPorts(std::string& text, PacketRuleProtocol protocol, const std::optional<PortRange>& source,
                 const std::optional<PortRange>& destination) {
  if (!source && !destination) return;
  text += protocol == PacketRuleProtocol::TCP ? " -m tcp" : " -m udp";
  AppendPort(text, " --sport ", source);
  AppendPort(text, " --dport ", destination);
}

void AppendIcmp(std::string& text, PacketRuleProtocol protocol, const std::string& icmp) {
  if (icmp.empty()) return;
  text += protocol == PacketRuleProtocol::ICMP ? " -m icmp --icmp-type " : " -m icmp6 --icmpv6-type ";
  text += icmp;
}

// The fragments in the order in which the tools print a rule back, each
// beginning with a blank.
std::string MatchText(const RuleFields& rule, const MatchParts& parts, Side side) {
  const bool incoming = side == Side::Incoming;
  const auto& source = incoming ? parts.remote : parts.local;
  const auto& destination = incoming ? parts.local : parts.remote;
  // Enough for nearly every rule, so that the text grows only once.
  constexpr std::size_t kUsualLength = 128;
  std::string text;
  text.reserve(kUsualLength);
  AppendNetwork(text, " -s ", source);
  AppendNetwork(text, " -d ", destination);
  text += ProtocolFragment(rule.protocol);
  AppendRange(text, " --src-range ", source);
  AppendRange(text, " --dst-range ", destination);
  AppendPorts(text, rule.protocol, incoming ? parts.remotePorts : parts.localPorts,
              incoming ? parts.localPorts : parts.remotePorts);
  AppendIcmp(text, rule.protocol, parts.icmp);
  return text;
}

// The fixed words are built once and shared by every rule that uses them.
const Tokens& ActionTarget(PacketRuleAction action) {
  static const Tokens drop{"DROP"}, accept{"ACCEPT"};
  return action == PacketRuleAction::Block ? drop : accept;
}

const Tokens& NewConnection() {
  static const Tokens tokens{"-m", "conntrack", "--ctstate", "NEW"};
  return tokens;
}

const Tokens& EstablishedConnection() {
  static const Tokens tokens{"-m", "conntrack", "--ctstate", "ESTABLISHED"};
  return tokens;
}

// `direction`: "ORIGINAL" or "REPLY".
const Tokens& EstablishedConnection(std::string_view direction) {
  static const Tokens original{"-m", "conntrack", "--ctstate", "ESTABLISHED", "--ctdir", "ORIGINAL"};
  static const Tokens reply{"-m", "conntrack", "--ctstate", "ESTABLISHED", "--ctdir", "REPLY"};
  return direction == "ORIGINAL" ? original : reply;
}

bool IsCatchAll(const PacketRule& rule) {
  constexpr std::u16string_view kAnyField = u"Any";
  return rule.protocol == PacketRuleProtocol::Any && rule.remotePorts == kAnyField &&
         rule.localPorts == kAnyField && rule.icmpType == kAnyField && rule.icmpCode == kAnyField &&
         rule.remoteAddress == kAnyField && rule.localAddress == kAnyField;
}

const std::vector<oro::string16_t>* ZoneList(const FirewallSettings& settings, const std::string& name) {
  if (name == "Trusted") return &settings.networkZonesTrusted;
  if (name == "Local") return &settings.networkZonesLocal;
  if (name == "Public") return &settings.networkZonesPublic;
  return nullptr;
}

// Which traffic a catch-all packet rule already decides, so that the
// defaults for it would never be reached.
struct Coverage {
  bool incomingStateful = false;
  bool outgoingStateful = false;
  bool incomingPacket = false;
  bool outgoingPacket = false;
};

// One compilation: the settings for one family, into the two lists.
class IptablesRuleCompiler {
 public:
  IptablesRuleCompiler(const FirewallSettings& settings, types::IPAddressFamily::Type family, bool suitableConntrack,
                       const tracing::Tracer& tracer, const EarlierCompilation* earlier)
      : m_settings(settings),
        m_earlier(earlier && earlier->UsableFor(settings) ? earlier : nullptr),
        m_version(IpVersionOf(family)),
        // An unreliable direction test in the kernel sees every connection
        // from the other end, so the words trade places.
        m_forward(suitableConntrack ? "ORIGINAL" : "REPLY"),
        m_backward(suitableConntrack ? "REPLY" : "ORIGINAL"),
        m_tracer(tracer) {}

  CompiledRules Compile() {
    if (m_earlier) {
      // Mostly the same rules again: room for them, and a little more, at once.
      const auto roomFor = [](std::size_t n) { return n + n / 16 + 8; };
      m_rules.incoming.reserve(roomFor(m_earlier->Rules().incoming.size()));
      m_rules.outgoing.reserve(roomFor(m_earlier->Rules().outgoing.size()));
    }
    m_rules.incoming.push_back(Item({"-i", "lo"}, {"ACCEPT"}));
    m_rules.outgoing.push_back(Item({"-o", "lo"}, {"ACCEPT"}));
    const auto& packetRules = m_settings.packetRules;
    m_rules.incomingStarts.reserve(packetRules.size() + 1);
    m_rules.outgoingStarts.reserve(packetRules.size() + 1);
    for (std::size_t index = 0; index < packetRules.size(); ++index) {
      m_rules.incomingStarts.push_back(m_rules.incoming.size());
      m_rules.outgoingStarts.push_back(m_rules.outgoing.size());
      if (!m_earlier || !m_earlier->TakeOver(index, packetRules[index], m_rules)) {
        CompilePacketRule(ReadRule(index, packetRules[index]));
      }
      if (IsCatchAll(packetRules[index])) MarkCovered(packetRules[index].direction);
    }
    m_rules.incomingStarts.push_back(m_rules.incoming.size());
    m_rules.outgoingStarts.push_back(m_rules.outgoing.size());
    AppendDefaults();
    return std::move(m_rules);
  }

 private:
  void CompilePacketRule(const RuleFields& rule) {
    const std::vector<std::string> locals = SplitAddressList(rule.localAddress);
    const auto* zone = ZoneList(m_settings, rule.remoteAddress);
    if (!zone) {
      for (const auto& remote : SplitAddressList(rule.remoteAddress)) CompilePairs(rule, remote, locals, "");
      return;
    }
    for (const auto& entry : *zone) {
      const std::string remote = tools::ToUtf8(entry);
      if (ZoneEntryVersion(rule.remoteAddress, remote) == m_version) {
        CompilePairs(rule, remote, locals, rule.remoteAddress);
      }
    }
  }

  IpVersion ZoneEntryVersion(const std::string& zoneName, const std::string& entry) const {
    try {
      return tools::VersionOf(tools::ParseAddressElement(entry));
    } catch (const std::exception& e) {
      throw RuleCompileError(RuleCompileError::npos, "", "networkZones" + zoneName, entry, e.what());
    }
  }

  void CompilePairs(const RuleFields& rule, const std::string& remote, const std::vector<std::string>& locals,
                    const std::string& zoneName) {
    for (const auto& local : locals) CompilePair(rule, remote, local, zoneName);
  }

  void CompilePair(const RuleFields& rule, const std::string& remote, const std::string& local,
                   const std::string& zoneName) {
    const PacketRuleDirection direction = rule.direction;
    // Both matches are built before anything is appended, so a family
    // mismatch leaves no half of the pair behind; such a pair is compiled
    // into the other family's rule set.
    Tokens in, out;
    if (direction != PacketRuleDirection::OutgoingPacket) {
      auto match = MakeRule(rule, remote, local, Side::Incoming);
      if (!match) return;
      in = std::move(*match);
    }
    if (direction != PacketRuleDirection::IncomingPacket) {
      auto match = MakeRule(rule, remote, local, Side::Outgoing);
      if (!match) return;
      out = std::move(*match);
    }

    const RuleEmitter emit{rule, zoneName};
    auto& incoming = m_rules.incoming;
    auto& outgoing = m_rules.outgoing;
    switch (direction) {
      case PacketRuleDirection::Incoming:
        emit(incoming, Concat(in, EstablishedConnection(m_forward)), false);
        emit(incoming, Concat(in, NewConnection()), rule.doLogAttempts);
        emit(outgoing, Concat(out, EstablishedConnection(m_backward)), false);
        break;
      case PacketRuleDirection::Outgoing:
        emit(outgoing, Concat(out, EstablishedConnection(m_forward)), false);
        emit(outgoing, Concat(out, NewConnection()), rule.doLogAttempts);
        emit(incoming, Concat(in, EstablishedConnection(m_backward)), false);
        break;
      case PacketRuleDirection::IncomingOutgoing:
        emit(incoming, Concat(in, EstablishedConnection()), false);
        emit(incoming, Concat(in, NewConnection()), rule.doLogAttempts);
        emit(outgoing, Concat(out, EstablishedConnection()), false);
        emit(outgoing, Concat(out, NewConnection()), rule.doLogAttempts);
        break;
      case PacketRuleDirection::IncomingPacket:
        emit(incoming, std::move(in), rule.doLogAttempts);
        break;
      case PacketRuleDirection::OutgoingPacket:
        emit(outgoing, std::move(out), rule.doLogAttempts);
        break;
      case PacketRuleDirection::IncomingOutgoingPacket:
        emit(incoming, std::move(in), rule.doLogAttempts);
        emit(outgoing, std::move(out), rule.doLogAttempts);
        break;
    }
  }

  // Appends a packet rule's rule, preceded by its logging copy when asked.
  struct RuleEmitter {
    const RuleFields& rule;
    const std::string& zoneName;

    void operator()(std::vector<Rule>& list, Tokens match, bool log) const {
      if (log) {
        const auto group = static_cast<int>(settings::MinNflogGroup + rule.index);
        list.push_back(Labelled(match, NflogTarget(settings::EnumToString(rule.action), group)));
      }
      list.push_back(Labelled(std::move(match), ActionTarget(rule.action)));
    }

    Rule Labelled(Tokens match, Tokens target) const {
      Rule item = Item(std::move(match), std::move(target));
      item.ruleName = rule.name;
      item.ruleItem = rule.item;
      item.zoneName = zoneName;
      return item;
    }
  };

  // None when the pair belongs to the other family.
  std::optional<Tokens> MakeRule(const RuleFields& rule, const std::string& remote, const std::string& local,
                                 Side side) const {
    m_tracer.Write(tracing::Detail, "MakeRule", "() ", "remoteAddress=", remote, ", localAddress=", local,
                   ", family=", static_cast<int>(m_version));
    const MatchParts parts = ParseMatchParts(rule, remote, local);
    if (!MatchesFamily(rule, parts, m_version)) return std::nullopt;
    const std::string text = MatchText(rule, parts, side);
    m_tracer.Write(tracing::Detail, "MakeRule", " rule match: ", text);
    return SplitTokens(text);
  }

  void MarkCovered(PacketRuleDirection direction) {
    switch (direction) {
      case PacketRuleDirection::IncomingOutgoing:
        m_covered.incomingStateful = m_covered.outgoingStateful = true;
        break;
      case PacketRuleDirection::Incoming:
        m_covered.incomingStateful = true;
        break;
      case PacketRuleDirection::Outgoing:
        m_covered.outgoingStateful = true;
        break;
      case PacketRuleDirection::IncomingOutgoingPacket:
        m_covered.incomingPacket = m_covered.outgoingPacket = true;
        break;
      case PacketRuleDirection::IncomingPacket:
        m_covered.incomingPacket = true;
        break;
      case PacketRuleDirection::OutgoingPacket:
        m_covered.outgoingPacket = true;
        break;
    }
  }

  void AppendDefaults() {
    auto& incoming = m_rules.incoming;
    auto& outgoing = m_rules.outgoing;
    if (!m_covered.incomingStateful) {
      const Tokens action = ActionTarget(m_settings.defaultIncomingAction);
      incoming.push_back(Item(EstablishedConnection(m_forward), action));
      incoming.push_back(Item(NewConnection(), action));
      outgoing.push_back(Item(EstablishedConnection(m_backward), action));
    }
    // Replies to the host's own connections.
    if (!m_covered.outgoingStateful) incoming.push_back(Item(EstablishedConnection(m_backward), {"ACCEPT"}));
    if (!m_covered.incomingPacket) incoming.push_back(Item({}, ActionTarget(m_settings.defaultIncomingPacketAction)));
    if (!m_covered.outgoingPacket) outgoing.push_back(Item({}, {"ACCEPT"}));
  }

  static Rule Item(Tokens match, Tokens target) {
    Rule rule;
    rule.match = std::move(match);
    rule.target = std::move(target);
    return rule;
  }

  const FirewallSettings& m_settings;
  const EarlierCompilation* const m_earlier;  // none when it cannot be taken over from
  const IpVersion m_version;
  const char* const m_forward;
  const char* const m_backward;
  const tracing::Tracer& m_tracer;
  CompiledRules m_rules;
  Coverage m_covered;
};

}  // namespace

IpVersion IpVersionOf(types::IPAddressFamily::Type family) noexcept {
  return family == types::IPAddressFamily::IPv6 ? IpVersion::V6 : IpVersion::V4;
}

Tokens NflogTarget(const std::string& prefix, int group, unsigned threshold) {
  std::vector<std::string> target{"NFLOG"};
  if (!prefix.empty()) target.insert(target.end(), {"--nflog-prefix", prefix});
  if (group != 0) target.insert(target.end(), {"--nflog-group", std::to_string(group)});
  if (threshold != 0) target.insert(target.end(), {"--nflog-threshold", std::to_string(threshold)});
  return target;
}

CompiledRules CompileRules(const settings::FirewallSettings& settings, types::IPAddressFamily::Type family,
                           bool suitableConntrack, const tracing::Tracer& tracer, const EarlierCompilation* earlier) {
  return IptablesRuleCompiler(settings, family, suitableConntrack, tracer, earlier).Compile();
}

}  // namespace qel::firewall
