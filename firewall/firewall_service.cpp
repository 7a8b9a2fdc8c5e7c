#include "firewall/firewall_service.h"

#include <algorithm>

#include "firewall/diagnostic_dump.h"
#include "firewall/earlier_compilation.h"
#include "firewall/poll_handler.h"
#include "firewall/table_reconciler.h"
#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {

using oro::result_t;
using settings::FirewallSettings;
using tracing::Detail;
using tracing::Error;
using tracing::Warning;
using types::IPAddressFamily;

namespace {

constexpr const char* kShutdownMessage = " Rules will be cleared on shutdown complete. skip apply changes";

std::string TableLabel(IPAddressFamily::Type family, const std::string& table) {
  return std::string(settings::EnumToString(family)) + " " + table;
}

void AppendEntries(std::ostringstream& out, IPAddressFamily::Type family, const std::string& table,
                   const std::vector<ChainRule>& entries) {
  for (const auto& [chain, rule] : entries) {
    out << TableLabel(family, table) << " " << chain << ": " << RuleText(rule) << "\n";
  }
}

bool IsEmpty(const State* state) { return !state || state->chainList.empty(); }

// The outcome of a change, and the outcome of bringing polling in line
// with it: the change's failure comes first.
result_t WithPolling(result_t change, result_t polling) { return ORO_FAILED(change) ? change : polling; }

const State& StateOrEmpty(const std::shared_ptr<const State>& state) {
  static const State empty;
  return state ? *state : empty;
}

}  // namespace

FirewallService::FirewallService(oro::IServiceLocator* locator, bool suitableConntrack)
    : m_locator(locator), m_suitableConntrack(suitableConntrack) {
  result_t ignored;
  m_tracer = tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored));
}

FirewallService::~FirewallService() {
  if (m_pollHandler) m_pollHandler->Detach();
}

result_t FirewallService::FinalConstruct() {
  result_t r = Locate(m_locator, m_tracer, "ITimer", m_pollTimer);
  if (ORO_FAILED(r)) return r;
  r = Locate(m_locator, m_tracer, "IEventPublisher", m_eventPublisher);
  if (ORO_FAILED(r)) return r;
  r = Locate(m_locator, m_tracer, "IIptablesInfoProvider", m_infoProvider);
  if (ORO_FAILED(r)) return r;
  m_pollHandler = oro::RefPtr<PollHandler>::Adopt(new PollHandler(this));
  m_tracer.Write(Warning, "FirewallService", ": g_isSuitableConntrack = ", m_suitableConntrack ? 1 : 0);
  return oro::errOk;
}

void FirewallService::FinalRelease() noexcept {
  try {
    m_tracer.Write(Detail, "FinalRelease", "() ");
    if (m_pollTimer) {
      const result_t r = m_pollTimer->CancelAndWait(m_pollHandler.Get());
      if (ORO_FAILED(r)) QEL_TRACE_FAILED_CALL(m_tracer, "m_pollTimer->CancelAndWait(m_pollHandler)", r, "");
    }
    // Whether or not the timer let go of it, the handler must not reach
    // the service from here on.
    if (m_pollHandler) m_pollHandler->Detach();
    m_tracer.Write(Detail, "FinalRelease", ": ", "Cleaning rules");
    std::lock_guard lock(m_mutex);
    const bool wasEnforcing = m_requested.enforce;
    m_requested = Requested{};
    m_wanted.Forget();
    SyncFirewallState(wasEnforcing);
  } catch (...) {
    // Nothing can be reported from here; the next start of the module
    // cleans up whatever is left.
  }
}

result_t FirewallService::OnShutdown() noexcept {
  return tracing::Guarded(m_tracer, "OnShutdown", [&] {
    m_tracer.Write(Detail, "OnShutdown", "() ");
    m_shuttingDown = true;
    // The rules stay in force until release; polls would be skipped, so
    // the timer goes.
    return UpdatePolling();
  });
}

bool FirewallService::SkipShuttingDown(const char* function) {
  if (!m_shuttingDown) return false;
  m_tracer.Write(Warning, function, ": ", kShutdownMessage);
  return true;
}

