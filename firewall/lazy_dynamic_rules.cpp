#include "firewall/lazy_dynamic_rules.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include "qel_common/exception_result.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Error;

void AddOnce(RuleDescriptions& to, const RuleDescription& rule) {
  if (std::find(to.begin(), to.end(), rule) == to.end()) to.push_back(rule);
}

RuleDescriptions Distinct(const RuleDescriptions& rules) {
  RuleDescriptions distinct;
  for (const auto& rule : rules) AddOnce(distinct, rule);
  return distinct;
}

RuleDescriptions Without(const RuleDescriptions& from, const RuleDescriptions& minus) {
  RuleDescriptions left;
  for (const auto& rule : from) {
    if (std::find(minus.begin(), minus.end(), rule) == minus.end()) left.push_back(rule);
  }
  return left;
}

std::string RulesText(const RuleDescriptions& rules) {
  std::ostringstream text;
  for (const auto& rule : rules) text << "\n  " << rule;
  return text.str();
}

template <class Map>
std::vector<std::string> SortedTags(const Map& state) {
  std::vector<std::string> tags;
  tags.reserve(state.size());
  for (const auto& [tag, rules] : state) tags.push_back(tag);
  std::sort(tags.begin(), tags.end());
  return tags;
}

}  // namespace

LazyDynamicRules::LazyDynamicRules(tracing::Tracer tracer, oro::RefPtr<IDynamicRules> fw)
    : m_tracer(std::move(tracer)), m_fw(std::move(fw)) {}

result_t LazyDynamicRules::AddClient(const std::string& tag, const RuleDescriptions& rules) noexcept {
  return tracing::Guarded(m_tracer, "AddClient", [&] {
    if (m_tracer.Enabled(Detail)) m_tracer.Write(Detail, "AddClient", "() ", "tag=", tag, ", rules=", RulesText(rules));
    std::lock_guard lock(m_mutex);
    RuleDescriptions& held = m_newState[tag];
    for (const auto& rule : rules) AddOnce(held, rule);
    return oro::errOk;
  });
}

result_t LazyDynamicRules::UpdateClient(const std::string& tag, const RuleDescriptions& rules) noexcept {
  return tracing::Guarded(m_tracer, "UpdateClient", [&] {
    if (m_tracer.Enabled(Detail)) {
      m_tracer.Write(Detail, "UpdateClient", "() ", "tag=", tag, ", rules=", RulesText(rules));
    }
    std::lock_guard lock(m_mutex);
    const auto client = m_newState.find(tag);
    if (client == m_newState.end()) {
      m_tracer.Write(Error, "UpdateClient", ": no client with the tag '", tag, "'");
      return oro::errNotFound;
    }
    client->second = Distinct(rules);
    return oro::errOk;
  });
}

result_t LazyDynamicRules::RemoveClient(const std::string& tag) noexcept {
  return tracing::Guarded(m_tracer, "RemoveClient", [&] {
    m_tracer.Write(Detail, "RemoveClient", "() ", "tag=", tag);
    std::lock_guard lock(m_mutex);
    return m_newState.erase(tag) ? oro::errOk : oro::errFalse;
  });
}

result_t LazyDynamicRules::Submit() noexcept {
  return tracing::Guarded(m_tracer, "Submit", [&] {
    std::lock_guard lock(m_mutex);
    return DoSubmit();
  });
}

// Removes first, then adds: each is one change of the firewall, so a batch
// that only adds or only removes is one synchronisation and a mixed batch
// two, however many clients it holds.
result_t LazyDynamicRules::DoSubmit() {
  m_tracer.Write(Detail, "Submit", "() ", "oldStateSize: ", m_oldState.size(), ", newStateSize: ", m_newState.size());
  const RuleDescriptions before = RulesOf(m_oldState);
  const RuleDescriptions after = RulesOf(m_newState);
  const RuleDescriptions extra = Without(before, after);
  const RuleDescriptions missing = Without(after, before);

  if (const result_t r = RemoveFromFirewall(extra); ORO_FAILED(r)) {
    m_tracer.Write(Error, "Submit", ": remove the extra rules failed: ", tracing::FormatResult(r),
                   ", the changes will be rolled out");
    // The firewall refuses a change as a whole, so it still holds the old
    // state; the clients go back to it too.
    m_newState = m_oldState;
    return r;
  }
  if (const result_t r = AddToFirewall(missing); ORO_FAILED(r)) {
    m_tracer.Write(Error, "Submit", ": add the new rules failed: ", tracing::FormatResult(r),
                   ", the changes will be rolled out");
    PutBack(extra);
    return r;
  }
  m_oldState = m_newState;
  return oro::errOk;
}

result_t LazyDynamicRules::RemoveFromFirewall(const RuleDescriptions& rules) {
  if (rules.empty()) return oro::errOk;
  return QEL_CHECKED_CALL(m_tracer, m_fw->RemoveRules(rules), "failed to remove rules from the firewall");
}

result_t LazyDynamicRules::AddToFirewall(const RuleDescriptions& rules) {
  if (rules.empty()) return oro::errOk;
  return QEL_CHECKED_CALL(m_tracer, m_fw->AddRules(rules, CombineClientsTags(m_newState)),
                          "failed to add rules to the firewall");
}

// The rules removed in this submit go back, and the clients return to the
// old state.
void LazyDynamicRules::PutBack(const RuleDescriptions& rules) {
  if (!rules.empty()) {
    const result_t r = m_fw->AddRules(rules, CombineClientsTags(m_oldState));
    if (ORO_FAILED(r)) {
      m_tracer.Write(Error, "Submit", ": ", "rollback failed, firewall is corrupted: ", tracing::FormatResult(r));
      // The firewall lacks the rules that this submit removed. The clients
      // that gave them up keep them given up, so that the bookkeeping says
      // what the firewall holds and the next submit starts from there.
      for (auto& [tag, held] : m_oldState) held = Without(held, rules);
    }
  }
  m_newState = m_oldState;
}

RuleDescriptions LazyDynamicRules::RulesOf(const State& state) {
  RuleDescriptions rules;
  for (const auto& tag : SortedTags(state)) {
    for (const auto& rule : state.at(tag)) AddOnce(rules, rule);
  }
  return rules;
}

std::string LazyDynamicRules::CombineClientsTags(const State& state) {
  std::string combined;
  for (const auto& tag : SortedTags(state)) {
    if (!state.at(tag).empty()) combined += (combined.empty() ? "" : ",") + tag;
  }
  return combined;
}

result_t CreateLazyDynamicRules(const tracing::Tracer& tracer, oro::RefPtr<IDynamicRules> fw,
                                oro::RefPtr<IDynamicRules2>& out) noexcept {
  try {
    if (!fw) return oro::errInvalidArgument;
    oro::RefPtr<LazyDynamicRules> object;
    const result_t r = CreateInstance(object, tracer, std::move(fw));
    if (ORO_SUCCEEDED(r)) out = oro::RefPtr<IDynamicRules2>::Adopt(object.Detach());
    return r;
  } catch (...) {
    return ResultFromException(std::current_exception());
  }
}

}  // namespace qel::firewall
