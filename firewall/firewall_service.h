// The service that owns what the module wants installed and keeps the
// kernel in line with it: it takes the packet rules and the enforcement
// switch from the firewall task, dynamic rules from other components,
// reconciles every table on each change and on a 60 s poll, reports foreign
// changes, and removes all of its rules when it is released.
#pragma once

#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "firewall/chain_layout.h"
#include "firewall/firewall_interfaces.h"
#include "firewall/iptables_rule_compiler.h"
#include "oro/event_publisher.h"
#include "oro/service.h"
#include "oro/timer.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class FirewallService : public ObjectImpl<FirewallService, IPacketRules, IDynamicRules, oro::IServiceShutdown> {
 public:
  static constexpr std::uint32_t Interval = 60000;  // poll period, milliseconds

  // `suitableConntrack`: the kernel tells connection directions apart
  // (see ProbeConntrackRevision).
  FirewallService(oro::IServiceLocator* locator, bool suitableConntrack);

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

  // The timer's job.
  oro::result_t RunPoll() noexcept;

 private:
  using TableId = std::pair<types::IPAddressFamily::Type, std::string>;
  // States are shared rather than copied: the wanted state of a table is
  // built once per change of what the module wants, and once installed it
  // is also the previous state of the next poll.
  using StatePtr = std::shared_ptr<const State>;
  struct Compiled {
    CompiledRules ipv4;
    CompiledRules ipv6;
  };
  // Kept whole until replaced: the next compilation takes over from them.
  using SettingsPtr = std::shared_ptr<const settings::FirewallSettings>;
  using CompiledPtr = std::shared_ptr<const Compiled>;
  // A table's current state, read on a thread of its own while earlier
  // tables are being synchronised.
  struct Listing {
    oro::result_t result = oro::errOk;
    State state;
  };
  using PendingListings = std::map<TableId, std::future<Listing>>;

  oro::result_t DoSetPacketRules(const settings::FirewallSettings& rules);
  oro::result_t DoAddRules(const RuleDescriptions& rules, const std::string& tag);
  oro::result_t DoRemoveRules(const RuleDescriptions& rules);
  oro::result_t DoSetEnforce(bool doEnforce);

  // `unenforcing` only shows in the trace: what is wanted follows the
  // enforcement switch itself.
  oro::result_t SyncFirewallState(bool unenforcing = false);
  // `listing`: the table's state read ahead, or null to read it here.
  oro::result_t SyncFirewallTable(types::IPAddressFamily::Type family, const std::string& table, StatePtr& previous,
                                  const StatePtr& next, std::ostringstream& extra, std::ostringstream& missing,
                                  bool& isIntegrityBroken, std::future<Listing>* listing = nullptr);
  bool NeedsListing(const TableId& table, const StatePtr& previous, const StatePtr& next);  // with m_syncMutex held
  PendingListings ListAhead();                                                              // with m_syncMutex held
  oro::result_t PublishIntegrityBrokenEvent(const std::string& extra, const std::string& missing);
  oro::result_t UpdatePolling();

  Compiled Compile(const settings::FirewallSettings& rules, const SettingsPtr& earlierRules,
                   const CompiledPtr& earlierCompiled) const;
  bool PollingNeeded();
  std::vector<types::IPAddressFamily::Type> Families() const;  // with m_syncMutex held
  bool SkipShuttingDown(const char* function);
  StatePtr WantedState(types::IPAddressFamily::Type family, const std::string& table);  // with m_mutex held
  void ForgetWantedStates();                                                          // with m_mutex held

  oro::IServiceLocator* m_locator;
  tracing::Tracer m_tracer;
  const bool m_suitableConntrack;
  oro::RefPtr<oro::ITimer> m_pollTimer;
  oro::RefPtr<oro::IRunnable> m_pollHandler;
  oro::RefPtr<oro::IEventPublisher> m_eventPublisher;
  oro::RefPtr<IIptablesInfoProvider> m_infoProvider;

  std::atomic<bool> m_shuttingDown{false};

  std::mutex m_mutex;  // guards the fields below
  bool m_enforce = false;
  bool m_polling = false;
  SettingsPtr m_packetRules;
  CompiledPtr m_compiled;
  std::vector<TaggedRule> m_dynamicRules;
  // Built from the three above on first use; forgotten whenever one changes.
  std::map<TableId, StatePtr> m_wantedStates;

  // Serialises synchronisations (a poll and a change never run at once)
  // and guards what they keep between runs.
  std::mutex m_syncMutex;
  std::map<TableId, StatePtr> m_previousState;  // null: nothing installed
  std::map<TableId, bool> m_listedOnce;
};

}  // namespace qel::firewall
