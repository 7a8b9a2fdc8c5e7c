#include "firewall/chain_removal.h"

#include <string>
#include <unordered_map>
#include <vector>

#include "firewall/chain_layout.h"
#include "firewall/chain_rules.h"

namespace qel::firewall {
namespace {

using tracing::Detail;

struct Reference {
  const Chain* from;
  const Rule* rule;
};

bool Goes(const Chain& chain, const State& next, const ChainIndex& nextChains) {
  return ChainLayout::IsModuleChain(chain.name) && !nextChains.Find(next, chain.name);
}

// The jumps to each chain that goes, in the order of the chains and rules
// that hold them: one pass over the table, however many chains go.
std::unordered_map<std::string_view, std::vector<Reference>> ReferencesToGoing(const State& current, const State& next,
                                                                               const ChainIndex& nextChains) {
  std::unordered_map<std::string_view, std::vector<Reference>> references;
  for (const auto& chain : current.chainList) {
    if (Goes(chain, next, nextChains)) references.try_emplace(chain.name);
  }
  if (references.empty()) return references;
  for (const auto& chain : current.chainList) {
    for (const auto& rule : chain.ruleList) {
      if (rule.target.size() != 1) continue;
      const auto found = references.find(rule.target[0]);
      if (found != references.end()) found->second.push_back({&chain, &rule});
    }
  }
  return references;
}

}  // namespace

ChainRemoval::ChainRemoval(const tracing::Tracer& tracer, std::string_view tracePrefix)
    : m_tracer(tracer), m_prefix(tracePrefix) {}

ChainRemoval::Changes ChainRemoval::Compose(const State& current, const State& next,
                                            const ChainIndex& nextChains) const {
  Changes changes;
  const auto references = ReferencesToGoing(current, next, nextChains);
  for (const auto& chain : current.chainList) {
    if (!Goes(chain, next, nextChains)) continue;
    const auto& jumps = references.at(chain.name);
    for (const auto& [from, rule] : jumps) {
      m_tracer.Write(Detail, m_prefix, "Rule '", RuleText(*rule), "' is referenced in the chain '", from->name, "'");
      if (nextChains.Find(next, from->name) || ChainLayout::IsModuleChain(from->name)) continue;
      m_tracer.Write(Detail, m_prefix, "'", RuleText(*rule), "' exists in the '", from->name, "' and must be deleted");
      changes.deletes.push_back(RuleChange(ChangeKind::DeleteRule, from->name, *rule));
      m_tracer.Write(Detail, m_prefix, "Delete rule composed: ", ChangeLine(changes.deletes.back()));
    }
    m_tracer.Write(Detail, m_prefix, "'", chain.name, "' is referenced ", jumps.size(), " times");
    if (!chain.ruleList.empty()) {
      m_tracer.Write(Detail, m_prefix, "No need to explicitly delete rules from chain '", chain.name,
                     "', it will be flushed further");
      changes.flushes.push_back(Change{ChangeKind::FlushChain, chain.name, "", "", false, -1});
    }
    changes.removals.push_back(Change{ChangeKind::DeleteChain, chain.name, "", "", false, -1});
    m_tracer.Write(Detail, m_prefix, "Chain '", chain.name, "' is concidered to be deleted");
  }
  return changes;
}

}  // namespace qel::firewall
