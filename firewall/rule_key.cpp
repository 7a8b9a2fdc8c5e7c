#include "firewall/rule_key.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace qel::firewall {
namespace {

constexpr char kTokenSeparator = '\x1f';
constexpr char kPartSeparator = '\x1e';

std::string_view Unquoted(std::string_view token) {
  if (token.size() >= 3 && token.front() == '"' && token.back() == '"' &&
      token.substr(1, token.size() - 2).find('"') == std::string_view::npos) {
    return token.substr(1, token.size() - 2);
  }
  return token;
}

std::uint64_t Mixed(std::uint64_t value) {
  value ^= value >> 30;
  value *= 0xbf58476d1ce4e5b9ULL;
  value ^= value >> 27;
  value *= 0x94d049bb133111ebULL;
  return value ^ (value >> 31);
}

// A hash of a token's length and its first and last eight bytes (of a
// short token, of a few of its bytes), read as whole words: a fingerprint
// is taken for every head rule of a changed chain, so it reads no more of
// a token than that. Most tokens are shorter than sixteen bytes anyway,
// and tokens that differ only inside are told apart by the key.
std::uint64_t TokenHash(std::string_view token) {
  const char* letters = token.data();
  const std::size_t size = token.size();
  std::uint64_t first = 0, last = 0;
  if (size >= 8) {
    std::memcpy(&first, letters, 8);
    std::memcpy(&last, letters + size - 8, 8);
  } else if (size >= 4) {
    std::uint32_t head = 0, tail = 0;
    std::memcpy(&head, letters, 4);
    std::memcpy(&tail, letters + size - 4, 4);
    first = head | std::uint64_t{tail} << 32;
  } else if (size > 0) {
    first = std::uint8_t(letters[0]) | std::uint8_t(letters[size / 2]) << 8 | std::uint8_t(letters[size - 1]) << 16;
  }
  const std::uint64_t hash = (first ^ (last << 29 | last >> 35) ^ size) * 0x9e3779b97f4a7c15ULL;
  return hash ^ (hash >> 32);
}

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
    match[i] = Unquoted(rule.match[i]);
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

std::uint64_t RuleFingerprint(const Rule& rule) {
  // The key sorts the match tokens, so their hashes are summed, which needs
  // no order; the target keeps its order.
  std::uint64_t match = rule.match.size();
  for (const auto token : rule.match) {
    match += TokenHash(token.starts_with('"') ? Unquoted(token) : token);
  }
  std::uint64_t target = rule.isGoto ? 1 : 2;
  for (const auto token : rule.target) target = target * 0x100000001b3ULL + TokenHash(token);
  return Mixed(match ^ Mixed(target));
}

}  // namespace qel::firewall
