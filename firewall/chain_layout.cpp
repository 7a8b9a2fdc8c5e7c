#include "firewall/chain_layout.h"

#include <algorithm>
#include <array>
#include <unordered_set>
#include <variant>

#include "firewall/rule_key.h"

namespace qel::firewall {
namespace {

using types::IPAddressFamily;

constexpr std::string_view kPreIsolation = "vorn_pre_isolation";
constexpr std::string_view kPostIsolation = "vorn_post_isolation";
constexpr std::string_view kModulePrerouting = "vorn_prerouting";
constexpr std::string_view kModuleInput = "vorn_input";
constexpr std::string_view kModuleForward = "vorn_forward";
constexpr std::string_view kModuleOutput = "vorn_output";
constexpr std::string_view kModulePostrouting = "vorn_postrouting";
constexpr std::string_view kBypass = "vorn_bypass";

constexpr std::array<std::string_view, 8> kModuleChains = {kPreIsolation,      kPostIsolation, kModulePrerouting,
                                                           kModuleInput,       kModuleForward, kModuleOutput,
                                                           kModulePostrouting, kBypass};

// Which table and which part of a chain a dynamic rule goes to, by kind.
enum class Placement { Bypass, Isolation, Filter, Mangle, Nat };

Placement PlacementOf(const RuleAction& action) {
  return std::visit(
      [](const auto& a) {
        using A = std::decay_t<decltype(a)>;
        if constexpr (std::is_same_v<A, BypassAction>) return Placement::Bypass;
        if constexpr (std::is_same_v<A, IsolationAction>) return Placement::Isolation;
        if constexpr (std::is_same_v<A, MarkAction> || std::is_same_v<A, DivertAction> ||
                      std::is_same_v<A, ConnmarkAction> || std::is_same_v<A, ConnmarkSaveAction> ||
                      std::is_same_v<A, ConnmarkRestoreAction>) {
          return Placement::Mangle;
        }
        if constexpr (std::is_same_v<A, NatAction>) return Placement::Nat;
        return Placement::Filter;
      },
      action);
}

Rule Jump(std::string_view chain) {
  Rule rule;
  rule.target = {std::string(chain)};
  return rule;
}

Rule Plain(Tokens match, Tokens target) {
  Rule rule;
  rule.match = std::move(match);
  rule.target = std::move(target);
  return rule;
}

Side OtherSide(Side side) { return side == Side::Incoming ? Side::Outgoing : Side::Incoming; }

bool IsAccept(std::uint32_t verdict) { return verdict != 1 && verdict != 2; }

// Kinds that let a connection through on one side, whose replies would
// otherwise meet the administrator's rules on the other side (a blocking
// default drops them there, as does isolation): they stand there too, for
// the established connection's replies only. A queue's program sees the
// replies as well, so that its verdict holds for the whole connection.
bool NeedsReplyCompanion(const RuleAction& action) {
  if (const auto* access = std::get_if<AccessAction>(&action)) return IsAccept(access->action);
  if (const auto* isolation = std::get_if<IsolationAction>(&action)) return IsAccept(isolation->action);
  return std::holds_alternative<QueueAction>(action) || std::holds_alternative<BypassAction>(action);
}

// The companion matches the replies of the connections the description lets
// through. Conditions on single packets (their state, direction, mark and
// TCP flags) say which packets open or carry the connection, not which
// replies it gets, so they are left out; the connection state and the
// reply direction take their place.
std::optional<Rule> ReplyCompanion(RuleDescription description, IPAddressFamily::Type family, bool suitableConntrack) {
  description.ctstate.reset();
  description.ctdir.reset();
  description.mark.reset();
  description.excludeMark.reset();
  description.tcpFlags.reset();
  // A kernel that cannot tell directions apart sees them the other way round.
  const ConnDirection reply = suitableConntrack ? ConnDirection::Reply : ConnDirection::Original;
  return TranslateEstablished(description, family, OtherSide(description.side), reply);
}

// The rules of one of the module's chains. A rule equal to one already in
// the chain is left out: clients with different tags that want the same
// rule get it once, and it stays while any of them holds it.
class ChainRuleList {
 public:
  void Add(Rule rule) {
    if (m_keys.insert(RuleKey(rule)).second) m_rules.push_back(std::move(rule));
  }
  // Rules that are not the dynamic rules' own, such as the administrator's,
  // which may equal a dynamic rule and still stand in their own place.
  void AddUnchecked(Rule rule) { m_rules.push_back(std::move(rule)); }
  bool Empty() const { return m_rules.empty(); }
  std::vector<Rule> Take() { return std::move(m_rules); }

