#include "firewall/integrity_check.h"

#include <string>
#include <unordered_set>

#include "firewall/chain_shortcuts.h"

namespace qel::firewall {
namespace {

using tracing::Warning;

std::unordered_set<std::string_view> KeySet(const std::vector<std::string>& keys) {
  std::unordered_set<std::string_view> set;
  set.reserve(keys.size());
  set.insert(keys.begin(), keys.end());
  return set;
}

std::string RuleListText(const RuleRefs& rules) {
  std::string text;
  for (const Rule* rule : rules) text += "\n  " + RuleText(*rule);
  return text;
}

std::string RuleListText(const std::vector<Rule>& rules) {
  std::string text;
  for (const auto& rule : rules) text += "\n  " + RuleText(rule);
  return text;
}

}  // namespace

IntegrityCheck::IntegrityCheck(const tracing::Tracer& tracer, std::string_view tracePrefix, bool useShortcuts)
    : m_tracer(tracer), m_prefix(tracePrefix), m_shortcuts(useShortcuts) {}

IntegrityReport IntegrityCheck::Check(bool owned, const RuleRefs& previous, const RuleRefs& current,
                                      const std::vector<Rule>& next) const {
  IntegrityReport report;
  // Skip the search while the kernel holds what was installed.
  if (m_shortcuts && Untouched(previous, current)) return report;

  const auto previousKeys = KeysOf(previous), currentKeys = KeysOf(current), nextKeys = KeysOf(RefsOf(next));
  const auto currentSet = KeySet(currentKeys), nextSet = KeySet(nextKeys);
  for (std::size_t i = 0; i < previous.size(); ++i) {
    if (!currentSet.count(previousKeys[i]) && nextSet.count(previousKeys[i])) {
      m_tracer.Write(Warning, m_prefix, "Missing rule '", RuleText(*previous[i]), "' will be re-added");
      report.missing.push_back(*previous[i]);
    }
  }
  if (owned) {
    const auto previousSet = KeySet(previousKeys);
    for (std::size_t i = 0; i < current.size(); ++i) {
      if (!previousSet.count(currentKeys[i]) && !nextSet.count(currentKeys[i])) {
        m_tracer.Write(Warning, m_prefix, "Extra rule '", RuleText(*current[i]), "' will be removed");
        report.extra.push_back(*current[i]);
      }
    }
  }
  if (!report.missing.empty() || !report.extra.empty()) TraceBroken(previous, current, next, report);
  return report;
}

void IntegrityCheck::TraceBroken(const RuleRefs& previous, const RuleRefs& current, const std::vector<Rule>& next,
                                 const IntegrityReport& report) const {
  m_tracer.Write(Warning, m_prefix, "Integrity broken. Chain state:", "\ncurrent rules : ", RuleListText(current),
                 "\nprevious rules: ", RuleListText(previous), "\nnext rules    : ", RuleListText(next),
                 "\nmissing:      : ", RuleListText(report.missing), "\nextra:        : ", RuleListText(report.extra));
}

}  // namespace qel::firewall
