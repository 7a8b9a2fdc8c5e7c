// The host's tracer.
#pragma once

#include <cstdint>

#include "oro/object.h"

namespace oro {

namespace trace_level {
inline constexpr std::uint32_t Error = 300;
inline constexpr std::uint32_t Skipped = 500;  // skipped items, failed probes
inline constexpr std::uint32_t Warning = 700;  // warnings and state news
inline constexpr std::uint32_t Detail = 800;   // function entry and detail
}  // namespace trace_level

struct ITracer : IObject {
  static constexpr iid_t iid = iid::ITracer;
  // Whether a message of `level` would be written: lets callers skip
  // building texts nobody reads.
  virtual bool IsEnabled(std::uint32_t level) noexcept = 0;
  virtual void Trace(std::uint32_t level, const char* text) noexcept = 0;
};

}  // namespace oro
