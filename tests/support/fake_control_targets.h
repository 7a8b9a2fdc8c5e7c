// Fakes of what the host's control socket drives: the service's status and
// dynamic rules, the agent's port list, the task's packet-log counts and the
// NFQUEUE numbers. Each records the calls that would change something, so
// that a test can tell that none were made.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "firewall/packet_log_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeDynamicService final
    : public ObjectImpl<FakeDynamicService, firewall::IFirewallStatus, firewall::IDynamicRules> {
 public:
  oro::result_t GetStatus(firewall::FirewallStatus& out) noexcept override {
    out = status;
    return oro::errOk;
  }
  oro::result_t AddRules(const firewall::RuleDescriptions& rules, const std::string& tag) noexcept override {
    changes.push_back("AddRules " + tag);
    if (ORO_FAILED(refuseWith)) return refuseWith;
    for (const auto& rule : rules) status.dynamicRules.push_back({rule, tag});
    return oro::errOk;
  }
  oro::result_t RemoveRules(const firewall::RuleDescriptions& rules) noexcept override {
    changes.push_back("RemoveRules");
    if (ORO_FAILED(refuseWith)) return refuseWith;
    std::erase_if(status.dynamicRules, [&](const firewall::TaggedRule& stored) {
      return std::find(rules.begin(), rules.end(), stored.description) != rules.end();
    });
    return oro::errOk;
  }

  firewall::FirewallStatus status;
  oro::result_t refuseWith = oro::errOk;  // what AddRules and RemoveRules return
  std::vector<std::string> changes;
};

class FakeAgentPorts final : public ObjectImpl<FakeAgentPorts, firewall::IOstraPorts> {
 public:
  oro::result_t SetOstraPorts(const firewall::OstraPortList& list) noexcept override {
    changes.push_back("SetOstraPorts");
    ports = std::set<firewall::OstraPort>(list.begin(), list.end());
    return oro::errOk;
  }
  oro::result_t GetOstraPorts(firewall::OstraPortList& out) noexcept override {
    out.assign(ports.begin(), ports.end());
    return oro::errOk;
  }

  std::set<firewall::OstraPort> ports;
  std::vector<std::string> changes;
};

class FakeNflogCounters final : public ObjectImpl<FakeNflogCounters, firewall::INflogCounters> {
 public:
  oro::result_t GetNflogCounts(firewall::NflogCounts& out) noexcept override {
    out = counts;
    return oro::errOk;
  }
  firewall::NflogCounts counts;
};

// Hands out numbers from `next` on, as long as they fit below 65536.
class FakeQueueQuery final : public ObjectImpl<FakeQueueQuery, firewall::INfqueueQuery> {
 public:
  oro::result_t GetAvailableQueue(std::uint16_t count, std::uint16_t& first) noexcept override {
    changes.push_back("GetAvailableQueue " + std::to_string(count));
    if (ORO_FAILED(refuseWith)) return refuseWith;
    if (next + count > 65536) return oro::errNotFound;
    first = static_cast<std::uint16_t>(next);
    next += count;
    return oro::errOk;
  }
  std::uint32_t next = 0;
  oro::result_t refuseWith = oro::errOk;
  std::vector<std::string> changes;
};

}  // namespace qel::test
