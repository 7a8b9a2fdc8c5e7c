#include "firewall/iptables_rule_compiler.h"

#include <gtest/gtest.h>

#include <optional>
#include <regex>

#include "firewall/earlier_compilation.h"
#include "qel_common/string_conv.h"

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
using Both = std::pair<Texts, Texts>;  // incoming, outgoing

constexpr auto kV4 = IPAddressFamily::IPv4;
constexpr auto kV6 = IPAddressFamily::IPv6;

// Defaults of settings whose default actions are Block (connections) and
// Allow (packets).
const std::string kD1EstablishedIn = "-m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j DROP";
const std::string kD1NewIn = "-m conntrack --ctstate NEW -j DROP";
const std::string kD1Out = "-m conntrack --ctstate ESTABLISHED --ctdir REPLY -j DROP";
const std::string kD2 = "-m conntrack --ctstate ESTABLISHED --ctdir REPLY -j ACCEPT";
const std::string kD3 = "-j ACCEPT", kD4 = kD3;

enum Which { kAll, kByPacketRules, kOthers };

// Texts of all rules, of those that packet rules produced, or of the others
// but the loopback rules.
Texts Select(const std::vector<Rule>& rules, Which which) {
  Texts texts;
  for (const auto& rule : rules) {
    const bool loopback = rule.match == Tokens{"-i", "lo"} || rule.match == Tokens{"-o", "lo"};
    if (which == kAll || (!loopback && (which == kOthers) == rule.ruleItem.empty())) texts.push_back(RuleText(rule));
  }
  return texts;
}

Both Compile(const FirewallSettings& settings, IPAddressFamily::Type family, Which which = kByPacketRules,
             bool reliableDirection = true) {
  const auto compiled = CompileRules(settings, family, reliableDirection);
  return {Select(compiled.incoming, which), Select(compiled.outgoing, which)};
}

std::optional<RuleCompileError> ErrorOf(const FirewallSettings& settings, IPAddressFamily::Type family) {
  try {
    CompileRules(settings, family, true);
  } catch (const RuleCompileError& e) {
    return e;
  }
  return std::nullopt;
}

FirewallSettings With(std::vector<PacketRule> rules) { return {.packetRules = std::move(rules)}; }

PacketRule SshRule() {
  return {.name = u"ssh", .direction = PacketRuleDirection::Incoming, .protocol = PacketRuleProtocol::TCP,
          .localPorts = u"22", .remoteAddress = u"10.0.0.0/8", .doLogAttempts = true};
}

PacketRule PacketIn(std::u16string remote, std::u16string local = u"Any") {
  return {.name = u"r", .direction = PacketRuleDirection::IncomingPacket, .remoteAddress = std::move(remote),
          .localAddress = std::move(local)};
}

TEST(IptablesRuleCompilerTest, WorkedExampleForIpv4) {
  const std::string match = "-s 10.0.0.0/8 -p tcp -m tcp --dport 22 -m conntrack --ctstate ";
  EXPECT_EQ(Compile(With({SshRule()}), kV4, kAll),
            (Both{{"-i lo -j ACCEPT", match + "ESTABLISHED --ctdir ORIGINAL -j ACCEPT item_0000 name ssh",
                   match + "NEW -j NFLOG --nflog-prefix Allow --nflog-group 10001 item_0000 name ssh",
                   match + "NEW -j ACCEPT item_0000 name ssh", kD1EstablishedIn, kD1NewIn, kD2, kD3},
                  {"-o lo -j ACCEPT",
                   "-d 10.0.0.0/8 -p tcp -m tcp --sport 22 -m conntrack --ctstate ESTABLISHED --ctdir REPLY -j ACCEPT "
                   "item_0000 name ssh",
                   kD1Out, kD4}}));
  // The IPv6 rule set gets only the loopback and default rules.
  EXPECT_EQ(Compile(With({SshRule()}), kV6, kAll),
            (Both{{"-i lo -j ACCEPT", kD1EstablishedIn, kD1NewIn, kD2, kD3}, {"-o lo -j ACCEPT", kD1Out, kD4}}));
  // Other default actions give other defaults.
  const FirewallSettings reversed{.defaultIncomingAction = PacketRuleAction::Allow,
                                  .defaultIncomingPacketAction = PacketRuleAction::Block};
  EXPECT_EQ(Compile(reversed, kV4, kOthers),
            (Both{{"-m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL -j ACCEPT",
                   "-m conntrack --ctstate NEW -j ACCEPT", kD2, "-j DROP"},
                  {kD2, kD4}}));
}

