#include "host/host_dns_resolver.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "host/system_name_lookup.h"
#include "qel_common/ip_address.h"

namespace qel::host {
namespace {

// Shared by the caller and the look-up's thread; whichever ends last frees it.
struct PendingLookup {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  NameLookupAnswer answer;
};

// "10.0.0.1", "fd00::1" or "[fd00::1]" in its canonical text; none for a name.
std::optional<std::string> LiteralAddress(const std::string& host) {
  try {
    return tools::ParseIpAddress(host).ToString();
  } catch (const tools::AddressParseError&) {
    return std::nullopt;
  }
}

}  // namespace

HostDnsResolver::HostDnsResolver(std::shared_ptr<NameLookup> lookup)
    : m_lookup(lookup ? std::move(lookup) : std::make_shared<SystemNameLookup>()) {}

oro::result_t HostDnsResolver::ResolveHostWithTimeout(const std::string& host, std::vector<std::string>& addresses,
                                                      std::uint32_t timeoutMs) noexcept {
  try {
    if (host.empty()) return oro::errInvalidArgument;
    if (auto literal = LiteralAddress(host)) {
      addresses = {std::move(*literal)};
      return oro::errOk;
    }
    NameLookupAnswer answer = LookUpWithin(host, timeoutMs);
    if (oro::Failed(answer.result)) return answer.result;
    addresses = std::move(answer.addresses);
    return oro::errOk;
  } catch (const std::bad_alloc&) {
    return oro::errNoMemory;
  } catch (...) {
    // No thread could be started, or the like.
    return oro::errUnexpected;
  }
}

NameLookupAnswer HostDnsResolver::LookUpWithin(const std::string& host, std::uint32_t timeoutMs) {
  auto pending = std::make_shared<PendingLookup>();
  std::thread([pending, lookup = m_lookup, host] {
    NameLookupAnswer answer = lookup->Lookup(host);
    std::lock_guard lock(pending->mutex);
    pending->answer = std::move(answer);
    pending->finished = true;
    pending->done.notify_all();
  }).detach();
  std::unique_lock lock(pending->mutex);
  if (!pending->done.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return pending->finished; })) {
    return {oro::errTimeout, {}};
  }
  return std::move(pending->answer);
}

}  // namespace qel::host
