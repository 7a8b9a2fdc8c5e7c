#include "firewall/rule_model.h"

#include <gtest/gtest.h>

namespace qel::firewall {
namespace {

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

}  // namespace
}  // namespace qel::firewall
