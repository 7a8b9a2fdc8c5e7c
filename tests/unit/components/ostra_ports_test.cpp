#include "firewall/ostra_ports.h"

#include <gtest/gtest.h>

#include "support/fake_dynamic_rules.h"
#include "support/fake_framework.h"

namespace qel::test {
namespace {

using firewall::OstraPort;
using firewall::OstraPortList;
using Texts = std::vector<std::string>;

constexpr std::uint32_t TCP = 0, UDP = 1, IN = 0, OUT = 1, INOUT = 2;

class OstraPortsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_locator->Register(m_tracer);
    m_locator->Register(m_firewall);
    ASSERT_EQ(CreateInstance(m_ports, m_locator.Get()), oro::errOk);
  }

  OstraPortList Stored() {
    OstraPortList ports;
    EXPECT_EQ(m_ports->GetOstraPorts(ports), oro::errOk);
    return ports;
  }
  // The rules of each firewall call since the last look, "+" added, "-" removed.
  std::vector<Texts> TakeCalls() {
    std::vector<Texts> calls;
    const auto all = m_firewall->Calls();
    for (std::size_t i = m_seen; i < all.size(); ++i) {
      Texts texts = KernelTexts(all[i].rules);
      texts.insert(texts.begin(), all[i].add ? "+" + all[i].tag : "-");
      calls.push_back(texts);
    }
    m_seen = all.size();
    return calls;
  }

  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeLocator> m_locator = Make<FakeLocator>();
  oro::RefPtr<FakeDynamicRules> m_firewall = Make<FakeDynamicRules>();
  oro::RefPtr<firewall::OstraPorts> m_ports;
  std::size_t m_seen = 0;
};

// An incoming port opens its replies too: under a blocking default the
// compiled rules drop the outgoing half of incoming connections.
TEST_F(OstraPortsTest, PortsSetWhileOffAreStoredOnceAndAllOpenedWithTheirReplies) {
  ASSERT_EQ(m_ports->SetOstraPorts({{15001, UDP, IN}, {15000, TCP, IN}, {15001, UDP, IN}}), oro::errOk);
  EXPECT_TRUE(TakeCalls().empty());
  EXPECT_EQ(Stored(), (OstraPortList{{15000, TCP, IN}, {15001, UDP, IN}}));

  ASSERT_EQ(m_ports->SetApply(true), oro::errOk);
  EXPECT_EQ(TakeCalls(),
            (std::vector<Texts>{{"+ostra", "in -p tcp -m tcp --dport 15000 -j ACCEPT",
                                 "in -p udp -m udp --dport 15001 -j ACCEPT",
                                 "out -p tcp -m tcp --sport 15000 -m conntrack --ctstate ESTABLISHED -j ACCEPT",
                                 "out -p udp -m udp --sport 15001 -m conntrack --ctstate ESTABLISHED -j ACCEPT"}}));
  EXPECT_TRUE(m_tracer->Contains("SetApply()  doApply yes"));
  EXPECT_TRUE(m_tracer->Contains("Ostra ports to be added: 15000 TCP IN; 15001 UDP IN"));

  // The same list again, in another order: nothing for the firewall to do.
  ASSERT_EQ(m_ports->SetOstraPorts({{15001, UDP, IN}, {15000, TCP, IN}}), oro::errOk);
  ASSERT_EQ(m_ports->SetApply(true), oro::errOk);
  EXPECT_TRUE(TakeCalls().empty());
}

TEST_F(OstraPortsTest, InoutOpensBothSidesAndBothCloseTogether) {
  ASSERT_EQ(m_ports->SetApply(true), oro::errOk);
  ASSERT_EQ(m_ports->SetOstraPorts({{13000, TCP, INOUT}, {13001, UDP, OUT}}), oro::errOk);
  EXPECT_EQ(
      TakeCalls(),
      (std::vector<Texts>{{"+ostra", "in -p tcp -m tcp --dport 13000 -j ACCEPT",
                           "in -p udp -m udp --dport 13001 -m conntrack --ctstate ESTABLISHED -j ACCEPT",
                           "out -p tcp -m tcp --sport 13000 -j ACCEPT", "out -p udp -m udp --sport 13001 -j ACCEPT"}}));
  ASSERT_EQ(m_ports->SetOstraPorts({{13001, UDP, OUT}}), oro::errOk);
  EXPECT_EQ(TakeCalls(), (std::vector<Texts>{{"-", "in -p tcp -m tcp --dport 13000 -j ACCEPT",
                                              "out -p tcp -m tcp --sport 13000 -j ACCEPT"}}));
  ASSERT_EQ(m_ports->SetApply(false), oro::errOk);
  EXPECT_EQ(TakeCalls().size(), 1u);
  EXPECT_TRUE(m_firewall->Held().empty());
  EXPECT_EQ(Stored(), (OstraPortList{{13001, UDP, OUT}}));
}

