// Taking over from an earlier compilation: a settings change mostly touches
// a few of tens of thousands of packet rules, and compiling the others
// again would cost most of the change.
#pragma once

#include <cstddef>

#include "firewall/firewall_settings.h"
#include "firewall/iptables_rule_compiler.h"

namespace qel::firewall {

// A compilation for one family and conntrack support, and the settings it
// was made from. Both must outlive it.
class EarlierCompilation {
 public:
  EarlierCompilation(const settings::FirewallSettings& settings, const CompiledRules& rules) noexcept
      : m_settings(settings), m_rules(rules) {}

  // Whether a compilation of `settings` may take over from here at all: a
  // zone list feeds every packet rule that names the zone.
  bool UsableFor(const settings::FirewallSettings& settings) const;
  // Appends to `into` the rules that packet rule `index` had here, when
  // `rule` is the rule that stood at that position (so with the same item
  // number and log group); false, with nothing appended, otherwise.
  bool TakeOver(std::size_t index, const settings::PacketRule& rule, CompiledRules& into) const;

  const CompiledRules& Rules() const noexcept { return m_rules; }

 private:
  const settings::FirewallSettings& m_settings;
  const CompiledRules& m_rules;
};

}  // namespace qel::firewall
