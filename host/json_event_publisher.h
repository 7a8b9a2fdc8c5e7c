// The host's event publisher: each event as one JSON object per line,
//   {"event":"FirewallIntegrityBroken","extra":"...","missing":"..."}
// with the properties in the order the module added them.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>

#include "oro/event_publisher.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class JsonEventPublisher final : public ObjectImpl<JsonEventPublisher, oro::IEventPublisher> {
 public:
  explicit JsonEventPublisher(std::ostream& out) : m_out(out) {}
  oro::result_t PublishEvent(oro::Event&& event) noexcept override;

  // Integrity-broken events published so far, for the host's status.
  std::uint64_t IntegrityEvents() const noexcept { return m_integrityEvents.load(); }

 private:
  std::mutex m_mutex;
  std::ostream& m_out;
  std::atomic<std::uint64_t> m_integrityEvents = 0;
};

std::string EventJson(const oro::Event& event);

}  // namespace qel::host
