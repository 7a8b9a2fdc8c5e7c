#include "firewall/chain_layout.h"

#include <algorithm>
#include <array>
#include <variant>

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

// The translations of the dynamic rules placed at `where` on `side`, in the
// order they were added.
std::vector<Rule> DynamicRules(const std::vector<TaggedRule>& dynamic, IPAddressFamily::Type family, Placement where,
                               Side side) {
  std::vector<Rule> rules;
  for (const auto& [description, tag] : dynamic) {
    if (description.side != side || PlacementOf(description.action) != where) continue;
    if (auto rule = TranslateDescription(description, family, side)) {
      rule->tag = tag;
      rules.push_back(std::move(*rule));
    }
  }
  return rules;
}

void Append(std::vector<Rule>& to, std::vector<Rule> rules) {
  to.insert(to.end(), std::make_move_iterator(rules.begin()), std::make_move_iterator(rules.end()));
}

// A chain with rules, reached from `builtin` by one jump at its head.
void AddReached(State& state, std::string_view builtin, std::string_view chain, std::vector<Rule> rules) {
  if (rules.empty()) return;
  state.chainList.push_back(Chain{std::string(builtin), {Jump(chain)}});
  state.chainList.push_back(Chain{std::string(chain), std::move(rules)});
}

// A chain with rules, reached from one of the module's own chains.
void AddInner(State& state, std::string_view chain, std::vector<Rule> rules) {
  if (!rules.empty()) state.chainList.push_back(Chain{std::string(chain), std::move(rules)});
}

// Isolation cuts the host off: loopback stays, the isolation rules let
// their exceptions through, everything else is dropped.
std::vector<Rule> IsolationChain(std::vector<Rule> exceptions, Side side) {
  if (exceptions.empty()) return {};
  std::vector<Rule> rules;
  rules.push_back(Plain({side == Side::Incoming ? "-i" : "-o", "lo"}, {"ACCEPT"}));
  Append(rules, std::move(exceptions));
  rules.push_back(Plain({}, {"DROP"}));
  return rules;
}

// vorn_input / vorn_output: bypass rules first (they return to the built-in
// chain, skipping the module), then isolation, then the other dynamic
// rules, then the administrator's rules.
std::vector<Rule> FilterChain(IPAddressFamily::Type family, const std::vector<TaggedRule>& dynamic, Side side,
                              bool hasIsolation, const std::vector<Rule>* compiled) {
  std::vector<Rule> rules = DynamicRules(dynamic, family, Placement::Bypass, side);
  if (hasIsolation) rules.push_back(Jump(side == Side::Incoming ? kPreIsolation : kPostIsolation));
  Append(rules, DynamicRules(dynamic, family, Placement::Filter, side));
  if (compiled) rules.insert(rules.end(), compiled->begin(), compiled->end());
  return rules;
}

State FilterState(IPAddressFamily::Type family, const CompiledRules* compiled, const std::vector<TaggedRule>& dynamic) {
  auto preIsolation = IsolationChain(DynamicRules(dynamic, family, Placement::Isolation, Side::Incoming),
                                     Side::Incoming);
  auto postIsolation = IsolationChain(DynamicRules(dynamic, family, Placement::Isolation, Side::Outgoing),
                                      Side::Outgoing);
  State state;
  AddReached(
      state, kInputChain, kModuleInput,
      FilterChain(family, dynamic, Side::Incoming, !preIsolation.empty(), compiled ? &compiled->incoming : nullptr));
  AddReached(
      state, kOutputChain, kModuleOutput,
      FilterChain(family, dynamic, Side::Outgoing, !postIsolation.empty(), compiled ? &compiled->outgoing : nullptr));
  AddInner(state, kPreIsolation, std::move(preIsolation));
  AddInner(state, kPostIsolation, std::move(postIsolation));
  return state;
}

State MangleState(IPAddressFamily::Type family, const std::vector<TaggedRule>& dynamic) {
  State state;
  AddReached(state, kPreroutingChain, kModulePrerouting,
             DynamicRules(dynamic, family, Placement::Mangle, Side::Incoming));
  AddReached(state, kOutputChain, kModuleOutput, DynamicRules(dynamic, family, Placement::Mangle, Side::Outgoing));
  return state;
}

State NatState(IPAddressFamily::Type family, const std::vector<TaggedRule>& dynamic) {
  State state;
  AddReached(state, kPreroutingChain, kModulePrerouting, DynamicRules(dynamic, family, Placement::Nat, Side::Incoming));
  AddReached(state, kPostroutingChain, kModulePostrouting,
             DynamicRules(dynamic, family, Placement::Nat, Side::Outgoing));
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
                               const std::vector<TaggedRule>& dynamic) {
  if (table == kFilterTable) return FilterState(family, compiled, dynamic);
  if (table == kMangleTable) return MangleState(family, dynamic);
  if (table == kNatTable) return NatState(family, dynamic);
  return {};
}

}  // namespace qel::firewall
