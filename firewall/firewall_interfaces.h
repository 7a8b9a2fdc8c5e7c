// Interfaces of the firewall task and of the collaborators it drives.
#pragma once

#include "firewall/firewall_settings.h"
#include "oro/object.h"

namespace qel::firewall {

// The task manager constructs the task with its first settings.
struct IFirewallTaskConstruct : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IFirewallTaskConstruct;
  virtual oro::result_t Construct(const settings::FirewallSettings* settings) noexcept = 0;
};

struct IFirewallTaskSettings : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IFirewallTaskSettings;
  virtual oro::result_t GetSettings(settings::FirewallSettings* out) noexcept = 0;
  // Applied at once while the task runs; a failed change keeps the settings
  // and the rules in force.
  virtual oro::result_t SetSettings(const settings::FirewallSettings* settings) noexcept = 0;
};

// The enforcement service: takes the administrator's packet rules and the
// switch that turns their enforcement on and off.
struct IPacketRules : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IPacketRules;
  virtual oro::result_t SetPacketRules(const settings::FirewallSettings& rules) noexcept = 0;
  virtual oro::result_t SetEnforce(bool doEnforce) noexcept = 0;
};

// Whether the administration agent's ports are kept open.
struct IOstraPortsControl : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IOstraPortsControl;
  virtual oro::result_t SetApply(bool doApply) noexcept = 0;
};

}  // namespace qel::firewall
