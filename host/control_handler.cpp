#include "host/control_handler.h"

#include <algorithm>
#include <cstdio>

#include "host/isolation_json.h"
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

ControlHandler::ControlHandler(ControlTargets targets, std::function<HostFacts()> facts, const RuleNames& names)
    : m_targets(std::move(targets)), m_facts(std::move(facts)), m_names(names) {}

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
  const bool aboutIsolation = std::holds_alternative<IsolateRequest>(request) ||
                              std::holds_alternative<ReleaseRequest>(request) ||
                              std::holds_alternative<IsolationRequest>(request) ||
                              std::holds_alternative<TurnOffRequest>(request);
  if (aboutIsolation && !m_targets.isolation.manager) return ErrorJson(m_targets.isolation.unavailable);
  return std::visit(
      [this](const auto& r) -> Json {
        using R = std::decay_t<decltype(r)>;
        if constexpr (std::is_same_v<R, StatusRequest>) return Status();
        if constexpr (std::is_same_v<R, AddRulesRequest>) return AddRules(r);
        if constexpr (std::is_same_v<R, RemoveRulesRequest>) return RemoveRules(r);
        if constexpr (std::is_same_v<R, AgentPortsRequest>) return AgentPorts(r);
        if constexpr (std::is_same_v<R, QueueRequest>) return Queue(r);
        if constexpr (std::is_same_v<R, IsolateRequest>) return Isolate(r);
        if constexpr (std::is_same_v<R, ReleaseRequest>) return Release(r);
        if constexpr (std::is_same_v<R, IsolationRequest>) return Isolation();
        if constexpr (std::is_same_v<R, TurnOffRequest>) return TurnOff();
      },
      request);
}

Json ControlHandler::Status() {
  firewall::FirewallStatus status;
  if (const auto r = m_targets.status->GetStatus(status); ORO_FAILED(r)) return RefusedJson("no status from the service", r);
  firewall::OstraPortList ports;
  if (const auto r = m_targets.ostraPorts->GetOstraPorts(ports); ORO_FAILED(r)) {
    return RefusedJson("no port list from the agent's ports", r);
  }
  firewall::NflogCounts counts;
  if (m_targets.packetLog) {
    if (const auto r = m_targets.packetLog->GetNflogCounts(counts); ORO_FAILED(r)) {
      return RefusedJson("no packet-log counts from the task", r);
    }
  }
  const HostFacts facts = m_facts();
  Json reply{{"ok", true},
             {"task", facts.taskStarted ? "started" : "stopped"},
             {"enforcing", status.enforcing},
             {"polling", status.polling},
             {"inForce", status.inForce},
             {"tags", TagsJson(status.dynamicRules)},
             {"agentPorts", PortsJson(ports)},
             {"integrityEvents", facts.integrityEvents}};
  if (m_targets.packetLog) reply["packetLog"] = PacketLogJson(counts);
  return reply;
}

// {"groups":[{"group":10001,"ruleIndex":0,"ruleName":"ssh","delivered":12,"lost":0}],"overruns":0}
Json ControlHandler::PacketLogJson(const firewall::NflogCounts& counts) const {
  Json groups = Json::array();
  for (const auto& group : counts.groups) {
    Json entry{{"group", group.group}};
    if (group.group >= settings::MinNflogGroup) {
      const std::int64_t index = group.group - settings::MinNflogGroup;
      entry["ruleIndex"] = index;
      if (auto name = m_names.NameOf(index)) entry["ruleName"] = std::move(*name);
    }
    entry["delivered"] = group.delivered;
    entry["lost"] = group.lost;
    groups.push_back(std::move(entry));
  }
  return Json{{"groups", std::move(groups)}, {"overruns", counts.overruns}};
}

Json ControlHandler::Queue(const QueueRequest& request) {
  if (!m_targets.queues) {
    return ErrorJson("the module has no NFQUEUE query (no factory for class " + Hex(oro::clsid::NfqueueQuery) + ")");
  }
  std::uint16_t first = 0;
  const auto r = m_targets.queues->GetAvailableQueue(request.count, first);
  if (r == oro::errNotFound) {
    return RefusedJson("no run of " + std::to_string(request.count) + " free queue numbers below 65536", r);
  }
  if (ORO_FAILED(r)) return RefusedJson("the module found no queue numbers (see its trace)", r);
  return Json{{"ok", true}, {"first", first}};
}

Json ControlHandler::AddRules(const AddRulesRequest& request) {
  const auto r = m_targets.dynamicRules->AddRules(request.rules, request.tag);
  if (ORO_FAILED(r)) return RefusedJson(RefusedRulesText(request.rules, r) + "; nothing changed", r);
  return Json{{"ok", true}, {"tag", request.tag}, {"added", request.rules.size()}};
}

