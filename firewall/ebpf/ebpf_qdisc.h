// The clsact qdisc of one interface and the filters attached to it through
// this object. The qdisc is ours only if it was created here; at the end it
// is deleted only if it is ours and neither side holds a filter, since
// another program may have attached its own filters to it meanwhile, and a
// qdisc found in place belongs to whoever made it.
#pragma once

#include <bpf/libbpf.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

#include "firewall/ebpf/qdisc_interfaces.h"
#include "firewall/ebpf/tc_filter.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class EbpfQdisc : public ObjectImpl<EbpfQdisc, IQdisc> {
 public:
  // Called instead of TearDown when the last reference goes; the controller
  // that handed the object out tears it down under its own lock.
  using Retire = std::function<void(EbpfQdisc& qdisc)>;

  EbpfQdisc(oro::RefPtr<oro::ITracer> tracer, int ifindex, Retire retire = {});

  // Creates the qdisc, or finds the one in place (then not ours).
  oro::result_t FinalConstruct();
  void FinalRelease() noexcept;

  // Detaches the filters attached here, then deletes the qdisc if it is
  // ours and has no filters left.
  void TearDown() noexcept;

  bool IsQdiscCreatedByUs() const noexcept;

  // IQdisc
  int IfIndex() const noexcept override { return m_hook.ifindex; }
  oro::result_t AttachFilter(const TcProgram& program, const TcFilterPlace& place,
                             std::uint32_t& attachId) noexcept override;
  oro::result_t DetachFilter(std::uint32_t attachId) noexcept override;

 private:
  oro::result_t Attach(const TcProgram& program, const TcFilterPlace& place, std::uint32_t& attachId);
  oro::result_t Detach(std::uint32_t attachId);
  // Whether `side` of the qdisc has no filters (anyone's).
  oro::result_t HasNoFilters(bpf_tc_attach_point side, bool& none) const;
  void DestroyQdiscIfUnused();

  tracing::Tracer m_tracer;
  const Retire m_retire;

  // Guards the state below.
  mutable std::mutex m_mutex;
  bpf_tc_hook m_hook{};
  bool m_isQdiscCreatedByUs = false;
  std::map<std::uint32_t, TcFilter> m_filters;  // by attach id
  std::uint32_t m_nextAttachId = 1;
};

}  // namespace qel::firewall
