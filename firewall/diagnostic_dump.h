// One-line, JSON-like renderings of the settings and rule states for
// diagnostics. Readers of the diagnostic output rely on these forms character
// for character, so their oddities stay: strings are not escaped, tokens are
// not quoted, and the settings form lacks the opening quote of
// "openOstraPorts".
// Flags print as the formatter prints a bool: 1 or 0.
#pragma once

#include <string>
#include <vector>

#include "firewall/firewall_settings.h"
#include "firewall/rule_model.h"

namespace qel::firewall {

// {"tokens":[-p,tcp]}
std::string DumpTokens(const Tokens& tokens);

// {"match":"{"tokens":[...]}","target":"{"tokens":[ACCEPT]}","isGoto":"0",...}
std::string DumpRule(const Rule& rule);
std::string DumpRuleList(const std::vector<Rule>& rules);

// {"name":"INPUT", "ruleList":[...]}
std::string DumpChain(const Chain& chain);
std::string DumpChainList(const std::vector<Chain>& chains);

// {"chainList":[...]}
std::string DumpState(const State& state);

// {"address":[10.0.0.0/8,fe80::/10]}
std::string DumpZone(const std::vector<oro::string16_t>& addresses);

// Enumerations print by name; a value outside its enumeration throws
// std::invalid_argument (see EnumToString).
std::string DumpPacketRule(const settings::PacketRule& rule);
std::string DumpSettings(const settings::FirewallSettings& settings);

}  // namespace qel::firewall
