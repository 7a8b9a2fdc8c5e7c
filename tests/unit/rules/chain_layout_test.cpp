// Where each kind of dynamic rule stands in both families, with the reply
// companions of the kinds that let connections through, and equal rules of
// different clients standing once.
#include "firewall/chain_layout.h"

#include <gtest/gtest.h>

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::firewall {
namespace {

using Lines = std::vector<std::string>;
using tools::PortRange;

constexpr auto kV4 = types::IPAddressFamily::IPv4;
constexpr auto kV6 = types::IPAddressFamily::IPv6;

// Every rule the module wants in `family`, table by table, as
// "<table> <chain>: <rule> tag <tag>".
Lines Layout(types::IPAddressFamily::Type family, const std::vector<TaggedRule>& dynamic,
             bool suitableConntrack = true, const CompiledRules* compiled = nullptr) {
  Lines lines;
  for (const auto& table : ChainLayout::Tables()) {
    const State state = ChainLayout::WantedState(family, table, compiled, dynamic, suitableConntrack);
    for (const auto& chain : state.chainList) {
      for (const auto& rule : chain.ruleList) lines.push_back(table + " " + chain.name + ": " + RuleText(rule));
    }
  }
  return lines;
}

// Incoming TCP to port 80, or the given side.
RuleDescription Web(RuleAction action, Side side = Side::Incoming) {
  return {.side = side, .protocol = 6, .localPorts = PortRange{80, 80}, .action = std::move(action)};
}

const std::string kIn = "-p tcp -m tcp --dport 80";
const std::string kOut = "-p tcp -m tcp --sport 80";
const std::string kReplies = " -m conntrack --ctstate ESTABLISHED --ctdir REPLY";

TEST(ChainLayoutPlacement, EachKindStandsWhereItMeansWhatItSays) {
  const struct {
    RuleDescription description;
    Lines ipv4;
    Lines ipv6 = {};  // when it differs
  } cases[] = {
      {Web(RawAction{"REJECT", {"--reject-with", "tcp-reset"}}),
       {"filter INPUT: -j vorn_input", "filter vorn_input: " + kIn + " -j REJECT --reject-with tcp-reset tag t"}},
      // An accepted connection's replies pass on the other side, whatever the
      // administrator's defaults say there; a dropped one has none.
      {Web(AccessAction{0}),
       {"filter INPUT: -j vorn_input", "filter vorn_input: " + kIn + " -j ACCEPT tag t",
        "filter OUTPUT: -j vorn_output", "filter vorn_output: " + kOut + kReplies + " -j ACCEPT tag t"}},
      {Web(AccessAction{1}), {"filter INPUT: -j vorn_input", "filter vorn_input: " + kIn + " -j DROP tag t"}},
      {Web(QueueAction{3}),
       {"filter INPUT: -j vorn_input", "filter vorn_input: " + kIn + " -j NFQUEUE --queue-num 3 tag t",
        "filter OUTPUT: -j vorn_output",
        "filter vorn_output: " + kOut + kReplies + " -j NFQUEUE --queue-num 3 tag t"}},
      {Web(MarkAction{0x40}),
       {"mangle PREROUTING: -j vorn_prerouting",
        "mangle vorn_prerouting: " + kIn + " -j MARK --set-xmark 0x40/0x40 tag t"}},
      {Web(MarkAction{0x40}, Side::Outgoing),
       {"mangle OUTPUT: -j vorn_output", "mangle vorn_output: " + kOut + " -j MARK --set-xmark 0x40/0x40 tag t"}},
      {Web(DivertAction{9999, 0x1}),
       {"mangle PREROUTING: -j vorn_prerouting",
        "mangle vorn_prerouting: " + kIn + " -j TPROXY --on-port 9999 --on-ip 127.0.0.1 --tproxy-mark 0x1/0x1 tag t"},
       {"mangle PREROUTING: -j vorn_prerouting",
        "mangle vorn_prerouting: " + kIn +
            " -j TPROXY --on-port 9999 --on-ip ::ffff:127.0.0.1 --tproxy-mark 0x1/0x1 tag t"}},
      {Web(NatAction{1}, Side::Outgoing),
       {"nat POSTROUTING: -j vorn_postrouting", "nat vorn_postrouting: " + kOut + " -j MASQUERADE tag t"}},
      {Web(NatAction{0}), {"nat PREROUTING: -j vorn_prerouting", "nat vorn_prerouting: " + kIn + " -j ACCEPT tag t"}},
      {Web(ConnmarkAction{0x1, 0xff}),
       {"mangle PREROUTING: -j vorn_prerouting",
        "mangle vorn_prerouting: " + kIn + " -j CONNMARK --set-xmark 0x1/0xff tag t"}},
      {Web(ConnmarkSaveAction{0xff, 0xf}, Side::Outgoing),
       {"mangle OUTPUT: -j vorn_output",
        "mangle vorn_output: " + kOut + " -j CONNMARK --save-mark --nfmask 0xff --ctmask 0xf tag t"}},
      {Web(ConnmarkRestoreAction{0xff, 0xf}),
       {"mangle PREROUTING: -j vorn_prerouting",
        "mangle vorn_prerouting: " + kIn + " -j CONNMARK --restore-mark --nfmask 0xff --ctmask 0xf tag t"}},
      {Web(NflogAction{33, std::nullopt, 0}),
       {"filter INPUT: -j vorn_input", "filter vorn_input: " + kIn + " -j NFLOG --nflog-group 33 tag t"}},
      // Isolation cuts both sides off: the exception and its replies pass.
      {Web(IsolationAction{0}),
       {"filter INPUT: -j vorn_input", "filter vorn_input: -j vorn_pre_isolation", "filter OUTPUT: -j vorn_output",
        "filter vorn_output: -j vorn_post_isolation", "filter vorn_pre_isolation: -i lo -j ACCEPT",
        "filter vorn_pre_isolation: " + kIn + " -j ACCEPT tag t", "filter vorn_pre_isolation: -j DROP",
        "filter vorn_post_isolation: -o lo -j ACCEPT",
        "filter vorn_post_isolation: " + kOut + kReplies + " -j ACCEPT tag t",
        "filter vorn_post_isolation: -j DROP"}},
      {Web(BypassAction{}),
       {"filter INPUT: -j vorn_input", "filter vorn_input: " + kIn + " -j RETURN tag t",
        "filter OUTPUT: -j vorn_output", "filter vorn_output: " + kOut + kReplies + " -j RETURN tag t"}},
  };
  for (const auto& [description, ipv4, ipv6] : cases) {
    const std::vector<TaggedRule> dynamic{{description, "t"}};
    EXPECT_EQ(Layout(kV4, dynamic), ipv4) << description;
    EXPECT_EQ(Layout(kV6, dynamic), ipv6.empty() ? ipv4 : ipv6) << description;
  }
}

// The companion matches the replies of what the rule lets through: the
// conditions on single packets go, the connection's own stay, and a kernel
// that cannot tell directions apart gets the other direction word.
TEST(ChainLayoutPlacement, CompanionsMatchRepliesOnTheOtherSide) {
  const RuleDescription outgoing{.side = Side::Outgoing, .protocol = 6, .iface = InterfaceMatch{"eth0", false},
                                 .remotePorts = PortRange{443, 443}, .mark = MarkMatch{0x1, std::nullopt},
                                 .ctstate = ConnState::New, .ctmark = MarkMatch{0x2, std::nullopt},
                                 .tcpFlags = TcpFlagsMatch{0x02, 0x02, false}, .action = AccessAction{0}};
  const Lines lines = Layout(kV4, {{outgoing, "t"}}, false);
  EXPECT_EQ(lines, (Lines{"filter INPUT: -j vorn_input",
                          "filter vorn_input: -i eth0 -p tcp -m tcp --sport 443 -m connmark --mark 0x2/0x2 "
                          "-m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j ACCEPT tag t",
                          "filter OUTPUT: -j vorn_output",
                          "filter vorn_output: -o eth0 -p tcp -m tcp --dport 443 --tcp-flags SYN SYN -m mark --mark "
                          "0x1/0x1 -m conntrack --ctstate NEW -m connmark --mark 0x2/0x2 -j ACCEPT tag t"}));
}

// Clients that want the same rule get it once, under the first tag, and it
// stays while any of them still holds it. The administrator's rules are
// not theirs to merge with.
TEST(ChainLayoutDeduplication, EqualRulesStandOnceWhileAnyClientHoldsOne) {
  const RuleDescription web = Web(AccessAction{0});
  // The same rule once more, written with the port range the other way.
  RuleDescription sameRule = web;
  sameRule.localPorts = PortRange{80, 80};
  sameRule.remotePorts = PortRange{0, 65535};
  // A rule written as the incoming rule's companion is that companion.
  const RuleDescription reply{.side = Side::Outgoing, .protocol = 6, .localPorts = PortRange{80, 80},
                              .ctstate = ConnState::Established, .ctdir = ConnDirection::Reply,
                              .action = RawAction{"ACCEPT", {}}};
  const auto heldBy = [](const std::string& tag) {
    return Lines{"filter INPUT: -j vorn_input", "filter vorn_input: " + kIn + " -j ACCEPT tag " + tag,
                 "filter OUTPUT: -j vorn_output", "filter vorn_output: " + kOut + kReplies + " -j ACCEPT tag " + tag};
  };
  EXPECT_EQ(Layout(kV4, {{web, "a"}, {sameRule, "b"}, {web, "a"}, {reply, "c"}}), heldBy("a"));
  EXPECT_EQ(Layout(kV4, {{sameRule, "b"}, {reply, "c"}}), heldBy("b"));

  CompiledRules compiled;
  compiled.incoming.push_back(TranslateDescription(web, kV4, Side::Incoming).value());
  const Lines withCompiled = Layout(kV4, {{web, "a"}}, true, &compiled);
  EXPECT_EQ(std::count(withCompiled.begin(), withCompiled.end(), "filter vorn_input: " + kIn + " -j ACCEPT"), 1);
  EXPECT_EQ(withCompiled.size(), heldBy("a").size() + 1);
}

// An exception of one family still isolates the other: there only loopback
// passes.
TEST(ChainLayoutIsolation, AnyIsolationRuleIsolatesBothFamiliesAndSides) {
  RuleDescription exception = Web(IsolationAction{0});
  exception.remote = tools::IpNetwork{tools::ParseIpAddress("10.0.0.0"), 8};
  EXPECT_EQ(Layout(kV6, {{exception, "ni_0x1"}}),
            (Lines{"filter INPUT: -j vorn_input", "filter vorn_input: -j vorn_pre_isolation",
                   "filter OUTPUT: -j vorn_output", "filter vorn_output: -j vorn_post_isolation",
                   "filter vorn_pre_isolation: -i lo -j ACCEPT", "filter vorn_pre_isolation: -j DROP",
                   "filter vorn_post_isolation: -o lo -j ACCEPT", "filter vorn_post_isolation: -j DROP"}));
  // ICMP has no IPv6 rule, and so no IPv6 chain.
  EXPECT_EQ(Layout(kV6, {{RuleDescription{.protocol = 1, .action = AccessAction{0}}, "t"}}), Lines{});
}

}  // namespace
}  // namespace qel::firewall
