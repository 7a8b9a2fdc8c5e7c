#include "firewall/tokens.h"

#include <gtest/gtest.h>

#include <iterator>
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

TEST(Tokens, ConcatPutsTheSecondListAfterTheFirst) {
  const Tokens match{"-p", "tcp"};
  EXPECT_EQ(Concat(match, Tokens{"-j", "ACCEPT"}), (Tokens{"-p", "tcp", "-j", "ACCEPT"}));
  EXPECT_EQ(Concat(Tokens{}, match), match);
  EXPECT_EQ(Concat(match, Tokens{}), match);
}

// A copy is one reference more to the same words, yet another list: an
// iterator belongs to the list it walks.
TEST(Tokens, CopiesShareTheirWordsAndIteratorsBelongToTheirList) {
  const Tokens words = SplitTokens("-j ACCEPT");
  const Tokens copy = words;
  EXPECT_EQ(copy.back().data(), words.back().data());

  const Tokens builtApart{"-j", "ACCEPT"};
  EXPECT_EQ(builtApart, words);
  EXPECT_NE(builtApart.begin(), words.begin());
  EXPECT_NE(copy.begin(), words.begin());
  EXPECT_EQ(std::next(words.begin(), 2), words.end());
}

}  // namespace
}  // namespace qel::firewall
