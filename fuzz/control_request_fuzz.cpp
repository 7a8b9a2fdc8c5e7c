// Feeds arbitrary lines to the control socket's request parser, as a client
// may send them, and checks what the host relies on: the parser returns
// rather than throws, its error makes a one-line JSON reply, and what it
// accepts comes back unchanged through the JSON forms the host writes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "host/control_handler.h"
#include "host/control_request.h"
#include "host/json.h"
#include "host/ostra_port_text.h"
#include "host/rule_description_json.h"

namespace {

using namespace qel::host;

void Require(bool holds, const char* invariant) {
  if (holds) return;
  std::fprintf(stderr, "invariant broken: %s\n", invariant);
  std::abort();
}

void CheckErrorReply(const std::string& error) {
  Require(!error.empty(), "a refusal says why");
  const std::string reply = ErrorReply(error);
  Require(reply.find('\n') == std::string::npos, "a reply is one line");
  const Json parsed = Json::parse(reply, nullptr, false);
  Require(parsed.is_object() && parsed.value("ok", true) == false, "a refusal is {\"ok\":false,...}");
}

void CheckRules(const qel::firewall::RuleDescriptions& rules) {
  for (const auto& rule : rules) {
    const auto back = RuleDescriptionFromJson(Json::parse(JsonLine(RuleDescriptionToJson(rule))));
    Require(back.Ok() && back.Value() == rule, "an accepted rule reads back from the JSON written for it");
    Require(!qel::firewall::DescriptionText(rule).empty(), "an accepted rule has a printed form");
  }
}

void CheckRequest(const ControlRequest& request) {
  if (const auto* add = std::get_if<AddRulesRequest>(&request)) {
    Require(!add->tag.empty(), "an accepted tag is not empty");
    CheckRules(add->rules);
  } else if (const auto* remove = std::get_if<RemoveRulesRequest>(&request)) {
    CheckRules(remove->rules);
  } else if (const auto* ports = std::get_if<AgentPortsRequest>(&request)) {
    for (const auto& port : ports->ports) {
      const auto back = ParseOstraPort(OstraPortText(port));
      Require(back.Ok() && back.Value() == port, "an accepted port reads back from its text");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const auto request = ParseControlRequest(line);
  if (request) {
    CheckRequest(request.Value());
  } else {
    CheckErrorReply(request.ErrorText());
  }
  return 0;
}
