// A failed libbpf call, described where it failed: the errno it returned,
// libbpf's text for it, and the fields of the handle it worked on, so the
// trace tells which interface, program and slot it was.
#pragma once

#include <sstream>
#include <string>
#include <string_view>

#include "oro/result.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class LibbpfError {
 public:
  // `error` as libbpf returns it: a negative errno.
  LibbpfError(std::string_view what, int error);

  // Adds "name=value" ("net.ifindex=3") to the text.
  template <class Value>
  LibbpfError& Field(std::string_view name, const Value& value) {
    std::ostringstream text;
    text << ", " << name << '=' << value;
    m_fields += text.str();
    return *this;
  }

  int Errno() const noexcept { return m_errno; }
  // The errno mapped to a system error code.
  oro::result_t Result() const noexcept;
  // "create bpf tc hook: libbpf.err=File exists, libbpf.errno=17, net.ifindex=3"
  std::string Text() const;
  // Traces the text at error level; gives Result().
  oro::result_t Trace(const tracing::Tracer& tracer) const;

 private:
  std::string m_what;
  int m_errno;
  std::string m_fields;
};

}  // namespace qel::firewall
