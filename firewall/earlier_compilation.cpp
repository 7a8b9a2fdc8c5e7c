#include "firewall/earlier_compilation.h"

#include <vector>

namespace qel::firewall {
namespace {

void CopyRange(const std::vector<Rule>& from, const std::vector<std::size_t>& starts, std::size_t index,
               std::vector<Rule>& to) {
  const auto first = from.begin() + static_cast<std::ptrdiff_t>(starts[index]);
  const auto last = from.begin() + static_cast<std::ptrdiff_t>(starts[index + 1]);
  to.insert(to.end(), first, last);
}

}  // namespace

bool EarlierCompilation::UsableFor(const settings::FirewallSettings& settings) const {
  return settings.networkZonesTrusted == m_settings.networkZonesTrusted &&
         settings.networkZonesLocal == m_settings.networkZonesLocal &&
         settings.networkZonesPublic == m_settings.networkZonesPublic;
}

bool EarlierCompilation::TakeOver(std::size_t index, const settings::PacketRule& rule, CompiledRules& into) const {
  const bool compiledHere = index < m_settings.packetRules.size() && index + 1 < m_rules.incomingStarts.size() &&
                            index + 1 < m_rules.outgoingStarts.size();
  if (!compiledHere || !(m_settings.packetRules[index] == rule)) return false;
  CopyRange(m_rules.incoming, m_rules.incomingStarts, index, into.incoming);
  CopyRange(m_rules.outgoing, m_rules.outgoingStarts, index, into.outgoing);
  return true;
}

}  // namespace qel::firewall
