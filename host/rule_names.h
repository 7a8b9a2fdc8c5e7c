// The names of the packet rules in force, by rule index, for what the host
// writes about logged packets: event lines and the status. The module's
// packet-log thread asks for every event (tens of thousands a second), and a
// settings change replaces them: readers copy one pointer under the lock and
// never see the settings themselves.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "firewall/firewall_settings.h"

namespace qel::host {

class RuleNames {
 public:
  using Names = std::vector<std::optional<std::string>>;

  // The names of the settings' packet rules, in rule order.
  static Names Of(const settings::FirewallSettings& settings);

  // Rule `index`'s name, or nothing when the settings in force have no rule
  // there (an event raced with a reload) or the name is being changed.
  std::optional<std::string> NameOf(std::int64_t index) const;

  // The task has taken settings with these names.
  void Set(Names names);

  // Settings with `proposed` names are being handed to the task. Until
  // EndChange, an event may come from either the old rules or the new ones,
  // so only an index that has the same name in both is named.
  void BeginChange(Names proposed);
  // The task took the proposed settings, or refused them and kept the old.
  void EndChange(bool accepted);

 private:
  using Snapshot = std::shared_ptr<const Names>;
  Snapshot Visible() const;

  mutable std::mutex m_mutex;
  Snapshot m_inForce = std::make_shared<const Names>();
  Snapshot m_proposed;
  Snapshot m_visible = m_inForce;
};

}  // namespace qel::host
