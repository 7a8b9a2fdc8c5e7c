#include "firewall/isolation_rule_converter.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/fake_framework.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::test {
namespace {

using namespace firewall;
using network_isolation_data::BuiltinRules;
using network_isolation_data::Endpoint;
using network_isolation_data::EndpointPort;
using network_isolation_data::NetworkExclusionRule3;
using network_isolation_data::NetworkExclusionRules;
using tools::ParseIpAddress;
using tools::PortRange;
using Texts = std::vector<std::string>;

// Each rule as the kernel gets it in the family of its remote address
// (IPv4 without one), after its side and kind; sorted.
Texts KernelForms(const RuleDescriptions& rules) {
  Texts texts;
  for (const auto& rule : rules) {
    const bool v6 = rule.remote && rule.remote->address.version == tools::IpVersion::V6;
    const auto translated =
        TranslateDescription(rule, v6 ? types::IPAddressFamily::IPv6 : types::IPAddressFamily::IPv4, rule.side);
    std::string text = rule.side == Side::Incoming ? "in" : "out";
    text += std::holds_alternative<IsolationAction>(rule.action) ? " isolation " : " other ";
    texts.push_back(text + (translated ? RuleText(*translated) : "(no rule)"));
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

class IsolationRuleConverterTest : public ::testing::Test {
 protected:
  Texts Converted(const NetworkExclusionRules& rules) {
    RuleDescriptions out;
    const oro::result_t r = m_converter.Convert(rules, out);
    if (oro::Failed(r)) return {tracing::FormatResult(r)};
    return KernelForms(out);
  }

  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  IsolationRuleConverter m_converter{tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(m_tracer.Get()))};
};

// An exclusion has no direction: the peer may open the named connection and
// the host may open it to the peer.
TEST_F(IsolationRuleConverterTest, ExclusionLetsItsConnectionsThroughBothWays) {
  EXPECT_EQ(Converted({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = 6,
                        .localPortRange = PortRange{22, 22}, .remotePortRange = PortRange{1024, 65535}}}),
            (Texts{"in isolation -s 10.77.0.2/32 -p tcp -m tcp --sport 1024:65535 --dport 22 -j ACCEPT",
                   "out isolation -d 10.77.0.2/32 -p tcp -m tcp --sport 22 --dport 1024:65535 -j ACCEPT"}));
  EXPECT_EQ(Converted({{.remoteAddress = ParseIpAddress("fd77::2")}}),
            (Texts{"in isolation -s fd77::2/128 -j ACCEPT", "out isolation -d fd77::2/128 -j ACCEPT"}));
  EXPECT_EQ(Converted({{}}), (Texts{"in isolation -j ACCEPT", "out isolation -j ACCEPT"}));
}

// A port match needs a protocol: without one the range holds for TCP and UDP.
TEST_F(IsolationRuleConverterTest, PortRangeWithoutProtocolBecomesTcpAndUdp) {
  for (const std::optional<std::uint8_t> anyProtocol : {std::optional<std::uint8_t>{}, std::optional<std::uint8_t>{0}}) {
    EXPECT_EQ(Converted({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = anyProtocol,
                          .remotePortRange = PortRange{443, 443}}}),
              (Texts{"in isolation -s 10.77.0.2/32 -p tcp -m tcp --sport 443 -j ACCEPT",
                     "in isolation -s 10.77.0.2/32 -p udp -m udp --sport 443 -j ACCEPT",
                     "out isolation -d 10.77.0.2/32 -p tcp -m tcp --dport 443 -j ACCEPT",
                     "out isolation -d 10.77.0.2/32 -p udp -m udp --dport 443 -j ACCEPT"}));
  }
}

TEST_F(IsolationRuleConverterTest, ApplicationPathRuleIsSkippedWithATrace) {
  EXPECT_EQ(Converted({{.applicationPath = "/usr/bin/curl"}, {.protocol = 1}}),
            (Texts{"in isolation -p icmp -j ACCEPT", "out isolation -p icmp -j ACCEPT"}));
  EXPECT_TRUE(m_tracer->Contains(
      tracing::Skipped,
      "NetworkIsolation: exclude by application path '/usr/bin/curl' isn't support, this rule's skipped"));
}