// Packet rules that did not change since the last compilation take over
// their rules from there. An IPv4 error is the one reported when both
// families fail.
FirewallService::Compiled FirewallService::Compile(const FirewallSettings& rules) const {
  const auto compile = [&](IPAddressFamily::Type family) {
    const SettingsPtr& earlierRules = m_requested.packetRules;
    const CompiledPtr& earlierCompiled = m_requested.compiled;
    if (!earlierRules || !earlierCompiled) return CompileRules(rules, family, m_suitableConntrack, m_tracer);
    const bool ipv4 = family == IPAddressFamily::IPv4;
    const EarlierCompilation earlier{*earlierRules, ipv4 ? earlierCompiled->ipv4 : earlierCompiled->ipv6};
    return CompileRules(rules, family, m_suitableConntrack, m_tracer, &earlier);
  };
  CompiledRules ipv4 = compile(IPAddressFamily::IPv4);
  return Compiled{std::move(ipv4), compile(IPAddressFamily::IPv6)};
}

result_t FirewallService::SetPacketRules(const FirewallSettings& rules) noexcept {
  return tracing::Guarded(m_tracer, "SetPacketRules", [&] {
    if (m_tracer.Enabled(Detail)) m_tracer.Write(Detail, "SetPacketRules", "() ", DumpSettings(rules));
    if (SkipShuttingDown("SetPacketRules")) return oro::errOk;
    result_t r;
    {
      std::lock_guard lock(m_mutex);
      r = DoSetPacketRules(rules);
    }
    return WithPolling(r, UpdatePolling());
  });
}

// Settings that do not compile, or that the kernel refuses, leave the
// rules in force and the stored settings as they were.
result_t FirewallService::DoSetPacketRules(const FirewallSettings& rules) {
  CompiledPtr compiled;
  try {
    compiled = std::make_shared<const Compiled>(Compile(rules));
  } catch (const RuleCompileError& e) {
    m_tracer.Write(Error, "SetPacketRules", ": ", "Cannot compile packet rules: ", e.what());
    return e.Code();
  }
  Requested before = m_requested;
  m_requested.packetRules = std::make_shared<const FirewallSettings>(rules);
  m_requested.compiled = std::move(compiled);
  m_wanted.Forget();
  if (!m_requested.enforce) {
    // Packet rules reach the kernel only while enforcing, so there is
    // nothing to apply. Syncing here would also take down what a module that
    // died left in force, moments before enforcement puts it back.
    m_tracer.Write(Detail, "SetPacketRules", ": ", "not enforcing, the rules are applied when enforcement starts");
    return oro::errOk;
  }
  const result_t r = SyncFirewallState();
  if (ORO_FAILED(r)) {
    m_tracer.Write(Error, "SetPacketRules", ": ", "Cannot apply packet rules, the previous rules stay in force");
    RollBack(std::move(before));
  }
  return r;
}

result_t FirewallService::AddRules(const RuleDescriptions& rules, const std::string& tag) noexcept {
  return tracing::Guarded(m_tracer, "AddRules", [&] {
    if (m_tracer.Enabled(Detail)) {
      std::ostringstream text;
      for (const auto& rule : rules) text << "\n  " << rule;
      m_tracer.Write(Detail, "AddRules", "() ", "tag=", tag, ", rules=", text.str());
    }
    if (SkipShuttingDown("AddRules")) return oro::errOk;
    for (const auto& rule : rules) {
      if (const auto problem = DescriptionProblem(rule)) {
        m_tracer.Write(Error, "AddRules", ": ", "Rule '", rule, "' refused: ", *problem);
        return oro::errInvalidArgument;
      }
    }
    result_t r;
    {
      std::lock_guard lock(m_mutex);
      r = DoAddRules(rules, tag);
    }
    return WithPolling(r, UpdatePolling());
  });
}

// Rules the kernel refused are not kept: the next poll would only fail on
// them again.
result_t FirewallService::DoAddRules(const RuleDescriptions& rules, const std::string& tag) {
  Requested before = m_requested;
  for (const auto& rule : rules) m_requested.dynamicRules.push_back(TaggedRule{rule, tag});
  m_wanted.Forget();
  const result_t r = SyncFirewallState();
  if (ORO_FAILED(r)) RollBack(std::move(before));
  return r;
}

result_t FirewallService::RemoveRules(const RuleDescriptions& rules) noexcept {
  return tracing::Guarded(m_tracer, "RemoveRules", [&] {
    if (m_tracer.Enabled(Detail)) {
      std::ostringstream text;
      for (const auto& rule : rules) text << "\n  " << rule;
      m_tracer.Write(Detail, "RemoveRules", "() ", text.str());
    }
    if (SkipShuttingDown("RemoveRules")) return oro::errOk;
    result_t r;
    {
      std::lock_guard lock(m_mutex);
      r = DoRemoveRules(rules);
    }
    return WithPolling(r, UpdatePolling());
  });
}

