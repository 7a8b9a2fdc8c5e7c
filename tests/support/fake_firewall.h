// Fakes of the firewall task's collaborators. Every call is written to one
// shared journal so that tests can check the order across collaborators.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "firewall/rule_logger.h"
#include "qel_common/object_impl.h"

namespace qel::test {

struct CallJournal {
  std::vector<std::string> calls;
  // Calls that fail, by their journal text, with the code they return.
  std::map<std::string, oro::result_t> failures;

  oro::result_t Record(const std::string& call) {
    calls.push_back(call);
    const auto it = failures.find(call);
    return it == failures.end() ? oro::errOk : it->second;
  }
};

// A fake that writes its calls to a journal.
struct Journaled {
  explicit Journaled(std::shared_ptr<CallJournal> journal) : m_journal(std::move(journal)) {}
  oro::result_t Record(const std::string& call, bool flag) {
    return m_journal->Record(call + (flag ? "(true)" : "(false)"));
  }
  std::shared_ptr<CallJournal> m_journal;
};

class FakePacketRules final : public ObjectImpl<FakePacketRules, firewall::IPacketRules>, Journaled {
 public:
  using Journaled::Journaled;
  oro::result_t SetPacketRules(const settings::FirewallSettings& rules) noexcept override {
    lastRules = rules;
    return m_journal->Record("SetPacketRules");
  }
  oro::result_t SetEnforce(bool doEnforce) noexcept override { return Record("SetEnforce", doEnforce); }
  settings::FirewallSettings lastRules;
};

class FakeOstraPorts final : public ObjectImpl<FakeOstraPorts, firewall::IOstraPortsControl>, Journaled {
 public:
  using Journaled::Journaled;
  oro::result_t SetApply(bool doApply) noexcept override { return Record("SetApply", doApply); }
};

class FakeRuleLogger final : public firewall::RuleLogger, Journaled {
 public:
  using Journaled::Journaled;
  oro::result_t Start(const firewall::NflogGroupList& groups) override {
    std::string call = "Logger.Start(";
    for (std::size_t i = 0; i < groups.size(); ++i) call += (i ? "," : "") + std::to_string(groups[i]);
    return m_journal->Record(call + ")");
  }
  oro::result_t Stop() override { return m_journal->Record("Logger.Stop"); }
  firewall::NflogCounts GetCounts() const override { return counts; }

  firewall::NflogCounts counts;
};

class FakeInfoProvider final : public ObjectImpl<FakeInfoProvider, firewall::IIptablesInfoProvider> {
 public:
  bool IsVersionKnown() const noexcept override { return true; }
  const char* GetIptables() const noexcept override { return "iptables"; }
  const char* GetIp6tables() const noexcept override { return "ip6tables"; }
  const char* GetIptablesRestore() const noexcept override { return "iptables-restore"; }
  const char* GetIp6tablesRestore() const noexcept override { return "ip6tables-restore"; }
  bool IsVersionAtLeast_1_4_8() const noexcept override { return true; }
  bool SupportsWaitOption() const noexcept override { return waits; }
  bool IsIpv6Supported() const noexcept override { return true; }
  oro::result_t GetExistingTables(types::IPAddressFamily::Type, std::vector<std::string>& out) const noexcept override {
    ++tableReadings;
    if (existingTables) out = *existingTables;
    return existingTables ? oro::errOk : oro::errUnexpected;
  }
  std::atomic<bool> waits = true;  // the tools wait for the lock instead of failing
  // The tables of each family that exist; none: they cannot be read. Set
  // before the service runs.
  std::optional<std::vector<std::string>> existingTables = std::vector<std::string>{"filter"};
  mutable std::atomic<int> tableReadings = 0;
};

// A dynamic rule as the agent's ports give them: incoming TCP to one port.
inline firewall::RuleDescription AgentPort(std::uint16_t port) {
  firewall::RuleDescription d;
  d.protocol = 6;
  d.localPorts = tools::PortRange{port, port};
  d.action = firewall::AccessAction{0};
  return d;
}

}  // namespace qel::test
