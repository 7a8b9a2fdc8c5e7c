#include "firewall/tokens.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace qel::firewall {

// Failures show the words rather than the bytes of the handle.
void PrintTo(const Tokens& tokens, std::ostream* out) { *out << '"' << JoinTokens(tokens) << '"'; }

namespace {

// What compares is the words, however the lists came to be.
TEST(Tokens, CompareByTheirWordsHoweverBuilt) {
  const Tokens split = SplitTokens("  -p tcp   --dport 22 ");
  EXPECT_EQ(split, (Tokens{"-p", "tcp", "--dport", "22"}));
  EXPECT_EQ(split, Tokens(std::vector<std::string>{"-p", "tcp", "--dport", "22"}));
  EXPECT_EQ(JoinTokens(split), "-p tcp --dport 22");
  EXPECT_EQ(SplitTokens("   "), Tokens{});

  EXPECT_NE(split, (Tokens{"-p", "tcp", "--dport"}));
  EXPECT_NE(split, (Tokens{"-p", "udp", "--dport", "22"}));
  // The same letters cut into other words.
  EXPECT_NE((Tokens{"-p", "tcp"}), (Tokens{"-pt", "cp"}));
}

}  // namespace
}  // namespace qel::firewall
