// The listener's wait against real descriptors: a socket pair stands in for
// the netlink socket, a notifier is the stop event.
#include "firewall/netlink_poll_loop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "qel_common/descriptor_notifier.h"
#include "support/fake_framework.h"

namespace qel::test {
namespace {

using namespace firewall;

// Reads one datagram per call and then does what the test asks.
class ScriptedSocket final : public NetlinkSocketEvents {
 public:
  explicit ScriptedSocket(int fd) : m_fd(fd) {}

  oro::result_t ReadPending() noexcept override {
    char byte;
    reads += ::recv(m_fd, &byte, 1, MSG_DONTWAIT) == 1 ? 1 : 0;
    return afterRead ? afterRead() : oro::errOk;
  }
  void OnOverrun() noexcept override { ++overruns; }

  std::function<oro::result_t()> afterRead;
  int reads = 0;
  int overruns = 0;

 private:
  int m_fd;
};

class NetlinkPollLoopTest : public testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
    listening.Reset(fds[0]);
    kernel.Reset(fds[1]);
    ASSERT_EQ(tools::DescriptorNotifier::Create(stop), oro::errOk);
  }

  void SendPacket() { ASSERT_EQ(::send(kernel.Get(), "p", 1, 0), 1); }
  oro::result_t Run(int netlinkFd) { return NetlinkPollLoop(traced, netlinkFd, stop.Fd(), socket).Run(); }
  oro::result_t Run() { return Run(listening.Get()); }

  oro::RefPtr<FakeTracer> tracer = oro::RefPtr<FakeTracer>::Adopt(new FakeTracer);
  tracing::Tracer traced{oro::RefPtr<oro::ITracer>::Share(tracer.Get())};
  tools::UniqueFd listening, kernel;
  tools::DescriptorNotifier stop;
  ScriptedSocket socket{-1};
};

TEST_F(NetlinkPollLoopTest, AStopArrivingWithDataEndsTheLoopWithoutReading) {
  socket = ScriptedSocket(listening.Get());
  SendPacket();
  ASSERT_EQ(stop.Notify(), oro::errOk);

  EXPECT_EQ(Run(), oro::errOk);
  EXPECT_EQ(socket.reads, 0);
  EXPECT_TRUE(tracer->Contains("NFLOG listener thread stopped"));
  // The stop was taken: the event is quiet again.
  EXPECT_NE(stop.Drain(), oro::errOk);
}

// A failed read is traced and the loop reads on, until the stop comes.
TEST_F(NetlinkPollLoopTest, DataIsReadThroughFailedReadsUntilTheStopComes) {
  socket = ScriptedSocket(listening.Get());
  SendPacket();
  SendPacket();
  socket.afterRead = [&] { return socket.reads == 1 ? oro::errUnexpected : stop.Notify(); };

  EXPECT_EQ(Run(), oro::errOk);
  EXPECT_EQ(socket.reads, 2);
  EXPECT_EQ(tracer->Count(tracing::Error, "Cannot read from nflog netlink socket"), 1u);
}

// The socket is checked before the stop: a hung-up peer (POLLHUP) or a
// descriptor that is not open (POLLNVAL) ends the loop as a failure.
TEST_F(NetlinkPollLoopTest, ABrokenSocketEndsTheLoopEvenWhenAStopIsPending) {
  socket = ScriptedSocket(listening.Get());
  ASSERT_EQ(stop.Notify(), oro::errOk);
  kernel.Reset();
  const int closed = ::dup(listening.Get());
  ::close(closed);

  EXPECT_EQ(Run(), oro::errUnexpected);
  EXPECT_EQ(Run(closed), oro::errUnexpected);
  EXPECT_EQ(tracer->Count(tracing::Error,
                          "((netlinkEvents & (0x010 | 0x008 | 0x020)) == 0) failed: result = false. "
                          "Netlink socket is corrupted"),
            2u);
  EXPECT_EQ(socket.reads, 0);
}

}  // namespace
}  // namespace qel::test