// The service removes every stored rule equal to one asked for, whatever its
// tag; the count tells a client whether its rules were there at all.
Json ControlHandler::RemoveRules(const RemoveRulesRequest& request) {
  firewall::FirewallStatus before;
  const bool counted = ORO_SUCCEEDED(m_targets.status->GetStatus(before));
  const auto r = m_targets.dynamicRules->RemoveRules(request.rules);
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
  if (const auto r = m_targets.ostraPorts->SetOstraPorts(request.ports); ORO_FAILED(r)) {
    return RefusedJson("the module refused the agent's ports (see its trace)", r);
  }
  firewall::OstraPortList ports;
  if (const auto r = m_targets.ostraPorts->GetOstraPorts(ports); ORO_FAILED(r)) {
    return RefusedJson("no port list from the agent's ports", r);
  }
  return Json{{"ok", true}, {"agentPorts", PortsJson(ports)}};
}

// The clients isolating now, ascending; empty when the manager cannot say.
std::vector<std::uint32_t> ControlHandler::ActiveClients() {
  std::vector<std::uint32_t> clients;
  if (!m_targets.isolation.status || ORO_FAILED(m_targets.isolation.status->GetActiveSessions(clients))) return {};
  std::sort(clients.begin(), clients.end());
  return clients;
}

Json ControlHandler::Isolate(const IsolateRequest& request) {
  const auto before = ActiveClients();
  const bool replaced = std::binary_search(before.begin(), before.end(), request.client);
  const auto r = m_targets.isolation.manager->CreateSession(request.client, request.rules);
  if (ORO_FAILED(r)) {
    return RefusedJson("the module did not isolate the host for client " + std::to_string(request.client) +
                           " (see its trace)",
                       r);
  }
  if (m_targets.isolation.states) m_targets.isolation.states->RememberKind(request.client, request.kind);
  return Json{{"ok", true},
              {"client", request.client},
              {"kind", request.kind},
              {"rules", request.rules.size()},
              {"replaced", replaced}};
}

// The manager refuses an unknown client without a change; the host names
// the reason rather than leaving a bare result code.
Json ControlHandler::Release(const ReleaseRequest& request) {
  const auto before = ActiveClients();
  const auto r = m_targets.isolation.manager->DeleteSession(request.client);
  if (ORO_FAILED(r)) {
    const bool known = std::binary_search(before.begin(), before.end(), request.client);
    return RefusedJson(known ? "the module did not release client " + std::to_string(request.client) + " (see its trace)"
                             : "client " + std::to_string(request.client) + " does not isolate the host; nothing changed",
                       r);
  }
  if (m_targets.isolation.states) m_targets.isolation.states->ForgetKind(request.client);
  return Json{{"ok", true}, {"client", request.client}, {"isolated", !ActiveClients().empty()}};
}

// {"ok":true,"isolated":true,"backend":"iptables","clients":[{"client":31,"kind":2,"rules":[...]}],"builtIn":{...}}
Json ControlHandler::Isolation() {
  if (!m_targets.isolation.report) return ErrorJson("the isolation manager gives no report");
  firewall::NetworkIsolationReport report;
  if (const auto r = m_targets.isolation.report->GetReport(report); ORO_FAILED(r)) {
    return RefusedJson("no report from the isolation manager", r);
  }
  Json clients = Json::array();
  for (const auto& client : report.clients) {
    Json rules = Json::array();
    for (const auto& rule : client.rules) rules.push_back(ExclusionRuleToJson(rule));
    const std::uint32_t kind = m_targets.isolation.states ? m_targets.isolation.states->KindOf(client.clientId) : 0;
    clients.push_back(Json{{"client", client.clientId}, {"kind", kind}, {"rules", std::move(rules)}});
  }
  return Json{{"ok", true},
              {"isolated", !report.clients.empty()},
              {"backend", report.backend.empty() ? Json(nullptr) : Json(report.backend)},
              {"clients", std::move(clients)},
              {"builtIn", BuiltinRulesToJson(report.builtIn)}};
}

// The facade runs each client's stop task and waits for it; the reply
// counts the clients that no longer isolate afterwards.
Json ControlHandler::TurnOff() {
  if (!m_targets.isolation.facade) return ErrorJson("the module has no isolation facade");
  const auto before = ActiveClients();
  const auto r = m_targets.isolation.facade->TurnOff();
  const auto after = ActiveClients();
  Json stopped = Json::array();
  for (const auto client : before) {
    if (!std::binary_search(after.begin(), after.end(), client)) stopped.push_back(client);
  }
  Json reply = ORO_FAILED(r) ? RefusedJson("the facade did not turn isolation off (see its trace)", r) : Json{{"ok", true}};
  reply["stopped"] = stopped.size();
  reply["clients"] = std::move(stopped);
  reply["stillIsolating"] = after;
  return reply;
}

std::string ErrorReply(const std::string& text) { return JsonLine(ErrorJson(text)); }

}  // namespace qel::host
