#include "host/control_handler.h"

#include <algorithm>
#include <cstdio>

#include "host/ostra_port_text.h"
#include "host/rule_description_json.h"

namespace qel::host {
namespace {

Json ErrorJson(const std::string& text) { return Json{{"ok", false}, {"error", text}}; }

std::string Hex(oro::result_t r) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", r);
  return text;
}

// {"ok":false,"error":"WHAT: result 0x80000046 (Invalid argument)","result":"0x80000046"}
Json RefusedJson(const std::string& what, oro::result_t r) {
  Json reply = ErrorJson(what + ": result " + Hex(r) + " (" + oro::ResultText(r) + ")");
  reply["result"] = Hex(r);
  return reply;
}

// The service refuses a whole list for the first rule the kernel could not
// take; the host can tell which one and why.
std::string RefusedRulesText(const firewall::RuleDescriptions& rules, oro::result_t r) {
  if (r == oro::errInvalidArgument) {
    for (std::size_t i = 0; i < rules.size(); ++i) {
      if (const auto problem = firewall::DescriptionProblem(rules[i])) {
        return "rules[" + std::to_string(i) + "] refused, " + *problem;
      }
    }
  }
  return "the module refused the rules (see its trace)";
}

Json PortsJson(const firewall::OstraPortList& ports) {
  Json list = Json::array();
  for (const auto& port : ports) list.push_back(OstraPortText(port));
  return list;
}

// {"web":[rule,...],"ostra":[...]}, tags in the order their first rule was
// added.
Json TagsJson(const std::vector<firewall::TaggedRule>& rules) {
  Json tags = Json::object();
  for (const auto& rule : rules) {
    if (!tags.contains(rule.tag)) tags[rule.tag] = Json::array();
    tags[rule.tag].push_back(RuleDescriptionToJson(rule.description));
  }
  return tags;
}

}  // namespace

ControlHandler::ControlHandler(oro::RefPtr<firewall::IFirewallStatus> status,
                               oro::RefPtr<firewall::IDynamicRules> dynamicRules,
                               oro::RefPtr<firewall::IOstraPorts> ostraPorts, std::function<HostFacts()> facts)
    : m_status(std::move(status)),
      m_dynamicRules(std::move(dynamicRules)),
      m_ostraPorts(std::move(ostraPorts)),
      m_facts(std::move(facts)) {}

std::string ControlHandler::Handle(std::string_view line) noexcept {
  try {
    const auto request = ParseControlRequest(line);
    return JsonLine(request ? Answer(request.Value()) : ErrorJson(request.ErrorText()));
  } catch (const std::exception& e) {
    return ErrorReply(std::string("the host failed to answer: ") + e.what());
  } catch (...) {
    return ErrorReply("the host failed to answer");
  }
}

Json ControlHandler::Answer(const ControlRequest& request) {
  return std::visit(
      [this](const auto& r) -> Json {
        using R = std::decay_t<decltype(r)>;
        if constexpr (std::is_same_v<R, StatusRequest>) return Status();
        if constexpr (std::is_same_v<R, AddRulesRequest>) return AddRules(r);
        if constexpr (std::is_same_v<R, RemoveRulesRequest>) return RemoveRules(r);
        if constexpr (std::is_same_v<R, AgentPortsRequest>) return AgentPorts(r);
      },
      request);
}

Json ControlHandler::Status() {
  firewall::FirewallStatus status;
  if (const auto r = m_status->GetStatus(status); ORO_FAILED(r)) return RefusedJson("no status from the service", r);
  firewall::OstraPortList ports;
  if (const auto r = m_ostraPorts->GetOstraPorts(ports); ORO_FAILED(r)) {
    return RefusedJson("no port list from the agent's ports", r);
  }
  const HostFacts facts = m_facts();
  return Json{{"ok", true},
              {"task", facts.taskStarted ? "started" : "stopped"},
              {"enforcing", status.enforcing},
              {"polling", status.polling},
              {"inForce", status.inForce},
              {"tags", TagsJson(status.dynamicRules)},
              {"agentPorts", PortsJson(ports)},
              {"integrityEvents", facts.integrityEvents}};
}

Json ControlHandler::AddRules(const AddRulesRequest& request) {
  const auto r = m_dynamicRules->AddRules(request.rules, request.tag);
  if (ORO_FAILED(r)) return RefusedJson(RefusedRulesText(request.rules, r) + "; nothing changed", r);
  return Json{{"ok", true}, {"tag", request.tag}, {"added", request.rules.size()}};
}

// The service removes every stored rule equal to one asked for, whatever its
// tag; the count tells a client whether its rules were there at all.
Json ControlHandler::RemoveRules(const RemoveRulesRequest& request) {
  firewall::FirewallStatus before;
  const bool counted = ORO_SUCCEEDED(m_status->GetStatus(before));
  const auto r = m_dynamicRules->RemoveRules(request.rules);
  if (ORO_FAILED(r)) return RefusedJson(RefusedRulesText(request.rules, r) + "; nothing changed", r);
  Json reply{{"ok", true}};
  if (counted) {
    reply["removed"] = std::count_if(before.dynamicRules.begin(), before.dynamicRules.end(), [&](const auto& stored) {
      return std::find(request.rules.begin(), request.rules.end(), stored.description) != request.rules.end();
    });
  }
  return reply;
}

Json ControlHandler::AgentPorts(const AgentPortsRequest& request) {
  if (const auto r = m_ostraPorts->SetOstraPorts(request.ports); ORO_FAILED(r)) {
    return RefusedJson("the module refused the agent's ports (see its trace)", r);
  }
  firewall::OstraPortList ports;
  if (const auto r = m_ostraPorts->GetOstraPorts(ports); ORO_FAILED(r)) {
    return RefusedJson("no port list from the agent's ports", r);
  }
  return Json{{"ok", true}, {"agentPorts", PortsJson(ports)}};
}

std::string ErrorReply(const std::string& text) { return JsonLine(ErrorJson(text)); }

}  // namespace qel::host
