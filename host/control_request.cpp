#include "host/control_request.h"

#include <algorithm>
#include <array>
#include <set>

#include "host/json.h"
#include "host/isolation_json.h"
#include "host/ostra_port_text.h"
#include "host/rule_description_json.h"

namespace qel::host {
namespace {

using RequestOutcome = Outcome<ControlRequest>;

// Thrown while one request is read and caught before ParseControlRequest
// returns.
struct RequestError {
  std::string text;
};

[[noreturn]] void Fail(const std::string& text) { throw RequestError{text}; }

// How deep arrays and objects nest, strings left out; stops counting once
// past `limit`.
int NestingDepth(std::string_view text, int limit) {
  int depth = 0, deepest = 0;
  bool inString = false, escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
      if (deepest > limit) break;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return deepest;
}

// nlohmann's messages start with "[json.exception.parse_error.101] ".
std::string WithoutExceptionId(const std::string& what) {
  const auto end = what.find("] ");
  return what.rfind("[json.exception.", 0) == 0 && end != std::string::npos ? what.substr(end + 2) : what;
}

struct Command {
  const char* name;
  std::vector<const char*> keys;      // besides "cmd", all required
  std::vector<const char*> optional = {};
};
const std::array<Command, 9> kCommands = {{
    {"status", {}},
    {"add-rules", {"tag", "rules"}},
    {"remove-rules", {"rules"}},
    {"agent-ports", {"ports"}},
    {"queue", {"count"}},
    {"isolate", {"client", "rules"}, {"kind"}},
    {"release", {"client"}},
    {"isolation", {}},
    {"turn-off", {}},
}};

std::string CommandNames() {
  std::string names;
  for (const auto& command : kCommands) names += (names.empty() ? "" : ", ") + std::string(command.name);
  return names;
}

std::string KeyList(const Command& command) {
  std::string keys = "cmd";
  for (const char* key : command.keys) keys += std::string(", ") + key;
  for (const char* key : command.optional) keys += std::string(", ") + key + " (optional)";
  return keys;
}

const Command& FindCommand(const Json& request) {
  const auto cmd = request.find("cmd");
  if (cmd == request.end()) Fail("cmd: missing (one of " + CommandNames() + ")");
  if (!cmd->is_string()) Fail("cmd: expected a string (one of " + CommandNames() + ")");
  const std::string name = cmd->get<std::string>();
  for (const auto& command : kCommands) {
    if (name == command.name) return command;
  }
  Fail("cmd: unknown command '" + name.substr(0, 40) + "' (expected one of " + CommandNames() + ")");
}

void CheckKeys(const Json& request, const Command& command) {
  for (const auto& item : request.items()) {
    const std::string& key = item.key();
    if (key == "cmd") continue;
    const auto named = [&](const std::vector<const char*>& keys) {
      return std::find_if(keys.begin(), keys.end(), [&](const char* k) { return key == k; }) != keys.end();
    };
    if (!named(command.keys) && !named(command.optional)) {
      Fail(key.substr(0, 40) + ": unknown key for " + command.name + " (expected " + KeyList(command) + ")");
    }
  }
  for (const char* key : command.keys) {
    if (!request.contains(key)) Fail(std::string(key) + ": missing (" + command.name + " needs " + KeyList(command) + ")");
  }
}

const Json& Array(const Json& request, const char* key) {
  const Json& value = request.at(key);
  if (!value.is_array()) Fail(std::string(key) + ": expected an array");
  return value;
}

firewall::RuleDescriptions Rules(const Json& request) {
  firewall::RuleDescriptions rules;
  const Json& items = Array(request, "rules");
  for (std::size_t i = 0; i < items.size(); ++i) {
    auto rule = RuleDescriptionFromJson(items[i]);
    if (!rule) {
      const bool namesKey = items[i].is_object();
      Fail("rules[" + std::to_string(i) + "]" + (namesKey ? "." : ": ") + rule.ErrorText());
    }
    rules.push_back(std::move(rule).Value());
  }
  return rules;
}

std::string Tag(const Json& request) {
  const Json& tag = request.at("tag");
  if (!tag.is_string()) Fail("tag: expected a string");
  if (tag.get_ref<const std::string&>().empty()) Fail("tag: empty");
  return tag.get<std::string>();
}

firewall::OstraPortList Ports(const Json& request) {
  firewall::OstraPortList ports;
  const Json& items = Array(request, "ports");
  for (std::size_t i = 0; i < items.size(); ++i) {
    const std::string at = "ports[" + std::to_string(i) + "]: ";
    if (!items[i].is_string()) Fail(at + "expected a string like \"15000/tcp/in\"");
    auto port = ParseOstraPort(items[i].get<std::string>());
    if (!port) Fail(at + port.ErrorText());
    ports.push_back(port.Value());
  }
  return ports;
}

// A JSON integer; 4.0 and "4" are refused like any other non-integer.
std::uint16_t QueueCount(const Json& request) {
  const Json& count = request.at("count");
  const bool fits = (count.is_number_unsigned() && count.get<std::uint64_t>() <= 65535) ||
                    (count.is_number_integer() && count.get<std::int64_t>() >= 0 && count.get<std::int64_t>() <= 65535);
  if (!fits) Fail("count: expected an integer from 0 to 65535, got " + JsonLine(count).substr(0, 40));
  return static_cast<std::uint16_t>(count.get<std::uint64_t>());
}

// A JSON integer from 0 to 4294967295.
std::uint32_t Unsigned32(const Json& request, const char* key) {
  const Json& value = request.at(key);
  const bool fits = (value.is_number_unsigned() && value.get<std::uint64_t>() <= 0xffffffffu) ||
                    (value.is_number_integer() && value.get<std::int64_t>() >= 0 &&
                     value.get<std::int64_t>() <= 0xffffffffLL);
  if (!fits) Fail(std::string(key) + ": expected an integer from 0 to 4294967295, got " + JsonLine(value).substr(0, 40));
  return static_cast<std::uint32_t>(value.get<std::uint64_t>());
}

firewall::NetworkExclusionRules ExclusionRules(const Json& request) {
  firewall::NetworkExclusionRules rules;
  const Json& items = Array(request, "rules");
  for (std::size_t i = 0; i < items.size(); ++i) {
    auto rule = ExclusionRuleFromJson(items[i]);
    if (!rule) Fail("rules[" + std::to_string(i) + "]" + (items[i].is_object() ? "." : ": ") + rule.ErrorText());
    rules.push_back(std::move(rule).Value());
  }
  return rules;
}

IsolateRequest Isolate(const Json& request) {
  IsolateRequest isolate;
  isolate.client = Unsigned32(request, "client");
  if (request.contains("kind")) isolate.kind = Unsigned32(request, "kind");
  isolate.rules = ExclusionRules(request);
  return isolate;
}

ControlRequest ReadRequest(const Json& request) {
  if (!request.is_object()) Fail("expected a JSON object with \"cmd\"");
  const Command& command = FindCommand(request);
  CheckKeys(request, command);
  const std::string_view name = command.name;
  if (name == "add-rules") return AddRulesRequest{Tag(request), Rules(request)};
  if (name == "remove-rules") return RemoveRulesRequest{Rules(request)};
  if (name == "agent-ports") return AgentPortsRequest{Ports(request)};
  if (name == "queue") return QueueRequest{QueueCount(request)};
  if (name == "isolate") return Isolate(request);
  if (name == "release") return ReleaseRequest{Unsigned32(request, "client")};
  if (name == "isolation") return IsolationRequest{};
  if (name == "turn-off") return TurnOffRequest{};
  return StatusRequest{};
}

}  // namespace

Outcome<ControlRequest> ParseControlRequest(std::string_view line) {
  if (NestingDepth(line, kMaxRequestDepth) > kMaxRequestDepth) {
    return RequestOutcome::Error("nested deeper than " + std::to_string(kMaxRequestDepth) + " levels");
  }
  Json request;
  try {
    request = Json::parse(line);
  } catch (const Json::exception& e) {
    // Mostly parse errors; a number too large for a double is an
    // out-of-range error of its own.
    return RequestOutcome::Error("not JSON: " + WithoutExceptionId(e.what()));
  }
  try {
    return ReadRequest(request);
  } catch (const RequestError& e) {
    return RequestOutcome::Error(e.text);
  }
}

}  // namespace qel::host
