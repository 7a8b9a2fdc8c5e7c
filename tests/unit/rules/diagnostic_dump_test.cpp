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
