// The netlink attribute parser against hand-made buffers: which messages
// reach the callback, with which table, and what a rejection leaves in the
// trace.
#include "qel_common/mnl_parser.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>

#include <cstring>
#include <stdexcept>

#include "support/fake_framework.h"
#include "support/netlink_messages.h"

namespace qel::test {
namespace {

using tools::MnlParser;

constexpr unsigned long kHighest = 19;
constexpr std::uint16_t kPrefix = 10;

// What the callback saw: per message, its sequence number and the text of
// the prefix attribute ("-" when absent), or the table's size when asked.
struct Seen {
  std::vector<std::string> messages;

  MnlParser::Callback Recorder(int result = MNL_CB_OK) {
    return [this, result](const nlmsghdr* message, MnlParser::AttributeTable table) {
      std::string text = std::to_string(message->nlmsg_seq) + ":";
      if (table.empty()) {
        text += "no table";
      } else {
        text += std::to_string(table.size()) + " ";
        text += table[kPrefix] ? static_cast<const char*>(mnl_attr_get_payload(table[kPrefix])) : "-";
      }
      messages.push_back(text);
      return result;
    };
  }
};

class MnlParserTest : public testing::Test {
 protected:
  int Parse(const MnlParser& parser, std::uint32_t sequence = 0) {
    return parser.Parse(buffer.Data(), buffer.Size(), sequence, 0);
  }

