// Hands out NFQUEUE numbers that no program is bound to, never the same
// number twice before its user has bound it.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "firewall/packet_log_interfaces.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class NfqueueQuery : public ObjectImpl<NfqueueQuery, INfqueueQuery> {
 public:
  // The kernel's list of bound queues, one line per queue, the number first.
  static constexpr const char* kBoundQueuesPath = "/proc/net/netfilter/nfnetlink_queue";

  explicit NfqueueQuery(oro::IServiceLocator* locator);
  // Reads the bound queues from `boundQueuesPath` instead.
  NfqueueQuery(oro::IServiceLocator* locator, std::string boundQueuesPath);

  oro::result_t GetAvailableQueue(std::uint16_t count, std::uint16_t& first) noexcept override;

 private:
  // The numbers the list names; what could be read when it cannot be read
  // to its end, nothing when it cannot be opened.
  std::set<std::uint32_t> ReadBoundQueues() const;
  oro::result_t Reserve(std::uint16_t count, std::uint16_t& first);

  tracing::Tracer m_tracer;
  const std::string m_boundQueuesPath;

  std::mutex m_mutex;  // makes read, search and reserve one step
  // Handed out and not yet seen bound.
  std::set<std::uint32_t> m_reserved;
};

}  // namespace qel::firewall
