// Rule groups of several clients (the isolation sessions, one tag each),
// collected as the clients change and handed to the firewall in one go on
// Submit, so that a batch of clients costs the firewall one change instead
// of one per client.
#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class LazyDynamicRules : public ObjectImpl<LazyDynamicRules, IDynamicRules2> {
 public:
  LazyDynamicRules(tracing::Tracer tracer, oro::RefPtr<IDynamicRules> fw);

  // IDynamicRules2
  oro::result_t AddClient(const std::string& tag, const RuleDescriptions& rules) noexcept override;
  oro::result_t UpdateClient(const std::string& tag, const RuleDescriptions& rules) noexcept override;
  oro::result_t RemoveClient(const std::string& tag) noexcept override;
  oro::result_t Submit() noexcept override;

 private:
  // Each client's rules, each once, by tag.
  using State = std::unordered_map<std::string, RuleDescriptions>;

  // Every rule some client of `state` wants, once, in the order of the
  // sorted tags so that the firewall's order does not depend on hashing.
  static RuleDescriptions RulesOf(const State& state);
  // The tags of the clients of `state` that want rules, sorted, joined by
  // ",": the firewall keeps one tag per change, and this one names every
  // client the change is for.
  static std::string CombineClientsTags(const State& state);

  oro::result_t DoSubmit();
  oro::result_t RemoveFromFirewall(const RuleDescriptions& rules);
  oro::result_t AddToFirewall(const RuleDescriptions& rules);
  // After a refused addition: the rules removed in this submit go back.
  void PutBack(const RuleDescriptions& rules);

  tracing::Tracer m_tracer;
  oro::RefPtr<IDynamicRules> m_fw;

  // Held across the calls into the firewall: one submit at a time, and no
  // client change lands between a submit's comparison and its bookkeeping.
  std::mutex m_mutex;
  State m_oldState;  // what the firewall holds
  State m_newState;  // what the clients want
};

// Builds the batching front of `fw` for the module's own users. Exceptions
// stay inside and come back as codes.
oro::result_t CreateLazyDynamicRules(const tracing::Tracer& tracer, oro::RefPtr<IDynamicRules> fw,
                                     oro::RefPtr<IDynamicRules2>& out) noexcept;

}  // namespace qel::firewall
