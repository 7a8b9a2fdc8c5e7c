// Rules that other components ask for at run time (the agent's ports, the
// isolation exclusions) are handed over as descriptions: match conditions
// plus one of twelve kinds of action. The firewall service turns them into
// rule tokens per address family and side; nobody else writes iptables text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "firewall/firewall_settings.h"
#include "firewall/rule_model.h"
#include "qel_common/ip_address.h"
#include "qel_common/port_range.h"

namespace qel::firewall {

// The side of the host a rule is placed on. Remote and local conditions turn
// into source or destination depending on it.
enum class Side { Incoming, Outgoing };

struct InterfaceMatch {
  std::string name;
  bool negated = false;

  bool operator==(const InterfaceMatch&) const = default;
};

// A packet or connection mark; without a mask the value is its own mask.
struct MarkMatch {
  std::uint32_t value = 0;
  std::optional<std::uint32_t> mask;

  bool operator==(const MarkMatch&) const = default;
};

enum class ConnState : std::uint8_t { New = 1, Established = 2, NewEstablished = 3 };
enum class ConnDirection : std::uint8_t { Original = 1, Reply = 2 };
enum class AddressType : std::uint8_t { Local = 1 };

struct AddrtypeMatch {
  AddressType type = AddressType::Local;
  bool negated = false;

  bool operator==(const AddrtypeMatch&) const = default;
};

// Bits of the TCP header's flag byte: FIN 0x01, SYN 0x02, RST 0x04, PSH 0x08,
// ACK 0x10, URG 0x20. The rule matches when (flags & mask) == comparison.
struct TcpFlagsMatch {
  std::uint8_t mask = 0;
  std::uint8_t comparison = 0;
  bool negated = false;

  bool operator==(const TcpFlagsMatch&) const = default;
};

// The kinds of action, in the order of their kind index.
struct RawAction {  // 0 "raw"
  std::string target;
  Tokens arguments;
  bool operator==(const RawAction&) const = default;
};
struct AccessAction {  // 1 "access"
  std::uint32_t action = 0;  // 1 drops, 2 returns, anything else accepts
  bool operator==(const AccessAction&) const = default;
};
struct QueueAction {  // 2 "queue"
  std::uint16_t queue = 0;
  bool operator==(const QueueAction&) const = default;
};
struct MarkAction {  // 3 "mark"
  std::uint32_t assignMark = 0;
  bool operator==(const MarkAction&) const = default;
};
struct DivertAction {  // 4 "divert"
  std::uint16_t divertToPort = 0;
  std::optional<std::uint32_t> assignMark;
  bool operator==(const DivertAction&) const = default;
};
struct NatAction {  // 5 "nat-action"
  std::uint32_t action = 0;  // non-zero masquerades, zero accepts
  bool operator==(const NatAction&) const = default;
};
struct ConnmarkAction {  // 6 "connmark"
  std::uint32_t assignCtmark = 0;
  std::uint32_t assignCtmask = 0;
  bool operator==(const ConnmarkAction&) const = default;
};
struct ConnmarkSaveAction {  // 7 "connmark-save"
  std::uint32_t nfMask = 0;
  std::uint32_t ctMask = 0;
  bool operator==(const ConnmarkSaveAction&) const = default;
};
struct ConnmarkRestoreAction {  // 8 "connmark-restore"
  std::uint32_t nfMask = 0;
  std::uint32_t ctMask = 0;
  bool operator==(const ConnmarkRestoreAction&) const = default;
};
struct NflogAction {  // 9 "nflog"
  std::uint16_t nflogGroup = 0;
  std::optional<std::string> nflogPrefix;
  std::uint16_t nflogThreshold = 0;  // 0: the kernel's default
  bool operator==(const NflogAction&) const = default;
};
struct IsolationAction {  // 10 "isolation"
  std::uint32_t action = 0;  // as AccessAction
  bool operator==(const IsolationAction&) const = default;
};
struct BypassAction {  // 11 "bypass"
  bool operator==(const BypassAction&) const = default;
};

using RuleAction = std::variant<RawAction, AccessAction, QueueAction, MarkAction, DivertAction, NatAction,
                                ConnmarkAction, ConnmarkSaveAction, ConnmarkRestoreAction, NflogAction,
                                IsolationAction, BypassAction>;

inline constexpr std::size_t kActionKindCount = std::variant_size_v<RuleAction>;

// Every condition is optional; an absent one does not restrict the rule.
struct RuleDescription {
  // Which traffic the rule is for; it decides where the firewall places it
  // and which way round its addresses and ports are written.
  Side side = Side::Incoming;
  std::optional<std::uint8_t> protocol;  // IP protocol number, 0 = any
  // Written with their host bits cleared, as the listing prints them back.
  std::optional<tools::IpNetwork> remote;
  std::optional<tools::IpNetwork> local;
  std::optional<InterfaceMatch> iface;
  std::optional<tools::PortRange> remotePorts;  // TCP and UDP only
  std::optional<tools::PortRange> localPorts;   // TCP and UDP only
  std::optional<std::uint32_t> classid;
  std::optional<MarkMatch> mark;
  std::optional<MarkMatch> excludeMark;
  std::optional<std::string> excludeRemoteEndpoint;  // ip-set of (address, port) pairs
  std::optional<std::string> excludeRemote;          // ip-set of addresses
  std::optional<ConnState> ctstate;
  std::optional<ConnDirection> ctdir;
  std::optional<AddrtypeMatch> remoteAddrtype;
  std::optional<AddrtypeMatch> localAddrtype;
  std::optional<MarkMatch> ctmark;
  std::optional<MarkMatch> excludeCtmark;
  std::optional<TcpFlagsMatch> tcpFlags;  // TCP only
  RuleAction action;

