// getaddrinfo, both families: each address once, in the resolver's order.
#pragma once

#include "host/name_lookup.h"

namespace qel::host {

class SystemNameLookup final : public NameLookup {
 public:
  // errNotFound when the name does not exist or has no address,
  // errTimeout when the resolver's servers did not answer in time,
  // errUnexpected for any other failure.
  NameLookupAnswer Lookup(const std::string& host) override;
};

}  // namespace qel::host