TEST(IptablesRuleCompilerTest, UnreliableConntrackDirectionSwapsTheDirectionWords) {
  Both expected = Compile(With({SshRule()}), kV4, kAll);
  for (Texts* list : {&expected.first, &expected.second}) {
    for (auto& text : *list) {
      text = std::regex_replace(std::regex_replace(text, std::regex("ORIGINAL"), "@"), std::regex("REPLY"), "ORIGINAL");
      text = std::regex_replace(text, std::regex("@"), "REPLY");
    }
  }
  EXPECT_EQ(Compile(With({SshRule()}), kV4, kAll, false), expected);
}

TEST(IptablesRuleCompilerTest, Icmpv6ExampleForIpv6) {
  std::vector<PacketRule> rules(3, {.direction = PacketRuleDirection::IncomingPacket,
                                    .protocol = PacketRuleProtocol::ICMP, .icmpType = u"8"});
  rules.push_back({.name = u"ping6", .action = PacketRuleAction::Block,
                   .direction = PacketRuleDirection::IncomingPacket, .protocol = PacketRuleProtocol::ICMPv6,
                   .icmpType = u"128", .localAddress = u"fe80::/10"});
  EXPECT_EQ(Compile(With(rules), kV6).first,
            (Texts{"-d fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 128 -j DROP item_0003 name ping6"}));
  // ICMP only in IPv4, ICMPv6 only in IPv6.
  const std::string ping = "-p icmp -m icmp --icmp-type 8 -j ACCEPT item_000";
  EXPECT_EQ(Compile(With(rules), kV4).first, (Texts{ping + "0", ping + "1", ping + "2"}));
}

TEST(IptablesRuleCompilerTest, EachDirectionFillsBothListsInItsOrder) {
  const std::string in = "-s 10.0.0.0/8 -p tcp -m tcp --dport 22";
  const std::string out = "-d 10.0.0.0/8 -p tcp -m tcp --sport 22";
  const std::string est = " -m conntrack --ctstate ESTABLISHED", orig = est + " --ctdir ORIGINAL",
                    reply = est + " --ctdir REPLY", fresh = " -m conntrack --ctstate NEW";
  const std::string drop = " -j DROP item_0000 name r";
  const std::string log = " -j NFLOG --nflog-prefix Block --nflog-group 10001 item_0000 name r";
  const std::pair<PacketRuleDirection, Both> cases[] = {
      {PacketRuleDirection::Incoming, {{in + orig + drop, in + fresh + log, in + fresh + drop}, {out + reply + drop}}},
      {PacketRuleDirection::Outgoing,
       {{in + reply + drop}, {out + orig + drop, out + fresh + log, out + fresh + drop}}},
      {PacketRuleDirection::IncomingOutgoing,
       {{in + est + drop, in + fresh + log, in + fresh + drop},
        {out + est + drop, out + fresh + log, out + fresh + drop}}},
      {PacketRuleDirection::IncomingPacket, {{in + log, in + drop}, {}}},
      {PacketRuleDirection::OutgoingPacket, {{}, {out + log, out + drop}}},
      {PacketRuleDirection::IncomingOutgoingPacket, {{in + log, in + drop}, {out + log, out + drop}}},
  };
  for (const auto& [direction, expected] : cases) {
    const PacketRule rule{.name = u"r", .action = PacketRuleAction::Block, .direction = direction,
                          .protocol = PacketRuleProtocol::TCP, .localPorts = u"22", .remoteAddress = u"10.0.0.0/8",
                          .doLogAttempts = true};
    EXPECT_EQ(Compile(With({rule}), kV4), expected) << settings::EnumToString(direction);
  }
}

