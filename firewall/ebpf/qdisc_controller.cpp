#include "firewall/ebpf/qdisc_controller.h"

#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {

QdiscController::QdiscController(oro::IServiceLocator* locator) : m_tracer(LocatedTracer(locator)) {}

QdiscController::QdiscController(tracing::Tracer tracer) : m_tracer(std::move(tracer)) {}

oro::result_t QdiscController::GetQdisc(int ifindex, IQdisc** out) noexcept {
  return tracing::Guarded(m_tracer, "GetQdisc", [&] { return HandOut(ifindex, out); });
}

oro::result_t QdiscController::HandOut(int ifindex, IQdisc** out) {
  m_tracer.Write(tracing::Detail, "GetQdisc() ifindex=", ifindex);
  if (!out || ifindex < 1) return oro::errInvalidArgument;
  std::unique_lock lock(m_mutex);
  for (;;) {
    const auto found = m_qdiscs.find(ifindex);
    if (found == m_qdiscs.end()) break;
    // A count that was zero belongs to a qdisc whose last release is under
    // way: its retirement waits for this lock, and its teardown must come
    // before a new hook for the interface. The reference taken here is
    // never given back; the dying object goes whatever its count.
    if (found->second->AddRef() > 1) {
      *out = found->second;
      return oro::errOk;
    }
    EbpfQdisc* const dying = found->second;
    m_retired.wait(lock, [&] {
      const auto now = m_qdiscs.find(ifindex);
      return now == m_qdiscs.end() || now->second != dying;
    });
  }
  // The new object holds the controller, which must outlive its retirement.
  oro::RefPtr<QdiscController> self = oro::RefPtr<QdiscController>::Share(this);
  oro::RefPtr<EbpfQdisc> qdisc;
  const oro::result_t r = CreateInstance(qdisc, oro::RefPtr<oro::ITracer>::Share(m_tracer.Get()), ifindex,
                                         [self](EbpfQdisc& retiring) { self->Retire(retiring); });
  if (ORO_FAILED(r)) return r;
  m_qdiscs[ifindex] = qdisc.Get();
  *out = qdisc.Detach();
  return oro::errOk;
}

void QdiscController::Retire(EbpfQdisc& qdisc) noexcept {
  {
    std::lock_guard lock(m_mutex);
    qdisc.TearDown();
    if (const auto found = m_qdiscs.find(qdisc.IfIndex()); found != m_qdiscs.end() && found->second == &qdisc) {
      m_qdiscs.erase(found);
    }
  }
  m_retired.notify_all();
}

}  // namespace qel::firewall
