#include "firewall/network_isolation_data.h"

#include <charconv>
#include <cstdio>
#include <string_view>
#include <type_traits>

namespace qel::firewall::network_isolation_data {
namespace {

using system_interceptors::network_isolation_manager::PortRange;

// Builds one "{"name":value, ...}" form field by field.
class TracedRecord {
 public:
  template <class T>
  TracedRecord& Field(std::string_view name, const T& value) {
    m_text += m_text.size() == 1 ? "\"" : ", \"";
    m_text += name;
    m_text += "\":";
    m_text += Value(value);
    return *this;
  }
  std::string Close() { return m_text + "}"; }

 private:
  // Widened so that an 8-bit protocol prints as a number, not a character.
  template <class T>
    requires std::is_unsigned_v<T>
  static std::string Value(T number) {
    return std::to_string(static_cast<unsigned long long>(number));
  }
  template <class T>
    requires std::is_enum_v<T>
  static std::string Value(T number) {
    return Value(static_cast<std::underlying_type_t<T>>(number));
  }
  static std::string Value(const std::string& text) { return "\"" + text + "\""; }
  static std::string Value(const ip_t& address) { return address.ToString(); }
  static std::string Value(const PortRange& range) {
    return TracedRecord().Field("start", range.first).Field("end", range.last).Close();
  }
  static std::string Value(const EndpointPort& port) {
    return TracedRecord()
        .Field("localPort", port.localPort)
        .Field("remotePort", port.remotePort)
        .Field("protocol", port.protocol)
        .Field("direction", port.direction)
        .Close();
  }
  template <class T>
  static std::string Value(const std::optional<T>& value) {
    return value ? Value(*value) : "null";
  }
  template <class T>
  static std::string Value(const std::vector<T>& items) {
    std::string text = "[";
    for (const auto& item : items) {
      if (text.size() > 1) text += ", ";
      text += Value(item);
    }
    return text + "]";
  }

  std::string m_text = "{";
};

}  // namespace

std::string ClientId2FWTag(std::uint32_t clientId) {
  char tag[16];
  std::snprintf(tag, sizeof tag, "ni_0x%x", clientId);
  return tag;
}

std::optional<std::uint32_t> FWTag2ClientId(const std::string& tag) {
  constexpr std::string_view prefix = "ni_0x";
  if (!tag.starts_with(prefix) || tag.size() == prefix.size()) return std::nullopt;
  const char* first = tag.data() + prefix.size();
  const char* last = tag.data() + tag.size();
  std::uint32_t id = 0;
  const auto [end, error] = std::from_chars(first, last, id, 16);
  // Only the form ClientId2FWTag writes: no sign, no upper case, no padding.
  if (error != std::errc() || end != last || ClientId2FWTag(id) != tag) return std::nullopt;
  return id;
}

std::string TraceText(const NetworkExclusionRule3& rule) {
  return TracedRecord()
      .Field("remoteAddress", rule.remoteAddress)
      .Field("protocol", rule.protocol)
      .Field("localPortRange", rule.localPortRange)
      .Field("remotePortRange", rule.remotePortRange)
      .Field("dataSource", rule.dataSource)
      .Field("applicationPath", rule.applicationPath)
      .Close();
}

std::string TraceText(const NetworkExclusionRules& rules) {
  std::string text = "[";
  for (const auto& rule : rules) {
    if (text.size() > 1) text += ", ";
    text += TraceText(rule);
  }
  return text + "]";
}

std::string TraceRequest(std::uint32_t clientId, const NetworkExclusionRules& rules) {
  return "clientId=" + std::to_string(clientId) + ", rules=" + TraceText(rules);
}

std::string TraceText(const Endpoint& endpoint) {
  return TracedRecord()
      .Field("domain", endpoint.domain)
      .Field("addresses", endpoint.addresses)
      .Field("ports", endpoint.ports)
      .Close();
}

std::string TraceEndpointTaken(const Endpoint& endpoint) { return " endpoint=" + TraceText(endpoint); }

}  // namespace qel::firewall::network_isolation_data
