#include "firewall/iptables_output_parser.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>

#include "firewall/diagnostic_dump.h"
#include "tests/support/fake_framework.h"
#include "tests/support/iptables_listing.h"

namespace qel::firewall {
namespace {

// Splits on blanks on its own, so that the expectations do not lean on the
// model's tokenizer.
Tokens Words(const std::string& text) {
  std::istringstream in(text);
  return std::vector<std::string>(std::istream_iterator<std::string>(in), {});
}

Rule J(const std::string& match, const std::string& target, bool isGoto = false) {
  Rule rule;
  rule.match = Words(match);
  rule.target = Words(target);
  rule.isGoto = isGoto;
  return rule;
}

Rule Policy(std::string word) {
  Rule rule;
  rule.target = {std::move(word)};
  rule.isPolicy = true;
  return rule;
}

// Parses text that must be accepted and returns its state.
State ParseOk(std::string_view output) {
  State state;
  EXPECT_EQ(ParseIptablesOutput(nullptr, output, state), oro::errOk) << output;
  return state;
}

TEST(IptablesOutputParser, ListingLinesBecomeChainsAndRules) {
  const std::pair<const char*, State> cases[] = {
      {"", {}},
      {" \t\r\n\f\v\n  ", {}},
      // A built-in chain keeps its policy last; a custom chain appends in order.
      {"-P INPUT ACCEPT\n-A INPUT -s 10.0.0.1/32 -j DROP\n-A INPUT -j vorn_input\n",
       {{{"INPUT", {J("-s 10.0.0.1/32", "DROP"), J("", "vorn_input"), Policy("ACCEPT")}}}}},
      {"-N vorn_input\n-A vorn_input -j first\n-A vorn_input -g vorn_bypass",
       {{{"vorn_input", {J("", "first"), J("", "vorn_bypass", true)}}}}},
      // A "-j" anywhere wins over a "-g"; a rule without either has only a match.
      {"-N c\n-A c -g a -j b\n-A c -p tcp -g x -m y\n-A c -p tcp\n",
       {{{"c", {J("-g a", "b"), J("-p tcp", "x -m y", true), J("-p tcp", "")}}}}},
      // A glued "REPLY-m" or "REPLY-j" is separated in the match only.
      {"-P PREROUTING ACCEPT\n-A PREROUTING -m conntrack --ctdir REPLY-m comment --comment x -j ACCEPT\n"
       "-A PREROUTING -m conntrack --ctdir NOREPLY-jx -j MARK --set-mark REPLY-m\n",
       {{{"PREROUTING", {J("-m conntrack --ctdir REPLY -m comment --comment x", "ACCEPT"),
                         J("-m conntrack --ctdir NOREPLY -jx", "MARK --set-mark REPLY-m"), Policy("ACCEPT")}}}}},
      // Rules of chains not declared before them are dropped.
      {"-A NOSUCH -j ACCEPT\n-A INPUT -j ACCEPT\n-P INPUT DROP\n", {{{"INPUT", {Policy("DROP")}}}}},
      // The first chain of a name receives its rules.
      {"-N dup\n-N other\n-N dup\n-A dup -j X\n-A other -j Y\n",
       {{{"dup", {J("", "X")}}, {"other", {J("", "Y")}}, {"dup", {}}}}},
      {"\t -P POSTROUTING DROP \r\n\v-A POSTROUTING -j ACCEPT\f\r\n   -N vorn_input\t",
       {{{"POSTROUTING", {J("", "ACCEPT"), Policy("DROP")}}, {"vorn_input", {}}}}},
      {"# Warning: iptables-legacy tables present, use iptables-legacy to see them\n"
       "*filter\n:INPUT ACCEPT [0:0]\n-a INPUT -j DROP\n-X vorn_input\n-P\n-A\nCOMMIT\n-N vorn_input\n",
       {{{"vorn_input", {}}}}},
  };
  for (const auto& [output, expected] : cases) {
    const State state = ParseOk(output);
    EXPECT_EQ(state, expected) << output << "\n" << DumpState(state);
  }
}

TEST(IptablesOutputParser, MalformedLineStopsParsingAndIsTraced) {
  for (const std::string line : {"-P INPUT", "-A FOO"}) {
    auto tracer = test::Make<test::FakeTracer>();
    State state;
    EXPECT_EQ(ParseIptablesOutput(tracer.Get(), "-N FOO\n-P OUTPUT DROP\n  " + line + " \r\n-N after\n", state),
              oro::errUnexpected);
    EXPECT_EQ(state, (State{{Chain{"FOO", {}}, Chain{"OUTPUT", {Policy("DROP")}}}})) << DumpState(state);
    // Log readers filter on this exact text.
    EXPECT_EQ(tracer->Lines(), (std::vector<std::pair<std::uint32_t, std::string>>{
                                   {300u, "result_t {anonymous}::ParseLine(oro::ITracer*, const string_view&, "
                                          "qel::firewall::State&): Malformed " + line}}));
  }
  State state;
  EXPECT_EQ(ParseIptablesOutput(nullptr, "-A FOO", state), oro::errUnexpected);
}

// `iptables -S` of a throwaway network namespace; the nft and legacy back
// ends print the same lines, the nft one adds a warning first when legacy
// tables exist.
TEST(IptablesOutputParser, CapturedListingParsesAndPrintsBackUnchanged) {
  const State state = ParseOk(
      "# Warning: iptables-legacy tables present, use iptables-legacy to see them\n"
      "-P INPUT ACCEPT\n-P FORWARD DROP\n-P OUTPUT ACCEPT\n-N vorn_bypass\n-N vorn_input\n"
      "-A INPUT -i lo -j ACCEPT\n"
      "-A INPUT -m conntrack --ctstate RELATED,ESTABLISHED --ctdir REPLY -j ACCEPT\n"
      "-A INPUT -j vorn_input\n"
      "-A OUTPUT -d 192.168.1.0/24 -p tcp\n"
      "-A vorn_bypass -p icmp -m icmp --icmp-type 8/0 -j ACCEPT\n"
      "-A vorn_input -p tcp -m multiport --dports 22,80,443 -m comment --comment \"agent ports\" -j ACCEPT\n"
      "-A vorn_input -s 10.0.0.0/8 -p udp -m udp --dport 53 -j NFLOG --nflog-prefix Allow --nflog-group 10001\n"
      "-A vorn_input -g vorn_bypass\n");
  const State expected{{
      {"INPUT",
       {J("-i lo", "ACCEPT"), J("-m conntrack --ctstate RELATED,ESTABLISHED --ctdir REPLY", "ACCEPT"),
        J("", "vorn_input"), Policy("ACCEPT")}},
      {"FORWARD", {Policy("DROP")}},
      {"OUTPUT", {J("-d 192.168.1.0/24 -p tcp", ""), Policy("ACCEPT")}},
      {"vorn_bypass", {J("-p icmp -m icmp --icmp-type 8/0", "ACCEPT")}},
      {"vorn_input",
       {J("-p tcp -m multiport --dports 22,80,443 -m comment --comment \"agent ports\"", "ACCEPT"),
        J("-s 10.0.0.0/8 -p udp -m udp --dport 53", "NFLOG --nflog-prefix Allow --nflog-group 10001"),
        J("", "vorn_bypass", true)}},
  }};
  EXPECT_EQ(state, expected) << DumpState(state);
  EXPECT_EQ(ParseOk(test::PrintListing(expected)), expected) << test::PrintListing(expected);
}

// A listing parsed as it arrives, in pieces of any size, ends as the whole
// text parsed at once would: lines cut in two are not parsed half.
TEST(IptablesOutputParser, ListingReadInPiecesParsesAsAWhole) {
  const std::string texts[] = {
      "-P INPUT ACCEPT\n-N vorn_input\n-A INPUT -j vorn_input\n-A vorn_input -s 10.0.0.1/32 -p tcp -j DROP\n"
      "-A vorn_input -m conntrack --ctdir REPLY-m comment --comment x -j ACCEPT",
      "\t -P POSTROUTING DROP \r\n\v-A POSTROUTING -j ACCEPT\f\r\n   -N vorn_input\t\n\n",
      "-N FOO\n-P OUTPUT DROP\n-A FOO -j X\n-P INPUT\n-N after\n",
  };
  for (const auto& text : texts) {
    State whole;
    const oro::result_t wholeResult = ParseIptablesOutput(nullptr, text, whole);
    for (const std::size_t piece : {1, 5, 64}) {
      State state;
      IptablesOutputParser parser(nullptr, state);
      for (std::size_t read = piece; read < text.size(); read += piece) {
        parser.ParseCompleteLines(std::string_view(text).substr(0, read));
      }
      EXPECT_EQ(parser.Finish(text), wholeResult) << text << " in pieces of " << piece;
      EXPECT_EQ(state, whole) << text << " in pieces of " << piece << "\n" << DumpState(state);
    }
  }
}

// Many chains interleaved with many rules: every rule must find its own chain.
TEST(IptablesOutputParser, LargeListingParsesBackUnchanged) {
  State state{{{"INPUT", {Policy("ACCEPT")}}}};
  for (int c = 0; c < 200; ++c) state.chainList.push_back(Chain{"chain_" + std::to_string(c), {}});
  for (std::size_t r = 0; r < 50000; ++r) {
    auto& rules = state.chainList[r % state.chainList.size()].ruleList;
    rules.insert(rules.end() - (r % state.chainList.size() == 0 ? 1 : 0),
                 J("-p tcp -m tcp --dport " + std::to_string(r % 65536), "ACCEPT"));
  }
  EXPECT_TRUE(ParseOk(test::PrintListing(state)) == state);
}

}  // namespace
}  // namespace qel::firewall
