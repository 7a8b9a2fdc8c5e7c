// Turns what isolation must let through into the firewall's rule
// descriptions of the isolation kind: a client's exclusions, the built-in
// endpoints of the product's servers, and the name servers the isolated host
// still resolves names through. Pure: it reads no file and calls nobody but
// the tracer, so its callers decide where the inputs come from.
#pragma once

#include <string_view>

#include "firewall/network_isolation_data.h"
#include "firewall/rule_description.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class IsolationRuleConverter {
 public:
  explicit IsolationRuleConverter(tracing::Tracer tracer);

  // An exclusion names connections either way (the remote address is the
  // peer; local and remote ports are the host's and the peer's side), so
  // each becomes an incoming and an outgoing rule; a port range without a
  // protocol becomes a TCP and a UDP pair, since a port match needs one.
  // A rule by application path cannot be expressed and is skipped with a
  // trace. A rule that cannot be written at all (ports with a protocol
  // other than TCP or UDP, a range that ends before it starts) fails the
  // whole conversion with errInvalidArgument, so that a bad request changes
  // nothing; `out` is untouched then.
  oro::result_t Convert(const network_isolation_data::NetworkExclusionRules& rules, RuleDescriptions& out) const;

  // Each endpoint's addresses times its ports, on the side its direction
  // names (any other direction value: both). The built-in record is the
  // manager's own collection, so an opening that cannot be written is
  // skipped with a trace rather than failing isolation.
  RuleDescriptions Convert(const network_isolation_data::BuiltinRules& builtIn) const;

  // The name servers of a resolv.conf text, as outgoing UDP and TCP rules to
  // their port 53. Loopback servers are left out (loopback passes anyway);
  // a nameserver line that does not name one address is traced and ignored.
  RuleDescriptions ConvertResolvers(std::string_view resolvConf) const;

 private:
  void AddEndpoint(const network_isolation_data::Endpoint& endpoint, RuleDescriptions& out) const;

  tracing::Tracer m_tracer;
};

}  // namespace qel::firewall
