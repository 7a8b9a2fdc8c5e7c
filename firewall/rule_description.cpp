#include "firewall/rule_description.h"

#include <netdb.h>

#include <algorithm>
#include <charconv>
#include <ostream>
#include <type_traits>
#include <utility>

#include "firewall/iptables_rule_compiler.h"
#include "oro/exception.h"

namespace qel::firewall {
namespace {

using tracing::Hex;

using types::IPAddressFamily;

constexpr std::array<const char*, kActionKindCount> kKindWords = {
    "raw",      "access",        "queue",            "mark",  "divert",    "nat-action",
    "connmark", "connmark-save", "connmark-restore", "nflog", "isolation", "bypass",
};

[[noreturn]] void ThrowUnexpectedIndex() { throw oro::Exception(oro::errUnexpected, "Unexpected index"); }

std::string Decimal(std::uint32_t value) { return std::to_string(value); }

// The listing leaves out a mask of all ones, so it is not written either.
std::string MaskedText(const MarkMatch& mark) {
  const std::uint32_t mask = mark.mask.value_or(mark.value);
  return mask == 0xffffffff ? Hex(mark.value) : Hex(mark.value) + "/" + Hex(mask);
}

const char* ConnStateName(ConnState state) {
  switch (state) {
    case ConnState::New: return "NEW";
    case ConnState::Established: return "ESTABLISHED";
    case ConnState::NewEstablished: return "NEW,ESTABLISHED";
  }
  return "";
}

const char* ConnDirectionName(ConnDirection direction) {
  switch (direction) {
    case ConnDirection::Original: return "ORIGINAL";
    case ConnDirection::Reply: return "REPLY";
  }
  return "";
}

const char* AddressTypeName(AddressType type) {
  switch (type) {
    case AddressType::Local: return "LOCAL";
  }
  return "";
}

// The listing prints a protocol by the name it knows for it: its own few
// names first, then the first name of the number in the system's protocol
// database, else the number. Written the same way, the module's rules are
// recognised when they come back.
std::string ProtocolName(std::uint8_t protocol) {
  switch (protocol) {
    case 1: return "icmp";
    case 2: return "igmp";
    case 6: return "tcp";
    case 17: return "udp";
    case 47: return "gre";
    case 50: return "esp";
    case 51: return "ah";
    case 58: return "ipv6-icmp";
    case 132: return "sctp";
    case 136: return "udplite";
    default: break;
  }
  protoent entry{};
  protoent* found = nullptr;
  char buffer[1024];
  if (getprotobynumber_r(protocol, &entry, buffer, sizeof buffer, &found) == 0 && found && found->p_name) {
    return found->p_name;
  }
  return Decimal(protocol);
}

// ICMP has no meaning in IPv6, nor ICMPv6 in IPv4; and the IPv6 tool takes
// the numbers of extension headers but never matches them (the header
// chain is walked past them). Such a description yields no rule there.
bool ProtocolExistsIn(const std::optional<std::uint8_t>& protocol, IPAddressFamily::Type family) {
  if (!protocol) return true;
  if (family == IPAddressFamily::IPv4) return *protocol != 58;
  switch (*protocol) {
    case 1:   // ICMP
    case 43:  // routing header
    case 44:  // fragment header
    case 51:  // authentication header
    case 60:  // destination options
      return false;
    default:
      return true;
  }
}

constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;

// In the order iptables lists them; the two ECN bits have no iptables name
// and are left out.
constexpr std::pair<std::uint8_t, const char*> kTcpFlagNames[] = {
    {0x01, "FIN"}, {0x02, "SYN"}, {0x04, "RST"}, {0x08, "PSH"}, {0x10, "ACK"}, {0x20, "URG"},
};

std::string TcpFlagSetText(std::uint8_t flags) {
  std::string text;
  for (const auto& [bit, name] : kTcpFlagNames) {
    if ((flags & bit) == 0) continue;
    if (!text.empty()) text += ',';
    text += name;
  }
  return text.empty() ? "NONE" : text;
}

// The kernel keeps only the network part of an address, and the listing
// prints it that way: 10.1.2.3/8 comes back as 10.0.0.0/8. Writing it so
// keeps the module's rules recognisable.
tools::IpNetwork NetworkPart(const tools::IpNetwork& network) {
  return {tools::MaskHostBits(network.address, network.prefixLength), network.prefixLength};
}

// "10.0.0.0/8", "fe80::/10".
std::string NetworkText(const tools::IpNetwork& network) { return NetworkPart(network).ToString(); }

// --- Printed form ------------------------------------------------------------

std::string OptionalNetworkText(const std::optional<tools::IpNetwork>& network) {
  return network ? NetworkText(*network) : "any";
}

std::string OptionalProtocolText(const std::optional<std::uint8_t>& protocol) {
  return protocol ? Decimal(*protocol) : "any";
}

// " mark 0x10/0xff", " ctmark 0x1 ctmask 0xff"; the mask only when given
std::string MarkText(const char* key, const std::optional<MarkMatch>& mark, const char* maskSeparator) {
  if (!mark) return "";
  std::string text = key + Hex(mark->value);
  if (mark->mask) text += maskSeparator + Hex(*mark->mask);
  return text;
}

std::string AddrtypeText(const char* key, const std::optional<AddrtypeMatch>& addrtype) {
  if (!addrtype) return "";
  return key + std::string(addrtype->negated ? "! " : "") + AddressTypeName(addrtype->type);
}

std::string ConditionsText(const RuleDescription& d) {
  std::string text = " proto " + OptionalProtocolText(d.protocol) + " remote " + OptionalNetworkText(d.remote) +
                     " local " + OptionalNetworkText(d.local);
  if (d.iface) text += (d.iface->negated ? " ! iface " : " iface ") + d.iface->name;
  if (d.remotePorts) text += " remotePorts " + d.remotePorts->ToString();
  if (d.localPorts) text += " localPorts " + d.localPorts->ToString();
  if (d.classid) text += " classid " + Hex(*d.classid);
  text += MarkText(" mark ", d.mark, "/");
  text += MarkText(" ! mark ", d.excludeMark, "/");
  if (d.excludeRemoteEndpoint) text += " excludeRemoteEndpoint " + *d.excludeRemoteEndpoint;
  if (d.excludeRemote) text += " excludeRemote " + *d.excludeRemote;
  if (d.ctstate) text += std::string(" ctstate ") + ConnStateName(*d.ctstate);
  if (d.ctdir) text += std::string(" ctdir ") + ConnDirectionName(*d.ctdir);
  text += AddrtypeText(" remoteAddrtype ", d.remoteAddrtype);
  text += AddrtypeText(" localAddrtype ", d.localAddrtype);
  text += MarkText(" ctmark ", d.ctmark, " ctmask ");
  text += MarkText(" ! ctmark ", d.excludeCtmark, " ctmask ");
  if (d.tcpFlags) {
    text += (d.tcpFlags->negated ? " ! tcp-flags " : " tcp-flags ") + Hex(d.tcpFlags->mask) + "/" +
            Hex(d.tcpFlags->comparison);
  }
  return text;
}

// The fields of each kind of action, after the conditions.
std::string FieldsText(const RawAction& a) {
  std::string text = " target " + a.target + " --";
  for (const auto argument : a.arguments) text.append(" ").append(argument);
  return text;
}
std::string FieldsText(const AccessAction& a) { return " action " + Decimal(a.action); }
std::string FieldsText(const QueueAction& a) { return " queue " + Decimal(a.queue); }
std::string FieldsText(const MarkAction& a) { return " assignMark " + Hex(a.assignMark); }
std::string FieldsText(const DivertAction& a) {
  std::string text = " divertToPort " + Decimal(a.divertToPort);
  if (a.assignMark) text += " assignMark " + Hex(*a.assignMark);
  return text;
}
std::string FieldsText(const NatAction& a) { return " action " + Decimal(a.action); }
std::string FieldsText(const ConnmarkAction& a) {
  return " assignCtmark " + Hex(a.assignCtmark) + " assignCtmask " + Hex(a.assignCtmask);
}
std::string FieldsText(const ConnmarkSaveAction& a) { return " nfMask " + Hex(a.nfMask) + " ctMask " + Hex(a.ctMask); }
std::string FieldsText(const ConnmarkRestoreAction& a) {
  return " nfMask " + Hex(a.nfMask) + " ctMask " + Hex(a.ctMask);
}
std::string FieldsText(const NflogAction& a) {
  std::string text = " nflogGroup " + Decimal(a.nflogGroup);
  if (a.nflogPrefix) text += " nflogPrefix " + *a.nflogPrefix;
  return text + " nflogThreshold " + Decimal(a.nflogThreshold);
}
std::string FieldsText(const IsolationAction& a) { return " action " + Decimal(a.action); }
std::string FieldsText(const BypassAction&) { return ""; }

std::string ActionFieldsText(const RuleAction& action) {
  return std::visit([](const auto& a) { return FieldsText(a); }, action);
}

// --- Match tokens ------------------------------------------------------------

// Also true for any address with prefix 0: that matches everything, and the
// listing leaves it out.
bool IsAllZero(const tools::IpNetwork& network) {
  const tools::IpAddress address = NetworkPart(network).address;
  return std::all_of(address.bytes.begin(), address.bytes.begin() + address.Size(),
                     [](std::uint8_t b) { return b == 0; });
}

bool BelongsTo(const std::optional<tools::IpNetwork>& network, IPAddressFamily::Type family) {
  return !network || network->address.version == IpVersionOf(family);
}

// -s 10.0.0.0/8
std::string NetworkFragment(const char* option, const std::optional<tools::IpNetwork>& network) {
  if (!network || IsAllZero(*network)) return "";
  return option + NetworkText(*network);
}

// ! -i eth0
std::string InterfaceFragment(const std::optional<InterfaceMatch>& iface, Side side) {
  if (!iface) return "";
  const char* option = side == Side::Incoming ? " -i " : " -o ";
  return (iface->negated ? " !" : "") + (option + iface->name);
}

// -p tcp
std::string ProtocolFragment(const std::optional<std::uint8_t>& protocol) {
  if (!protocol || *protocol == 0) return "";
  return " -p " + ProtocolName(*protocol);
}

// --sport 1000:2000; a range of every port restricts nothing, and the
// listing leaves it out.
std::string PortFragment(const char* option, const std::optional<tools::PortRange>& ports) {
  return ports && !ports->CoversAllPorts() ? option + ports->ToString() : "";
}

// ! --tcp-flags FIN,SYN,RST,ACK SYN
std::string TcpFlagsFragment(const std::optional<TcpFlagsMatch>& flags) {
  if (!flags) return "";
  return (flags->negated ? " !" : "") + (" --tcp-flags " + TcpFlagSetText(flags->mask)) + " " +
         TcpFlagSetText(flags->comparison);
}

// -m tcp --sport 1000:2000 --dport 22 --tcp-flags SYN,ACK SYN
// The module is named once, and only when one of its options is used.
std::string TransportFragment(const RuleDescription& d, Side side) {
  if (d.protocol != kTcp && d.protocol != kUdp) return "";
  const bool incoming = side == Side::Incoming;
  const auto& sourcePorts = incoming ? d.remotePorts : d.localPorts;
  const auto& destinationPorts = incoming ? d.localPorts : d.remotePorts;
  std::string options = PortFragment(" --sport ", sourcePorts) + PortFragment(" --dport ", destinationPorts);
  if (d.protocol == kTcp) options += TcpFlagsFragment(d.tcpFlags);
  if (options.empty()) return "";
  return (d.protocol == kTcp ? " -m tcp" : " -m udp") + options;
}

// -m cgroup --cgroup 1048577
std::string CgroupFragment(const std::optional<std::uint32_t>& classid) {
  return classid ? " -m cgroup --cgroup " + Decimal(*classid) : "";
}

// -m mark --mark 0x10/0x10, -m connmark ! --mark 0x1/0xff and the like
std::string MarkFragment(const char* prefix, const std::optional<MarkMatch>& mark) {
  return mark ? prefix + MaskedText(*mark) : "";
}

// -m set ! --match-set isolation_excl src,src
std::string SetExclusionFragment(const std::optional<std::string>& setName, const char* flags) {
  return setName ? " -m set ! --match-set " + *setName + " " + flags : "";
}

// -m conntrack --ctstate NEW --ctdir ORIGINAL
std::string ConntrackFragment(const std::optional<ConnState>& state, const std::optional<ConnDirection>& direction) {
  if (!state && !direction) return "";
  std::string text = " -m conntrack";
  if (state) text += std::string(" --ctstate ") + ConnStateName(*state);
  if (direction) text += std::string(" --ctdir ") + ConnDirectionName(*direction);
  return text;
}

// ! --src-type LOCAL
std::string AddrtypeOption(const char* option, const std::optional<AddrtypeMatch>& addrtype) {
  if (!addrtype) return "";
  return (addrtype->negated ? " !" : "") + (option + std::string(AddressTypeName(addrtype->type)));
}

// -m addrtype --dst-type LOCAL ! --src-type LOCAL (incoming side)
std::string AddrtypeFragment(const RuleDescription& d, Side side) {
  if (!d.localAddrtype && !d.remoteAddrtype) return "";
  const bool incoming = side == Side::Incoming;
  return " -m addrtype" + AddrtypeOption(incoming ? " --dst-type " : " --src-type ", d.localAddrtype) +
         AddrtypeOption(incoming ? " --src-type " : " --dst-type ", d.remoteAddrtype);
}

std::string MatchText(const RuleDescription& d, Side side) {
  const bool incoming = side == Side::Incoming;
  return NetworkFragment(" -s ", incoming ? d.remote : d.local) +
         NetworkFragment(" -d ", incoming ? d.local : d.remote) + InterfaceFragment(d.iface, side) +
         ProtocolFragment(d.protocol) + TransportFragment(d, side) + CgroupFragment(d.classid) +
         MarkFragment(" -m mark --mark ", d.mark) + MarkFragment(" -m mark ! --mark ", d.excludeMark) +
         SetExclusionFragment(d.excludeRemoteEndpoint, incoming ? "src,src" : "dst,dst") +
         SetExclusionFragment(d.excludeRemote, incoming ? "src" : "dst") + ConntrackFragment(d.ctstate, d.ctdir) +
         AddrtypeFragment(d, side) + MarkFragment(" -m connmark --mark ", d.ctmark) +
         MarkFragment(" -m connmark ! --mark ", d.excludeCtmark);
}

// --- Target tokens -----------------------------------------------------------

Tokens VerdictTarget(std::uint32_t action) {
  switch (action) {
    case 1: return {"DROP"};
    case 2: return {"RETURN"};
    default: return {"ACCEPT"};
  }
}

// The target tokens of each kind of action.
// -j <target> <arguments>
Tokens TargetTokens(const RawAction& a) { return Concat(SplitTokens(a.target), a.arguments); }
Tokens TargetTokens(const AccessAction& a) { return VerdictTarget(a.action); }
// -j NFQUEUE --queue-num 5
Tokens TargetTokens(const QueueAction& a) { return {"NFQUEUE", "--queue-num", Decimal(a.queue)}; }
// -j MARK --set-xmark 0x10/0x10
Tokens TargetTokens(const MarkAction& a) {
  return {"MARK", "--set-xmark", Hex(a.assignMark) + "/" + Hex(a.assignMark)};
}
// -j TPROXY --on-port 8080 --on-ip 127.0.0.1 --tproxy-mark 0x2/0x2
// IPv6 sockets bound to the IPv4 loopback see it as a mapped address.
Tokens TargetTokens(const DivertAction& a, IPAddressFamily::Type family) {
  const std::uint32_t mark = a.assignMark.value_or(0);
  return {"TPROXY",
          "--on-port",
          Decimal(a.divertToPort),
          "--on-ip",
          family == IPAddressFamily::IPv4 ? "127.0.0.1" : "::ffff:127.0.0.1",
          "--tproxy-mark",
          Hex(mark) + "/" + Hex(mark)};
}
// -j MASQUERADE
Tokens TargetTokens(const NatAction& a) { return {a.action != 0 ? "MASQUERADE" : "ACCEPT"}; }
// -j CONNMARK --set-xmark 0x1/0xff
Tokens TargetTokens(const ConnmarkAction& a) {
  return {"CONNMARK", "--set-xmark", Hex(a.assignCtmark) + "/" + Hex(a.assignCtmask)};
}
// -j CONNMARK --save-mark --nfmask 0xff --ctmask 0xff
Tokens TargetTokens(const ConnmarkSaveAction& a) {
  return {"CONNMARK", "--save-mark", "--nfmask", Hex(a.nfMask), "--ctmask", Hex(a.ctMask)};
}
// -j CONNMARK --restore-mark --nfmask 0xff --ctmask 0xff
Tokens TargetTokens(const ConnmarkRestoreAction& a) {
  return {"CONNMARK", "--restore-mark", "--nfmask", Hex(a.nfMask), "--ctmask", Hex(a.ctMask)};
}
Tokens TargetTokens(const NflogAction& a) {
  return NflogTarget(a.nflogPrefix.value_or(""), a.nflogGroup, a.nflogThreshold);
}
Tokens TargetTokens(const IsolationAction& a) { return VerdictTarget(a.action); }
Tokens TargetTokens(const BypassAction&) { return {"RETURN"}; }

// Only a divert depends on the family.
Tokens ActionTarget(const RuleAction& action, IPAddressFamily::Type family) {
  return std::visit(
      [family](const auto& a) {
        if constexpr (std::is_same_v<std::decay_t<decltype(a)>, DivertAction>) {
          return TargetTokens(a, family);
        } else {
          return TargetTokens(a);
        }
      },
      action);
}

template <std::size_t... Index>
RuleAction MakeActionOf(std::size_t kindIndex, std::index_sequence<Index...>) {
  RuleAction action;
  const bool made = ((kindIndex == Index && (action.emplace<Index>(), true)) || ...);
  if (!made) ThrowUnexpectedIndex();
  return action;
}

}  // namespace

const char* KindWord(std::size_t kindIndex) {
  if (kindIndex >= kKindWords.size()) ThrowUnexpectedIndex();
  return kKindWords[kindIndex];
}

RuleAction MakeAction(std::size_t kindIndex) {
  return MakeActionOf(kindIndex, std::make_index_sequence<kActionKindCount>());
}

namespace {

constexpr std::size_t kMaxInterfaceName = 15;
constexpr std::size_t kMaxNflogPrefix = 63;
constexpr std::uint8_t kNamedTcpFlags = 0x3f;

bool HasBlankOrQuote(const std::string& text) {
  return text.empty() || text.find_first_of(" \t\n\"'") != std::string::npos;
}

bool IsTcpOrUdp(const RuleDescription& d) { return d.protocol == std::uint8_t{6} || d.protocol == std::uint8_t{17}; }

std::optional<std::string> PortProblem(const RuleDescription& d) {
  for (const auto* ports : {&d.remotePorts, &d.localPorts}) {
    if (*ports && (*ports)->first > (*ports)->last) return "a port range ends before it starts";
  }
  if ((d.remotePorts || d.localPorts) && !IsTcpOrUdp(d)) return "ports need protocol 6 (TCP) or 17 (UDP)";
  return std::nullopt;
}

// An empty mask matches every packet, and the tools either drop the
// condition or, negated, turn it into one that matches every packet too;
// the two bits above URG have no name in the tools.
std::optional<std::string> TcpFlagsProblem(const RuleDescription& d) {
  if (!d.tcpFlags) return std::nullopt;
  if (d.protocol != std::uint8_t{6}) return "tcp-flags need protocol 6 (TCP)";
  if (d.tcpFlags->mask == 0) return "tcp-flags need a mask with at least one flag";
  if (((d.tcpFlags->mask | d.tcpFlags->comparison) & ~kNamedTcpFlags) != 0) {
    return "tcp-flags may only use FIN, SYN, RST, PSH, ACK and URG (0x3f)";
  }
  return std::nullopt;
}

// Names go into the script unquoted: a blank would split them. The kernel
// keeps 15 characters of an interface name and 63 of a prefix; the tools
// refuse a longer name and may cut a longer prefix short, after which the
// rule would never be recognised.
std::optional<std::string> NameProblem(const RuleDescription& d) {
  if (d.iface && HasBlankOrQuote(d.iface->name)) return "the interface name is empty or has a blank or quote";
  if (d.iface && d.iface->name.size() > kMaxInterfaceName) return "the interface name is longer than 15 characters";
  for (const auto* set : {&d.excludeRemoteEndpoint, &d.excludeRemote}) {
    if (*set && HasBlankOrQuote(**set)) return "an ip-set name is empty or has a blank or quote";
  }
  if (const auto* nflog = std::get_if<NflogAction>(&d.action); nflog && nflog->nflogPrefix) {
    if (HasBlankOrQuote(*nflog->nflogPrefix)) return "the nflog prefix is empty or has a blank or quote";
    if (nflog->nflogPrefix->size() > kMaxNflogPrefix) return "the nflog prefix is longer than 63 characters";
  }
  if (const auto* raw = std::get_if<RawAction>(&d.action)) {
    if (HasBlankOrQuote(raw->target)) return "the raw target is empty or has a blank or quote";
  }
  return std::nullopt;
}

bool IsMangleOrNatKind(const RuleAction& action) {
  return std::holds_alternative<MarkAction>(action) || std::holds_alternative<DivertAction>(action) ||
         std::holds_alternative<ConnmarkAction>(action) || std::holds_alternative<ConnmarkSaveAction>(action) ||
         std::holds_alternative<ConnmarkRestoreAction>(action) || std::holds_alternative<NatAction>(action);
}

// What the kernel refuses where the kind is placed: a divert works only
// before routing, on TCP or UDP, and so on incoming traffic; masquerading
// only after routing, so on outgoing traffic; the control group of a packet
// is not known before routing, where the incoming mangle and nat rules
// stand.
std::optional<std::string> PlacementProblem(const RuleDescription& d) {
  const bool incoming = d.side == Side::Incoming;
  if (std::holds_alternative<DivertAction>(d.action)) {
    if (!incoming) return "divert works on incoming traffic only";
    if (!IsTcpOrUdp(d)) return "divert needs protocol 6 (TCP) or 17 (UDP)";
  }
  if (const auto* nat = std::get_if<NatAction>(&d.action); nat && nat->action != 0 && incoming) {
    return "nat-action masquerade works on outgoing traffic only";
  }
  if (d.classid && incoming && IsMangleOrNatKind(d.action)) {
    return "classid cannot match incoming traffic in mark, divert, connmark and nat kinds";
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> DescriptionProblem(const RuleDescription& description) {
  if (auto problem = PortProblem(description)) return problem;
  if (auto problem = TcpFlagsProblem(description)) return problem;
  if (auto problem = NameProblem(description)) return problem;
  return PlacementProblem(description);
}

std::string DescriptionText(const RuleDescription& description) {
  // Incoming is the common case and goes unmentioned.
  const char* side = description.side == Side::Outgoing ? " side outgoing" : "";
  return KindWord(description.action.index()) + std::string(" ") + ConditionsText(description) +
         ActionFieldsText(description.action) + side;
}

std::ostream& operator<<(std::ostream& out, const RuleDescription& description) {
  return out << DescriptionText(description);
}

std::optional<Rule> TranslateDescription(const RuleDescription& description, IPAddressFamily::Type family,
                                         Side side) {
  if (!BelongsTo(description.remote, family) || !BelongsTo(description.local, family)) return std::nullopt;
  if (!ProtocolExistsIn(description.protocol, family)) return std::nullopt;
  Rule rule;
  rule.match = SplitTokens(MatchText(description, side));
  rule.target = ActionTarget(description.action, family);
  return rule;
}

std::optional<Rule> TranslateEstablished(const RuleDescription& description, IPAddressFamily::Type family,
                                         Side side, std::optional<ConnDirection> direction) {
  auto rule = TranslateDescription(description, family, side);
  if (rule) {
    rule->match = Concat(rule->match, SplitTokens(ConntrackFragment(ConnState::Established, direction)));
  }
  return rule;
}

}  // namespace qel::firewall
