#include "host/rule_names.h"

#include <algorithm>

#include "qel_common/string_conv.h"

namespace qel::host {
namespace {

// Names that two rule lists agree on, index by index; nothing elsewhere.
RuleNames::Names Agreed(const RuleNames::Names& a, const RuleNames::Names& b) {
  RuleNames::Names agreed(std::min(a.size(), b.size()));
  for (std::size_t i = 0; i < agreed.size(); ++i) {
    if (a[i] == b[i]) agreed[i] = a[i];
  }
  return agreed;
}

}  // namespace

RuleNames::Names RuleNames::Of(const settings::FirewallSettings& settings) {
  Names names;
  names.reserve(settings.packetRules.size());
  for (const auto& rule : settings.packetRules) names.emplace_back(tools::ToUtf8(rule.name));
  return names;
}

std::optional<std::string> RuleNames::NameOf(std::int64_t index) const {
  const Snapshot names = Visible();
  if (index < 0 || static_cast<std::uint64_t>(index) >= names->size()) return std::nullopt;
  return (*names)[static_cast<std::size_t>(index)];
}

RuleNames::Snapshot RuleNames::Visible() const {
  std::lock_guard lock(m_mutex);
  return m_visible;
}

void RuleNames::Set(Names names) {
  auto snapshot = std::make_shared<const Names>(std::move(names));
  std::lock_guard lock(m_mutex);
  m_inForce = snapshot;
  m_proposed.reset();
  m_visible = std::move(snapshot);
}

void RuleNames::BeginChange(Names proposed) {
  auto snapshot = std::make_shared<const Names>(std::move(proposed));
  std::lock_guard lock(m_mutex);
  m_visible = std::make_shared<const Names>(Agreed(*m_inForce, *snapshot));
  m_proposed = std::move(snapshot);
}

void RuleNames::EndChange(bool accepted) {
  std::lock_guard lock(m_mutex);
  if (accepted && m_proposed) m_inForce = m_proposed;
  m_proposed.reset();
  m_visible = m_inForce;
}

}  // namespace qel::host
