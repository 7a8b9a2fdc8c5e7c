#include "firewall/firewall_rule_logger.h"

#include <gtest/gtest.h>

#include "support/fake_framework.h"
#include "support/fake_nflog.h"

namespace qel::test {
namespace {

using firewall::FirewallRuleLogger;
using Properties = std::vector<std::pair<std::string, oro::Event::Value>>;

constexpr std::uint8_t kInput = 1, kForward = 2, kOutput = 3;

// 10.77.0.2:40312 -> 10.77.0.1:22, TCP.
std::vector<std::uint8_t> TcpPayload() {
  std::vector<std::uint8_t> p(60, 0);
  p[0] = 0x45, p[9] = 6;
  p[12] = 10, p[13] = 77, p[15] = 2;
  p[16] = 10, p[17] = 77, p[19] = 1;
  p[20] = 0x9d, p[21] = 0x78, p[23] = 22;
  return p;
}

oro::RefPtr<firewall::INflogListenerFactory> AsFactory(const oro::RefPtr<FakeNflogListenerFactory>& fake) {
  return oro::RefPtr<firewall::INflogListenerFactory>::Share(fake.Get());
}

class FirewallRuleLoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_locator->Register(m_tracer);
    m_locator->Register(m_publisher);
    ASSERT_EQ(FirewallRuleLogger::Create(m_locator.Get(), AsFactory(m_factory), m_logger), oro::errOk);
    ASSERT_EQ(m_factory->listeners.size(), 1u);
  }

  FakeNflogListener& Listener() { return *m_factory->listeners[0]; }
  std::vector<oro::Event> Events() { return m_publisher->events; }

  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakePublisher> m_publisher = Make<FakePublisher>();
  oro::RefPtr<FakeLocator> m_locator = Make<FakeLocator>();
  oro::RefPtr<FakeNflogListenerFactory> m_factory = Make<FakeNflogListenerFactory>();
  std::unique_ptr<FirewallRuleLogger> m_logger;
};

TEST_F(FirewallRuleLoggerTest, EachPacketBecomesOneEventOfItsActionWithItsRuleIndex) {
  NflogPacket packet(kInput, "Block", TcpPayload());
  EXPECT_TRUE(Listener().Deliver(10001, packet));
  ASSERT_EQ(Events().size(), 1u);
  EXPECT_EQ(Events()[0].kind, "NetworkActivityBlocked");
  EXPECT_EQ(Events()[0].properties,
            (Properties{{"direction", "Incoming"},
                        {"ipVersion", std::int64_t{4}},
                        {"protocol", std::int64_t{6}},
                        {"localAddress", "10.77.0.1"},
                        {"localPort", std::int64_t{22}},
                        {"remoteAddress", "10.77.0.2"},
                        {"remotePort", std::int64_t{40312}},
                        {"payloadLength", std::int64_t{60}},
                        {"ruleIndex", std::int64_t{0}}}));

  NflogPacket outgoing(kOutput, "Allow", TcpPayload());
  EXPECT_TRUE(Listener().Deliver(10004, outgoing));
  ASSERT_EQ(Events().size(), 2u);
  const auto event = Events()[1];
  EXPECT_EQ(event.kind, "NetworkActivityAllowed");
  EXPECT_EQ(event.properties[0].second, oro::Event::Value("Outgoing"));
  EXPECT_EQ(event.properties[3].second, oro::Event::Value("10.77.0.2"));  // localAddress: the source
  EXPECT_EQ(event.properties.back().second, oro::Event::Value(std::int64_t{3}));
}

TEST_F(FirewallRuleLoggerTest, UnreadablePayloadIsPublishedWithoutAddresses) {
  NflogPacket packet(kInput, "Block", {0x55, 0, 0});
  EXPECT_TRUE(Listener().Deliver(10002, packet));
  ASSERT_EQ(Events().size(), 1u);
  EXPECT_EQ(Events()[0].properties, (Properties{{"direction", "Incoming"},
                                                {"ipVersion", std::int64_t{0}},
                                                {"payloadLength", std::int64_t{3}},
                                                {"ruleIndex", std::int64_t{1}}}));
  EXPECT_TRUE(m_tracer->Contains(tracing::Warning, "version is neither 4 nor 6"));
}

