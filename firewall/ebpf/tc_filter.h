// One classifier attached to one side of an interface's clsact qdisc,
// detached when the object goes.
#pragma once

#include <cstdint>
#include <optional>

#include "firewall/ebpf/qdisc_interfaces.h"
#include "oro/result.h"
#include "qel_tracing/tracer.h"

struct bpf_program;

namespace qel::firewall {

// "ingress", "egress", "unknown" (no side), "invalid" (anything else).
const char* TcDirectionName(bpf_tc_attach_point direction) noexcept;

// The kernel's id of the program behind `fd`: two descriptors of one
// program have the same id, and a reused descriptor number does not.
oro::result_t TcProgramId(const tracing::Tracer& tracer, int fd, std::uint32_t& id);

// A program of a loaded libbpf object as a classifier to attach; fails with
// "bpf_program is null" or when the program has no descriptor (not loaded).
oro::result_t TcProgramOf(const tracing::Tracer& tracer, const bpf_program* program, TcProgram& out);

class TcFilter {
 public:
  // Attaches `program` at `place` on the clsact qdisc of `ifindex`.
  static oro::result_t Attach(const tracing::Tracer& tracer, int ifindex, const TcProgram& program,
                              const TcFilterPlace& place, std::optional<TcFilter>& out);

  TcFilter(TcFilter&& other) noexcept;
  TcFilter& operator=(TcFilter&&) = delete;
  TcFilter(const TcFilter&) = delete;
  TcFilter& operator=(const TcFilter&) = delete;
  ~TcFilter();

  // Detaches the filter. One that is gone already (someone deleted it, or
  // the qdisc with it) counts as detached.
  oro::result_t Detach();

  bool IsAttached() const noexcept { return m_attached; }
  const TcProgram& Program() const noexcept { return m_program; }
  const TcFilterPlace& Place() const noexcept { return m_place; }
  std::uint32_t ProgramId() const noexcept { return m_programId; }

 private:
  TcFilter(const tracing::Tracer& tracer, int ifindex, TcProgram program, const TcFilterPlace& place,
           std::uint32_t programId);

  tracing::Tracer m_tracer;
  int m_ifindex;
  TcProgram m_program;
  TcFilterPlace m_place;
  std::uint32_t m_programId;
  bool m_attached = true;
};

}  // namespace qel::firewall