// The firewall drops every rule equal to one it is told to remove, so a
// rule two entries share goes only with the last of them.
TEST_F(OstraPortsTest, ARuleTwoEntriesShareStaysWhileOneWantsIt) {
  ASSERT_EQ(m_ports->SetApply(true), oro::errOk);
  ASSERT_EQ(m_ports->SetOstraPorts({{15000, TCP, IN}, {15000, TCP, INOUT}}), oro::errOk);
  ASSERT_EQ(m_ports->SetOstraPorts({{15000, TCP, INOUT}}), oro::errOk);
  EXPECT_EQ(m_firewall->HeldTexts(),
            (Texts{"in -p tcp -m tcp --dport 15000 -j ACCEPT", "out -p tcp -m tcp --sport 15000 -j ACCEPT"}));
}

TEST_F(OstraPortsTest, BadEntriesAreRefusedByNameAndChangeNothing) {
  ASSERT_EQ(m_ports->SetOstraPorts({{15000, TCP, IN}}), oro::errOk);
  const std::pair<OstraPort, std::string> cases[] = {
      {{0, TCP, IN}, "entry 2 (0 TCP IN): port outside 1-65535"},
      {{65536, UDP, OUT}, "entry 2 (65536 UDP OUT): port outside 1-65535"},
      {{80, 2, IN}, "entry 2 (80 2 IN): protocol is neither 0 (TCP) nor 1 (UDP)"},
      {{80, TCP, 3}, "entry 2 (80 TCP 3): direction is none of"},
  };
  for (const auto& [bad, message] : cases) {
    EXPECT_EQ(m_ports->SetOstraPorts({{22, TCP, IN}, bad}), oro::errInvalidArgument);
    EXPECT_TRUE(m_tracer->Contains(oro::trace_level::Error, message)) << message;
  }
  EXPECT_EQ(Stored(), (OstraPortList{{15000, TCP, IN}}));
}

TEST_F(OstraPortsTest, RefusalsAreReturnedAndTheOtherHalfIsStillTried) {
  ASSERT_EQ(m_ports->SetOstraPorts({{15000, TCP, IN}}), oro::errOk);
  m_firewall->Refuse({oro::errTimeout});
  EXPECT_EQ(m_ports->SetApply(true), oro::errTimeout);
  EXPECT_TRUE(m_tracer->Contains("(m_dynamicRules->AddRules(add, \"ostra\")),(ORO_SUCCEEDED(_result)) failed"));

  m_firewall->Refuse({oro::errUnexpected, oro::errOk});
  EXPECT_EQ(m_ports->SetOstraPorts({{15001, TCP, IN}}), oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains("(m_dynamicRules->RemoveRules(remove)),(ORO_SUCCEEDED(_result)) failed"));
  EXPECT_EQ(m_firewall->Calls().size(), 3u);
  EXPECT_EQ(Stored(), (OstraPortList{{15001, TCP, IN}}));
}

TEST(OstraPortsConstruction, FailsWithoutTheFirewallsDynamicRules) {
  auto tracer = Make<FakeTracer>();
  auto locator = Make<FakeLocator>();
  locator->Register(tracer);
  oro::RefPtr<firewall::OstraPorts> ports;
  EXPECT_EQ(CreateInstance(ports, locator.Get()), oro::errNotFound);
  EXPECT_TRUE(tracer->Contains(oro::trace_level::Error, "Cannot get IDynamicRules interface"));
}

}  // namespace
}  // namespace qel::test
