#include "host/json_event_publisher.h"

#include "host/json.h"

namespace qel::host {

std::string EventJson(const oro::Event& event) {
  Json line = Json::object();
  line["event"] = event.kind;
  for (const auto& [name, value] : event.properties) {
    std::visit([&line, &name](const auto& v) { line[name] = v; }, value);
  }
  return JsonLine(line);
}

oro::result_t JsonEventPublisher::PublishEvent(oro::Event&& event) noexcept {
  try {
    const std::string line = EventJson(event);
    if (event.kind == "FirewallIntegrityBroken") ++m_integrityEvents;
    std::lock_guard lock(m_mutex);
    m_out << line << std::endl;
    return oro::errOk;
  } catch (...) {
    return oro::errUnexpected;
  }
}

}  // namespace qel::host
