// The packet filter as plain data: per family and table a list of chains,
// each with an ordered list of rules, and the changes that turn one such
// state into another.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qel::firewall {

// The words of a rule, e.g. "-p" "tcp" "--dport" "22". Fixed once built and
// shared by every copy: a change to tens of thousands of rules copies each
// of them into the next compilation and into the wanted state, and such a
// copy is then one reference more rather than a list of strings. Build
// longer lists as a std::vector and hand it over whole.
class Tokens {
 public:
  Tokens() noexcept = default;
  Tokens(std::initializer_list<std::string_view> tokens);
  Tokens(const std::vector<std::string>& tokens);  // NOLINT: a list of words is a Tokens
  Tokens(std::vector<std::string>&& tokens);       // NOLINT

  std::size_t size() const noexcept { return m_size; }
  bool empty() const noexcept { return m_size == 0; }
  const std::string* begin() const noexcept { return m_items.get(); }
  const std::string* end() const noexcept { return m_items.get() + m_size; }
  const std::string& operator[](std::size_t index) const noexcept { return m_items[index]; }
  const std::string& front() const noexcept { return m_items[0]; }
  const std::string& back() const noexcept { return m_items[m_size - 1]; }

  friend bool operator==(const Tokens& a, const Tokens& b) noexcept;

 private:
  friend Tokens SplitTokens(std::string_view text);
  friend Tokens Concat(const Tokens& first, const Tokens& second);
  // `size` empty strings, to be filled before the list is handed out.
  explicit Tokens(std::size_t size);
  std::string* Slots() noexcept { return const_cast<std::string*>(m_items.get()); }

  std::shared_ptr<const std::string[]> m_items;
  std::size_t m_size = 0;
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
