// The rules the module wants in each table, built once per change of what
// it wants and then shared: every poll until the next change compares
// against the same state, and once installed that state is also what the
// module installed, so a poll copies no rules.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "firewall/chain_layout.h"

namespace qel::firewall {

class WantedStates {
 public:
  using StatePtr = std::shared_ptr<const State>;

  // The table's wanted state: the one built since the last Forget, or one
  // built now from `compiled` (null while not enforcing) and `dynamic` (see
  // ChainLayout::WantedState).
  StatePtr Get(types::IPAddressFamily::Type family, const std::string& table, const CompiledRules* compiled,
               const std::vector<TaggedRule>& dynamic, bool suitableConntrack);
  // What the module wants has changed.
  void Forget() noexcept { m_states.clear(); }

 private:
  std::map<std::pair<types::IPAddressFamily::Type, std::string>, StatePtr> m_states;
};

}  // namespace qel::firewall