TEST(IptablesRuleCompilerTest, CatchAllRulesRemoveTheDefaultsTheyCover) {
  const std::pair<PacketRuleDirection, Both> cases[] = {
      {PacketRuleDirection::IncomingOutgoing, {{kD3}, {kD4}}},
      {PacketRuleDirection::Incoming, {{kD2, kD3}, {kD4}}},
      {PacketRuleDirection::Outgoing, {{kD1EstablishedIn, kD1NewIn, kD3}, {kD1Out, kD4}}},
      {PacketRuleDirection::IncomingOutgoingPacket, {{kD1EstablishedIn, kD1NewIn, kD2}, {kD1Out}}},
      {PacketRuleDirection::IncomingPacket, {{kD1EstablishedIn, kD1NewIn, kD2}, {kD1Out, kD4}}},
      {PacketRuleDirection::OutgoingPacket, {{kD1EstablishedIn, kD1NewIn, kD2, kD3}, {kD1Out}}},
  };
  for (const auto& [direction, expected] : cases) {
    EXPECT_EQ(Compile(With({{.direction = direction, .doLogAttempts = true}}), kV4, kOthers), expected)
        << settings::EnumToString(direction);
  }
  // A catch-all rule still logs; any restriction at all keeps the defaults.
  EXPECT_EQ(Compile(With({{.doLogAttempts = true}}), kV6).second,
            (Texts{"-m conntrack --ctstate ESTABLISHED -j ACCEPT item_0000",
                   "-m conntrack --ctstate NEW -j NFLOG --nflog-prefix Allow --nflog-group 10001 item_0000",
                   "-m conntrack --ctstate NEW -j ACCEPT item_0000"}));
  EXPECT_EQ(Compile(With({{.protocol = PacketRuleProtocol::TCP}}), kV4, kOthers).first,
            (Texts{kD1EstablishedIn, kD1NewIn, kD2, kD3}));
}

TEST(IptablesRuleCompilerTest, MatchFragmentsStandInTheToolsOrder) {
  using P = PacketRuleProtocol;
  const auto in = PacketRuleDirection::IncomingPacket;
  const auto out = PacketRuleDirection::OutgoingPacket;
  const struct {
    PacketRule rule;
    std::string match;
    IPAddressFamily::Type family = kV4;
  } cases[] = {
      {{.direction = in, .protocol = P::UDP, .remotePorts = u"53", .localPorts = u"1024-65535"},
       "-p udp -m udp --sport 53 --dport 1024:65535"},
      {{.direction = out, .protocol = P::UDP, .remotePorts = u"53"}, "-p udp -m udp --dport 53"},
      {{.direction = in, .protocol = P::TCP}, "-p tcp"},
      {{.direction = in, .protocol = P::TCP, .localPorts = u"0-65535"}, "-p tcp -m tcp"},
      {{.direction = in, .protocol = P::GRE, .remotePorts = u"80"}, "-p gre"},
      {{.direction = in, .protocol = P::IGMP}, "-p igmp"},
      {{.direction = in, .protocol = P::ICMP, .icmpType = u"3", .icmpCode = u"4"}, "-p icmp -m icmp --icmp-type 3/4"},
      {{.direction = in, .protocol = P::ICMP, .icmpCode = u"4"}, "-p icmp"},
      // The kernel takes IPv4 type 255 for "any type" and lists it so.
      {{.direction = in, .protocol = P::ICMP, .icmpType = u"255", .icmpCode = u"7"}, "-p icmp -m icmp --icmp-type any"},
      {{.direction = in, .protocol = P::ICMPv6, .icmpType = u"255"}, "-p ipv6-icmp -m icmp6 --icmpv6-type 255", kV6},
      {{.direction = in, .protocol = P::ICMPv6, .icmpType = u"128", .icmpCode = u"0"},
       "-p ipv6-icmp -m icmp6 --icmpv6-type 128/0", kV6},
      {{.direction = in, .protocol = P::TCP, .localPorts = u"22", .remoteAddress = u"10.0.0.1-10.0.0.9",
        .localAddress = u"192.168.7.7/16"},
       "-d 192.168.0.0/16 -p tcp -m iprange --src-range 10.0.0.1-10.0.0.9 -m tcp --dport 22"},
      {{.direction = out, .remoteAddress = u"2001:db8::1-2001:db8::ff", .localAddress = u"fe80::1"},
       "-s fe80::1/128 -m iprange --dst-range 2001:db8::1-2001:db8::ff", kV6},
      {{.direction = in, .remoteAddress = u"0.0.0.0/0"}, ""},
  };
  for (const auto& c : cases) {
    const auto compiled = Compile(With({c.rule}), c.family);
    EXPECT_EQ(c.rule.direction == in ? compiled.first : compiled.second,
              Texts{c.match + (c.match.empty() ? "" : " ") + "-j ACCEPT item_0000"});
  }
}

