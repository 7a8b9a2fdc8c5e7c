// Tells the trace that the kernel dropped logged packets, at most once a
// second: a burst that overflows the listener would otherwise add a trace
// line per drop and make matters worse.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "qel_tracing/tracer.h"

namespace qel::firewall {

class NflogLossTrace {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::duration kInterval = std::chrono::seconds(1);

  explicit NflogLossTrace(const tracing::Tracer& tracer) noexcept : m_tracer(tracer) {}

  // Packets found missing in a group's numbering, and failed receives of an
  // overflowed socket; traced at once when the last line is a second old.
  void Add(std::uint64_t lost, std::uint64_t overruns, Clock::time_point now);
  // Traces what was held back once its second is over.
  void Tick(Clock::time_point now) {
    if (Pending()) TraceIfDue(now);
  }
  // Traces what was held back, due or not.
  void Flush();
  bool Pending() const noexcept { return m_lost != 0 || m_overruns != 0; }

 private:
  void TraceIfDue(Clock::time_point now);

  const tracing::Tracer& m_tracer;
  std::uint64_t m_lost = 0;
  std::uint64_t m_overruns = 0;
  std::optional<Clock::time_point> m_lastTrace;
};

}  // namespace qel::firewall
