#include "firewall/chain_index.h"

namespace qel::firewall {
namespace {

const std::vector<Rule> kNoRules;

}  // namespace

ChainIndex::ChainIndex(const State& state) {
  for (std::size_t position = 0; position < state.chainList.size(); ++position) {
    Add(state.chainList[position].name, position);
  }
}

void ChainIndex::Add(std::string_view name, std::size_t position) {
  m_positions.try_emplace(std::string(name), position);
}

std::size_t ChainIndex::PositionOf(std::string_view name) const {
  if (m_lastPosition != kAbsent && name == m_lastName) return m_lastPosition;
  const auto found = m_positions.find(name);
  if (found == m_positions.end()) return kAbsent;
  m_lastName = found->first;
  m_lastPosition = found->second;
  return found->second;
}

const Chain* ChainIndex::Find(const State& state, std::string_view name) const {
  const std::size_t position = PositionOf(name);
  return position == kAbsent ? nullptr : &state.chainList[position];
}

Chain* ChainIndex::Find(State& state, std::string_view name) const {
  const std::size_t position = PositionOf(name);
  return position == kAbsent ? nullptr : &state.chainList[position];
}

const std::vector<Rule>& ChainIndex::RulesOf(const State& state, std::string_view name) const {
  const Chain* chain = Find(state, name);
  return chain ? chain->ruleList : kNoRules;
}

}  // namespace qel::firewall
