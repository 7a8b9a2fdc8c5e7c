// Writing to the host's tracer: messages built from parts, function-entry
// lines, and the assertion form used for every failed sub-call.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

#include "oro/ref_ptr.h"
#include "oro/tracer.h"

namespace qel::tracing {

using oro::trace_level::Detail;
using oro::trace_level::Error;
using oro::trace_level::Skipped;
using oro::trace_level::Warning;

// A possibly absent tracer; every call is a no-op without one.
class Tracer {
 public:
  Tracer() = default;
  explicit Tracer(oro::RefPtr<oro::ITracer> tracer) : m_tracer(std::move(tracer)) {}

  bool Enabled(std::uint32_t level) const noexcept { return m_tracer && m_tracer->IsEnabled(level); }
  oro::ITracer* Get() const noexcept { return m_tracer.Get(); }

  // Concatenates the parts as an ostream would print them.
  template <class... Parts>
  void Write(std::uint32_t level, const Parts&... parts) const {
    if (!Enabled(level)) return;
    std::ostringstream text;
    (text << ... << parts);
    m_tracer->Trace(level, text.str().c_str());
  }

 private:
  oro::RefPtr<oro::ITracer> m_tracer;
};

// "0x8000004b (Unexpected error)"
std::string FormatResult(oro::result_t result);

// "0x1f": ids and class ids as they are known, lower case, unpadded.
std::string Hex(std::uint32_t value);

// "<unit>(<line>): (<expression>),(ORO_SUCCEEDED(_result)) failed: result = <code> (<text>). <message>"
std::string FormatFailedCall(std::string_view unit, int line, std::string_view expression, oro::result_t result,
                             std::string_view message);

// "<unit>(<line>): (<condition>) failed: result = false. <message>"
std::string FormatFailedCondition(std::string_view unit, int line, std::string_view condition,
                                  std::string_view message);

}  // namespace qel::tracing

// Source units are traced relative to the project root (the build maps the
// root away from __FILE__).
#define QEL_UNIT __FILE__

// Traces a failed sub-call at error level in the assertion form.
#define QEL_TRACE_FAILED_CALL(tracer, expression_text, result, message)                                              \
  (tracer).Write(::qel::tracing::Error,                                                                              \
                 ::qel::tracing::FormatFailedCall(QEL_UNIT, __LINE__, (expression_text), (result), (message)))

// Evaluates a call returning result_t; traces it in the assertion form when it
// fails. Yields the result.
#define QEL_CHECKED_CALL(tracer, expression, message)                         \
  ([&]() -> ::oro::result_t {                                                 \
    const ::oro::result_t _result = (expression);                             \
    if (ORO_FAILED(_result)) QEL_TRACE_FAILED_CALL(tracer, #expression, _result, message); \
    return _result;                                                           \
  }())

// Traces a false condition at error level in the assertion form.
#define QEL_TRACE_FAILED_CONDITION(tracer, condition_text, message) \
  (tracer).Write(::qel::tracing::Error,                             \
                 ::qel::tracing::FormatFailedCondition(QEL_UNIT, __LINE__, (condition_text), (message)))
