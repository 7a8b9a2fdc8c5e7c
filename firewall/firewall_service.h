// The service that owns what the module wants installed and keeps the
// kernel in line with it: it takes the packet rules and the enforcement
// switch from the firewall task, dynamic rules from other components,
// reconciles every table on each change and on a 60 s poll, reports foreign
// changes, and removes all of its rules when it is released.
//
// What holds once every call has returned, whatever several callers and
// the poll did at once and whatever the kernel refused:
//  - the poll timer is armed exactly when polling is needed: not shutting
//    down, and enforcing or holding packet rules or dynamic rules;
//  - a call that succeeded has its rules stored, so the next successful
//    synchronisation puts them in the kernel;
//  - a change the kernel refused took back what it stored or removed, and
//    nothing else: another caller's rules stay as that caller left them.
//    (Enforcement is the exception: a failed switch keeps its new value,
//    and the poll tries again.)
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "firewall/chain_layout.h"
#include "firewall/firewall_interfaces.h"
#include "firewall/iptables_rule_compiler.h"
#include "firewall/listings_ahead.h"
#include "firewall/wanted_states.h"
#include "oro/event_publisher.h"
#include "oro/service.h"
#include "oro/timer.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class PollHandler;

class FirewallService
    : public ObjectImpl<FirewallService, IPacketRules, IDynamicRules, oro::IServiceShutdown, IFirewallStatus> {
 public:
  static constexpr std::uint32_t Interval = 60000;  // poll period, milliseconds

  // `suitableConntrack`: the kernel tells connection directions apart
  // (see ProbeConntrackRevision).
  FirewallService(oro::IServiceLocator* locator, bool suitableConntrack);
  ~FirewallService() override;

  oro::result_t FinalConstruct();
  void FinalRelease() noexcept;

  // IPacketRules
  oro::result_t SetPacketRules(const settings::FirewallSettings& rules) noexcept override;
  oro::result_t SetEnforce(bool doEnforce) noexcept override;
  // IDynamicRules
  oro::result_t AddRules(const RuleDescriptions& rules, const std::string& tag) noexcept override;
  oro::result_t RemoveRules(const RuleDescriptions& rules) noexcept override;
  // IServiceShutdown
  oro::result_t OnShutdown() noexcept override;

  // IFirewallStatus
  oro::result_t GetStatus(FirewallStatus& out) noexcept override;

  // The timer's job.
  oro::result_t RunPoll() noexcept;

 private:
  using TableId = std::pair<types::IPAddressFamily::Type, std::string>;
  // States are shared rather than copied: the wanted state of a table is
  // built once per change of what the module wants, and once installed it
  // is also the previous state of the next poll.
  using StatePtr = WantedStates::StatePtr;
  struct Compiled {
    CompiledRules ipv4;
    CompiledRules ipv6;
  };
  // Kept whole until replaced: the next compilation takes over from them.
  using SettingsPtr = std::shared_ptr<const settings::FirewallSettings>;
  using CompiledPtr = std::shared_ptr<const Compiled>;
  // What callers asked for: the sources of every wanted state.
  struct Requested {
    bool enforce = false;
    SettingsPtr packetRules;
    CompiledPtr compiled;
    std::vector<TaggedRule> dynamicRules;
  };
  // Each runs with m_mutex held for the whole change: what it stores, the
  // synchronisation and, when that fails, the rollback.
  oro::result_t DoSetPacketRules(const settings::FirewallSettings& rules);
  oro::result_t DoAddRules(const RuleDescriptions& rules, const std::string& tag);
  oro::result_t DoRemoveRules(const RuleDescriptions& rules);
  oro::result_t DoSetEnforce(bool doEnforce, bool& changed);

  // With m_mutex held. `unenforcing` only shows in the trace: what is
  // wanted follows the enforcement switch itself.
  oro::result_t SyncFirewallState(bool unenforcing = false);
  // `ahead` holds the tables listed ahead; the others are listed here.
  oro::result_t SyncFirewallTable(types::IPAddressFamily::Type family, const std::string& table, StatePtr& previous,
                                  const StatePtr& next, std::ostringstream& extra, std::ostringstream& missing,
                                  bool& isIntegrityBroken, ListingsAhead& ahead);
  oro::result_t ReadTable(const TableId& table, ListingsAhead& ahead, State& current);
  // Stores `before` again after a change the kernel refused, and brings
  // the kernel back to it.
  void RollBack(Requested before);
  bool NeedsListing(const TableId& table, const StatePtr& previous, const StatePtr& next);
  // Finds, among the tables not yet looked at for what an earlier run of
  // the module left behind, those that exist; the others hold nothing.
  void FindTablesToCheckForLeftovers();
  ListingsAhead ListAhead();
  oro::result_t PublishIntegrityBrokenEvent(const std::string& extra, const std::string& missing);

  // Arms or disarms the timer as PollingNeeded says; called at the end of
  // every entry point that may change the answer, whatever it did before.
  oro::result_t UpdatePolling();
  bool PollingNeeded();

  Compiled Compile(const settings::FirewallSettings& rules) const;
  std::vector<types::IPAddressFamily::Type> Families() const;
  bool SkipShuttingDown(const char* function);
  StatePtr WantedState(types::IPAddressFamily::Type family, const std::string& table);

  oro::IServiceLocator* m_locator;
  tracing::Tracer m_tracer;
  const bool m_suitableConntrack;
  oro::RefPtr<oro::ITimer> m_pollTimer;
  oro::RefPtr<PollHandler> m_pollHandler;
  oro::RefPtr<oro::IEventPublisher> m_eventPublisher;
  oro::RefPtr<IIptablesInfoProvider> m_infoProvider;

  std::atomic<bool> m_shuttingDown{false};

  // Serialises arming and disarming the timer. The poll never takes it, so
  // that CancelAndWait may wait for a running poll while it is held; it is
  // never taken with m_mutex held.
  std::mutex m_pollMutex;
  bool m_polling = false;  // the timer is armed; guarded by m_pollMutex

  // Guards everything below. Held for a whole change or poll, so that one
  // caller's change, its synchronisation and its rollback never interleave
  // with another's; never held across the timer calls.
  std::mutex m_mutex;
  Requested m_requested;
  // The last synchronisation succeeded: the kernel holds what is wanted.
  bool m_inForce = true;
  // Built from m_requested on first use; forgotten whenever it changes.
  WantedStates m_wanted;
  std::map<TableId, StatePtr> m_previousState;  // null: nothing installed
  // Tables looked at once for what an earlier run left behind: listed, or
  // found not to exist.
  std::set<TableId> m_checkedForLeftovers;
  // Tables not yet checked that exist, or may: they are listed once.
  std::set<TableId> m_mayHoldLeftovers;
};

}  // namespace qel::firewall
