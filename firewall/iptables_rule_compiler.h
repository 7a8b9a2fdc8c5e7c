// Compiles the administrator's packet rules into the iptables rules of one
// address family: an incoming list and an outgoing list.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "firewall/firewall_settings.h"
#include "firewall/rule_model.h"
#include "oro/exception.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

struct CompiledRules {
  std::vector<Rule> incoming;
  std::vector<Rule> outgoing;
};

// A packet rule (or a zone list) that cannot be compiled. what() reads e.g.
// "packet rule 2 (ssh), remoteAddress '10.0.0.300': Invalid format of ip address".
class RuleCompileError : public oro::Exception {
 public:
  // ruleIndex is npos for errors in a zone list.
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);
  RuleCompileError(std::size_t ruleIndex, std::string ruleName, std::string field, std::string value,
                   std::string reason);

  std::size_t RuleIndex() const noexcept { return m_ruleIndex; }
  const std::string& RuleName() const noexcept { return m_ruleName; }
  const std::string& Field() const noexcept { return m_field; }
  const std::string& Value() const noexcept { return m_value; }
  const std::string& Reason() const noexcept { return m_reason; }

 private:
  std::size_t m_ruleIndex;
  std::string m_ruleName;
  std::string m_field;
  std::string m_value;
  std::string m_reason;
};

// The NFLOG target: "NFLOG", then "--nflog-prefix" and the prefix when it is
// not empty, "--nflog-group" and the group when it is not 0, and
// "--nflog-threshold" and the threshold when it is not 0.
Tokens NflogTarget(const std::string& prefix, int group, unsigned threshold = 0);

// Compiles `settings` for `family`. `suitableConntrack` is the kernel's
// support for revision 3 of the conntrack match (see ProbeConntrackRevision);
// without it the conntrack direction words are swapped. Throws
// RuleCompileError for an address, port or ICMP field that does not parse.
CompiledRules CompileRules(const settings::FirewallSettings& settings, types::IPAddressFamily::Type family,
                           bool suitableConntrack, const tracing::Tracer& tracer = {});

}  // namespace qel::firewall
