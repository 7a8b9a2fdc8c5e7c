#include "firewall/ostra_ports.h"

#include <algorithm>
#include <iterator>

#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Error;

constexpr std::uint32_t kTcp = 0;
constexpr std::uint32_t kUdp = 1;
constexpr std::uint32_t kIn = 0;
constexpr std::uint32_t kOut = 1;
constexpr std::uint32_t kInOut = 2;
constexpr std::uint32_t kAccept = 0;

// An access rule for the agent's port on one side: the port is local, so on
// the incoming side it is the destination and on the outgoing side the source.
// The chain layout lets the replies of its connections through on the other
// side, so a one-way port needs no rule there of its own.
RuleDescription PortRule(const OstraPort& entry, Side side) {
  RuleDescription rule;
  rule.side = side;
  rule.protocol = entry.protocol == kUdp ? 17 : 6;
  const auto port = static_cast<std::uint16_t>(entry.port);
  rule.localPorts = tools::PortRange{port, port};
  rule.action = AccessAction{kAccept};
  return rule;
}

void AddOnce(RuleDescriptions& rules, RuleDescription rule) {
  if (std::find(rules.begin(), rules.end(), rule) == rules.end()) rules.push_back(std::move(rule));
}

RuleDescriptions Without(const RuleDescriptions& from, const RuleDescriptions& minus) {
  RuleDescriptions left;
  for (const auto& rule : from) {
    if (std::find(minus.begin(), minus.end(), rule) == minus.end()) left.push_back(rule);
  }
  return left;
}

std::set<OstraPort> Difference(const std::set<OstraPort>& from, const std::set<OstraPort>& minus) {
  std::set<OstraPort> left;
  std::set_difference(from.begin(), from.end(), minus.begin(), minus.end(), std::inserter(left, left.end()));
  return left;
}

template <class Ports>
std::string PortsText(const Ports& ports) {
  std::string text;
  for (const auto& port : ports) text += " " + OstraPortText(port) + ";";
  if (!text.empty()) text.pop_back();
  return text;
}

// The word of an enumeration value; a value without one reads as its number,
// so that a bad entry can still be named.
template <std::size_t N>
std::string WordOf(const char* const (&words)[N], std::uint32_t value) {
  return value < N ? words[value] : std::to_string(value);
}

}  // namespace

std::string OstraPortText(const OstraPort& port) {
  static const char* const kProtocols[] = {"TCP", "UDP"};
  static const char* const kDirections[] = {"IN", "OUT", "INOUT"};
  return std::to_string(port.port) + ' ' + WordOf(kProtocols, port.protocol) + ' ' +
         WordOf(kDirections, port.direction);
}

OstraPorts::OstraPorts(oro::IServiceLocator* locator) : m_locator(locator) {
  result_t ignored;
  m_tracer = tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored));
}

result_t OstraPorts::FinalConstruct() {
  return Locate(m_locator, m_tracer, "IDynamicRules", m_dynamicRules);
}

RuleDescriptions OstraPorts::RulesOf(const std::set<OstraPort>& ports) {
  RuleDescriptions rules;
  for (const auto& entry : ports) {
    switch (entry.direction) {
      case kIn:
        AddOnce(rules, PortRule(entry, Side::Incoming));
        break;
      case kOut:
        AddOnce(rules, PortRule(entry, Side::Outgoing));
        break;
      default:
        AddOnce(rules, PortRule(entry, Side::Incoming));
        AddOnce(rules, PortRule(entry, Side::Outgoing));
        break;
    }
  }
  return rules;
}

std::string OstraPorts::EntryProblem(const OstraPort& port) {
  if (port.port == 0 || port.port > 65535) return "port outside 1-65535";
  if (port.protocol != kTcp && port.protocol != kUdp) return "protocol is neither 0 (TCP) nor 1 (UDP)";
  if (port.direction > kInOut) return "direction is none of 0 (IN), 1 (OUT), 2 (INOUT)";
  return {};
}

result_t OstraPorts::SetOstraPorts(const OstraPortList& ports) noexcept {
  return tracing::Guarded(m_tracer, "SetOstraPorts", [&] {
    m_tracer.Write(Detail, "SetOstraPorts", "() ", " ports", PortsText(ports));
    for (std::size_t i = 0; i < ports.size(); ++i) {
      if (const std::string problem = EntryProblem(ports[i]); !problem.empty()) {
        m_tracer.Write(Error, "SetOstraPorts", ": entry ", i + 1, " (", OstraPortText(ports[i]), "): ", problem,
                       "; the ports in force stay");
        return oro::errInvalidArgument;
      }
    }
    return ApplyOstraPorts(ports);
  });
}

result_t OstraPorts::ApplyOstraPorts(const OstraPortList& ports) {
  const PortSet wanted(ports.begin(), ports.end());
  std::lock_guard lock(m_mutex);
  const result_t r = m_apply ? ApplyChange(m_ports, wanted) : oro::errOk;
  // Kept whatever the firewall said: the set is what the agent uses, and
  // switching apply off and on again brings the firewall to it.
  m_ports = wanted;
  return r;
}

result_t OstraPorts::GetOstraPorts(OstraPortList& out) noexcept {
  return tracing::Guarded(m_tracer, "GetOstraPorts", [&] {
    std::lock_guard lock(m_mutex);
    out.assign(m_ports.begin(), m_ports.end());
    return oro::errOk;
  });
}

result_t OstraPorts::SetApply(bool doApply) noexcept {
  return tracing::Guarded(m_tracer, "SetApply", [&] {
    m_tracer.Write(Detail, "SetApply", "() ", " doApply ", doApply ? "yes" : "no");
    std::lock_guard lock(m_mutex);
    result_t r = oro::errOk;
    if (doApply && !m_apply) r = ApplyChange({}, m_ports);
    if (!doApply && m_apply) r = ApplyChange(m_ports, {});
    m_apply = doApply;
    return r;
  });
}

// Works on the rules of the whole sets rather than of the changed entries:
// two entries can share a rule (15000/tcp/in and 15000/tcp/inout), and the
// firewall removes every rule equal to one it is given.
result_t OstraPorts::ApplyChange(const PortSet& before, const PortSet& after) {
  TraceChange(Difference(before, after), Difference(after, before));
  const RuleDescriptions rulesBefore = RulesOf(before);
  const RuleDescriptions rulesAfter = RulesOf(after);
  const RuleDescriptions remove = Without(rulesBefore, rulesAfter);
  const RuleDescriptions add = Without(rulesAfter, rulesBefore);

  result_t first = oro::errOk;
  if (!remove.empty()) {
    first = QEL_CHECKED_CALL(m_tracer, m_dynamicRules->RemoveRules(remove), "Cannot close ostra ports");
  }
  if (!add.empty()) {
    const result_t r = QEL_CHECKED_CALL(m_tracer, m_dynamicRules->AddRules(add, "ostra"), "Cannot open ostra ports");
    if (ORO_SUCCEEDED(first)) first = r;
  }
  return first;
}

void OstraPorts::TraceChange(const PortSet& removed, const PortSet& added) const {
  m_tracer.Write(Detail, "Ostra ports to be removed:", PortsText(removed));
  m_tracer.Write(Detail, "Ostra ports to be added:", PortsText(added));
}

}  // namespace qel::firewall
