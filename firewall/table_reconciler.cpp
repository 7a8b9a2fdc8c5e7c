#include "firewall/table_reconciler.h"

#include <iterator>

#include "firewall/chain_composer.h"
#include "firewall/chain_index.h"
#include "firewall/chain_layout.h"
#include "firewall/chain_removal.h"
#include "firewall/chain_rules.h"
#include "firewall/chain_shortcuts.h"
#include "firewall/integrity_check.h"

namespace qel::firewall {
namespace {

void Append(ChangeList& to, ChangeList& part) {
  to.insert(to.end(), std::make_move_iterator(part.begin()), std::make_move_iterator(part.end()));
}

void AppendEntries(std::vector<ChainRule>& to, const std::string& chain, std::vector<Rule>& rules) {
  for (auto& rule : rules) to.push_back({chain, std::move(rule)});
}

}  // namespace

TableReconciler::TableReconciler(const tracing::Tracer& tracer, std::string tracePrefix, ReconcileOptions options)
    : m_tracer(tracer), m_prefix(std::move(tracePrefix)), m_options(options) {}

TableSyncResult TableReconciler::Reconcile(const State& previous, const State& current, const State& next) const {
  TableSyncResult result;
  const ChainIndex previousChains(previous), currentChains(current), nextChains(next);
  const IntegrityCheck integrity(m_tracer, m_prefix, m_options.shortcuts);
  ChainComposer composer(m_tracer, m_prefix, m_options.shortcuts);

  for (const auto& chain : next.chainList) {
    m_tracer.Write(tracing::Detail, m_prefix, "Start processing chain ", chain.name);
    const bool owned = ChainLayout::KindOf(chain.name) == ChainKind::Owned;
    const bool inKernel = currentChains.Find(current, chain.name) != nullptr;
    const auto currentRules = WithoutPolicy(currentChains.RulesOf(current, chain.name));
    // Skip the comparison when the chain already stands as wanted.
    if (m_options.shortcuts && AlreadyAsWanted(owned, currentRules, chain.ruleList)) {
      composer.CreateIfAbsent(chain.name, inKernel);
      continue;
    }
    const auto previousRules = WithoutPolicy(previousChains.RulesOf(previous, chain.name));
    IntegrityReport report = integrity.Check(owned, previousRules, currentRules, chain.ruleList);
    AppendEntries(result.missing, chain.name, report.missing);
    AppendEntries(result.extra, chain.name, report.extra);
    composer.CreateIfAbsent(chain.name, inKernel);
    composer.Compose(chain.name, owned, currentRules, chain.ruleList);
  }
  auto removal = ChainRemoval(m_tracer, m_prefix).Compose(current, next, nextChains);

  // The restore tool applies the script as one transaction, so only the
  // order within it matters: chains exist before rules jump to them, rules
  // are deleted before positions are counted for inserts, and no chain is
  // deleted while a rule still jumps to it.
  auto composed = composer.Take();
  for (ChangeList* part :
       {&composed.creates, &composed.deletes, &removal.deletes, &composed.adds, &removal.flushes, &removal.removals}) {
    Append(result.changes, *part);
  }
  return result;
}

}  // namespace qel::firewall