TEST(IptablesRuleCompilerTest, AddressListsPairEveryRemoteWithEveryLocalOfTheFamily) {
  const std::string tail = " -j ACCEPT item_0000 name r";
  EXPECT_EQ(Compile(With({PacketIn(u"10.0.0.1;;fe80::1;10.0.0.2", u"10.9.0.1;10.9.0.2")}), kV4).first,
            (Texts{"-s 10.0.0.1/32 -d 10.9.0.1/32" + tail, "-s 10.0.0.1/32 -d 10.9.0.2/32" + tail,
                   "-s 10.0.0.2/32 -d 10.9.0.1/32" + tail, "-s 10.0.0.2/32 -d 10.9.0.2/32" + tail}));
  const auto mixed = With({{.protocol = PacketRuleProtocol::TCP, .remoteAddress = u"10.0.0.1;fe80::1"}});
  EXPECT_EQ(Compile(mixed, kV4).first.size(), 2u);  // established and new
  EXPECT_EQ(Compile(mixed, kV6).first,
            (Texts{"-s fe80::1/128 -p tcp -m conntrack --ctstate ESTABLISHED -j ACCEPT item_0000",
                   "-s fe80::1/128 -p tcp -m conntrack --ctstate NEW -j ACCEPT item_0000"}));
}

TEST(IptablesRuleCompilerTest, ZonesExpandOverTheirAddressesOfTheFamily) {
  auto settings = With({PacketIn(u"Trusted"), PacketIn(u"Local"), PacketIn(u"Public", u"10.9.0.1")});
  settings.networkZonesTrusted = {u"10.0.0.0/8", u"fe80::/10", u"10.1.1.1-10.1.1.5"};
  settings.networkZonesPublic = {u"192.168.0.0/16"};
  EXPECT_EQ(Compile(settings, kV4).first,
            (Texts{"-s 10.0.0.0/8 -j ACCEPT item_0000 name r zone Trusted",
                   "-m iprange --src-range 10.1.1.1-10.1.1.5 -j ACCEPT item_0000 name r zone Trusted",
                   "-s 192.168.0.0/16 -d 10.9.0.1/32 -j ACCEPT item_0002 name r zone Public"}));
  EXPECT_EQ(Compile(settings, kV6).first, (Texts{"-s fe80::/10 -j ACCEPT item_0000 name r zone Trusted"}));

  settings.networkZonesLocal = {u"10.0.0.0/40"};
  const auto error = ErrorOf(settings, kV6);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->RuleIndex(), RuleCompileError::npos);
  EXPECT_STREQ(error->what(), "networkZonesLocal '10.0.0.0/40': invalid mask in network address");
}

