#include "firewall/ebpf/ebpf_qdisc.h"

#include <cerrno>
#include <iomanip>

#include "firewall/ebpf/bpf_tc_has_filters.h"
#include "firewall/ebpf/libbpf_error.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using tracing::Detail;
using tracing::Error;

constexpr auto kBothSides = static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS);

}  // namespace

EbpfQdisc::EbpfQdisc(oro::RefPtr<oro::ITracer> tracer, int ifindex, Retire retire)
    : m_tracer(std::move(tracer)), m_retire(std::move(retire)) {
  m_hook.sz = sizeof m_hook;
  m_hook.ifindex = ifindex;
  m_hook.attach_point = kBothSides;
}

oro::result_t EbpfQdisc::FinalConstruct() {
  std::lock_guard lock(m_mutex);
  if (m_hook.ifindex < 1) {
    m_tracer.Write(Error, "invalid ifindex=", m_hook.ifindex);
    return oro::errInvalidArgument;
  }
  const int r = bpf_tc_hook_create(&m_hook);
  if (r < 0 && r != -EEXIST) return LibbpfError("create bpf tc hook", r).Field("net.ifindex", m_hook.ifindex).Trace(m_tracer);
  m_isQdiscCreatedByUs = r == 0;
  m_tracer.Write(Detail, "ifindex=", m_hook.ifindex, ", m_isQdiscCreatedByUs=", std::boolalpha, m_isQdiscCreatedByUs);
  return oro::errOk;
}

void EbpfQdisc::FinalRelease() noexcept {
  if (m_retire) {
    m_retire(*this);
  } else {
    TearDown();
  }
}

void EbpfQdisc::TearDown() noexcept {
  tracing::Guarded(m_tracer, "TearDown", [&] {
    std::lock_guard lock(m_mutex);
    m_filters.clear();
    DestroyQdiscIfUnused();
    return oro::errOk;
  });
}

bool EbpfQdisc::IsQdiscCreatedByUs() const noexcept {
  std::lock_guard lock(m_mutex);
  return m_isQdiscCreatedByUs;
}

oro::result_t EbpfQdisc::AttachFilter(const TcProgram& program, const TcFilterPlace& place,
                                      std::uint32_t& attachId) noexcept {
  return tracing::Guarded(m_tracer, "AttachFilter", [&] { return Attach(program, place, attachId); });
}

oro::result_t EbpfQdisc::DetachFilter(std::uint32_t attachId) noexcept {
  return tracing::Guarded(m_tracer, "DetachFilter", [&] { return Detach(attachId); });
}

oro::result_t EbpfQdisc::Attach(const TcProgram& program, const TcFilterPlace& place, std::uint32_t& attachId) {
  std::lock_guard lock(m_mutex);
  std::uint32_t programId = 0;
  if (program.fd >= 0) {
    if (const oro::result_t r = TcProgramId(m_tracer, program.fd, programId); ORO_FAILED(r)) return r;
  }
  for (const auto& [id, filter] : m_filters) {
    if (filter.ProgramId() == programId && filter.Place().direction == place.direction) {
      m_tracer.Write(Detail, "filter already attached: filter.id=", id, ", name=", program.name);
      attachId = id;
      return oro::errOk;
    }
  }
  std::optional<TcFilter> attached;
  if (const oro::result_t r = TcFilter::Attach(m_tracer, m_hook.ifindex, program, place, attached); ORO_FAILED(r)) {
    return r;
  }
  const std::uint32_t id = m_nextAttachId++;
  m_filters.emplace(id, std::move(*attached));
  m_tracer.Write(Detail, "attached new program: name=", program.name, ", fd=", program.fd, ", filter.id=", id);
  attachId = id;
  return oro::errOk;
}

oro::result_t EbpfQdisc::Detach(std::uint32_t attachId) {
  std::lock_guard lock(m_mutex);
  const auto found = m_filters.find(attachId);
  if (found == m_filters.end()) {
    m_tracer.Write(Error, "filter not found: attachId=", attachId, ", ifindex=", m_hook.ifindex);
    return oro::errNotFound;
  }
  const oro::result_t r = found->second.Detach();
  if (!found->second.IsAttached()) m_filters.erase(found);
  return r;
}

oro::result_t EbpfQdisc::HasNoFilters(bpf_tc_attach_point side, bool& none) const {
  bpf_tc_hook hook = m_hook;
  hook.attach_point = side;
  const int count = bpf_tc_has_filters(&hook);
  if (count < 0) {
    return LibbpfError("bpf_tc_has_filters", count)
        .Field("net.ifindex", m_hook.ifindex)
        .Field("ebpf.direction", TcDirectionName(side))
        .Trace(m_tracer);
  }
  none = count == 0;
  return oro::errOk;
}

void EbpfQdisc::DestroyQdiscIfUnused() {
  if (!m_isQdiscCreatedByUs) return;
  bool noIngress = false;
  bool noEgress = false;
  if (ORO_FAILED(HasNoFilters(BPF_TC_INGRESS, noIngress)) || ORO_FAILED(HasNoFilters(BPF_TC_EGRESS, noEgress))) {
    m_tracer.Write(Error, "cannot tell whether the qdisc has filters; left in place: ifindex=", m_hook.ifindex);
    return;
  }
  if (!noIngress || !noEgress) {
    m_tracer.Write(Detail, "qdisc has filters of others; left in place: ifindex=", m_hook.ifindex);
    return;
  }
  m_hook.attach_point = kBothSides;
  if (const int r = bpf_tc_hook_destroy(&m_hook); r < 0) {
    LibbpfError("destroy bpf tc hook", r).Field("net.ifindex", m_hook.ifindex).Trace(m_tracer);
    return;
  }
  m_isQdiscCreatedByUs = false;
}

}  // namespace qel::firewall
