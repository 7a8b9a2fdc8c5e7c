#include "firewall/diagnostic_dump.h"

#include <gtest/gtest.h>

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::firewall {
namespace {

TEST(DiagnosticDump, TokensAndStateNestChainsAndRules) {
  EXPECT_EQ(DumpTokens({}), R"({"tokens":[]})");
  EXPECT_EQ(DumpRuleList({}), "[]");
  EXPECT_EQ(DumpState(State{}), R"({"chainList":[]})");

  const Rule accept{{"-p", "tcp"}, {"ACCEPT"}, false, false, "", "ssh", "item_0000", ""};
  const Rule policy{{}, {"DROP"}, false, true, "ostra", "", "", "Trusted"};
  const Rule jump{{}, {"vorn_input"}, true, false, "", "", "", ""};
  EXPECT_EQ(DumpState(State{{Chain{"vorn_input", {accept, policy}}, Chain{"INPUT", {jump}}}}),
            R"({"chainList":[{"name":"vorn_input", "ruleList":[)"
            R"({"match":"{"tokens":[-p,tcp]}","target":"{"tokens":[ACCEPT]}","isGoto":"0","isPolicy":"0",)"
            R"("tag":"","ruleName":"ssh","ruleItem":"item_0000","zoneName":""},)"
            R"({"match":"{"tokens":[]}","target":"{"tokens":[DROP]}","isGoto":"0","isPolicy":"1",)"
            R"("tag":"ostra","ruleName":"","ruleItem":"","zoneName":"Trusted"}]},)"
            R"({"name":"INPUT", "ruleList":[)"
            R"({"match":"{"tokens":[]}","target":"{"tokens":[vorn_input]}","isGoto":"1","isPolicy":"0",)"
            R"("tag":"","ruleName":"","ruleItem":"","zoneName":""}]}]})");
}

// The restore script as the tool reads it: one line per change kind, an
// unknown kind as an empty line.
TEST(RuleModel, ChangesBecomeTheLinesOfOneRestoreScript) {
  const ChangeList changes{{ChangeKind::CreateChain, "vorn_input", "", "", false, -1},
                           {ChangeKind::SetPolicy, "INPUT", "", "DROP", false, -1},
                           {ChangeKind::AddRule, "vorn_input", "-p tcp", "ACCEPT", false, 3},
                           {ChangeKind::AddRule, "vorn_input", "", "vorn_bypass", true, -1},
                           {ChangeKind::DeleteRule, "INPUT", "", "vorn_input", false, -1},
                           {ChangeKind::FlushChain, "vorn_input", "", "", false, -1},
                           {ChangeKind::DeleteChain, "vorn_input", "", "", false, -1},
                           {static_cast<ChangeKind>(9), "x", "-p udp", "DROP", false, -1}};
  EXPECT_EQ(RestoreScript("filter", changes),
            "*filter\n:vorn_input - [0:0]\n-P INPUT DROP\n-I vorn_input 3 -p tcp -j ACCEPT\n"
            "-A vorn_input -g vorn_bypass\n-D INPUT -j vorn_input\n-F vorn_input\n-X vorn_input\n\nCOMMIT\n");
  EXPECT_EQ(ChangeLine(changes[2]), "-I vorn_input 3 -p tcp -j ACCEPT");
}

// Copies share their words; what compares is the words, however they came
// to be.
TEST(RuleModel, TokensCompareByTheirWordsAndSplitAtRunsOfBlanks) {
  const Tokens split = SplitTokens("  -p tcp   --dport 22 ");
  const Tokens listed{"-p", "tcp", "--dport", "22"};
  EXPECT_EQ(split, listed);
  EXPECT_EQ(Tokens(std::vector<std::string>{"-p", "tcp", "--dport", "22"}), split);
  EXPECT_NE(split, (Tokens{"-p", "tcp", "--dport"}));
  EXPECT_NE(split, (Tokens{"-p", "udp", "--dport", "22"}));
  EXPECT_EQ(SplitTokens("   "), Tokens{});

  const Tokens copy = split;
  EXPECT_EQ(copy.begin(), split.begin());
  const Tokens both = Concat(split, Tokens{"-j", "ACCEPT"});
  EXPECT_EQ(JoinTokens(both), "-p tcp --dport 22 -j ACCEPT");
  EXPECT_EQ(JoinTokens(split), "-p tcp --dport 22");
  EXPECT_EQ(Concat(Tokens{}, split), split);
}

TEST(DiagnosticDump, SettingsCharacterForCharacter) {
  using namespace settings;
  const PacketRule ssh{.name = u"ssh \u00e9", .action = PacketRuleAction::Block,
                       .direction = PacketRuleDirection::IncomingPacket, .protocol = PacketRuleProtocol::TCP,
                       .localPorts = u"22", .remoteAddress = u"Trusted", .doLogAttempts = true};
  const FirewallSettings s{.defaultIncomingAction = PacketRuleAction::Block,
                           .defaultIncomingPacketAction = PacketRuleAction::Allow,
                           .packetRules = {ssh, PacketRule{}},
                           .openOstraPorts = true,
                           .networkZonesTrusted = {u"10.0.0.0/8", u"fe80::/10"},
                           .networkZonesPublic = {u"192.168.0.1-192.168.0.9"}};
  EXPECT_EQ(DumpSettings(s),
            R"({"defaultIncomingAction":"Block","defaultIncomingPacketAction":"Allow",openOstraPorts":"1",)"
            R"("packetRules":"[)"
            R"({"name":"ssh é","action":"Block","direction":"IncomingPacket","protocol":"TCP",)"
            R"("remotePorts":"Any","localPorts":"22","icmpType":"Any","icmpCode":"Any",)"
            R"("remoteAddress":"Trusted","localAddress":"Any","doLogAttempts":"1"},)"
            R"({"name":"","action":"Allow","direction":"IncomingOutgoing","protocol":"Any",)"
            R"("remotePorts":"Any","localPorts":"Any","icmpType":"Any","icmpCode":"Any",)"
            R"("remoteAddress":"Any","localAddress":"Any","doLogAttempts":"0"}]",)"
            R"("networkZonesTrusted":"{"address":[10.0.0.0/8,fe80::/10]}",)"
            R"("networkZonesLocal":"{"address":[]}",)"
            R"("networkZonesPublic":"{"address":[192.168.0.1-192.168.0.9]}"})");
}

}  // namespace
}  // namespace qel::firewall