// Rules the kernel would not let go of stay stored, as they stay in force.
result_t FirewallService::DoRemoveRules(const RuleDescriptions& rules) {
  Requested before = m_requested;
  std::erase_if(m_requested.dynamicRules, [&](const TaggedRule& stored) {
    return std::find(rules.begin(), rules.end(), stored.description) != rules.end();
  });
  m_wanted.Forget();
  const result_t r = SyncFirewallState();
  if (ORO_FAILED(r)) RollBack(std::move(before));
  return r;
}

void FirewallService::RollBack(Requested before) {
  m_requested = std::move(before);
  m_wanted.Forget();
  QEL_CHECKED_CALL(m_tracer, SyncFirewallState(), "Cannot bring the firewall back to the rules in force");
}

result_t FirewallService::SetEnforce(bool doEnforce) noexcept {
  return tracing::Guarded(m_tracer, "SetEnforce", [&] {
    m_tracer.Write(Detail, "SetEnforce", "() ", " doEnforce ", doEnforce ? "true" : "false");
    if (SkipShuttingDown("SetEnforce")) return oro::errOk;
    bool changed = false;
    result_t r;
    {
      std::lock_guard lock(m_mutex);
      r = DoSetEnforce(doEnforce, changed);
    }
    if (!changed) return r;
    return WithPolling(r, UpdatePolling());
  });
}

// A synchronisation that fails leaves the new value in place: the poll,
// armed whatever the outcome, or the next call tries again.
result_t FirewallService::DoSetEnforce(bool doEnforce, bool& changed) {
  if (m_requested.enforce == doEnforce && m_inForce) return oro::errOk;
  changed = true;
  m_requested.enforce = doEnforce;
  m_wanted.Forget();
  const bool unenforcing = !doEnforce;
  const result_t r = SyncFirewallState(unenforcing);
  if (ORO_FAILED(r)) QEL_TRACE_FAILED_CALL(m_tracer, "SyncFirewallState(unenforcing)", r, "");
  return r;
}

bool FirewallService::PollingNeeded() {
  if (m_shuttingDown) return false;
  std::lock_guard lock(m_mutex);
  const auto& packetRules = m_requested.packetRules;
  return m_requested.enforce || (packetRules && !packetRules->packetRules.empty()) ||
         !m_requested.dynamicRules.empty();
}

// The answer is taken and acted on under m_pollMutex: whoever comes last
// sees every change made before it and leaves the timer as they need it.
result_t FirewallService::UpdatePolling() {
  m_tracer.Write(Detail, "UpdatePolling", "() ");
  std::lock_guard pollLock(m_pollMutex);
  const bool needed = PollingNeeded();
  if (needed == m_polling) return oro::errOk;
  if (!needed) {
    m_tracer.Write(Warning, "UpdatePolling", ": ", "Stopping firewall state polling");
    const result_t r = m_pollTimer->CancelAndWait(m_pollHandler.Get());
    if (ORO_FAILED(r)) {
      QEL_TRACE_FAILED_CALL(m_tracer, "m_pollTimer->CancelAndWait(m_pollHandler)", r, "");
      return r;
    }
  } else {
    m_tracer.Write(Warning, "UpdatePolling", ": ", "Starting firewall state polling");
    const result_t r = m_pollTimer->SetRepeated(m_pollHandler.Get(), Interval);
    if (ORO_FAILED(r)) {
      QEL_TRACE_FAILED_CALL(m_tracer, "m_pollTimer->SetRepeated(m_pollHandler, Interval)", r, "");
      return r;
    }
  }
  m_polling = needed;
  return oro::errOk;
}

result_t FirewallService::GetStatus(FirewallStatus& out) noexcept {
  return tracing::Guarded(m_tracer, "GetStatus", [&] {
    FirewallStatus status;
    {
      std::lock_guard pollLock(m_pollMutex);
      status.polling = m_polling;
    }
    std::lock_guard lock(m_mutex);
    status.enforcing = m_requested.enforce;
    status.inForce = m_inForce;
    status.dynamicRules = m_requested.dynamicRules;
    out = std::move(status);
    return oro::errOk;
  });
}

result_t FirewallService::RunPoll() noexcept {
  return tracing::Guarded(m_tracer, "RunPoll", [&] {
    m_tracer.Write(Detail, "RunPoll", "() ");
    if (m_shuttingDown) {
      m_tracer.Write(Warning, "RunPoll", ": ", " Rules will be cleared on shutdown complete. skip poll");
      return oro::errOk;
    }
    std::lock_guard lock(m_mutex);
    return SyncFirewallState();
  });
}