// Each step compiles taking over from the step before, and must give what
// compiling the same settings afresh gives: a rule changed, a rule inserted
// (every later item number moves), a zone changed under a rule naming it,
// a catch-all rule removed, logging switched on.
TEST(IptablesRuleCompilerTest, TakingOverUnchangedRulesGivesWhatCompilingAfreshGives) {
  std::vector<FirewallSettings> steps;
  auto settings = With({SshRule(), PacketIn(u"Trusted"), PacketIn(u"Any", u"10.9.0.1"), PacketIn(u"Any")});
  settings.networkZonesTrusted = {u"10.0.0.0/8", u"fe80::/10"};
  steps.push_back(settings);
  settings.packetRules[2].localAddress = u"10.9.0.2";
  steps.push_back(settings);
  settings.packetRules.insert(settings.packetRules.begin() + 1, PacketIn(u"fe80::1"));
  steps.push_back(settings);
  settings.networkZonesTrusted.push_back(u"192.168.0.0/16");
  steps.push_back(settings);
  settings.packetRules.pop_back();
  steps.push_back(settings);
  settings.packetRules[0].doLogAttempts = false;
  settings.packetRules[2].doLogAttempts = true;
  steps.push_back(settings);

  for (const auto family : {kV4, kV6}) {
    CompiledRules earlier = CompileRules(steps[0], family, true);
    for (std::size_t step = 1; step < steps.size(); ++step) {
      const EarlierCompilation from{steps[step - 1], earlier};
      CompiledRules taken = CompileRules(steps[step], family, true, {}, &from);
      const CompiledRules fresh = CompileRules(steps[step], family, true);
      EXPECT_EQ(Select(taken.incoming, kAll), Select(fresh.incoming, kAll)) << "step " << step << " family " << family;
      EXPECT_EQ(Select(taken.outgoing, kAll), Select(fresh.outgoing, kAll)) << "step " << step << " family " << family;
      EXPECT_EQ(taken.incomingStarts, fresh.incomingStarts);
      EXPECT_EQ(taken.outgoingStarts, fresh.outgoingStarts);
      earlier = std::move(taken);
    }
  }
}

TEST(IptablesRuleCompilerTest, RuleItemsWidenBeyondFourDigits) {
  std::vector<PacketRule> rules(10001, {.direction = PacketRuleDirection::IncomingPacket,
                                        .protocol = PacketRuleProtocol::TCP, .doLogAttempts = true});
  const auto produced = Compile(With(rules), kV4).first;
  ASSERT_EQ(produced.size(), 20002u);
  EXPECT_EQ(produced[19999], "-p tcp -j ACCEPT item_9999");
  EXPECT_EQ(produced[20000], "-p tcp -j NFLOG --nflog-prefix Allow --nflog-group 20001 item_10000");

  // NFLOG groups end at 65535: the rule after that one cannot log.
  rules.assign(55536, {.direction = PacketRuleDirection::IncomingPacket, .protocol = PacketRuleProtocol::TCP});
  rules.back().doLogAttempts = true;
  EXPECT_TRUE(ErrorOf(With(rules), kV4));
  rules.pop_back();
  rules.back().doLogAttempts = true;
  EXPECT_EQ(Compile(With(rules), kV4).first[55534],
            "-p tcp -j NFLOG --nflog-prefix Allow --nflog-group 65535 item_55534");
}

TEST(IptablesRuleCompilerTest, BadFieldsFailTheCompilationNamingTheField) {
  const struct {
    PacketRule rule;
    std::string field, value, reason;
  } cases[] = {
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
      const auto error = ErrorOf(With({SshRule(), c.rule}), family);
      ASSERT_TRUE(error) << c.field << " '" << c.value << "' compiled";
      EXPECT_EQ(std::pair(error->Field(), error->Value()), std::pair(c.field, c.value));
      EXPECT_EQ(std::string(error->what()),
                "packet rule 1 (" + tools::ToUtf8(c.rule.name) + "), " + c.field + " '" + c.value + "': " + c.reason);
    }
  }
}

}  // namespace
}  // namespace qel::firewall
