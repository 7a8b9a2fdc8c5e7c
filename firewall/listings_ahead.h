// Tables listed side by side. A listing is mostly the tool starting and the
// kernel copying its table out, time in which the module can reconcile the
// table before: so while the caller lists and reconciles the first table,
// the others that will be listed are listed at once, each on a thread of
// its own.
#pragma once

#include <future>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "firewall/firewall_interfaces.h"
#include "oro/ref_ptr.h"

namespace qel::firewall {

class ListingsAhead {
 public:
  using TableId = std::pair<types::IPAddressFamily::Type, std::string>;
  struct Listing {
    oro::result_t result = oro::errOk;
    State state;
  };

  // Nothing listed ahead.
  ListingsAhead() = default;
  // Starts listing `tables`. When no thread can be had, what is not started
  // is left to the caller.
  ListingsAhead(const oro::RefPtr<IFirewallStateQuery>& query, const std::vector<TableId>& tables);

  // The listing of `table` started here, once it is done; none when it was
  // not started here.
  std::optional<Listing> Take(const TableId& table);

 private:
  std::map<TableId, std::future<Listing>> m_pending;
};

}  // namespace qel::firewall
