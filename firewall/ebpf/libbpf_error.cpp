#include "firewall/ebpf/libbpf_error.h"

#include <bpf/libbpf.h>

#include <cerrno>

namespace qel::firewall {

LibbpfError::LibbpfError(std::string_view what, int error)
    // A call that failed without saying why still failed.
    : m_what(what), m_errno(error < 0 ? -error : (error > 0 ? error : EIO)) {}

oro::result_t LibbpfError::Result() const noexcept { return oro::ResultFromErrno(m_errno); }

std::string LibbpfError::Text() const {
  char message[128] = {};
  if (libbpf_strerror(-m_errno, message, sizeof message) != 0 && message[0] == '\0') {
    std::snprintf(message, sizeof message, "errno %d", m_errno);
  }
  std::ostringstream text;
  text << m_what << ": libbpf.err=" << message << ", libbpf.errno=" << m_errno << m_fields;
  return text.str();
}

oro::result_t LibbpfError::Trace(const tracing::Tracer& tracer) const {
  tracer.Write(tracing::Error, Text());
  return Result();
}

}  // namespace qel::firewall
