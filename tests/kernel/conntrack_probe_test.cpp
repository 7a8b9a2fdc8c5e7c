#include "firewall/conntrack_probe.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/fake_framework.h"
#include "support/netns.h"

namespace qel::firewall {
namespace {

// The probe's answer and what it traced, from a network namespace of its
// own, so that nothing the kernel loads or answers concerns the machine's.
std::string Probe(bool asNobody) {
  const auto run = test::RunInNetworkNamespace([asNobody] {
    // Without root the raw socket is refused.
    if (asNobody && setresuid(65534, 65534, 65534) != 0) return std::string("cannot drop root");
    const auto fake = test::Make<test::FakeTracer>();
    const bool suitable = ProbeConntrackRevision(tracing::Tracer{oro::RefPtr<oro::ITracer>::Share(fake.Get())});
    return std::to_string(suitable) +
           (fake->Contains(" g_isSuitableConntrack = " + std::to_string(suitable)) ? " flag traced" : "") +
           (fake->Contains("conntrack: suitable") ? " suitable" : "") +
           (fake->Contains(500, "Cannot open socket (") ? " refused" : "");
  });
  return run.completed ? run.output : "failed: " + run.output;
}

TEST(ConntrackProbeTest, AnswerAndTracesAgree) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace and open a raw socket";
  const std::string answer = Probe(false);
  EXPECT_TRUE(answer == "1 flag traced suitable" || answer == "0 flag traced") << answer;
  EXPECT_EQ(Probe(true), "0 flag traced refused");
}

}  // namespace
}  // namespace qel::firewall
