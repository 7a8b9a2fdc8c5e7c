// Hands out the clsact hook of an interface, one object per interface for
// as long as some user holds it. The controller keeps no reference of its
// own: the last user's release tears the hook down (under the ownership
// rule of EbpfQdisc), and the next request builds a new one.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>

#include "firewall/ebpf/ebpf_qdisc.h"
#include "firewall/ebpf/qdisc_interfaces.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class QdiscController : public ObjectImpl<QdiscController, IQdiscController> {
 public:
  explicit QdiscController(oro::IServiceLocator* locator);
  // For a user that has its tracer in hand but no locator.
  explicit QdiscController(tracing::Tracer tracer);

  // IQdiscController
  oro::result_t GetQdisc(int ifindex, IQdisc** out) noexcept override;

 private:
  oro::result_t HandOut(int ifindex, IQdisc** out);
  // The last reference of `qdisc` went: tears it down and forgets it, under
  // the lock, so that a request for its interface waits until its qdisc is
  // gone instead of finding it and losing it.
  void Retire(EbpfQdisc& qdisc) noexcept;

  tracing::Tracer m_tracer;

  std::mutex m_mutex;
  std::condition_variable m_retired;
  // Weak: a qdisc is here from its creation until its retirement.
  std::map<int, EbpfQdisc*> m_qdiscs;
};

}  // namespace qel::firewall
