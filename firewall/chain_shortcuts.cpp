#include "firewall/chain_shortcuts.h"

#include <algorithm>
#include <cstring>

#include "firewall/rule_key.h"

namespace qel::firewall {
namespace {

constexpr std::size_t kBitsPerToken = 16;

// A hash of a token's length and its first and last eight bytes (of a
// shorter token, of a few of its bytes), read as whole words: it is taken
// for the tokens of every head rule of a changed chain. Tokens that differ
// only inside are told apart by their keys.
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
  return hash ^ (hash >> 29);
}

// Token for token the same rule: then the keys are equal too.
bool SameRule(const Rule& a, const Rule& b) {
  return a.isGoto == b.isGoto && a.match == b.match && a.target == b.target;
}

}  // namespace

bool AlreadyAsWanted(bool owned, const RuleRefs& current, const std::vector<Rule>& wanted) {
  if (owned && current.size() != wanted.size()) return false;
  std::size_t w = 0;
  for (const Rule* rule : current) {
    if (!owned && !JumpsToModuleChain(*rule)) continue;
    if (w == wanted.size() || !SameRule(*rule, wanted[w])) return false;
    ++w;
  }
  if (w != wanted.size()) return false;
  return owned || std::all_of(wanted.begin(), wanted.end(), JumpsToModuleChain);
}

bool Untouched(const RuleRefs& previous, const RuleRefs& current) {
  if (previous.size() != current.size()) return false;
  for (std::size_t i = 0; i < previous.size(); ++i) {
    if (!SameRule(*previous[i], *current[i])) return false;
  }
  return true;
}

std::size_t HeadAsWanted(const RuleRefs& current, const std::vector<Rule>& wanted) {
  std::size_t head = 0;
  while (head < current.size() && head < wanted.size() && SameRule(*current[head], wanted[head])) ++head;
  return head;
}

std::size_t TailAsWanted(const RuleRefs& current, const std::vector<Rule>& wanted, std::size_t head) {
  std::size_t tail = 0;
  while (tail < current.size() - head && tail < wanted.size() - head &&
         SameRule(*current[current.size() - 1 - tail], wanted[wanted.size() - 1 - tail])) {
    ++tail;
  }
  return tail;
}

bool NothingToKeep(const RuleRefs& current) { return current.empty(); }

TokenBits TokenBitsOf(const RuleRefs& rules) {
  std::size_t tokens = 0;
  for (const Rule* rule : rules) tokens += rule->match.size();
  // About sixteen bits a token: a token the rules lack then passes for one
  // of theirs once in sixteen times.
  std::size_t words = 8;
  while (words * 64 < tokens * kBitsPerToken) words *= 2;
  TokenBits bits{std::vector<std::uint64_t>(words, 0)};
  for (const Rule* rule : rules) {
    for (const auto token : rule->match) {
      const std::uint64_t hash = TokenHash(UnquotedToken(token));
      bits.words[(hash >> 6) & (words - 1)] |= std::uint64_t{1} << (hash & 63);
    }
  }
  return bits;
}

bool CannotEqualAny(const Rule& rule, const TokenBits& theirs) {
  if (theirs.words.empty()) return true;  // of no rules at all
  const std::size_t mask = theirs.words.size() - 1;
  for (const auto token : rule.match) {
    const std::uint64_t hash = TokenHash(UnquotedToken(token));
    if (!(theirs.words[(hash >> 6) & mask] >> (hash & 63) & 1)) return true;
  }
  return false;
}

}  // namespace qel::firewall