 private:
  std::vector<Rule> m_rules;
  std::unordered_set<std::string> m_keys;
};

struct DynamicContext {
  const std::vector<TaggedRule>& dynamic;
  IPAddressFamily::Type family;
  bool suitableConntrack;
};

// Adds the dynamic rules placed at `where` on `side`, and the reply
// companions of those placed there on the other side, in the order the
// rules were added.
void AddDynamicRules(ChainRuleList& to, const DynamicContext& context, Placement where, Side side) {
  for (const auto& [description, tag] : context.dynamic) {
    if (PlacementOf(description.action) != where) continue;
    std::optional<Rule> rule;
    if (description.side == side) {
      rule = TranslateDescription(description, context.family, side);
    } else if (NeedsReplyCompanion(description.action)) {
      rule = ReplyCompanion(description, context.family, context.suitableConntrack);
    }
    if (!rule) continue;
    rule->tag = tag;
    to.Add(std::move(*rule));
  }
}

bool HasPlacement(const std::vector<TaggedRule>& dynamic, Placement where) {
  return std::any_of(dynamic.begin(), dynamic.end(),
                     [where](const TaggedRule& rule) { return PlacementOf(rule.description.action) == where; });
}

// A chain with rules, reached from `builtin` by one jump at its head.
void AddReached(State& state, std::string_view builtin, std::string_view chain, ChainRuleList rules) {
  if (rules.Empty()) return;
  state.chainList.push_back(Chain{std::string(builtin), {Jump(chain)}});
  state.chainList.push_back(Chain{std::string(chain), rules.Take()});
}

// A chain with rules, reached from one of the module's own chains.
void AddInner(State& state, std::string_view chain, ChainRuleList rules) {
  if (!rules.Empty()) state.chainList.push_back(Chain{std::string(chain), rules.Take()});
}

ChainRuleList Placed(const DynamicContext& context, Placement where, Side side) {
  ChainRuleList rules;
  AddDynamicRules(rules, context, where, side);
  return rules;
}

// IPv6 neighbour discovery: router solicitation and advertisement,
// neighbour solicitation and advertisement, redirect.
constexpr std::array<std::string_view, 5> kNeighbourDiscoveryTypes = {"133", "134", "135", "136", "137"};

struct DhcpPorts {
  std::string_view client;
  std::string_view server;
};

DhcpPorts DhcpPortsOf(IPAddressFamily::Type family) {
  if (family == IPAddressFamily::IPv6) return {"546", "547"};
  return {"68", "67"};
}

// Written as the tools print them back. Neighbour discovery never leaves
// its link (its packets carry the hop limit 255, which no router passes
// on), so it gives no way out of an isolated network.
void AddNeighbourDiscovery(ChainRuleList& rules, IPAddressFamily::Type family) {
  if (family != IPAddressFamily::IPv6) return;
  for (const auto type : kNeighbourDiscoveryTypes) {
    rules.Add(Plain({"-p", "ipv6-icmp", "-m", "icmp6", "--icmpv6-type", std::string(type)}, {"ACCEPT"}));
  }
}

// The DHCP client's side of its exchange with the servers, whose answers
// may go to a broadcast address, which connection tracking cannot tie to
// the request.
void AddDhcpClient(ChainRuleList& rules, IPAddressFamily::Type family, Side side) {
  const auto [client, server] = DhcpPortsOf(family);
  const bool outgoing = side == Side::Outgoing;
  rules.Add(Plain({"-p", "udp", "-m", "udp", "--sport", std::string(outgoing ? client : server), "--dport",
                   std::string(outgoing ? server : client)},
                  {"ACCEPT"}));
}

// Isolation cuts the host off on both sides and in both families as soon
// as any isolation rule is given, whatever side and family its exceptions
// name: the exceptions and their replies pass, everything else is dropped.
// Loopback, neighbour discovery and DHCP pass too: an isolated host must
// keep its addresses and its neighbours, or not even the exceptions could
// be reached.
ChainRuleList IsolationChain(const DynamicContext& context, Side side) {
  ChainRuleList rules;
  rules.AddUnchecked(Plain({side == Side::Incoming ? "-i" : "-o", "lo"}, {"ACCEPT"}));
  AddNeighbourDiscovery(rules, context.family);
  AddDhcpClient(rules, context.family, side);
  AddDynamicRules(rules, context, Placement::Isolation, side);
  rules.AddUnchecked(Plain({}, {"DROP"}));
  return rules;
}

// Traffic the host forwards, routed or bridged (bridged traffic reaches
// the forward hook while bridge filtering is on), is cut as well: only the
// connections an exception names pass, either way, with their replies.
// Neighbour discovery reaches this hook only when bridged; without it the
// neighbours behind a bridge could not find those an exception names over
// IPv6, and it carries nothing else. DHCP is the host's own and stays out.
ChainRuleList ForwardIsolationChain(const DynamicContext& context) {
  ChainRuleList rules;
  AddNeighbourDiscovery(rules, context.family);
  AddDynamicRules(rules, context, Placement::Isolation, Side::Incoming);
  AddDynamicRules(rules, context, Placement::Isolation, Side::Outgoing);
  rules.AddUnchecked(Plain({}, {"DROP"}));
  return rules;
}

// vorn_input / vorn_output: bypass rules first (they return to the built-in
// chain, skipping the module), then isolation, then the other dynamic
// rules, then the administrator's rules.
ChainRuleList FilterChain(const DynamicContext& context, Side side, bool isolated, const std::vector<Rule>* compiled) {
  ChainRuleList rules = Placed(context, Placement::Bypass, side);
  if (isolated) rules.AddUnchecked(Jump(side == Side::Incoming ? kPreIsolation : kPostIsolation));
  AddDynamicRules(rules, context, Placement::Filter, side);
  if (compiled) {
    for (const auto& rule : *compiled) rules.AddUnchecked(rule);
  }
  return rules;
}

State FilterState(const DynamicContext& context, const CompiledRules* compiled) {
  const bool isolated = HasPlacement(context.dynamic, Placement::Isolation);
  State state;
  AddReached(state, kInputChain, kModuleInput,
             FilterChain(context, Side::Incoming, isolated, compiled ? &compiled->incoming : nullptr));
  AddReached(state, kOutputChain, kModuleOutput,
             FilterChain(context, Side::Outgoing, isolated, compiled ? &compiled->outgoing : nullptr));
  if (isolated) {
    AddReached(state, kForwardChain, kModuleForward, ForwardIsolationChain(context));
    AddInner(state, kPreIsolation, IsolationChain(context, Side::Incoming));
    AddInner(state, kPostIsolation, IsolationChain(context, Side::Outgoing));
  }
  return state;
}

State MangleState(const DynamicContext& context) {
  State state;
  AddReached(state, kPreroutingChain, kModulePrerouting, Placed(context, Placement::Mangle, Side::Incoming));
  AddReached(state, kOutputChain, kModuleOutput, Placed(context, Placement::Mangle, Side::Outgoing));
  return state;
}

State NatState(const DynamicContext& context) {
  State state;
  AddReached(state, kPreroutingChain, kModulePrerouting, Placed(context, Placement::Nat, Side::Incoming));
  AddReached(state, kPostroutingChain, kModulePostrouting, Placed(context, Placement::Nat, Side::Outgoing));
  return state;
}

}  // namespace

const std::vector<std::string>& ChainLayout::Tables() {
  static const std::vector<std::string> tables = {std::string(kFilterTable), std::string(kMangleTable),
                                                  std::string(kNatTable)};
  return tables;
}

bool ChainLayout::IsModuleChain(std::string_view chain) {
  return std::find(kModuleChains.begin(), kModuleChains.end(), chain) != kModuleChains.end();
}

ChainKind ChainLayout::KindOf(std::string_view chain) {
  return IsModuleChain(chain) ? ChainKind::Owned : ChainKind::Shared;
}

State ChainLayout::WantedState(IPAddressFamily::Type family, std::string_view table, const CompiledRules* compiled,
                               const std::vector<TaggedRule>& dynamic, bool suitableConntrack) {
  const DynamicContext context{dynamic, family, suitableConntrack};
  if (table == kFilterTable) return FilterState(context, compiled);
  if (table == kMangleTable) return MangleState(context);
  if (table == kNatTable) return NatState(context);
  return {};
}

}  // namespace qel::firewall
