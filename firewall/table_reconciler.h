// Reconciles one table: compares what the module installed last time, what
// the kernel holds now and what the module wants, reports foreign changes,
// and composes the change list that turns the kernel's rules into the
// wanted ones.
#pragma once

#include <string>
#include <vector>

#include "firewall/rule_key.h"
#include "firewall/rule_model.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

struct ChainRule {
  std::string chain;
  Rule rule;
};

struct TableSyncResult {
  ChangeList changes;
  std::vector<ChainRule> missing;  // installed, removed by someone, still wanted: re-added
  std::vector<ChainRule> extra;    // foreign rules in owned chains: removed
};

struct ReconcileOptions {
  // Off, no work is skipped because a chain stands as wanted or as
  // installed: the results are the same, only slower, which is how the
  // shortcuts are checked.
  bool shortcuts = true;
};

// Rules are compared as RuleKey sees them.
class TableReconciler {
 public:
  // `tracePrefix` names the function, family and table in trace lines.
  TableReconciler(const tracing::Tracer& tracer, std::string tracePrefix, ReconcileOptions options = {});

  // Only the module's chains and the module's jumps in built-in chains are
  // touched; the change list is empty when the kernel already holds exactly
  // the wanted rules.
  TableSyncResult Reconcile(const State& previous, const State& current, const State& next) const;

 private:
  const tracing::Tracer& m_tracer;
  std::string m_prefix;
  ReconcileOptions m_options;
};

}  // namespace qel::firewall