  bool operator==(const RuleDescription&) const = default;
};

using RuleDescriptions = std::vector<RuleDescription>;

// A dynamic rule with the tag of the client that asked for it.
struct TaggedRule {
  RuleDescription description;
  std::string tag;

  bool operator==(const TaggedRule&) const = default;
};

// The kind word of a kind index ("raw", "access", ... "bypass"). An index
// outside the kinds throws oro::Exception(errUnexpected, "Unexpected index").
const char* KindWord(std::size_t kindIndex);

// A default action of the given kind, for decoding a kind index; throws like
// KindWord.
RuleAction MakeAction(std::size_t kindIndex);

// Why the kernel would refuse the description, or could not give it back
// as written; nullopt when it is fine. Checked before a rule is accepted,
// so that one bad rule never blocks the others.
std::optional<std::string> DescriptionProblem(const RuleDescription& description);

// The one-line trace form, e.g.
//   "access  proto 6 remote 10.0.0.0/8 local any localPorts 22 action 0"
// Absent protocol and networks read "any".
std::string DescriptionText(const RuleDescription& description);
std::ostream& operator<<(std::ostream& out, const RuleDescription& description);

// The match and target tokens of the description for one family and side,
// written as the listing prints them back; nullopt when its remote or local
// network belongs to the other family, or its protocol never matches in
// this family (ICMP and IPv6 extension headers in IPv6, ICMPv6 in IPv4).
// Tag and bookkeeping fields of the rule stay empty.
std::optional<Rule> TranslateDescription(const RuleDescription& description, types::IPAddressFamily::Type family,
                                         Side side);

// As TranslateDescription, for the traffic of connections already
// established: the match gains "-m conntrack --ctstate ESTABLISHED" and, when
// a direction is given, "--ctdir ORIGINAL" or "--ctdir REPLY".
std::optional<Rule> TranslateEstablished(const RuleDescription& description, types::IPAddressFamily::Type family,
                                         Side side, std::optional<ConnDirection> direction);

}  // namespace qel::firewall
