// The host's name resolver (IDnsResolver). A literal address is answered at
// once; a name is looked up on a thread of its own that the caller waits
// for at most the time-out. A look-up that outlives its caller keeps what it
// uses (the answer's slot and the look-up itself) alive on its own, so that
// it never writes into a caller that has gone, nor into a released resolver.
#pragma once

#include <memory>

#include "host/name_lookup.h"
#include "oro/product_services.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class HostDnsResolver final : public ObjectImpl<HostDnsResolver, oro::IDnsResolver> {
 public:
  // Without a look-up, the system's (getaddrinfo).
  explicit HostDnsResolver(std::shared_ptr<NameLookup> lookup = nullptr);

  oro::result_t ResolveHostWithTimeout(const std::string& host, std::vector<std::string>& addresses,
                                       std::uint32_t timeoutMs) noexcept override;

 private:
  NameLookupAnswer LookUpWithin(const std::string& host, std::uint32_t timeoutMs);

  std::shared_ptr<NameLookup> m_lookup;
};

}  // namespace qel::host
