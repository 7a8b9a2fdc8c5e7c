#include "firewall/rule_key.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace qel::firewall {
namespace {

constexpr char kTokenSeparator = '\x1f';
constexpr char kPartSeparator = '\x1e';

}  // namespace

std::string RuleKey(const Rule& rule) {
  // Keys are made for every rule of a changed chain: the tokens are sorted
  // in place on the stack unless a rule has unusually many, and the key is
  // allocated once.
  constexpr std::size_t kStackTokens = 48;
  std::array<std::string_view, kStackTokens> stackTokens;
  std::vector<std::string_view> heapTokens;
  const std::size_t count = rule.match.size();
  std::string_view* match = stackTokens.data();
  if (count > kStackTokens) {
    heapTokens.resize(count);
    match = heapTokens.data();
  }
  std::size_t length = 2;
  for (std::size_t i = 0; i < count; ++i) {
    match[i] = UnquotedToken(rule.match[i]);
    length += match[i].size() + 1;
  }
  for (const auto& token : rule.target) length += token.size() + 1;
  std::sort(match, match + count);
  std::string key;
  key.reserve(length);
  key += rule.isGoto ? 'g' : 'j';
  for (std::size_t i = 0; i < count; ++i) (key += match[i]) += kTokenSeparator;
  key += kPartSeparator;
  for (const auto& token : rule.target) (key += token) += kTokenSeparator;
  return key;
}

bool RulesEqual(const Rule& a, const Rule& b) { return RuleKey(a) == RuleKey(b); }

}  // namespace qel::firewall
