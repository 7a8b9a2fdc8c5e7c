// Removing the module's chains that the wanted state no longer has.
#pragma once

#include <string_view>

#include "firewall/chain_index.h"
#include "firewall/rule_model.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class ChainRemoval {
 public:
  // Kept apart by kind, as the script needs them in that order.
  struct Changes {
    ChangeList deletes;  // jumps to the chains, from chains the module no longer uses at all
    ChangeList flushes;
    ChangeList removals;
  };

  // `tracePrefix` must outlive the removal.
  ChainRemoval(const tracing::Tracer& tracer, std::string_view tracePrefix);

  // The module's chains in `current` that `next` (indexed by `nextChains`)
  // lacks. No chain may be deleted while a rule jumps to it: jumps from
  // chains that stay are dropped by their own composition, jumps from
  // chains the module no longer uses at all are deleted here, and the rules
  // of the chains that go are flushed rather than deleted one by one.
  Changes Compose(const State& current, const State& next, const ChainIndex& nextChains) const;

 private:
  const tracing::Tracer& m_tracer;
  std::string_view m_prefix;
};

}  // namespace qel::firewall
