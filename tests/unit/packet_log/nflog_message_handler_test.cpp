// What becomes of each parsed NFLOG message: the client gets the group and
// the attributes, and the counts say what was delivered and what the
// kernel's numbering shows as lost.
#include "firewall/nflog_message_handler.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_log.h>

#include "firewall/nflog_loss_trace.h"
#include "support/fake_framework.h"
#include "support/netlink_messages.h"

namespace qel::test {
namespace {

using namespace firewall;
using namespace std::chrono_literals;

class NflogMessageHandlerTest : public testing::Test {
 protected:
  // Parses `messages` as the listener does and hands them to `handler`.
  void Feed(NflogMessageHandler& handler, const NetlinkMessages& messages) {
    const tools::MnlParser parser(
        tracer.Get(),
        [&](const nlmsghdr* message, tools::MnlParser::AttributeTable table) {
          return handler.OnMessage(message, table);
        },
        NflogHighestAttribute, nullptr);
    ASSERT_EQ(parser.Parse(messages.Data(), messages.Size(), 0, 0), MNL_CB_OK);
  }

  NflogMessageHandler::DataCallback Recorder() {
    return [this](std::uint16_t group, NflogAttributes attributes) {
      const nlattr* prefix = attributes[NFULA_PREFIX];
      delivered.push_back(std::to_string(group) + " " +
                          (prefix ? static_cast<const char*>(mnl_attr_get_payload(prefix)) : "-"));
      return true;
    };
  }

  static std::string Text(const NflogCounts& counts) {
    std::string text;
    for (const auto& g : counts.groups) {
      text += std::to_string(g.group) + ":" + std::to_string(g.delivered) + "/" + std::to_string(g.lost) + " ";
    }
    return text + "overruns " + std::to_string(counts.overruns);
  }

  oro::RefPtr<FakeTracer> tracer = oro::RefPtr<FakeTracer>::Adopt(new FakeTracer);
  tracing::Tracer traced{oro::RefPtr<oro::ITracer>::Share(tracer.Get())};
  std::vector<std::string> delivered;
};

TEST_F(NflogMessageHandlerTest, PacketsReachTheClientWithTheirGroupAndOtherMessagesDoNot) {
  NflogMessageHandler handler(traced, {10001, 10003}, Recorder());
  NetlinkMessages messages;
  messages.Message(NetlinkMessages::kLoggedPacket, 10003).Attribute(NFULA_PREFIX, "Block");
  messages.Message(0x0401, 10001).Attribute(NFULA_PREFIX, "config");  // not a logged packet
  messages.Message(NetlinkMessages::kLoggedPacket, 10001).Attribute(NFULA_PREFIX, "Allow");
  messages.Message(NetlinkMessages::kLoggedPacket, 20000);  // not listed: delivered, not counted
  Feed(handler, messages);

  EXPECT_EQ(delivered, (std::vector<std::string>{"10003 Block", "10001 Allow", "20000 -"}));
  EXPECT_EQ(Text(handler.Counts()), "10001:1/0 10003:1/0 overruns 0");
}

TEST_F(NflogMessageHandlerTest, GapsInEachGroupsNumberingCountAsLost) {
  NflogMessageHandler handler(traced, {10001, 10002, 10003}, Recorder());
  NetlinkMessages messages;
  const auto numbered = [&](std::uint16_t group, std::initializer_list<std::uint32_t> numbers) {
    for (std::uint32_t n : numbers) messages.Message(NetlinkMessages::kLoggedPacket, group).BigEndian32(NFULA_SEQ, n);
  };
  // The first number of a group sets the expectation, whatever it is.
  numbered(10001, {5, 6, 9, 10});
  // Across the wrap of the 32-bit numbering: 0 and 1 are missing.
  numbered(10002, {0xfffffffe, 0xffffffff, 2});
  // A numbering that starts again is no loss.
  numbered(10003, {7, 3, 4});
  messages.Message(NetlinkMessages::kLoggedPacket, 10003);  // unnumbered: delivered, no gap
  Feed(handler, messages);
  handler.OnOverrun();

  EXPECT_EQ(Text(handler.Counts()), "10001:4/2 10002:3/2 10003:4/0 overruns 1");
  // The first loss is traced at once, the rest within the next second.
  EXPECT_TRUE(tracer->Contains(tracing::Warning, "NFLOG packets lost: 2 missing from the groups' numbering, 0"));
  handler.FlushLossTrace();
  EXPECT_TRUE(tracer->Contains(tracing::Warning, "NFLOG packets lost: 2 missing from the groups' numbering, 1"));
}

TEST(NflogLossTraceTest, LossesAreTracedAtMostOnceASecondWithWhatCameSince) {
  const auto tracer = oro::RefPtr<FakeTracer>::Adopt(new FakeTracer);
  const tracing::Tracer traced(oro::RefPtr<oro::ITracer>::Share(tracer.Get()));
  NflogLossTrace trace(traced);
  const NflogLossTrace::Clock::time_point t0{};
  const auto lines = [&] { return tracer->Count(tracing::Warning, "NFLOG packets lost: "); };

  trace.Add(3, 0, t0);
  EXPECT_EQ(lines(), 1u);
  trace.Add(4, 1, t0 + 300ms);
  trace.Add(5, 0, t0 + 600ms);
  trace.Tick(t0 + 999ms);
  EXPECT_EQ(lines(), 1u);
  trace.Tick(t0 + 1000ms);
  EXPECT_EQ(lines(), 2u);
  EXPECT_TRUE(tracer->Contains("NFLOG packets lost: 9 missing from the groups' numbering, 1 receive buffer overruns"));
  trace.Tick(t0 + 5000ms);  // nothing new
  EXPECT_EQ(lines(), 2u);
}

}  // namespace
}  // namespace qel::test
