// The reference host's settings file: INI text with one [settings] section
// and one "[rule NAME]" section per packet rule, in file order.
//
//   [settings]
//   defaultIncomingAction = Block        ; Allow | Block
//   networkZonesTrusted = 10.0.0.0/8; fd00::/8
//
//   [rule ssh]
//   action = Allow
//   direction = Incoming
//   protocol = TCP
//   localPorts = 22
//
//   [agent]
//   ports = 15000/tcp/in; 13000/tcp/inout; 15001/udp/in
//
//   [lumra]
//   hostType = clone
//
//   [isolation]
//   managementServer = ksc.example:13000
//   backends = iptables
//
// A ";" preceded by a blank starts a comment; a ";" right after a value
// separates list elements. The [agent] section is optional: without it the
// host leaves the agent's port list as it is. So is [lumra]: without it the
// host is in no virtualisation mode. So is [isolation]: without it no
// product server is excluded from isolation and every backend may be tried.
#pragma once

#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "firewall/firewall_settings.h"
#include "firewall/iptables_rule_compiler.h"
#include "host/isolation_settings.h"

namespace qel::host {

struct LoadedSettings {
  settings::FirewallSettings settings;
  // The section of each packet rule, by rule index ("rule ssh").
  std::vector<std::string> ruleSections;
  // The administration agent's ports, when the file has an [agent] section.
  std::optional<firewall::OstraPortList> agentPorts;
  // The virtualisation mode's host type, when the file has a [lumra] section.
  std::optional<std::string> lumraHostType;
  // The [isolation] section; its defaults when the file has none.
  IsolationSettings isolation;
};

// Names the section, the key and what is wrong, e.g.
// "[rule ssh] direction: 'Inbound' is not one of IncomingOutgoing, ...".
class SettingsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws SettingsError for text that is not valid settings.
LoadedSettings ParseSettingsIni(std::istream& in);
LoadedSettings LoadSettingsFile(const std::string& path);

// Compiles one family; a field that the rule compiler cannot read is
// reported by section and key. Throws SettingsError.
firewall::CompiledRules CompileFamily(const LoadedSettings& loaded, types::IPAddressFamily::Type family,
                                      bool suitableConntrack);

// Compiles both families once, so that a field that the rule compiler
// cannot read is reported by section and key. Throws SettingsError.
void ValidateRuleFields(const LoadedSettings& loaded);

}  // namespace qel::host
