#include "host/system_name_lookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>

namespace qel::host {
namespace {

struct AddrinfoFree {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

oro::result_t ResultOf(int gaiError) {
  switch (gaiError) {
    case EAI_NONAME:
    case EAI_NODATA:
    case EAI_ADDRFAMILY:
      return oro::errNotFound;
    case EAI_AGAIN:
      return oro::errTimeout;
    default:
      return oro::errUnexpected;
  }
}

std::string AddressText(const addrinfo& entry) {
  char text[INET6_ADDRSTRLEN] = {};
  const void* bytes = entry.ai_family == AF_INET
                          ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(entry.ai_addr)->sin_addr)
                          : static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(entry.ai_addr)->sin6_addr);
  return inet_ntop(entry.ai_family, bytes, text, sizeof text) ? text : "";
}

}  // namespace

NameLookupAnswer SystemNameLookup::Lookup(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  // One entry per address rather than one per socket type.
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* raw = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &raw);
  std::unique_ptr<addrinfo, AddrinfoFree> list(raw);
  if (error != 0) return {ResultOf(error), {}};
  NameLookupAnswer answer;
  for (const addrinfo* entry = list.get(); entry; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6) continue;
    std::string text = AddressText(*entry);
    if (!text.empty() && std::find(answer.addresses.begin(), answer.addresses.end(), text) == answer.addresses.end()) {
      answer.addresses.push_back(std::move(text));
    }
  }
  if (answer.addresses.empty()) answer.result = oro::errNotFound;
  return answer;
}

}  // namespace qel::host
