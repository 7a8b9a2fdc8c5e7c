#include "firewall/nflog_loss_trace.h"

namespace qel::firewall {

void NflogLossTrace::Add(std::uint64_t lost, std::uint64_t overruns, Clock::time_point now) {
  m_lost += lost;
  m_overruns += overruns;
  TraceIfDue(now);
}

void NflogLossTrace::Flush() {
  if (!Pending()) return;
  m_tracer.Write(tracing::Warning, "NFLOG packets lost: ", m_lost, " missing from the groups' numbering, ", m_overruns,
                 " receive buffer overruns");
  m_lost = m_overruns = 0;
}

void NflogLossTrace::TraceIfDue(Clock::time_point now) {
  if (m_lastTrace && now - *m_lastTrace < kInterval) return;
  m_lastTrace = now;
  Flush();
}

}  // namespace qel::firewall
