#include "host/json_event_publisher.h"

#include <optional>

#include "host/json.h"

namespace qel::host {
namespace {

// "NetworkActivity", "NetworkActivityAllowed", "NetworkActivityBlocked".
bool IsNetworkActivity(const oro::Event& event) { return event.kind.rfind("NetworkActivity", 0) == 0; }

std::optional<std::int64_t> RuleIndex(const oro::Event& event) {
  for (const auto& [name, value] : event.properties) {
    if (name == "ruleIndex" && std::holds_alternative<std::int64_t>(value)) return std::get<std::int64_t>(value);
  }
  return std::nullopt;
}

}  // namespace

std::string EventJson(const oro::Event& event, const RuleNames* names) {
  Json line = Json::object();
  line["event"] = event.kind;
  for (const auto& [name, value] : event.properties) {
    std::visit([&line, &name](const auto& v) { line[name] = v; }, value);
  }
  if (names && IsNetworkActivity(event)) {
    if (const auto index = RuleIndex(event)) {
      if (auto ruleName = names->NameOf(*index)) line["ruleName"] = std::move(*ruleName);
    }
  }
  return JsonLine(line);
}

oro::result_t JsonEventPublisher::PublishEvent(oro::Event&& event) noexcept {
  try {
    const std::string line = EventJson(event, m_names);
    if (event.kind == "FirewallIntegrityBroken") ++m_integrityEvents;
    std::lock_guard lock(m_mutex);
    m_out << line << std::endl;
    return oro::errOk;
  } catch (...) {
    return oro::errUnexpected;
  }
}

}  // namespace qel::host
