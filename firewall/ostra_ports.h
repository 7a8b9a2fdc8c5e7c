// The administration agent's ports. The agent must stay reachable whatever
// the administrator's defaults block, so while the firewall task says so its
// ports are kept open through dynamic rules under the tag "ostra".
#pragma once

#include <mutex>
#include <set>
#include <string>

#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

// "15000 TCP IN"; out-of-range fields read as their number.
std::string OstraPortText(const OstraPort& port);

class OstraPorts : public ObjectImpl<OstraPorts, IOstraPorts, IOstraPortsControl> {
 public:
  explicit OstraPorts(oro::IServiceLocator* locator);

  oro::result_t FinalConstruct();

  // IOstraPorts
  oro::result_t SetOstraPorts(const OstraPortList& ports) noexcept override;
  oro::result_t GetOstraPorts(OstraPortList& out) noexcept override;
  // IOstraPortsControl
  oro::result_t SetApply(bool doApply) noexcept override;

  // The dynamic rules that keep the ports of `ports` open, each once.
  static RuleDescriptions RulesOf(const std::set<OstraPort>& ports);

 private:
  using PortSet = std::set<OstraPort>;

  oro::result_t ApplyOstraPorts(const OstraPortList& ports);
  // Changes the firewall from holding the rules of `before` to those of
  // `after`. Called with the mutex held.
  oro::result_t ApplyChange(const PortSet& before, const PortSet& after);
  void TraceChange(const PortSet& removed, const PortSet& added) const;
  // Why the entry cannot be a port of the agent; empty when it can.
  static std::string EntryProblem(const OstraPort& port);

  oro::IServiceLocator* m_locator;
  tracing::Tracer m_tracer;
  oro::RefPtr<IDynamicRules> m_dynamicRules;

  // Held across the calls into the firewall, so that the rules in force
  // always match one port set and one apply flag.
  std::mutex m_mutex;
  PortSet m_ports;
  bool m_apply = false;
};

}  // namespace qel::firewall
