#include "firewall/iptables_output_parser.h"

#include <gtest/gtest.h>

#include <string>

#include "firewall/diagnostic_dump.h"
#include "tests/support/fake_framework.h"
#include "tests/support/iptables_listing.h"

namespace qel::firewall {
namespace {

constexpr char kMalformedPrefix[] =
    "result_t {anonymous}::ParseLine(oro::ITracer*, const string_view&, qel::firewall::State&): Malformed ";

Rule Jump(Tokens match, Tokens target) {
  Rule rule;
  rule.match = std::move(match);
  rule.target = std::move(target);
  return rule;
}

Rule Goto(Tokens match, Tokens target) {
  Rule rule = Jump(std::move(match), std::move(target));
  rule.isGoto = true;
  return rule;
}

Rule Policy(std::string word) {
  Rule rule;
  rule.target = {std::move(word)};
  rule.isPolicy = true;
  return rule;
}

struct Parsed {
  oro::result_t result;
  State state;
};

Parsed Parse(std::string_view output, oro::ITracer* tracer = nullptr) {
  Parsed parsed{oro::errOk, {}};
  parsed.result = ParseIptablesOutput(tracer, output, parsed.state);
  return parsed;
}

// Parses text that must be accepted and returns its state.
State ParseOk(std::string_view output) {
  Parsed parsed = Parse(output);
  EXPECT_EQ(parsed.result, oro::errOk) << output;
  return std::move(parsed.state);
}

TEST(IptablesOutputParser, EmptyOrBlankOutputYieldsEmptyState) {
  EXPECT_EQ(ParseOk(""), State{});
  EXPECT_EQ(ParseOk("\n\n"), State{});
  EXPECT_EQ(ParseOk(" \t\r\n\f\v\n  "), State{});
}

TEST(IptablesOutputParser, BuiltInChainKeepsItsPolicyLast) {
  const State state = ParseOk("-P INPUT ACCEPT\n-A INPUT -s 10.0.0.1/32 -j DROP\n-A INPUT -j vorn_input\n");
  const State expected{{Chain{"INPUT", {Jump({"-s", "10.0.0.1/32"}, {"DROP"}), Jump({}, {"vorn_input"}),
                                        Policy("ACCEPT")}}}};
  EXPECT_EQ(state, expected) << DumpState(state);
}

TEST(IptablesOutputParser, CustomChainAppendsInListingOrder) {
  const State state = ParseOk("-N vorn_input\n-A vorn_input -j first\n-A vorn_input -j second\n");
  const State expected{{Chain{"vorn_input", {Jump({}, {"first"}), Jump({}, {"second"})}}}};
  EXPECT_EQ(state, expected) << DumpState(state);
}

TEST(IptablesOutputParser, GotoRuleWithoutMatch) {
  const State state = ParseOk("-N vorn_input\n-A vorn_input -g vorn_bypass");
  const State expected{{Chain{"vorn_input", {Goto({}, {"vorn_bypass"})}}}};
  EXPECT_EQ(state, expected) << DumpState(state);
}

TEST(IptablesOutputParser, JumpAnywhereWinsOverGoto) {
  const State state = ParseOk("-N c\n-A c -g a -j b\n-A c -p tcp -g x -m y\n");
  const State expected{{Chain{"c", {Jump({"-g", "a"}, {"b"}), Goto({"-p", "tcp"}, {"x", "-m", "y"})}}}};
  EXPECT_EQ(state, expected) << DumpState(state);
}

TEST(IptablesOutputParser, RuleWithoutJumpHasOnlyMatch) {
  const State state = ParseOk("-P INPUT ACCEPT\n-A INPUT -p tcp\n");
  const State expected{{Chain{"INPUT", {Jump({"-p", "tcp"}, {}), Policy("ACCEPT")}}}};
  EXPECT_EQ(state, expected) << DumpState(state);
}

TEST(IptablesOutputParser, GluedReplyDirectionIsSeparatedInMatchOnly) {
  const State state = ParseOk(
      "-P INPUT ACCEPT\n"
      "-A INPUT -m conntrack --ctdir REPLY-m comment --comment x -j ACCEPT\n"
      "-A INPUT -m conntrack --ctdir NOREPLY-jx -j MARK --set-mark REPLY-m\n");
  ASSERT_EQ(state.chainList.size(), 1u);
  const auto& rules = state.chainList[0].ruleList;
  ASSERT_EQ(rules.size(), 3u);
  EXPECT_EQ(rules[0].match, (Tokens{"-m", "conntrack", "--ctdir", "REPLY", "-m", "comment", "--comment", "x"}));
  EXPECT_EQ(rules[0].target, Tokens{"ACCEPT"});
  EXPECT_EQ(rules[1].match, (Tokens{"-m", "conntrack", "--ctdir", "NOREPLY", "-jx"}));
  EXPECT_EQ(rules[1].target, (Tokens{"MARK", "--set-mark", "REPLY-m"}));
}

TEST(IptablesOutputParser, RulesOfUndeclaredChainsAreDropped) {
  EXPECT_EQ(ParseOk("-A NOSUCH -j ACCEPT\n"), State{});
  EXPECT_EQ(ParseOk("-A INPUT -j ACCEPT\n-P INPUT DROP\n"), (State{{Chain{"INPUT", {Policy("DROP")}}}}));
}

TEST(IptablesOutputParser, FirstChainOfANameReceivesItsRules) {
  const State state = ParseOk("-N dup\n-N other\n-N dup\n-A dup -j X\n-A other -j Y\n");
  const State expected{{Chain{"dup", {Jump({}, {"X"})}}, Chain{"other", {Jump({}, {"Y"})}}, Chain{"dup", {}}}};
  EXPECT_EQ(state, expected) << DumpState(state);
}

TEST(IptablesOutputParser, SurroundingWhitespaceIsIgnored) {
  const State state = ParseOk("\t -P INPUT DROP \r\n\v-A INPUT -j ACCEPT\f\r\n   -N vorn_input\t");
  const State expected{{Chain{"INPUT", {Jump({}, {"ACCEPT"}), Policy("DROP")}}, Chain{"vorn_input", {}}}};
  EXPECT_EQ(state, expected) << DumpState(state);
}

TEST(IptablesOutputParser, OtherLinesAreIgnored) {
  const State state = ParseOk(
      "# Warning: iptables-legacy tables present, use iptables-legacy to see them\n"
      "*filter\n:INPUT ACCEPT [0:0]\n-a INPUT -j DROP\n-X vorn_input\n-P\n-A\nCOMMIT\n"
      "-N vorn_input\n");
  EXPECT_EQ(state, (State{{Chain{"vorn_input", {}}}})) << DumpState(state);
}

TEST(IptablesOutputParser, MalformedLineStopsParsingAndIsTraced) {
  for (const std::string line : {"-P INPUT", "-A FOO"}) {
    SCOPED_TRACE(line);
    auto tracer = test::Make<test::FakeTracer>();
    const Parsed parsed = Parse("-N FOO\n-P OUTPUT DROP\n  " + line + " \r\n-N after\n", tracer.Get());
    EXPECT_EQ(parsed.result, oro::errUnexpected);
    EXPECT_EQ(parsed.state, (State{{Chain{"FOO", {}}, Chain{"OUTPUT", {Policy("DROP")}}}}))
        << DumpState(parsed.state);
    const auto traced = tracer->Lines();
    ASSERT_EQ(traced.size(), 1u);
    EXPECT_EQ(traced[0].first, 300u);
    EXPECT_EQ(traced[0].second, kMalformedPrefix + line);
  }
  EXPECT_EQ(Parse("-A FOO", nullptr).result, oro::errUnexpected);
}

State RealisticState() {
  return State{{
      Chain{"INPUT",
            {Jump({"-i", "lo"}, {"ACCEPT"}),
             Jump({"-m", "conntrack", "--ctstate", "RELATED,ESTABLISHED", "--ctdir", "REPLY"}, {"ACCEPT"}),
             Jump({}, {"vorn_input"}), Policy("DROP")}},
      Chain{"FORWARD", {Policy("ACCEPT")}},
      Chain{"OUTPUT", {Jump({"-d", "192.168.1.0/24", "-p", "tcp"}, {}), Policy("ACCEPT")}},
      Chain{"vorn_bypass", {}},
      Chain{"vorn_input",
            {Jump({"-s", "10.0.0.0/8", "-p", "udp", "-m", "udp", "--dport", "53"},
                  {"NFLOG", "--nflog-prefix", "Allow", "--nflog-group", "10001"}),
             Jump({"-p", "tcp", "-m", "multiport", "--dports", "22,80,443"}, {"ACCEPT"}),
             Goto({}, {"vorn_bypass"})}},
  }};
}

TEST(IptablesOutputParser, PrintedStateParsesBackUnchanged) {
  const State state = RealisticState();
  EXPECT_EQ(ParseOk(test::PrintListing(state)), state) << test::PrintListing(state);
}

// Many chains interleaved with many rules: every rule must find its own chain.
TEST(IptablesOutputParser, LargeListingParsesBackUnchanged) {
  State state;
  state.chainList.push_back(Chain{"INPUT", {Policy("ACCEPT")}});
  for (int c = 0; c < 200; ++c) state.chainList.push_back(Chain{"chain_" + std::to_string(c), {}});
  for (int r = 0; r < 50000; ++r) {
    auto& rules = state.chainList[r % state.chainList.size()].ruleList;
    const std::string port = std::to_string(r % 65536);
    rules.insert(rules.end() - (r % state.chainList.size() == 0 ? 1 : 0),
                 Jump({"-p", "tcp", "-m", "tcp", "--dport", port}, {"ACCEPT"}));
  }
  EXPECT_TRUE(ParseOk(test::PrintListing(state)) == state);
}

// `iptables -S` of a throwaway network namespace; the nft and legacy back
// ends print the same lines, the nft one adds a warning first when legacy
// tables exist.
constexpr char kCapturedFilterListing[] =
    "# Warning: iptables-legacy tables present, use iptables-legacy to see them\n"
    "-P INPUT ACCEPT\n"
    "-P FORWARD DROP\n"
    "-P OUTPUT ACCEPT\n"
    "-N vorn_bypass\n"
    "-N vorn_input\n"
    "-A INPUT -i lo -j ACCEPT\n"
    "-A INPUT -m conntrack --ctstate RELATED,ESTABLISHED --ctdir REPLY -j ACCEPT\n"
    "-A INPUT -j vorn_input\n"
    "-A OUTPUT -m conntrack --ctdir REPLY -m comment --comment x -j ACCEPT\n"
    "-A OUTPUT -d 192.168.1.0/24 -p tcp\n"
    "-A vorn_bypass -p icmp -m icmp --icmp-type 8/0 -j ACCEPT\n"
    "-A vorn_input -p tcp -m multiport --dports 22,80,443 -m comment --comment \"agent ports\" -j ACCEPT\n"
    "-A vorn_input -s 10.0.0.0/8 -p udp -m udp --dport 53 -j NFLOG --nflog-prefix Allow --nflog-group 10001\n"
    "-A vorn_input -m conntrack --ctstate NEW -m comment --comment \"block new\" -j DROP\n"
    "-A vorn_input -g vorn_bypass\n";

TEST(IptablesOutputParser, CapturedListing) {
  const State state = ParseOk(kCapturedFilterListing);
  const State expected{{
      Chain{"INPUT",
            {Jump({"-i", "lo"}, {"ACCEPT"}),
             Jump({"-m", "conntrack", "--ctstate", "RELATED,ESTABLISHED", "--ctdir", "REPLY"}, {"ACCEPT"}),
             Jump({}, {"vorn_input"}), Policy("ACCEPT")}},
      Chain{"FORWARD", {Policy("DROP")}},
      Chain{"OUTPUT",
            {Jump({"-m", "conntrack", "--ctdir", "REPLY", "-m", "comment", "--comment", "x"}, {"ACCEPT"}),
             Jump({"-d", "192.168.1.0/24", "-p", "tcp"}, {}), Policy("ACCEPT")}},
      Chain{"vorn_bypass", {Jump({"-p", "icmp", "-m", "icmp", "--icmp-type", "8/0"}, {"ACCEPT"})}},
      Chain{"vorn_input",
            {Jump({"-p", "tcp", "-m", "multiport", "--dports", "22,80,443", "-m", "comment", "--comment",
                   "\"agent", "ports\""},
                  {"ACCEPT"}),
             Jump({"-s", "10.0.0.0/8", "-p", "udp", "-m", "udp", "--dport", "53"},
                  {"NFLOG", "--nflog-prefix", "Allow", "--nflog-group", "10001"}),
             Jump({"-m", "conntrack", "--ctstate", "NEW", "-m", "comment", "--comment", "\"block", "new\""},
                  {"DROP"}),
             Goto({}, {"vorn_bypass"})}},
  }};
  EXPECT_EQ(state, expected) << DumpState(state);
}

TEST(IptablesOutputParser, CapturedMangleListing) {
  const State mangle = ParseOk(
      "-P PREROUTING ACCEPT\n-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P OUTPUT ACCEPT\n-P POSTROUTING ACCEPT\n"
      "-N vorn_pre_isolation\n"
      "-A PREROUTING -p tcp -j MARK --set-xmark 0x1/0xffffffff\n"
      "-A PREROUTING -j vorn_pre_isolation\n");
  ASSERT_EQ(mangle.chainList.size(), 6u);
  EXPECT_EQ(mangle.chainList[0],
            (Chain{"PREROUTING", {Jump({"-p", "tcp"}, {"MARK", "--set-xmark", "0x1/0xffffffff"}),
                                  Jump({}, {"vorn_pre_isolation"}), Policy("ACCEPT")}}));
  EXPECT_EQ(mangle.chainList[5], (Chain{"vorn_pre_isolation", {}}));
}

}  // namespace
}  // namespace qel::firewall
