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

// IPv6 neighbour discovery in `chain`; none in IPv4.
Lines NeighbourDiscovery(types::IPAddressFamily::Type family, const std::string& chain) {
  Lines lines;
  if (family == kV6) {
    for (const char* type : {"133", "134", "135", "136", "137"}) {
      lines.push_back("filter " + chain + ": -p ipv6-icmp -m icmp6 --icmpv6-type " + type + " -j ACCEPT");
    }
  }
  return lines;
}

// What an isolated host keeps in `chain` before the exceptions: loopback,
// in IPv6 neighbour discovery, and the DHCP client's exchange.
Lines Upkeep(types::IPAddressFamily::Type family, const std::string& chain) {
  const bool in = chain == "vorn_pre_isolation";
  Lines lines{"filter " + chain + (in ? ": -i lo -j ACCEPT" : ": -o lo -j ACCEPT")};
  const Lines nd = NeighbourDiscovery(family, chain);
  lines.insert(lines.end(), nd.begin(), nd.end());
  const std::string client = family == kV6 ? "546" : "68", server = family == kV6 ? "547" : "67";
  lines.push_back("filter " + chain + ": -p udp -m udp --sport " + (in ? server : client) + " --dport " +
                  (in ? client : server) + " -j ACCEPT");
  return lines;
}

Lines Concat(std::initializer_list<Lines> parts) {
  Lines all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const Lines kIsolationJumps = {"filter INPUT: -j vorn_input", "filter vorn_input: -j vorn_pre_isolation",
                               "filter OUTPUT: -j vorn_output", "filter vorn_output: -j vorn_post_isolation"};

// Isolation cuts the host off on both sides and forwarded traffic through
// it: each exception and its replies pass, on the host and through it;
// the host keeps its addresses and neighbours, and those behind a bridge
// can still find the ones an exception names.
TEST(ChainLayoutIsolation, ExceptionsPassOnTheHostAndThroughItAndTheHostKeepsItsUpkeep) {
  const RuleDescription outgoing{.side = Side::Outgoing, .protocol = 17, .remotePorts = PortRange{53, 53},
                                 .action = IsolationAction{0}};
  const std::vector<TaggedRule> dynamic{{Web(IsolationAction{0}), "t"}, {outgoing, "u"}};
  const std::string dnsOut = "-p udp -m udp --dport 53", dnsReplies = "-p udp -m udp --sport 53" + kReplies;
  for (const auto family : {kV4, kV6}) {
    EXPECT_EQ(Layout(family, dynamic),
              Concat({kIsolationJumps,
                      {"filter FORWARD: -j vorn_forward"}, NeighbourDiscovery(family, "vorn_forward"),
                      {"filter vorn_forward: " + kIn + " -j ACCEPT tag t",
                       "filter vorn_forward: " + dnsReplies + " -j ACCEPT tag u",
                       "filter vorn_forward: " + kOut + kReplies + " -j ACCEPT tag t",
                       "filter vorn_forward: " + dnsOut + " -j ACCEPT tag u", "filter vorn_forward: -j DROP"},
                      Upkeep(family, "vorn_pre_isolation"),
                      {"filter vorn_pre_isolation: " + kIn + " -j ACCEPT tag t",
                       "filter vorn_pre_isolation: " + dnsReplies + " -j ACCEPT tag u",
                       "filter vorn_pre_isolation: -j DROP"},
                      Upkeep(family, "vorn_post_isolation"),
                      {"filter vorn_post_isolation: " + kOut + kReplies + " -j ACCEPT tag t",
                       "filter vorn_post_isolation: " + dnsOut + " -j ACCEPT tag u",
                       "filter vorn_post_isolation: -j DROP"}}))
        << family;
  }
}

// An exception of one family still isolates the other: there only the
// host's upkeep passes, and nothing is forwarded.
TEST(ChainLayoutIsolation, AnyIsolationRuleIsolatesBothFamiliesAndSides) {
  RuleDescription exception = Web(IsolationAction{0});
  exception.remote = tools::IpNetwork{tools::ParseIpAddress("10.0.0.0"), 8};
  EXPECT_EQ(Layout(kV6, {{exception, "ni_0x1"}}),
            Concat({kIsolationJumps, {"filter FORWARD: -j vorn_forward"}, NeighbourDiscovery(kV6, "vorn_forward"),
                    {"filter vorn_forward: -j DROP"},
                    Upkeep(kV6, "vorn_pre_isolation"), {"filter vorn_pre_isolation: -j DROP"},
                    Upkeep(kV6, "vorn_post_isolation"), {"filter vorn_post_isolation: -j DROP"}}));
  // ICMP has no IPv6 rule, and so no IPv6 chain.
  EXPECT_EQ(Layout(kV6, {{RuleDescription{.protocol = 1, .action = AccessAction{0}}, "t"}}), Lines{});
}

}  // namespace
}  // namespace qel::firewall
