#include "host/isolation_json.h"

#include <cstdint>
#include <limits>
#include <set>
#include <string>

#include "qel_common/ip_address.h"

namespace qel::host {
namespace {

using system_interceptors::network_isolation_manager::PortRange;
using system_interceptors::network_isolation_manager::data_source::Enum;
namespace data = firewall::network_isolation_data;

// Thrown while one rule is read, caught before ExclusionRuleFromJson returns.
struct FieldError {
  std::string text;
};

[[noreturn]] void Fail(const std::string& key, const std::string& reason) { throw FieldError{key + ": " + reason}; }

// A value quoted in an error, cut short.
std::string Shown(const Json& value) {
  constexpr std::size_t kMaxShown = 40;
  const std::string text = JsonLine(value);
  return text.size() <= kMaxShown ? text : text.substr(0, kMaxShown - 3) + "...";
}

// A JSON integer from 0 to `max`; 4.0 and "4" are refused.
std::uint64_t Unsigned(const std::string& key, const Json& value, std::uint64_t max) {
  const bool fits = (value.is_number_unsigned() && value.get<std::uint64_t>() <= max) ||
                    (value.is_number_integer() && value.get<std::int64_t>() >= 0 &&
                     static_cast<std::uint64_t>(value.get<std::int64_t>()) <= max);
  if (!fits) Fail(key, "expected an integer from 0 to " + std::to_string(max) + ", got " + Shown(value));
  return value.get<std::uint64_t>();
}

void RejectUnknownKeys(const std::string& at, const Json& object, const std::set<std::string>& known) {
  for (const auto& item : object.items()) {
    if (known.count(item.key())) continue;
    std::string expected;
    for (const auto& key : known) expected += (expected.empty() ? "" : ", ") + key;
    Fail(at + item.key().substr(0, 40), "unknown key (expected " + expected + ")");
  }
}

tools::IpAddress Address(const std::string& key, const Json& value) {
  if (!value.is_string()) Fail(key, "expected an address text like \"10.77.0.2\" or \"fd77::2\", got " + Shown(value));
  try {
    return tools::ParseIpAddress(value.get<std::string>());
  } catch (const tools::AddressParseError&) {
    Fail(key, Shown(value) + " is not an IPv4 or IPv6 address");
  }
}

PortRange Ports(const std::string& key, const Json& value) {
  if (!value.is_object()) Fail(key, "expected {\"start\":PORT,\"end\":PORT}, got " + Shown(value));
  RejectUnknownKeys(key + ".", value, {"start", "end"});
  for (const char* bound : {"start", "end"}) {
    if (!value.contains(bound)) Fail(key + "." + bound, "missing");
  }
  const auto start = Unsigned(key + ".start", value.at("start"), 65535);
  const auto end = Unsigned(key + ".end", value.at("end"), 65535);
  if (end < start) Fail(key, "end " + std::to_string(end) + " is below start " + std::to_string(start));
  return PortRange{static_cast<std::uint16_t>(start), static_cast<std::uint16_t>(end)};
}

std::string Path(const std::string& key, const Json& value) {
  if (!value.is_string()) Fail(key, "expected a text, got " + Shown(value));
  if (value.get_ref<const std::string&>().empty()) Fail(key, "empty");
  return value.get<std::string>();
}

NetworkExclusionRule3 ReadRule(const Json& object) {
  if (!object.is_object()) throw FieldError{"expected an object of exclusion fields, got " + Shown(object)};
  RejectUnknownKeys("", object,
                    {"remoteAddress", "protocol", "localPortRange", "remotePortRange", "dataSource", "applicationPath"});
  NetworkExclusionRule3 rule;
  for (const auto& item : object.items()) {
    const std::string& key = item.key();
    const Json& value = item.value();
    if (value.is_null()) continue;
    if (key == "remoteAddress") rule.remoteAddress = Address(key, value);
    if (key == "protocol") rule.protocol = static_cast<std::uint8_t>(Unsigned(key, value, 255));
    if (key == "localPortRange") rule.localPortRange = Ports(key, value);
    if (key == "remotePortRange") rule.remotePortRange = Ports(key, value);
    if (key == "dataSource") {
      rule.dataSource = static_cast<Enum>(Unsigned(key, value, std::numeric_limits<std::uint32_t>::max()));
    }
    if (key == "applicationPath") rule.applicationPath = Path(key, value);
  }
  return rule;
}

Json PortsJson(const PortRange& range) { return Json{{"start", range.first}, {"end", range.last}}; }

template <class T, class F>
Json OrNull(const std::optional<T>& value, F write) {
  return value ? write(*value) : Json(nullptr);
}

Json EndpointJson(const data::Endpoint& endpoint) {
  Json addresses = Json::array();
  for (const auto& address : endpoint.addresses) addresses.push_back(address.ToString());
  Json ports = Json::array();
  for (const auto& port : endpoint.ports) {
    ports.push_back(Json{{"localPort", OrNull(port.localPort, [](auto p) { return Json(p); })},
                         {"remotePort", OrNull(port.remotePort, [](auto p) { return Json(p); })},
                         {"protocol", OrNull(port.protocol, [](auto p) { return Json(p); })},
                         {"direction", static_cast<std::uint32_t>(port.direction)}});
  }
  return Json{{"domain", OrNull(endpoint.domain, [](const auto& d) { return Json(d); })},
              {"addresses", std::move(addresses)},
              {"ports", std::move(ports)}};
}

Json EndpointsJson(const std::vector<data::Endpoint>& endpoints) {
  Json list = Json::array();
  for (const auto& endpoint : endpoints) list.push_back(EndpointJson(endpoint));
  return list;
}

}  // namespace

Json ExclusionRuleToJson(const NetworkExclusionRule3& rule) {
  Json object = Json::object();
  if (rule.remoteAddress) object["remoteAddress"] = rule.remoteAddress->ToString();
  if (rule.protocol) object["protocol"] = *rule.protocol;
  if (rule.localPortRange) object["localPortRange"] = PortsJson(*rule.localPortRange);
  if (rule.remotePortRange) object["remotePortRange"] = PortsJson(*rule.remotePortRange);
  if (rule.dataSource) object["dataSource"] = static_cast<std::uint32_t>(*rule.dataSource);
  if (rule.applicationPath) object["applicationPath"] = *rule.applicationPath;
  return object;
}

Outcome<NetworkExclusionRule3> ExclusionRuleFromJson(const Json& object) {
  try {
    return ReadRule(object);
  } catch (const FieldError& e) {
    return Outcome<NetworkExclusionRule3>::Error(e.text);
  }
}

Json BuiltinRulesToJson(const firewall::BuiltinRules& builtIn) {
  return Json{{"tamberServers", EndpointsJson(builtIn.tamberServers)},
              {"pelmServer", OrNull(builtIn.pelmServer, EndpointJson)},
              {"lumraVIISServer", OrNull(builtIn.lumraVIISServer, EndpointJson)},
              {"lumraSVMServers", EndpointsJson(builtIn.lumraSVMServers)},
              {"vyxProxies", EndpointsJson(builtIn.vyxProxies)},
              {"vyxServers", EndpointsJson(builtIn.vyxServers)},
              {"ruskServers", EndpointsJson(builtIn.ruskServers)}};
}

}  // namespace qel::host
