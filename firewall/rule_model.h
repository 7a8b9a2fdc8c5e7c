// The packet filter as plain data: per family and table a list of chains,
// each with an ordered list of rules, and the changes that turn one such
// state into another.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "firewall/tokens.h"

namespace qel::firewall {

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

}  // namespace qel::firewall
