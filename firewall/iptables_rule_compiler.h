// Compiles the administrator's packet rules into the iptables rules of one
// address family: an incoming list and an outgoing list.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "firewall/firewall_settings.h"
#include "firewall/rule_compile_error.h"
#include "firewall/rule_model.h"
#include "qel_common/ip_address.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

struct CompiledRules {
  std::vector<Rule> incoming;
  std::vector<Rule> outgoing;
  // Where the rules of each packet rule begin in the two lists, and one
  // more entry where the last one's end: what a later compilation needs to
  // take over the rules of a packet rule that did not change.
  std::vector<std::size_t> incomingStarts;
  std::vector<std::size_t> outgoingStarts;
};

class EarlierCompilation;

// The IP version whose rules a settings family holds.
tools::IpVersion IpVersionOf(types::IPAddressFamily::Type family) noexcept;

// The NFLOG target: "NFLOG", then "--nflog-prefix" and the prefix when it is
// not empty, "--nflog-group" and the group when it is not 0, and
// "--nflog-threshold" and the threshold when it is not 0.
Tokens NflogTarget(const std::string& prefix, int group, unsigned threshold = 0);

// Compiles `settings` for `family`. `suitableConntrack` is the kernel's
// support for revision 3 of the conntrack match (see ProbeConntrackRevision);
// without it the conntrack direction words are swapped. Throws
// RuleCompileError for an address, port or ICMP field that does not parse.
//
// With `earlier`, packet rules that did not change take over their rules
// from there instead of being compiled again (see EarlierCompilation).
CompiledRules CompileRules(const settings::FirewallSettings& settings, types::IPAddressFamily::Type family,
                           bool suitableConntrack, const tracing::Tracer& tracer = {},
                           const EarlierCompilation* earlier = nullptr);

}  // namespace qel::firewall