TEST_F(FirewallRuleLoggerTest, RejectedPacketsPublishNothingAndSayWhy) {
  const std::uint8_t shortHeader[2] = {8, 0};
  const char unterminated[] = {'B', 'l', 'o', 'c', 'k'};
  struct Case {
    std::string name;
    std::uint16_t group;
    NflogPacket packet;
    std::string trace;
  };
  const auto valid = [] { return NflogPacket(kInput, "Block", TcpPayload()); };
  std::vector<Case> cases = {
      {"group below the first", 10000, valid(), "Unexpected nflog group 10000"},
      {"no header", 10001, valid().Remove(NFULA_PACKET_HDR), "No NFULA_PACKET_HDR attribute found"},
      {"short header", 10001, valid().Set(NFULA_PACKET_HDR, shortHeader, 2), "No NFULA_PACKET_HDR attribute found"},
      {"no prefix", 10001, valid().Remove(NFULA_PREFIX), "No NFULA_PREFIX attribute found"},
      {"unterminated prefix", 10001, valid().Set(NFULA_PREFIX, unterminated, 5), "No NFULA_PREFIX attribute found"},
      {"no payload", 10001, valid().Remove(NFULA_PAYLOAD), "No NFULA_PAYLOAD attribute found"},
      {"forward hook", 10001, NflogPacket(kForward, "Block", TcpPayload()),
       "Messages is from neither INPUT nor OUTPUT chain"},
      {"lower-case prefix", 10001, NflogPacket(kInput, "allow", TcpPayload()), "Urecognized message prefix: allow"},
      {"prefix with more after it", 10001, NflogPacket(kInput, "Blocked", TcpPayload()),
       "Urecognized message prefix: Blocked"},
  };
  for (auto& c : cases) {
    const std::size_t traced = m_tracer->Count(tracing::Warning, c.trace);
    EXPECT_FALSE(Listener().Deliver(c.group, c.packet)) << c.name;
    EXPECT_EQ(m_tracer->Count(tracing::Warning, c.trace), traced + 1) << c.name;
  }
  EXPECT_TRUE(Events().empty());
  EXPECT_EQ(m_tracer->Count(tracing::Error, ""), 0u);
}

TEST_F(FirewallRuleLoggerTest, FailedPublishIsReportedToTheListener) {
  m_publisher->failWith = oro::errUnexpected;
  NflogPacket packet(kInput, "Allow", TcpPayload());
  EXPECT_FALSE(Listener().Deliver(10001, packet));
  EXPECT_TRUE(m_tracer->Contains(tracing::Warning, "Cannot publish network activity event"));
}

TEST_F(FirewallRuleLoggerTest, StartStopAndCountsGoThroughItsOneListener) {
  EXPECT_EQ(m_logger->Start({10001, 10003}), oro::errOk);
  EXPECT_EQ(Listener().groups, (firewall::NflogGroupList{10001, 10003}));
  EXPECT_EQ(m_logger->Start({10002}), oro::errInvalidState);
  EXPECT_EQ(Listener().groups, (firewall::NflogGroupList{10001, 10003}));
  Listener().counts = {{{10001, 5, 2}, {10003, 1, 0}}, 1};
  const auto counts = m_logger->GetCounts();
  ASSERT_EQ(counts.groups.size(), 2u);
  EXPECT_EQ(counts.groups[0].lost, 2u);
  EXPECT_EQ(counts.overruns, 1u);
  EXPECT_EQ(m_logger->Stop(), oro::errOk);
  EXPECT_EQ(m_logger->Stop(), oro::errOk);
  EXPECT_EQ(Listener().calls, (std::vector<std::string>{"Start(2)", "Start(1)", "Stop", "Stop"}));
  EXPECT_EQ(m_factory->listeners.size(), 1u);
}

// The listener may outlive the logger (here the factory keeps it): once the
// logger is gone, its packets reach nothing.
TEST_F(FirewallRuleLoggerTest, DestroyedLoggerStopsItsListenerAndTakesNoMorePackets) {
  ASSERT_EQ(m_logger->Start({10001}), oro::errOk);
  m_logger.reset();
  EXPECT_FALSE(Listener().started);
  NflogPacket packet(kInput, "Block", TcpPayload());
  EXPECT_FALSE(Listener().Deliver(10001, packet));
  EXPECT_TRUE(Events().empty());
}

TEST(FirewallRuleLoggerCreate, FailsWithoutPublisherOrListener) {
  auto tracer = Make<FakeTracer>();
  auto locator = Make<FakeLocator>();
  locator->Register(tracer);
  auto factory = Make<FakeNflogListenerFactory>();
  std::unique_ptr<FirewallRuleLogger> logger;
  EXPECT_EQ(FirewallRuleLogger::Create(locator.Get(), AsFactory(factory), logger), oro::errNotFound);
  EXPECT_TRUE(tracer->Contains(tracing::Error, "Cannot get IEventPublisher interface"));
  EXPECT_TRUE(factory->listeners.empty());

  locator->Register(Make<FakePublisher>());
  factory->failCreate = oro::errNoMemory;
  EXPECT_EQ(FirewallRuleLogger::Create(locator.Get(), AsFactory(factory), logger), oro::errNoMemory);
  EXPECT_TRUE(tracer->Contains(tracing::Error, "Cannot create NFLOG listener"));
  EXPECT_FALSE(logger);
}

}  // namespace
}  // namespace qel::test
