// Keeps exceptions from crossing an interface boundary.
#pragma once

#include <exception>

#include "qel_common/exception_result.h"
#include "qel_tracing/tracer.h"

namespace qel::tracing {

// Runs `body` (returning result_t); an exception is traced with the
// function's name and turned into its result code.
template <class Body>
oro::result_t Guarded(const Tracer& tracer, const char* function, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    const auto e = std::current_exception();
    try {
      tracer.Write(Error, function, ": exception: ", ExceptionText(e));
    } catch (...) {
    }
    return ResultFromException(e);
  }
}

}  // namespace qel::tracing
