// Interfaces of the firewall task and of the collaborators it drives.
#pragma once

#include <compare>
#include <cstdint>
#include <vector>

#include "firewall/firewall_settings.h"
#include "firewall/rule_description.h"
#include "firewall/rule_model.h"
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

// One port of the administration agent: `protocol` 0 TCP, 1 UDP;
// `direction` 0 IN, 1 OUT, 2 INOUT.
struct OstraPort {
  std::uint32_t port = 0;
  std::uint32_t protocol = 0;
  std::uint32_t direction = 0;

  auto operator<=>(const OstraPort&) const = default;
};
using OstraPortList = std::vector<OstraPort>;

// The administration agent's port list.
struct IOstraPorts : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IOstraPorts;
  virtual oro::result_t SetOstraPorts(const OstraPortList& ports) noexcept = 0;
  // The current ports, each once, ordered by port, protocol, direction.
  virtual oro::result_t GetOstraPorts(OstraPortList& out) noexcept = 0;
};

// Whether the administration agent's ports are kept open.
struct IOstraPortsControl : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IOstraPortsControl;
  virtual oro::result_t SetApply(bool doApply) noexcept = 0;
};

// Dynamic rules that other components add and remove under their own tags.
struct IDynamicRules : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IDynamicRules;
  virtual oro::result_t AddRules(const RuleDescriptions& rules, const std::string& tag) noexcept = 0;
  // Removes every stored rule equal to one of `rules`, whatever its tag.
  virtual oro::result_t RemoveRules(const RuleDescriptions& rules) noexcept = 0;
};

// What the service holds and does, for a host to show.
struct FirewallStatus {
  bool enforcing = false;
  bool polling = false;  // the poll timer is armed
  bool inForce = false;  // the last synchronisation succeeded
  std::vector<TaggedRule> dynamicRules;  // in the order they were added
};

struct IFirewallStatus : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IFirewallStatus;
  virtual oro::result_t GetStatus(FirewallStatus& out) noexcept = 0;
};

// Reads one table of one address family from the kernel.
struct IFirewallStateQuery : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IFirewallStateQuery;
  virtual oro::result_t GetState(types::IPAddressFamily::Type family, const std::string& table,
                                 State& out) const noexcept = 0;
};

// Applies a change list to one table of one address family, atomically.
struct IFirewallStateChange : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IFirewallStateChange;
  virtual oro::result_t ChangeState(types::IPAddressFamily::Type family, const std::string& table,
                                    const ChangeList& changes) noexcept = 0;
};

// What the host's iptables tools can do, probed once.
struct IIptablesInfoProvider : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IIptablesInfoProvider;
  virtual bool IsVersionKnown() const noexcept = 0;
  virtual const char* GetIptables() const noexcept = 0;
  virtual const char* GetIp6tables() const noexcept = 0;
  virtual const char* GetIptablesRestore() const noexcept = 0;
  virtual const char* GetIp6tablesRestore() const noexcept = 0;
  virtual bool IsVersionAtLeast_1_4_8() const noexcept = 0;
  // "-w" (wait for the xtables lock) exists from 1.4.20 on.
  virtual bool SupportsWaitOption() const noexcept = 0;
  virtual bool IsIpv6Supported() const noexcept = 0;
};

// Rule groups of several clients, changed one client at a time and handed to
// the firewall together: the client calls only record what each client
// wants; Submit makes the firewall hold it. Equal rules of several clients
// stand in the firewall once and stay while any client wants them.
struct IDynamicRules2 : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IDynamicRules2;
  // Adds `rules` to those the client `tag` wants (a new tag starts empty).
  virtual oro::result_t AddClient(const std::string& tag, const RuleDescriptions& rules) noexcept = 0;
  // Replaces the rules of a client it holds; errNotFound (0x8000004c) for a
  // tag it does not hold.
  virtual oro::result_t UpdateClient(const std::string& tag, const RuleDescriptions& rules) noexcept = 0;
  // Drops a client; errFalse (1) when it does not hold the tag.
  virtual oro::result_t RemoveClient(const std::string& tag) noexcept = 0;
  // Brings the firewall to what the clients want now. A refused change is
  // rolled back: the firewall and the clients return to the last submitted
  // state, and the refusal is returned.
  virtual oro::result_t Submit() noexcept = 0;
};

// The virtualisation mode's port exclusions: started by the host once the
// firewall runs; the work is done on a thread of its own.
struct ILumraModePortsExclude : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::ILumraModePortsExclude;
  virtual oro::result_t Apply() noexcept = 0;
};

// Provided by the host: which kind of host of the virtualisation mode this
// is ("master", "clone", "broker", ...). errFalse (1), `out` untouched, when
// the host is not part of one.
struct ILumraHostType : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::ILumraHostType;
  virtual oro::result_t GetHostType(std::string& out) noexcept = 0;
};

// Optional, for hosts and tests that keep the exclusion data elsewhere: the
// path of the file to read instead of the one shipped beside the module.
// errFalse (1), `out` untouched, to read the shipped one.
struct ILumraPortsFile : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::ILumraPortsFile;
  virtual oro::result_t GetPortsFile(std::string& out) noexcept = 0;
};

}  // namespace qel::firewall
