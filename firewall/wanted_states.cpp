#include "firewall/wanted_states.h"

namespace qel::firewall {

WantedStates::StatePtr WantedStates::Get(types::IPAddressFamily::Type family, const std::string& table,
                                         const CompiledRules* compiled, const std::vector<TaggedRule>& dynamic,
                                         bool suitableConntrack) {
  StatePtr& state = m_states[{family, table}];
  if (!state) {
    state = std::make_shared<const State>(ChainLayout::WantedState(family, table, compiled, dynamic, suitableConntrack));
  }
  return state;
}

}  // namespace qel::firewall
