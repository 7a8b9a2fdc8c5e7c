// The host's event publisher: each event as one JSON object per line,
//   {"event":"FirewallIntegrityBroken","extra":"...","missing":"..."}
// with the properties in the order the module added them. An event about a
// logged packet also gets the name of the rule that logged it, which only
// the host's settings know:
//   {"event":"NetworkActivityBlocked",...,"ruleIndex":0,"ruleName":"ssh"}
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>

#include "host/rule_names.h"
#include "oro/event_publisher.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class JsonEventPublisher final : public ObjectImpl<JsonEventPublisher, oro::IEventPublisher> {
 public:
  // `names` (when given) must outlive the publisher.
  explicit JsonEventPublisher(std::ostream& out, const RuleNames* names = nullptr) : m_out(out), m_names(names) {}
  oro::result_t PublishEvent(oro::Event&& event) noexcept override;

  // Integrity-broken events published so far, for the host's status.
  std::uint64_t IntegrityEvents() const noexcept { return m_integrityEvents.load(); }

 private:
  std::mutex m_mutex;
  std::ostream& m_out;
  const RuleNames* m_names;
  std::atomic<std::uint64_t> m_integrityEvents = 0;
};

// The event's line; with `names`, a network-activity event's "ruleIndex" is
// followed by "ruleName" when the settings in force have a rule there.
std::string EventJson(const oro::Event& event, const RuleNames* names = nullptr);

}  // namespace qel::host