// IPv6 only where its tool works, and wherever the module already put
// rules, so that they are always cleaned up.
std::vector<IPAddressFamily::Type> FirewallService::Families() const {
  bool ipv6 = m_infoProvider->IsIpv6Supported();
  for (const auto& [table, state] : m_previousState) {
    ipv6 = ipv6 || (table.first == IPAddressFamily::IPv6 && !IsEmpty(state.get()));
  }
  if (ipv6) return {IPAddressFamily::IPv4, IPAddressFamily::IPv6};
  return {IPAddressFamily::IPv4};
}

// Packet rules reach the kernel only while enforcing.
FirewallService::StatePtr FirewallService::WantedState(IPAddressFamily::Type family, const std::string& table) {
  const Compiled* compiled = m_requested.enforce ? m_requested.compiled.get() : nullptr;
  const CompiledRules* forFamily = nullptr;
  if (compiled) forFamily = family == IPAddressFamily::IPv4 ? &compiled->ipv4 : &compiled->ipv6;
  return m_wanted.Get(family, table, forFamily, m_requested.dynamicRules, m_suitableConntrack);
}

result_t FirewallService::SyncFirewallState(bool unenforcing) {
  m_tracer.Write(Detail, "SyncFirewallState", "() ", "unenforcing=", unenforcing ? "true" : "false");
  FindTablesToCheckForLeftovers();
  ListingsAhead ahead = ListAhead();
  std::vector<std::pair<TableId, StatePtr>> wanted;
  for (auto family : Families()) {
    for (const auto& table : ChainLayout::Tables()) wanted.emplace_back(TableId{family, table}, WantedState(family, table));
  }
  std::ostringstream extra, missing;
  bool isIntegrityBroken = false;
  result_t firstFailure = oro::errOk;
  for (const auto& [tableId, next] : wanted) {
    const auto& [family, table] = tableId;
    StatePtr& previous = m_previousState[tableId];
    const result_t r = SyncFirewallTable(family, table, previous, next, extra, missing, isIntegrityBroken, ahead);
    if (ORO_FAILED(r)) {
      QEL_TRACE_FAILED_CALL(m_tracer, "SyncFirewallTable(family, table, previous, next, extra, missing, isIntegrityBroken)",
                            r, "Cannot sync firewall table");
      if (ORO_SUCCEEDED(firstFailure)) firstFailure = r;
    }
  }
  if (isIntegrityBroken) {
    QEL_CHECKED_CALL(m_tracer, PublishIntegrityBrokenEvent(extra.str(), missing.str()),
                     "Cannot publish firewall integrity broken event");
  }
  m_inForce = ORO_SUCCEEDED(firstFailure);
  return firstFailure;
}

// A table the module neither holds nor wants rules in is not listed: it
// costs nothing, and listing may create it. Only a table that exists is
// looked at once in any case, to clean up after a module that died.
bool FirewallService::NeedsListing(const TableId& table, const StatePtr& previous, const StatePtr& next) {
  return !IsEmpty(previous.get()) || !IsEmpty(next.get()) ||
         (!m_checkedForLeftovers.count(table) && m_mayHoldLeftovers.count(table));
}

// A table that does not exist holds nothing of an earlier run, and a table
// is created only by the module's own rules from then on: each family's
// tables are read until every one was looked at. When they cannot be read,
// every table may exist, and is listed: leftovers of a module that died can
// cut the host off, while an empty table costs nothing.
void FirewallService::FindTablesToCheckForLeftovers() {
  m_mayHoldLeftovers.clear();
  for (const auto family : Families()) {
    std::vector<TableId> unchecked;
    for (const auto& table : ChainLayout::Tables()) {
      if (!m_checkedForLeftovers.count({family, table})) unchecked.emplace_back(family, table);
    }
    if (unchecked.empty()) continue;
    std::vector<std::string> existing;
    const result_t r = m_infoProvider->GetExistingTables(family, existing);
    if (ORO_FAILED(r)) {
      m_tracer.Write(Warning, "SyncFirewallState", ": ", "Cannot tell which ", settings::EnumToString(family),
                     " tables exist, each is looked at for leftovers");
    }
    for (const auto& tableId : unchecked) {
      const bool exists = std::find(existing.begin(), existing.end(), tableId.second) != existing.end();
      if (exists || ORO_FAILED(r)) {
        m_mayHoldLeftovers.insert(tableId);
      } else {
        m_checkedForLeftovers.insert(tableId);
      }
    }
  }
}

