#include "firewall/conntrack_probe.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "tests/support/fake_framework.h"

namespace qel::firewall {
namespace {

// Runs `probe` in a forked child inside a network namespace of its own, so
// that nothing the kernel loads or answers concerns the machine's namespace.
// The child's exit code carries the verdict: 0 passed, anything else failed.
int RunInFreshNetworkNamespace(const std::function<bool()>& probe) {
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNET) != 0) _exit(2);
    _exit(probe() ? 0 : 1);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

class ConntrackProbeTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace and open a raw socket";
  }
  const oro::RefPtr<test::FakeTracer> m_fake = test::Make<test::FakeTracer>();
  const tracing::Tracer m_tracer{oro::RefPtr<oro::ITracer>::Share(m_fake.Get())};
};

TEST_F(ConntrackProbeTest, AnswerAndTracesAgree) {
  EXPECT_EQ(RunInFreshNetworkNamespace([&] {
              const bool suitable = ProbeConntrackRevision(m_tracer);
              const std::string flag = std::string(" g_isSuitableConntrack = ") + (suitable ? "1" : "0");
              return m_fake->Contains(flag) && m_fake->Contains("conntrack: suitable") == suitable;
            }),
            0);
}

TEST_F(ConntrackProbeTest, SocketThatCannotBeOpenedAnswersFalse) {
  EXPECT_EQ(RunInFreshNetworkNamespace([&] {
              // Without root the raw socket is refused.
              if (setresuid(65534, 65534, 65534) != 0) return false;
              return !ProbeConntrackRevision(m_tracer) && m_fake->Contains(500, "Cannot open socket (") &&
                     m_fake->Contains(" g_isSuitableConntrack = 0");
            }),
            0);
}

TEST(ConntrackFlagTest, KeepsWhatWasSet) {
  const bool before = IsSuitableConntrack();
  SetSuitableConntrack(!before);
  EXPECT_EQ(IsSuitableConntrack(), !before);
  SetSuitableConntrack(before);
}

}  // namespace
}  // namespace qel::firewall
