// What someone else changed in a chain the module manages.
#pragma once

#include <string_view>
#include <vector>

#include "firewall/chain_rules.h"
#include "firewall/rule_model.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

struct IntegrityReport {
  std::vector<Rule> missing;  // installed, gone from the kernel, still wanted: re-added
  std::vector<Rule> extra;    // in an owned chain, neither installed nor wanted: removed
};

// Compares a chain as the module installed it last time, as the kernel holds
// it and as the module wants it. Rules the module no longer wants are
// neither missing nor extra: they were going anyway.
class IntegrityCheck {
 public:
  // `tracePrefix` must outlive the check; `useShortcuts` as in
  // ReconcileOptions.
  IntegrityCheck(const tracing::Tracer& tracer, std::string_view tracePrefix, bool useShortcuts);

  // Extra rules are looked for only in owned chains: in a built-in chain
  // other rules are not the module's business. Each rule found is traced, and
  // the chain's states too when any was.
  IntegrityReport Check(bool owned, const RuleRefs& previous, const RuleRefs& current,
                        const std::vector<Rule>& next) const;

 private:
  void TraceBroken(const RuleRefs& previous, const RuleRefs& current, const std::vector<Rule>& next,
                   const IntegrityReport& report) const;

  const tracing::Tracer& m_tracer;
  std::string_view m_prefix;
  bool m_shortcuts;
};

}  // namespace qel::firewall