  oro::RefPtr<FakeTracer> tracer = oro::RefPtr<FakeTracer>::Adopt(new FakeTracer);
  NetlinkMessages buffer;
  Seen seen;
};

TEST_F(MnlParserTest, EachMessageReachesTheCallbackWithItsAttributesByType) {
  buffer.Message(NetlinkMessages::kLoggedPacket, 10001, 7).Attribute(kPrefix, "Block");
  buffer.Message(NetlinkMessages::kLoggedPacket, 10002, 7).BigEndian32(12, 1);
  const MnlParser parser(tracer.Get(), seen.Recorder(), kHighest, nullptr);

  EXPECT_EQ(Parse(parser, 7), MNL_CB_OK);
  EXPECT_EQ(seen.messages, (std::vector<std::string>{"7:20 Block", "7:20 -"}));
}

TEST_F(MnlParserTest, ALaterAttributeOfTheSameTypeReplacesTheEarlier) {
  buffer.Message(NetlinkMessages::kLoggedPacket, 10001).Attribute(kPrefix, "Allow").Attribute(kPrefix, "Block");
  const MnlParser parser(tracer.Get(), seen.Recorder(), kHighest, nullptr);

  EXPECT_EQ(Parse(parser), MNL_CB_OK);
  EXPECT_EQ(seen.messages, std::vector<std::string>{"0:20 Block"});
}

TEST_F(MnlParserTest, WithoutAHighestTypeNoAttributeIsParsed) {
  // Type 300 would reject the message if attributes were parsed.
  buffer.Message(NetlinkMessages::kLoggedPacket, 10001).Attribute(300, "x");
  const MnlParser parser(tracer.Get(), seen.Recorder(), std::nullopt, nullptr);

  EXPECT_EQ(Parse(parser), MNL_CB_OK);
  EXPECT_EQ(seen.messages, std::vector<std::string>{"0:no table"});
}

TEST_F(MnlParserTest, TheCallbackStopsTheWalk) {
  buffer.Message(NetlinkMessages::kLoggedPacket, 10001, 1).Message(NetlinkMessages::kLoggedPacket, 10001, 2);
  const MnlParser parser(tracer.Get(), seen.Recorder(MNL_CB_STOP), kHighest, nullptr);

  EXPECT_EQ(Parse(parser), MNL_CB_STOP);
  EXPECT_EQ(seen.messages.size(), 1u);
}

// Each failure rejects the message (the callback never sees it), makes the
// parse fail and says why in the trace.
TEST_F(MnlParserTest, RejectionsFailTheParseAndSayWhy) {
  struct Case {
    const char* name;
    std::function<void(NetlinkMessages&)> build;
    std::uint32_t expectedSequence;
    const char* trace;
  };
  const MnlParser::Checker checker{
      {kPrefix,
       [](const nlattr* attr) {
         return std::string(static_cast<const char*>(mnl_attr_get_payload(attr))) == "Allow" ? 0 : -1;
       }},
      {11, [](const nlattr*) -> int { throw std::runtime_error("check broke"); }}};
  const Case cases[] = {
      {"type above the highest",
       [](auto& b) { b.Message(NetlinkMessages::kLoggedPacket, 1).Attribute(kHighest + 1, "x"); }, 0,
       "Invalid MNL attribute type=20"},
      {"foreign sequence number", [](auto& b) { b.Message(NetlinkMessages::kLoggedPacket, 1, 8); }, 9, ""},
      {"checker rejects", [](auto& b) { b.Message(NetlinkMessages::kLoggedPacket, 1).Attribute(kPrefix, "Block"); }, 0,
       "(it == m_checker->end() || it->second(attr) >= 0) failed: result = false. Failure in attribute check "
       "type=10"},
      {"checker throws", [](auto& b) { b.Message(NetlinkMessages::kLoggedPacket, 1).Attribute(11, "x"); }, 0,
       "check broke"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NetlinkMessages built;
    c.build(built);
    Seen caseSeen;
    const auto caseTracer = oro::RefPtr<FakeTracer>::Adopt(new FakeTracer);
    const MnlParser parser(caseTracer.Get(), caseSeen.Recorder(), kHighest, &checker);

    EXPECT_EQ(parser.Parse(built.Data(), built.Size(), c.expectedSequence, 0), MNL_CB_ERROR);
    EXPECT_TRUE(caseSeen.messages.empty());
    if (*c.trace) {
      EXPECT_TRUE(caseTracer->Contains(tracing::Error, c.trace));
      EXPECT_TRUE(caseTracer->Contains(tracing::Error, "Cannot process MNL packet"));
    }
  }
}

// The messages before it are parsed; a length that would lead past the
// buffer (here one that is negative as a signed number) is not followed.
TEST_F(MnlParserTest, AMessageLongerThanTheBufferFailsTheParseAfterTheWholeOnes) {
  for (const std::uint32_t length : {0xfffffff0u, 0x100u, 8u}) {
    SCOPED_TRACE(length);
    NetlinkMessages built;
    built.Message(NetlinkMessages::kLoggedPacket, 10001, 1).Attribute(kPrefix, "Block");
    const std::size_t second = built.Size();
    built.Message(NetlinkMessages::kLoggedPacket, 10001, 2).Attribute(kPrefix, "Allow");
    std::memcpy(&built.Bytes()[second], &length, sizeof length);
    Seen caseSeen;
    const auto caseTracer = oro::RefPtr<FakeTracer>::Adopt(new FakeTracer);
    const MnlParser parser(caseTracer.Get(), caseSeen.Recorder(), kHighest, nullptr);

    EXPECT_EQ(parser.Parse(built.Data(), built.Size(), 0, 0), MNL_CB_ERROR);
    EXPECT_EQ(caseSeen.messages, std::vector<std::string>{"1:20 Block"});
    EXPECT_TRUE(caseTracer->Contains(tracing::Error, "Malformed netlink message at offset 32"));
  }
}

TEST_F(MnlParserTest, AThrowingCallbackFailsTheParseWithoutThrowing) {
  buffer.Message(NetlinkMessages::kLoggedPacket, 10001);
  const MnlParser parser(
      tracer.Get(), [](const nlmsghdr*, MnlParser::AttributeTable) -> int { throw std::runtime_error("boom"); },
      kHighest, nullptr);

  EXPECT_EQ(Parse(parser), MNL_CB_ERROR);
  EXPECT_TRUE(tracer->Contains(tracing::Detail, "Failure in callback"));
}

TEST_F(MnlParserTest, EveryParseIsDumpedAtDetailLevelAndALongDumpIsCut) {
  buffer.Message(NetlinkMessages::kLoggedPacket, 10001, 3, 4).Attribute(kPrefix, "Block");
  const MnlParser parser(tracer.Get(), seen.Recorder(), kHighest, nullptr);
  ASSERT_EQ(parser.Parse(buffer.Data(), buffer.Size(), 3, 4), MNL_CB_OK);

  const auto lines = tracer->Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].first, tracing::Detail);
  const std::string& dump = lines[0].second;
  EXPECT_EQ(dump.rfind("qel::tools::MnlParser::MnlParser(oro::ITracer*, qel::tools::MnlParser::Callback, "
                       "std::optional<long unsigned int>, const Checker*) buf=",
                       0),
            0u);
  EXPECT_NE(dump.find(" numBytes=32 seq=3 portId=4 bufDump:\n0000: 20 00 00 00 00 04 00 00 03 00 00 00 04 00 00 00\n"
                      "0010: 02 00 27 11 0a 00 0a 00 42 6c 6f 63 6b 00 00 00"),
            std::string::npos)
      << dump;
  EXPECT_EQ(dump.find("..."), std::string::npos);

  std::vector<std::uint8_t> large(64 * 1024, 0);
  parser.Parse(large.data(), large.size(), 0, 0);
  const std::string cut = tracer->Lines().at(1).second;
  EXPECT_NE(cut.find("numBytes=65536"), std::string::npos);
  EXPECT_EQ(cut.substr(cut.size() - 4), "\n...");
}

}  // namespace
}  // namespace qel::test
