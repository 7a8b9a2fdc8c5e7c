#include "firewall/listings_ahead.h"

#include <system_error>

namespace qel::firewall {

ListingsAhead::ListingsAhead(const oro::RefPtr<IFirewallStateQuery>& query, const std::vector<TableId>& tables) {
  for (const auto& table : tables) {
    try {
      m_pending.emplace(table, std::async(std::launch::async, [query, table] {
                          Listing listing;
                          listing.result = query->GetState(table.first, table.second, listing.state);
                          return listing;
                        }));
    } catch (const std::system_error&) {
      return;
    }
  }
}

std::optional<ListingsAhead::Listing> ListingsAhead::Take(const TableId& table) {
  const auto pending = m_pending.find(table);
  if (pending == m_pending.end()) return std::nullopt;
  Listing listing = pending->second.get();
  m_pending.erase(pending);
  return listing;
}

}  // namespace qel::firewall