// A rule the firewall would refuse fails the request as a whole, naming why,
// rather than widening it or dropping it unseen.
TEST_F(IsolationRuleConverterTest, UnwritableExclusionFailsTheWholeConversion) {
  const NetworkExclusionRule3 good{.protocol = 6};
  RuleDescriptions out{RuleDescription{}};
  EXPECT_EQ(m_converter.Convert({good, {.protocol = 1, .localPortRange = PortRange{7, 7}}}, out),
            oro::errInvalidArgument);
  EXPECT_EQ(out.size(), 1u);
  EXPECT_TRUE(m_tracer->Contains(tracing::Error, "ports need protocol 6 (TCP) or 17 (UDP), not 1"));
  EXPECT_EQ(m_converter.Convert({good, {.remotePortRange = PortRange{90, 80}}}, out), oro::errInvalidArgument);
  EXPECT_TRUE(m_tracer->Contains(tracing::Error, "ends before it starts"));
}

// Every address of an endpoint with every one of its openings, each on the
// side its direction names; endpoints without addresses give nothing.
TEST_F(IsolationRuleConverterTest, BuiltinEndpointsGiveAddressesTimesPortsOnTheirSides) {
  BuiltinRules builtIn;
  builtIn.pelmServer = Endpoint{.domain = "pelm.example",
                                .addresses = {ParseIpAddress("10.1.0.1"), ParseIpAddress("fd01::1")},
                                .ports = {{.remotePort = 13000, .protocol = 6,
                                           .direction = network_isolation_data::kDirectionOutbound},
                                          {.localPort = 15000, .protocol = 17,
                                           .direction = network_isolation_data::kDirectionInbound}}};
  builtIn.vyxServers = {Endpoint{.domain = "unresolved.example", .ports = {{.remotePort = 443}}},
                        Endpoint{.addresses = {ParseIpAddress("10.2.0.1")},
                                 .ports = {{.remotePort = 443, .direction = network_isolation_data::Direction{9}}}}};
  EXPECT_EQ(KernelForms(m_converter.Convert(builtIn)),
            (Texts{"in isolation -s 10.1.0.1/32 -p udp -m udp --dport 15000 -j ACCEPT",
                   "in isolation -s 10.2.0.1/32 -p tcp -m tcp --sport 443 -j ACCEPT",
                   "in isolation -s 10.2.0.1/32 -p udp -m udp --sport 443 -j ACCEPT",
                   "in isolation -s fd01::1/128 -p udp -m udp --dport 15000 -j ACCEPT",
                   "out isolation -d 10.1.0.1/32 -p tcp -m tcp --dport 13000 -j ACCEPT",
                   "out isolation -d 10.2.0.1/32 -p tcp -m tcp --dport 443 -j ACCEPT",
                   "out isolation -d 10.2.0.1/32 -p udp -m udp --dport 443 -j ACCEPT",
                   "out isolation -d fd01::1/128 -p tcp -m tcp --dport 13000 -j ACCEPT"}));
  for (const char* missing : {"There're no any tamber nodes", "There's no viis server", "There're no any svm servers",
                              "There're no any VYX proxies", "There're no any rusk nodes"}) {
    EXPECT_TRUE(m_tracer->Contains(missing)) << missing;
  }
  EXPECT_FALSE(m_tracer->Contains("There's no pelm server"));
  EXPECT_FALSE(m_tracer->Contains("There're no VYX servers to exclude"));
  EXPECT_EQ(m_tracer->Count(FakeTracer::kAnyLevel, " endpoint="), 3u);
  EXPECT_TRUE(m_tracer->Contains(" endpoint={\"domain\":\"pelm.example\""));
}

TEST_F(IsolationRuleConverterTest, ResolversBecomeOutgoingDnsRules) {
  const auto rules = m_converter.ConvertResolvers(
      "# written by hand\n"
      "search example.org\n"
      "nameserver 10.0.0.53   # the office\n"
      "nameserver\tfe80::53%eth0\n"
      "nameserver 127.0.0.53\n"
      "nameserver ::1\n"
      "nameserver dns.example\n"
      "nameserver 10.0.0.54 10.0.0.55\n"
      "options edns0\n");
  EXPECT_EQ(KernelForms(rules),
            (Texts{"out isolation -d 10.0.0.53/32 -p tcp -m tcp --dport 53 -j ACCEPT",
                   "out isolation -d 10.0.0.53/32 -p udp -m udp --dport 53 -j ACCEPT",
                   "out isolation -d fe80::53/128 -p tcp -m tcp --dport 53 -j ACCEPT",
                   "out isolation -d fe80::53/128 -p udp -m udp --dport 53 -j ACCEPT"}));
  EXPECT_EQ(m_tracer->Count(tracing::Skipped, "Malformed nameserver line ignored"), 2u);
  EXPECT_TRUE(m_tracer->Contains("'nameserver dns.example'"));
}

}  // namespace
}  // namespace qel::test
