#include "firewall/nfqueue_query.h"

#include <fstream>
#include <limits>

#include "firewall/free_queue_search.h"
#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {

using oro::result_t;
using tracing::Detail;
using tracing::Error;

NfqueueQuery::NfqueueQuery(oro::IServiceLocator* locator) : NfqueueQuery(locator, kBoundQueuesPath) {}

NfqueueQuery::NfqueueQuery(oro::IServiceLocator* locator, std::string boundQueuesPath)
    : m_boundQueuesPath(std::move(boundQueuesPath)) {
  result_t ignored;
  m_tracer = tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored));
}

result_t NfqueueQuery::GetAvailableQueue(std::uint16_t count, std::uint16_t& first) noexcept {
  return tracing::Guarded(m_tracer, "GetAvailableQueue", [&] {
    m_tracer.Write(Detail, "GetAvailableQueue", "() ", "count=", count);
    std::lock_guard lock(m_mutex);
    return Reserve(count, first);
  });
}

result_t NfqueueQuery::Reserve(std::uint16_t count, std::uint16_t& first) {
  std::set<std::uint32_t> inUse = ReadBoundQueues();
  // A reserved number its user has bound since is excluded by the list now.
  std::erase_if(m_reserved, [&](std::uint32_t queue) { return inUse.contains(queue); });
  inUse.insert(m_reserved.begin(), m_reserved.end());

  const auto start = FindFreeQueueRun(inUse, count);
  if (!start) {
    m_tracer.Write(Error, "No ", count, " consecutive free NFQUEUE numbers");
    return oro::errNotFound;
  }
  for (std::uint32_t queue = *start; queue < *start + count; ++queue) m_reserved.insert(queue);
  first = *start;
  return oro::errOk;
}

std::set<std::uint32_t> NfqueueQuery::ReadBoundQueues() const {
  std::set<std::uint32_t> inUse;
  std::ifstream f(m_boundQueuesPath);
  if (f.fail()) {
    // Without the list (no queue module loaded, or no procfs) no queue is
    // known to be bound; the reservations still keep callers apart.
    QEL_TRACE_FAILED_CONDITION(m_tracer, "!f.fail()", "Cannot open " + m_boundQueuesPath);
    return inUse;
  }
  std::uint32_t queue = 0;
  while (f >> queue) {
    m_tracer.Write(Detail, "Queue ", queue, " is in use");
    inUse.insert(queue);
    f.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  }
  if (!f.eof()) QEL_TRACE_FAILED_CONDITION(m_tracer, "f.eof()", "Cannot parse " + m_boundQueuesPath);
  return inUse;
}

}  // namespace qel::firewall