// While the first table that will surely be listed is listed and
// reconciled on the calling thread, the others that surely hold the
// module's rules are listed ahead. The first stays here: its parse is the
// largest, and the memory of a parse on another thread lingers in that
// thread's heap. A table that turns out to need a listing after all is
// listed when its turn comes. Tools that cannot wait for the lock the
// legacy ones take would fail side by side, so they always run in turn.
ListingsAhead FirewallService::ListAhead() {
  if (!m_infoProvider->SupportsWaitOption()) return {};
  result_t r;
  auto query = TryGetInterface<IFirewallStateQuery>(m_locator, r);
  if (!query) return {};  // reported by the table's own synchronisation
  std::vector<TableId> tables;
  for (auto family : Families()) {
    for (const auto& table : ChainLayout::Tables()) {
      const TableId tableId{family, table};
      // Sure without knowing what is wanted: whatever that is, the table is
      // listed.
      if (NeedsListing(tableId, m_previousState[tableId], nullptr)) tables.push_back(tableId);
    }
  }
  if (!tables.empty()) tables.erase(tables.begin());
  return ListingsAhead(query, tables);
}

// The table's listing: the one read ahead, or one read now.
result_t FirewallService::ReadTable(const TableId& table, ListingsAhead& ahead, State& current) {
  if (auto listed = ahead.Take(table)) {
    if (ORO_SUCCEEDED(listed->result)) current = std::move(listed->state);
    return listed->result;
  }
  result_t r;
  auto query = TryGetInterface<IFirewallStateQuery>(m_locator, r);
  if (!query) {
    m_tracer.Write(Error, "SyncFirewallTable [", TableLabel(table.first, table.second), "] ",
                   "Cannot get IFirewallStateQuery interface");
    return r;
  }
  return query->GetState(table.first, table.second, current);
}

result_t FirewallService::SyncFirewallTable(IPAddressFamily::Type family, const std::string& table,
                                            StatePtr& previous, const StatePtr& next, std::ostringstream& extra,
                                            std::ostringstream& missing, bool& isIntegrityBroken,
                                            ListingsAhead& ahead) {
  const std::string prefix = "SyncFirewallTable [" + TableLabel(family, table) + "] ";
  m_tracer.Write(Detail, prefix, "Start processing table");
  if (!NeedsListing({family, table}, previous, next)) {
    m_tracer.Write(Detail, prefix, "Ignore ", table);
    return oro::errOk;
  }

  State current;
  result_t r = ReadTable({family, table}, ahead, current);
  if (ORO_FAILED(r)) return r;
  m_checkedForLeftovers.insert({family, table});

  const State& installed = StateOrEmpty(previous);
  const TableSyncResult sync = TableReconciler(m_tracer, prefix).Reconcile(installed, current, *next);
  AppendEntries(extra, family, table, sync.extra);
  AppendEntries(missing, family, table, sync.missing);
  isIntegrityBroken = isIntegrityBroken || !sync.extra.empty() || !sync.missing.empty();

  if (m_tracer.Enabled(Detail)) {
    std::string composedText;
    for (const auto& change : sync.changes) composedText += ChangeLine(change) + "\n";
    m_tracer.Write(Detail, prefix, "Dump intermediate state:", "\nenforcement:", IsEmpty(next.get()) ? "off" : "on",
                   "\nprevious:\n", DumpState(installed), "\ncurrent:\n", DumpState(current), "\nnext:\n",
                   DumpState(*next), "\ncomposed:\n", composedText);
  }
  if (sync.changes.empty()) {
    m_tracer.Write(Detail, prefix, "Firewall update not needed");
    previous = next;
    return oro::errOk;
  }
  auto change = TryGetInterface<IFirewallStateChange>(m_locator, r);
  if (!change) {
    m_tracer.Write(Error, prefix, "Cannot get IFirewallStateChange interface");
    return r;
  }
  r = change->ChangeState(family, table, sync.changes);
  if (ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "m_firewallStateChange->ChangeState(familyType, tableName, changeList)", r,
                          "Cannot change firewall state");
    return r;
  }
  previous = next;
  return oro::errOk;
}

result_t FirewallService::PublishIntegrityBrokenEvent(const std::string& extra, const std::string& missing) {
  m_tracer.Write(Warning, "PublishIntegrityBrokenEvent", "() ", "extra=", extra, ", missing=", missing);
  oro::Event event;
  event.kind = "FirewallIntegrityBroken";
  event.Add("extra", extra).Add("missing", missing);
  return m_eventPublisher->PublishEvent(std::move(event));
}

}  // namespace qel::firewall
