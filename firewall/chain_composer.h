// The changes that turn the kernel's chains into the wanted ones, chain by
// chain.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "firewall/chain_rules.h"
#include "firewall/rule_model.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class ChainComposer {
 public:
  // Kept apart by kind, as the script needs them in that order.
  struct Changes {
    ChangeList creates;
    ChangeList deletes;
    ChangeList adds;
  };

  // `tracePrefix` must outlive the composer; `useShortcuts` as in
  // ReconcileOptions.
  ChainComposer(const tracing::Tracer& tracer, std::string_view tracePrefix, bool useShortcuts);

  // A wanted chain that the kernel lacks is created.
  void CreateIfAbsent(const std::string& chain, bool inKernel);

  // Turns the kernel's rules of a chain (`current`, without the policy) into
  // the wanted ones. An owned chain gets the wanted rules in the wanted
  // order, keeping in place what already stands; in a built-in chain only
  // the module's jumps are compared, and a missing one goes to the head.
  void Compose(const std::string& chain, bool owned, const RuleRefs& current, const std::vector<Rule>& wanted);

  // What was composed so far, for the script; the composer is done then.
  Changes Take() { return std::move(m_changes); }

 private:
  struct Ends {
    std::size_t head = 0;
    std::size_t tail = 0;
  };

  // More deletes and inserts than this in one owned chain are composed as
  // a flush and the wanted rules appended.
  static constexpr std::size_t kRebuildAbove = 256;

  void ComposeOwned(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted);
  void Rebuild(const std::string& chain, const std::vector<Rule>& wanted, std::size_t deletesBefore,
               std::size_t addsBefore, std::size_t changes);
  void ComposeShared(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted);
  Ends StandingEnds(const RuleRefs& current, const std::vector<Rule>& wanted) const;
  bool ComposeBetween(const std::string& chain, const RuleRefs& current, const std::vector<Rule>& wanted, Ends ends,
                      bool rebuild);
  bool DeletesReachHead(std::span<const Rule* const> head, const RuleRefs& deleted,
                        const std::vector<std::string_view>& deletedKeys) const;
  void InsertMissing(const std::string& chain, const std::vector<std::string_view>& left, const RuleRefs& wanted,
                     const std::vector<std::string>& wantedKeys, Ends ends);

  const tracing::Tracer& m_tracer;
  std::string_view m_prefix;
  bool m_shortcuts;
  Changes m_changes;
};

}  // namespace qel::firewall
