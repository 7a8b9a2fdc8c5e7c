#include "firewall/iptables_rule_compiler.h"

#include <gtest/gtest.h>

#include <regex>

#include "qel_common/string_conv.h"
#include "tests/support/fake_framework.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::firewall {
namespace {

using settings::FirewallSettings;
using settings::PacketRule;
using settings::PacketRuleAction;
using settings::PacketRuleDirection;
using settings::PacketRuleProtocol;
using types::IPAddressFamily;
using Texts = std::vector<std::string>;

constexpr auto kV4 = IPAddressFamily::IPv4;
constexpr auto kV6 = IPAddressFamily::IPv6;

// Defaults of settings whose default actions are Block (connections) and
// Allow (packets).
const std::string kD1EstablishedIn = "-m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j DROP";
const std::string kD1NewIn = "-m conntrack --ctstate NEW -j DROP";
const std::string kD1Out = "-m conntrack --ctstate ESTABLISHED --ctdir REPLY -j DROP";
const std::string kD2 = "-m conntrack --ctstate ESTABLISHED --ctdir REPLY -j ACCEPT";
const std::string kD3 = "-j ACCEPT", kD4 = kD3;

Texts AllTexts(const std::vector<Rule>& rules) {
  Texts texts;
  for (const auto& rule : rules) texts.push_back(RuleText(rule));
  return texts;
}

// Texts of the rules that a packet rule produced (or of the others).
Texts Produced(const std::vector<Rule>& rules, bool byPacketRule = true) {
  Texts texts;
  for (const auto& rule : rules) {
    if (rule.ruleItem.empty() != byPacketRule && rule.match != Tokens{"-i", "lo"} && rule.match != Tokens{"-o", "lo"})
      texts.push_back(RuleText(rule));
  }
  return texts;
}

FirewallSettings With(std::vector<PacketRule> rules) {
  FirewallSettings settings;
  settings.packetRules = std::move(rules);
  return settings;
}

PacketRule SshRule() {
  return {.name = u"ssh", .direction = PacketRuleDirection::Incoming, .protocol = PacketRuleProtocol::TCP,
          .localPorts = u"22", .remoteAddress = u"10.0.0.0/8", .doLogAttempts = true};
}

PacketRule PacketIn(std::u16string remote, std::u16string local = u"Any") {
  return {.name = u"r", .direction = PacketRuleDirection::IncomingPacket, .remoteAddress = std::move(remote),
          .localAddress = std::move(local)};
}

TEST(IptablesRuleCompilerTest, WorkedExampleForIpv4) {
  const auto compiled = CompileRules(With({SshRule()}), kV4, true);
  const std::string match = "-s 10.0.0.0/8 -p tcp -m tcp --dport 22 -m conntrack --ctstate ";
  EXPECT_EQ(AllTexts(compiled.incoming),
            (Texts{"-i lo -j ACCEPT", match + "ESTABLISHED --ctdir ORIGINAL -j ACCEPT item_0000 name ssh",
                   match + "NEW -j NFLOG --nflog-prefix Allow --nflog-group 10001 item_0000 name ssh",
                   match + "NEW -j ACCEPT item_0000 name ssh", kD1EstablishedIn, kD1NewIn, kD2, kD3}));
  EXPECT_EQ(AllTexts(compiled.outgoing),
            (Texts{"-o lo -j ACCEPT",
                   "-d 10.0.0.0/8 -p tcp -m tcp --sport 22 -m conntrack --ctstate ESTABLISHED --ctdir REPLY -j ACCEPT "
                   "item_0000 name ssh",
                   kD1Out, kD4}));
  // The IPv6 rule set gets only the loopback and default rules.
  const auto v6 = CompileRules(With({SshRule()}), kV6, true);
  EXPECT_EQ(AllTexts(v6.incoming), (Texts{"-i lo -j ACCEPT", kD1EstablishedIn, kD1NewIn, kD2, kD3}));
  EXPECT_EQ(AllTexts(v6.outgoing), (Texts{"-o lo -j ACCEPT", kD1Out, kD4}));
}

TEST(IptablesRuleCompilerTest, UnreliableConntrackDirectionSwapsTheDirectionWords) {
  const auto swap = [](std::string text) {
    text = std::regex_replace(text, std::regex("ORIGINAL"), "@");
    text = std::regex_replace(text, std::regex("REPLY"), "ORIGINAL");
    return std::regex_replace(text, std::regex("@"), "REPLY");
  };
  const auto reliable = CompileRules(With({SshRule()}), kV4, true);
  const auto unreliable = CompileRules(With({SshRule()}), kV4, false);
  Texts expected = AllTexts(reliable.incoming);
  for (auto& text : expected) text = swap(text);
  EXPECT_EQ(AllTexts(unreliable.incoming), expected);
}

TEST(IptablesRuleCompilerTest, Icmpv6ExampleForIpv6) {
  std::vector<PacketRule> rules(3, {.direction = PacketRuleDirection::IncomingPacket,
                                    .protocol = PacketRuleProtocol::ICMP, .icmpType = u"8"});
  rules.push_back({.name = u"ping6", .action = PacketRuleAction::Block,
                   .direction = PacketRuleDirection::IncomingPacket, .protocol = PacketRuleProtocol::ICMPv6,
                   .icmpType = u"128", .localAddress = u"fe80::/10"});
  const auto v6 = CompileRules(With(rules), kV6, true);
  EXPECT_EQ(Produced(v6.incoming),
            (Texts{"-d fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 128 -j DROP item_0003 name ping6"}));
  // ICMP only in IPv4, ICMPv6 only in IPv6.
  const auto v4 = CompileRules(With(rules), kV4, true);
  const std::string ping = "-p icmp -m icmp --icmp-type 8 -j ACCEPT item_000";
  EXPECT_EQ(Produced(v4.incoming), (Texts{ping + "0", ping + "1", ping + "2"}));
}

TEST(IptablesRuleCompilerTest, NoPacketRulesLeavesLoopbackAndDefaults) {
  FirewallSettings settings;
  settings.defaultIncomingAction = PacketRuleAction::Allow;
  settings.defaultIncomingPacketAction = PacketRuleAction::Block;
  const auto compiled = CompileRules(settings, kV4, true);
  EXPECT_EQ(AllTexts(compiled.incoming),
            (Texts{"-i lo -j ACCEPT", "-m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j ACCEPT",
                   "-m conntrack --ctstate NEW -j ACCEPT", kD2, "-j DROP"}));
  EXPECT_EQ(AllTexts(compiled.outgoing),
            (Texts{"-o lo -j ACCEPT", "-m conntrack --ctstate ESTABLISHED --ctdir REPLY -j ACCEPT", kD4}));
}

struct DirectionCase {
  PacketRuleDirection direction;
  Texts incoming;
  Texts outgoing;
};

TEST(IptablesRuleCompilerTest, EachDirectionFillsBothListsInItsOrder) {
  const std::string in = "-s 10.0.0.0/8 -p tcp -m tcp --dport 22";
  const std::string out = "-d 10.0.0.0/8 -p tcp -m tcp --sport 22";
  const std::string est = " -m conntrack --ctstate ESTABLISHED", orig = est + " --ctdir ORIGINAL",
                    reply = est + " --ctdir REPLY", fresh = " -m conntrack --ctstate NEW";
  const std::string drop = " -j DROP item_0000 name r";
  const std::string log = " -j NFLOG --nflog-prefix Block --nflog-group 10001 item_0000 name r";
  const DirectionCase cases[] = {
      {PacketRuleDirection::Incoming, {in + orig + drop, in + fresh + log, in + fresh + drop}, {out + reply + drop}},
      {PacketRuleDirection::Outgoing, {in + reply + drop}, {out + orig + drop, out + fresh + log, out + fresh + drop}},
      {PacketRuleDirection::IncomingOutgoing,
       {in + est + drop, in + fresh + log, in + fresh + drop},
       {out + est + drop, out + fresh + log, out + fresh + drop}},
      {PacketRuleDirection::IncomingPacket, {in + log, in + drop}, {}},
      {PacketRuleDirection::OutgoingPacket, {}, {out + log, out + drop}},
      {PacketRuleDirection::IncomingOutgoingPacket, {in + log, in + drop}, {out + log, out + drop}},
  };
  for (const auto& c : cases) {
    const PacketRule rule{.name = u"r", .action = PacketRuleAction::Block, .direction = c.direction,
                          .protocol = PacketRuleProtocol::TCP, .localPorts = u"22", .remoteAddress = u"10.0.0.0/8",
                          .doLogAttempts = true};
    const auto compiled = CompileRules(With({rule}), kV4, true);
    EXPECT_EQ(Produced(compiled.incoming), c.incoming) << settings::EnumToString(c.direction);
    EXPECT_EQ(Produced(compiled.outgoing), c.outgoing) << settings::EnumToString(c.direction);
  }
}

TEST(IptablesRuleCompilerTest, CatchAllRulesRemoveTheDefaultsTheyCover) {
  const DirectionCase cases[] = {
      {PacketRuleDirection::IncomingOutgoing, {kD3}, {kD4}},
      {PacketRuleDirection::Incoming, {kD2, kD3}, {kD4}},
      {PacketRuleDirection::Outgoing, {kD1EstablishedIn, kD1NewIn, kD3}, {kD1Out, kD4}},
      {PacketRuleDirection::IncomingOutgoingPacket, {kD1EstablishedIn, kD1NewIn, kD2}, {kD1Out}},
      {PacketRuleDirection::IncomingPacket, {kD1EstablishedIn, kD1NewIn, kD2}, {kD1Out, kD4}},
      {PacketRuleDirection::OutgoingPacket, {kD1EstablishedIn, kD1NewIn, kD2, kD3}, {kD1Out}},
  };
  for (const auto& c : cases) {
    const auto compiled = CompileRules(With({{.direction = c.direction, .doLogAttempts = true}}), kV4, true);
    EXPECT_EQ(Produced(compiled.incoming, false), c.incoming) << settings::EnumToString(c.direction);
    EXPECT_EQ(Produced(compiled.outgoing, false), c.outgoing) << settings::EnumToString(c.direction);
  }
  // A catch-all rule still logs; any restriction at all keeps the defaults.
  const auto all = CompileRules(With({{.doLogAttempts = true}}), kV6, true);
  EXPECT_EQ(Produced(all.outgoing), (Texts{"-m conntrack --ctstate ESTABLISHED -j ACCEPT item_0000",
                                           "-m conntrack --ctstate NEW -j NFLOG --nflog-prefix Allow --nflog-group "
                                           "10001 item_0000",
                                           "-m conntrack --ctstate NEW -j ACCEPT item_0000"}));
  const auto tcp = CompileRules(With({{.protocol = PacketRuleProtocol::TCP}}), kV4, true);
  EXPECT_EQ(Produced(tcp.incoming, false), (Texts{kD1EstablishedIn, kD1NewIn, kD2, kD3}));
}

struct MatchCase {
  PacketRule rule;
  IPAddressFamily::Type family;
  std::string match;
};

TEST(IptablesRuleCompilerTest, MatchFragmentsStandInTheToolsOrder) {
  using P = PacketRuleProtocol;
  const auto in = PacketRuleDirection::IncomingPacket;
  const auto out = PacketRuleDirection::OutgoingPacket;
  const MatchCase cases[] = {
      {{.direction = in, .protocol = P::TCP, .remotePorts = u"1000-2000"}, kV4, "-p tcp -m tcp --sport 1000:2000"},
      {{.direction = in, .protocol = P::UDP, .remotePorts = u"53", .localPorts = u"1024-65535"},
       kV4, "-p udp -m udp --sport 53 --dport 1024:65535"},
      {{.direction = out, .protocol = P::UDP, .remotePorts = u"53"}, kV4, "-p udp -m udp --dport 53"},
      {{.direction = in, .protocol = P::TCP}, kV4, "-p tcp"},
      {{.direction = in, .protocol = P::TCP, .localPorts = u"0-65535"}, kV4, "-p tcp -m tcp"},
      {{.direction = in, .protocol = P::GRE, .remotePorts = u"80"}, kV4, "-p gre"},
      {{.direction = in, .protocol = P::IGMP}, kV4, "-p igmp"},
      {{.direction = in, .protocol = P::ICMP, .icmpType = u"3", .icmpCode = u"4"}, kV4,
       "-p icmp -m icmp --icmp-type 3/4"},
      {{.direction = in, .protocol = P::ICMP, .icmpCode = u"4"}, kV4, "-p icmp"},
      // The kernel takes IPv4 type 255 for "any type" and lists it so.
      {{.direction = in, .protocol = P::ICMP, .icmpType = u"255", .icmpCode = u"7"}, kV4,
       "-p icmp -m icmp --icmp-type any"},
      {{.direction = in, .protocol = P::ICMPv6, .icmpType = u"255"}, kV6, "-p ipv6-icmp -m icmp6 --icmpv6-type 255"},
      {{.direction = in, .protocol = P::ICMPv6, .icmpType = u"128", .icmpCode = u"0"}, kV6,
       "-p ipv6-icmp -m icmp6 --icmpv6-type 128/0"},
      {{.direction = in, .protocol = P::TCP, .localPorts = u"22", .remoteAddress = u"10.0.0.1-10.0.0.9",
        .localAddress = u"192.168.7.7/16"},
       kV4, "-d 192.168.0.0/16 -p tcp -m iprange --src-range 10.0.0.1-10.0.0.9 -m tcp --dport 22"},
      {{.direction = out, .remoteAddress = u"2001:db8::1-2001:db8::ff", .localAddress = u"fe80::1"}, kV6,
       "-s fe80::1/128 -m iprange --dst-range 2001:db8::1-2001:db8::ff"},
      {{.direction = in, .remoteAddress = u"0.0.0.0/0"}, kV4, ""},
  };
  for (const auto& c : cases) {
    const auto compiled = CompileRules(With({c.rule}), c.family, true);
    const auto& list = c.rule.direction == in ? compiled.incoming : compiled.outgoing;
    EXPECT_EQ(Produced(list), Texts{c.match + (c.match.empty() ? "" : " ") + "-j ACCEPT item_0000"}) << c.match;
  }
}

TEST(IptablesRuleCompilerTest, AddressListsPairEveryRemoteWithEveryLocalOfTheFamily) {
  const auto pairs = CompileRules(With({PacketIn(u"10.0.0.1;;fe80::1;10.0.0.2", u"10.9.0.1;10.9.0.2")}), kV4, true);
  const std::string tail = " -j ACCEPT item_0000 name r";
  EXPECT_EQ(Produced(pairs.incoming),
            (Texts{"-s 10.0.0.1/32 -d 10.9.0.1/32" + tail, "-s 10.0.0.1/32 -d 10.9.0.2/32" + tail,
                   "-s 10.0.0.2/32 -d 10.9.0.1/32" + tail, "-s 10.0.0.2/32 -d 10.9.0.2/32" + tail}));
  const auto mixed = With({{.protocol = PacketRuleProtocol::TCP, .remoteAddress = u"10.0.0.1;fe80::1"}});
  EXPECT_EQ(Produced(CompileRules(mixed, kV4, true).incoming).size(), 2u);  // established and new
  EXPECT_EQ(Produced(CompileRules(mixed, kV6, true).incoming),
            (Texts{"-s fe80::1/128 -p tcp -m conntrack --ctstate ESTABLISHED -j ACCEPT item_0000",
                   "-s fe80::1/128 -p tcp -m conntrack --ctstate NEW -j ACCEPT item_0000"}));
}

TEST(IptablesRuleCompilerTest, ZonesExpandOverTheirAddressesOfTheFamily) {
  auto settings = With({PacketIn(u"Trusted"), PacketIn(u"Local"), PacketIn(u"Public", u"10.9.0.1")});
  settings.networkZonesTrusted = {u"10.0.0.0/8", u"fe80::/10", u"10.1.1.1-10.1.1.5"};
  settings.networkZonesPublic = {u"192.168.0.0/16"};
  EXPECT_EQ(Produced(CompileRules(settings, kV4, true).incoming),
            (Texts{"-s 10.0.0.0/8 -j ACCEPT item_0000 name r zone Trusted",
                   "-m iprange --src-range 10.1.1.1-10.1.1.5 -j ACCEPT item_0000 name r zone Trusted",
                   "-s 192.168.0.0/16 -d 10.9.0.1/32 -j ACCEPT item_0002 name r zone Public"}));
  EXPECT_EQ(Produced(CompileRules(settings, kV6, true).incoming),
            (Texts{"-s fe80::/10 -j ACCEPT item_0000 name r zone Trusted"}));

  settings.networkZonesLocal = {u"10.0.0.0/40"};
  try {
    CompileRules(settings, kV6, true);
    ADD_FAILURE() << "a bad zone address compiled";
  } catch (const RuleCompileError& e) {
    EXPECT_EQ(e.RuleIndex(), RuleCompileError::npos);
    EXPECT_STREQ(e.what(), "networkZonesLocal '10.0.0.0/40': invalid mask in network address");
  }
}

TEST(IptablesRuleCompilerTest, RuleItemsWidenBeyondFourDigits) {
  std::vector<PacketRule> rules(10001, {.direction = PacketRuleDirection::IncomingPacket,
                                        .protocol = PacketRuleProtocol::TCP, .doLogAttempts = true});
  const auto compiled = CompileRules(With(rules), kV4, true);
  const auto produced = Produced(compiled.incoming);
  ASSERT_EQ(produced.size(), 20002u);
  EXPECT_EQ(produced[19999], "-p tcp -j ACCEPT item_9999");
  EXPECT_EQ(produced[20000], "-p tcp -j NFLOG --nflog-prefix Allow --nflog-group 20001 item_10000");

  // NFLOG groups end at 65535: the rule after that one cannot log.
  rules.assign(55536, {.direction = PacketRuleDirection::IncomingPacket, .protocol = PacketRuleProtocol::TCP});
  rules.back().doLogAttempts = true;
  EXPECT_THROW(CompileRules(With(rules), kV4, true), RuleCompileError);
  rules.pop_back();
  rules.back().doLogAttempts = true;
  EXPECT_EQ(Produced(CompileRules(With(rules), kV4, true).incoming)[55534],
            "-p tcp -j NFLOG --nflog-prefix Allow --nflog-group 65535 item_55534");
}

struct ErrorCase {
  PacketRule rule;
  std::string field;
  std::string value;
  std::string reason;
};

TEST(IptablesRuleCompilerTest, BadFieldsFailTheCompilationNamingTheField) {
  const ErrorCase cases[] = {
      {PacketIn(u"10.0.0.300"), "remoteAddress", "10.0.0.300", "Invalid format of ip address"},
      {PacketIn(u"Any", u""), "localAddress", "", "empty address string"},
      {PacketIn(u"10.0.0.1;"), "remoteAddress", "", "empty address string"},
      {{.protocol = PacketRuleProtocol::TCP, .remotePorts = u"http"}, "remotePorts", "http",
       "bad lexical cast: source type value could not be interpreted as target"},
      {{.protocol = PacketRuleProtocol::UDP, .localPorts = u"2000-1000"}, "localPorts", "2000-1000",
       "The last port in the range is less than the first one"},
      {{.protocol = PacketRuleProtocol::ICMP, .icmpType = u"echo"}, "icmpType", "echo", "not a number from 0 to 255"},
      {{.protocol = PacketRuleProtocol::ICMP, .icmpType = u"3", .icmpCode = u"256"}, "icmpCode", "256",
       "not a number from 0 to 255"},
      {{.direction = PacketRuleDirection{7}}, "direction", "7", "EnumToString, invalid 'PacketRuleDirection' enum value: 7"},
  };
  for (const auto& c : cases) {
    // A bad value fails both families, whichever family its neighbours have.
    for (const auto family : {kV4, kV6}) {
      try {
        CompileRules(With({SshRule(), c.rule}), family, true);
        ADD_FAILURE() << c.field << " '" << c.value << "' compiled";
      } catch (const RuleCompileError& e) {
        EXPECT_EQ(e.Field(), c.field);
        EXPECT_EQ(e.Value(), c.value);
        EXPECT_EQ(std::string(e.what()), "packet rule 1 (" + tools::ToUtf8(c.rule.name) + "), " + c.field + " '" +
                                             c.value + "': " + c.reason);
      }
    }
  }
}

TEST(IptablesRuleCompilerTest, MakeRuleIsTracedBeforeAndAfterBuilding) {
  const auto fake = test::Make<test::FakeTracer>();
  CompileRules(With({SshRule()}), kV4, true, tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(fake.Get())));
  EXPECT_TRUE(fake->Contains(800, "MakeRule() remoteAddress=10.0.0.0/8, localAddress=Any, family=4"));
  EXPECT_TRUE(fake->Contains(800, "MakeRule rule match:  -s 10.0.0.0/8 -p tcp -m tcp --dport 22"));
}

TEST(IptablesRuleCompilerTest, NflogTargetWritesOnlyTheGivenParts) {
  EXPECT_EQ(NflogTarget("Block", 10002), (Tokens{"NFLOG", "--nflog-prefix", "Block", "--nflog-group", "10002"}));
  EXPECT_EQ(NflogTarget("", 5, 20), (Tokens{"NFLOG", "--nflog-group", "5", "--nflog-threshold", "20"}));
  EXPECT_EQ(NflogTarget("", 0), Tokens{"NFLOG"});
}

}  // namespace
}  // namespace qel::firewall
