// The packet filter as plain data: per family and table a list of chains,
// each with an ordered list of rules, and the changes that turn one such
// state into another.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qel::firewall {

// The words of a rule, e.g. "-p" "tcp" "--dport" "22". Fixed once built and
// shared by every copy: a change to tens of thousands of rules copies each
// of them into the next compilation and into the wanted state, and such a
// copy is then one reference more. The words lie in one block, after the
// offsets where each ends, so that a rule's words take one allocation and
// about their own length, and comparing two lists is comparing two blocks.
// Build longer lists as a std::vector and hand it over whole.
class Tokens {
 public:
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using reference = std::string_view;
    using pointer = void;

    Iterator(const Tokens* tokens, std::size_t index) noexcept : m_tokens(tokens), m_index(index) {}
    std::string_view operator*() const noexcept { return (*m_tokens)[m_index]; }
    Iterator& operator++() noexcept {
      ++m_index;
      return *this;
    }
    Iterator operator++(int) noexcept { return Iterator(m_tokens, m_index++); }
    bool operator==(const Iterator& other) const noexcept { return m_index == other.m_index; }

   private:
    const Tokens* m_tokens;
    std::size_t m_index;
  };

  Tokens() noexcept = default;
  Tokens(std::initializer_list<std::string_view> tokens);
  Tokens(const std::vector<std::string>& tokens);  // NOLINT: a list of words is a Tokens

  std::size_t size() const noexcept { return m_size; }
  bool empty() const noexcept { return m_size == 0; }
  Iterator begin() const noexcept { return Iterator(this, 0); }
  Iterator end() const noexcept { return Iterator(this, m_size); }
  std::string_view operator[](std::size_t index) const noexcept {
    const std::uint32_t* ends = m_block.get();
    const std::uint32_t start = index == 0 ? 0 : ends[index - 1];
    return {Letters() + start, ends[index] - start};
  }
  std::string_view front() const noexcept { return (*this)[0]; }
  std::string_view back() const noexcept { return (*this)[m_size - 1]; }

  friend bool operator==(const Tokens& a, const Tokens& b) noexcept;

 private:
  friend Tokens SplitTokens(std::string_view text);
  friend Tokens Concat(const Tokens& first, const Tokens& second);
  class Writer;
  Tokens(std::size_t size, std::size_t letters);  // for a Writer to fill
  const char* Letters() const noexcept { return reinterpret_cast<const char*>(m_block.get() + m_size); }

  std::shared_ptr<const std::uint32_t[]> m_block;  // where each word ends, then the letters
  std::uint32_t m_size = 0;
  std::uint32_t m_letters = 0;
};

// `first` followed by `second`.
Tokens Concat(const Tokens& first, const Tokens& second);

struct Rule {
  Tokens match;   // e.g. "-m" "conntrack" "--ctstate" "NEW"; empty matches everything
  Tokens target;  // e.g. "ACCEPT", or a chain name
  bool isGoto = false;
  bool isPolicy = false;  // the chain's policy; target holds it
  // Bookkeeping of the service, never written to the kernel.
  std::string tag;
  std::string ruleName;
  std::string ruleItem;
  std::string zoneName;

  bool operator==(const Rule&) const = default;
};

struct Chain {
  std::string name;
  std::vector<Rule> ruleList;

  bool operator==(const Chain&) const = default;
};

struct State {
  std::vector<Chain> chainList;

  bool operator==(const State&) const = default;
};

enum class ChangeKind : std::uint32_t {
  SetPolicy = 0,
  AddRule = 1,
  CreateChain = 2,
  DeleteRule = 3,
  FlushChain = 4,
  DeleteChain = 5,
};

struct Change {
  ChangeKind kind = ChangeKind::AddRule;
  std::string chain;
  std::string match;   // tokens joined with single blanks
  std::string target;  // tokens joined with single blanks, or the policy
  bool isGoto = false;
  std::int32_t position = -1;  // AddRule: insert at this position; -1 appends

  bool operator==(const Change&) const = default;
};

using ChangeList = std::vector<Change>;

// Canonical one-line text of a rule, used for traces and for printing:
//   -s 10.0.0.0/8 -p tcp -m tcp --dport 22 -j ACCEPT item_0000 name ssh
std::string RuleText(const Rule& rule);

// The restore-script line of one change, e.g. "-I vorn_input 3 -p tcp -j ACCEPT".
std::string ChangeLine(const Change& change);

// The whole restore script for one table: "*filter\n", one line per change,
// "COMMIT\n".
std::string RestoreScript(const std::string& table, const ChangeList& changes);

// Tokens joined with single blanks.
std::string JoinTokens(const Tokens& tokens);

// Text cut into tokens at blanks (runs of blanks count as one).
Tokens SplitTokens(std::string_view text);

}  // namespace qel::firewall
