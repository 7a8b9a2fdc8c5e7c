#include "firewall/ebpf/tc_filter.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cerrno>
#include <utility>

#include "firewall/ebpf/libbpf_error.h"

namespace qel::firewall {
namespace {

bool IsOneSide(bpf_tc_attach_point direction) { return direction == BPF_TC_INGRESS || direction == BPF_TC_EGRESS; }

bpf_tc_hook HookOf(int ifindex, bpf_tc_attach_point direction) {
  bpf_tc_hook hook{};
  hook.sz = sizeof hook;
  hook.ifindex = ifindex;
  hook.attach_point = direction;
  return hook;
}

}  // namespace

const char* TcDirectionName(bpf_tc_attach_point direction) noexcept {
  switch (static_cast<int>(direction)) {
    case BPF_TC_INGRESS:
      return "ingress";
    case BPF_TC_EGRESS:
      return "egress";
    case 0:
      return "unknown";
    default:
      return "invalid";
  }
}

oro::result_t TcProgramId(const tracing::Tracer& tracer, int fd, std::uint32_t& id) {
  bpf_prog_info info{};
  std::uint32_t length = sizeof info;
  if (const int r = bpf_obj_get_info_by_fd(fd, &info, &length); r < 0) {
    return LibbpfError("bpf_obj_get_info_by_fd", r).Field("ebpf.fd", fd).Trace(tracer);
  }
  id = info.id;
  return oro::errOk;
}

oro::result_t TcProgramOf(const tracing::Tracer& tracer, const bpf_program* program, TcProgram& out) {
  if (!program) {
    tracer.Write(tracing::Error, "bpf_program is null");
    return oro::errInvalidArgument;
  }
  const int fd = bpf_program__fd(program);
  if (fd < 0) return LibbpfError("bpf_program__fd", fd).Field("ebpf.name", bpf_program__name(program)).Trace(tracer);
  out = TcProgram{fd, bpf_program__name(program)};
  return oro::errOk;
}

oro::result_t TcFilter::Attach(const tracing::Tracer& tracer, int ifindex, const TcProgram& program,
                               const TcFilterPlace& place, std::optional<TcFilter>& out) {
  if (program.fd < 0 || !IsOneSide(place.direction)) {
    tracer.Write(tracing::Error, "cannot attach tc program: name=", program.name, ", fd=", program.fd,
                 ", direction=", TcDirectionName(place.direction));
    return oro::errInvalidArgument;
  }
  const bpf_tc_hook hook = HookOf(ifindex, place.direction);
  bpf_tc_opts options{};
  options.sz = sizeof options;
  options.prog_fd = program.fd;
  options.handle = place.handle;
  options.priority = place.priority;
  if (const int r = bpf_tc_attach(&hook, &options); r < 0) {
    return LibbpfError("bpf_tc_attach", r)
        .Field("net.ifindex", ifindex)
        .Field("ebpf.name", program.name)
        .Field("ebpf.fd", program.fd)
        .Field("ebpf.direction", TcDirectionName(place.direction))
        .Field("ebpf.priority", place.priority)
        .Field("ebpf.handle", place.handle)
        .Trace(tracer);
  }
  out.emplace(TcFilter(tracer, ifindex, program, place, options.prog_id));
  return oro::errOk;
}

TcFilter::TcFilter(const tracing::Tracer& tracer, int ifindex, TcProgram program, const TcFilterPlace& place,
                   std::uint32_t programId)
    : m_tracer(tracer), m_ifindex(ifindex), m_program(std::move(program)), m_place(place), m_programId(programId) {}

TcFilter::TcFilter(TcFilter&& other) noexcept
    : m_tracer(other.m_tracer),
      m_ifindex(other.m_ifindex),
      m_program(std::move(other.m_program)),
      m_place(other.m_place),
      m_programId(other.m_programId),
      m_attached(std::exchange(other.m_attached, false)) {}

TcFilter::~TcFilter() {
  try {
    if (m_attached) Detach();
  } catch (...) {
    // Tracing failed; the filter was still asked to go.
  }
}

oro::result_t TcFilter::Detach() {
  if (!m_attached) return oro::errOk;
  m_tracer.Write(tracing::Detail, "detaching tc program: filter.opt.handle=", m_place.handle,
                 ", filter.opt.priority=", m_place.priority, ", filter.opt.prog_fd=", m_program.fd,
                 ", filter.direction=", TcDirectionName(m_place.direction));
  const bpf_tc_hook hook = HookOf(m_ifindex, m_place.direction);
  bpf_tc_opts options{};
  options.sz = sizeof options;
  options.handle = m_place.handle;
  options.priority = m_place.priority;
  const int r = bpf_tc_detach(&hook, &options);
  // Gone already: the qdisc or the interface went with it.
  if (r == 0 || r == -ENOENT || r == -ENODEV) {
    m_attached = false;
    return oro::errOk;
  }
  return LibbpfError("bpf_tc_detach", r)
      .Field("net.ifindex", m_ifindex)
      .Field("ebpf.name", m_program.name)
      .Field("ebpf.direction", TcDirectionName(m_place.direction))
      .Field("ebpf.priority", m_place.priority)
      .Field("ebpf.handle", m_place.handle)
      .Trace(m_tracer);
}

}  // namespace qel::firewall
