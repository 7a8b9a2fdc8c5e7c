// The chains of a state by name.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "firewall/rule_model.h"

namespace qel::firewall {

// Positions of a state's chains by name. States of tens of thousands of
// rules are listed and compared on every poll, so a chain is found by hash
// rather than by a scan of the chain list. Like such a scan, and like the
// kernel's listing, a name means its first chain.
//
// The index holds positions, not pointers, so that a state may grow while it
// is indexed (the listing parser appends chains as it reads them); it is
// always asked together with the state it indexes. Lookups remember the
// chain found last, so one index is not for lookups from several threads at
// once.
class ChainIndex {
 public:
  ChainIndex() = default;
  explicit ChainIndex(const State& state);

  // Indexes the chain at `position` of the state under `name`, unless a
  // chain of that name is indexed already.
  void Add(std::string_view name, std::size_t position);

  // The chain of that name, or null.
  const Chain* Find(const State& state, std::string_view name) const;
  Chain* Find(State& state, std::string_view name) const;
  // The chain's rules; none when the state has no chain of that name.
  const std::vector<Rule>& RulesOf(const State& state, std::string_view name) const;

 private:
  static constexpr std::size_t kAbsent = static_cast<std::size_t>(-1);
  std::size_t PositionOf(std::string_view name) const;

  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>{}(name); }
  };
  std::unordered_map<std::string, std::size_t, NameHash, std::equal_to<>> m_positions;
  // A listing gives each chain's rules in one run, so the chain found last
  // is nearly always the one asked for again. A position once indexed never
  // changes, and the name is a key of m_positions, which never moves.
  mutable std::string_view m_lastName;
  mutable std::size_t m_lastPosition = kAbsent;
};

}  // namespace qel::firewall
