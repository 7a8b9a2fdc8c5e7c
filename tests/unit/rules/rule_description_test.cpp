#include "firewall/rule_description.h"

#include <gtest/gtest.h>

#include "oro/exception.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::firewall {
namespace {

using tools::PortRange;

constexpr auto kV4 = types::IPAddressFamily::IPv4;
constexpr auto kV6 = types::IPAddressFamily::IPv6;

// Host bits stay as given: the translation has to clear them itself.
tools::IpNetwork Net(const char* address, unsigned prefixLength) {
  return {tools::ParseIpAddress(address), prefixLength};
}

const RuleDescription kTcpLocalPort22{.protocol = 6, .localPorts = PortRange{22, 22}, .action = AccessAction{}};

// Every condition at once, so that the order of the fragments shows.
RuleDescription EveryCondition() {
  return {.protocol = 6, .remote = Net("10.0.0.0", 8), .local = Net("192.168.1.5", 32),
          .iface = InterfaceMatch{"eth0", true}, .remotePorts = PortRange{1000, 2000}, .localPorts = PortRange{22, 22},
          .classid = 0x100001, .mark = MarkMatch{0x10, 0xff}, .excludeMark = MarkMatch{0x20, std::nullopt},
          .excludeRemoteEndpoint = "endpoints", .excludeRemote = "addresses", .ctstate = ConnState::NewEstablished,
          .ctdir = ConnDirection::Reply, .remoteAddrtype = AddrtypeMatch{AddressType::Local, true},
          .localAddrtype = AddrtypeMatch{AddressType::Local, false}, .ctmark = MarkMatch{0x1, std::nullopt},
          .excludeCtmark = MarkMatch{0x2, 0xf}, .tcpFlags = TcpFlagsMatch{0x17, 0x02, true}, .action = QueueAction{5}};
}

TEST(RuleDescriptionTranslation, ConditionsInFixedOrder) {
  const struct {
    RuleDescription description;
    const char* match;
    Side side = Side::Incoming;
    types::IPAddressFamily::Type family = kV4;
  } cases[] = {
      {kTcpLocalPort22, "-p tcp -m tcp --dport 22"},
      {kTcpLocalPort22, "-p tcp -m tcp --sport 22", Side::Outgoing},
      {{.mark = MarkMatch{0x10, std::nullopt}}, "-m mark --mark 0x10/0x10"},
      {EveryCondition(),
       "-s 10.0.0.0/8 -d 192.168.1.5/32 ! -i eth0 -p tcp -m tcp --sport 1000:2000 --dport 22 "
       "! --tcp-flags FIN,SYN,RST,ACK SYN -m cgroup --cgroup 1048577 -m mark --mark 0x10/0xff "
       "-m mark ! --mark 0x20/0x20 -m set ! --match-set endpoints src,src -m set ! --match-set addresses src "
       "-m conntrack --ctstate NEW,ESTABLISHED --ctdir REPLY -m addrtype --dst-type LOCAL ! --src-type LOCAL "
       "-m connmark --mark 0x1/0x1 -m connmark ! --mark 0x2/0xf"},
      {EveryCondition(),
       "-s 192.168.1.5/32 -d 10.0.0.0/8 ! -o eth0 -p tcp -m tcp --sport 22 --dport 1000:2000 "
       "! --tcp-flags FIN,SYN,RST,ACK SYN -m cgroup --cgroup 1048577 -m mark --mark 0x10/0xff "
       "-m mark ! --mark 0x20/0x20 -m set ! --match-set endpoints dst,dst -m set ! --match-set addresses dst "
       "-m conntrack --ctstate NEW,ESTABLISHED --ctdir REPLY -m addrtype --src-type LOCAL ! --dst-type LOCAL "
       "-m connmark --mark 0x1/0x1 -m connmark ! --mark 0x2/0xf",
       Side::Outgoing},
      {{.remote = Net("::", 0)}, "", Side::Incoming, kV6},
      {{.local = Net("fe80::", 10)}, "-d fe80::/10", Side::Incoming, kV6},
      // Written as the listing prints them back: network part only.
      {{.remote = Net("10.1.2.3", 8)}, "-s 10.0.0.0/8"},
      {{.remote = Net("10.1.2.3", 0)}, ""},
      // Ports for TCP and UDP only, flags for TCP only.
      {{.protocol = 17, .remotePorts = PortRange{53, 53}, .tcpFlags = TcpFlagsMatch{0x3f, 0, false}},
       "-p udp -m udp --sport 53"},
      {{.protocol = 1, .localPorts = PortRange{22, 22}}, "-p icmp"},
      {{.protocol = 6, .tcpFlags = TcpFlagsMatch{0x3f, 0, false}},
       "-p tcp -m tcp --tcp-flags FIN,SYN,RST,PSH,ACK,URG NONE"},
      // As the listing prints them back: protocols by the tools' names, no
      // range of every port, no mask of all ones.
      {{.protocol = 132}, "-p sctp"},
      {{.protocol = 255}, "-p 255"},
      {{.protocol = 6, .remotePorts = PortRange{0, 65535}, .localPorts = PortRange{0, 65535}}, "-p tcp"},
      {{.protocol = 17, .remotePorts = PortRange{0, 1023}, .localPorts = PortRange{0, 65535}},
       "-p udp -m udp --sport 0:1023"},
      {{.mark = MarkMatch{0x10, 0xffffffff}, .ctmark = MarkMatch{0xffffffff, std::nullopt}},
       "-m mark --mark 0x10 -m connmark --mark 0xffffffff"},
      {{.ctdir = ConnDirection::Original}, "-m conntrack --ctdir ORIGINAL"},
  };
  for (const auto& c : cases) {
    const auto rule = TranslateDescription(c.description, c.family, c.side);
    ASSERT_TRUE(rule) << c.match;
    EXPECT_EQ(JoinTokens(rule->match), c.match);
  }
}

TEST(RuleDescriptionTranslation, TargetPerKind) {
  const struct {
    RuleAction action;
    const char* target;
    types::IPAddressFamily::Type family = kV4;
  } cases[] = {
      {RawAction{"MARK", {"--set-mark", "1"}}, "MARK --set-mark 1"},
      {AccessAction{1}, "DROP"},
      {AccessAction{2}, "RETURN"},
      {AccessAction{7}, "ACCEPT"},
      {QueueAction{5}, "NFQUEUE --queue-num 5"},
      {MarkAction{0x10}, "MARK --set-xmark 0x10/0x10"},
      {DivertAction{8080, 0x2}, "TPROXY --on-port 8080 --on-ip 127.0.0.1 --tproxy-mark 0x2/0x2"},
      {DivertAction{8080, 0x2}, "TPROXY --on-port 8080 --on-ip ::ffff:127.0.0.1 --tproxy-mark 0x2/0x2", kV6},
      {DivertAction{8080, std::nullopt}, "TPROXY --on-port 8080 --on-ip 127.0.0.1 --tproxy-mark 0x0/0x0"},
      {NatAction{1}, "MASQUERADE"},
      {NatAction{0}, "ACCEPT"},
      {ConnmarkAction{0x1, 0xff}, "CONNMARK --set-xmark 0x1/0xff"},
      {ConnmarkSaveAction{0xff, 0xffffffff}, "CONNMARK --save-mark --nfmask 0xff --ctmask 0xffffffff"},
      {ConnmarkRestoreAction{0xf, 0xff}, "CONNMARK --restore-mark --nfmask 0xf --ctmask 0xff"},
      {NflogAction{10001, "Allow", 3}, "NFLOG --nflog-prefix Allow --nflog-group 10001 --nflog-threshold 3"},
      {NflogAction{0, std::nullopt, 0}, "NFLOG"},  // only the given parts
      {IsolationAction{1}, "DROP"},
      {BypassAction{}, "RETURN"},
  };
  for (const auto& [action, target, family] : cases) {
    const auto rule = TranslateDescription({.action = action}, family, Side::Incoming);
    ASSERT_TRUE(rule) << target;
    EXPECT_EQ(JoinTokens(rule->target), target);
  }
}

TEST(RuleDescriptionTranslation, EstablishedFormAppendsConnectionStateAndOtherFamiliesYieldNoRule) {
  const auto withDirection = TranslateEstablished(kTcpLocalPort22, kV4, Side::Incoming, ConnDirection::Original);
  ASSERT_TRUE(withDirection);
  EXPECT_EQ(JoinTokens(withDirection->match),
            "-p tcp -m tcp --dport 22 -m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL");
  EXPECT_EQ(withDirection->target, Tokens{"ACCEPT"});
  const auto anyDirection = TranslateEstablished(RuleDescription{}, kV6, Side::Outgoing, {});
  ASSERT_TRUE(anyDirection);
  EXPECT_EQ(JoinTokens(anyDirection->match), "-m conntrack --ctstate ESTABLISHED");

  const RuleDescription remoteV6{.remote = Net("fe80::1", 128)};
  EXPECT_FALSE(TranslateDescription(remoteV6, kV4, Side::Incoming));
  EXPECT_TRUE(TranslateDescription(remoteV6, kV6, Side::Incoming));
  const RuleDescription localV4{.local = Net("0.0.0.0", 0)};  // even the all-zero address keeps its family
  EXPECT_FALSE(TranslateDescription(localV4, kV6, Side::Outgoing));
  EXPECT_FALSE(TranslateEstablished(localV4, kV6, Side::Outgoing, ConnDirection::Reply));

  // Protocols that never match in a family.
  for (const std::uint8_t ipv6Only : {58}) {
    EXPECT_FALSE(TranslateDescription({.protocol = ipv6Only}, kV4, Side::Incoming));
    EXPECT_TRUE(TranslateDescription({.protocol = ipv6Only}, kV6, Side::Incoming));
  }
  for (const std::uint8_t ipv4Only : {1, 43, 44, 51, 60}) {
    EXPECT_TRUE(TranslateDescription({.protocol = ipv4Only}, kV4, Side::Incoming)) << int{ipv4Only};
    EXPECT_FALSE(TranslateDescription({.protocol = ipv4Only}, kV6, Side::Incoming)) << int{ipv4Only};
  }
}

TEST(RuleDescriptionText, PrintsEveryPresentFieldAndTheKindFields) {
  const std::pair<RuleDescription, const char*> cases[] = {
      {EveryCondition(),
       "queue  proto 6 remote 10.0.0.0/8 local 192.168.1.5/32 ! iface eth0 remotePorts 1000:2000 "
       "localPorts 22 classid 0x100001 mark 0x10/0xff ! mark 0x20 excludeRemoteEndpoint endpoints "
       "excludeRemote addresses ctstate NEW,ESTABLISHED ctdir REPLY remoteAddrtype ! LOCAL "
       "localAddrtype LOCAL ctmark 0x1 ! ctmark 0x2 ctmask 0xf ! tcp-flags 0x17/0x2 queue 5"},
      {{.action = RawAction{"MARK", {"--set-mark", "1"}}},
       "raw  proto any remote any local any target MARK -- --set-mark 1"},
      {{.action = DivertAction{8080, 0x2}}, "divert  proto any remote any local any divertToPort 8080 assignMark 0x2"},
      {{.action = NflogAction{3, "Block", 0}},
       "nflog  proto any remote any local any nflogGroup 3 nflogPrefix Block nflogThreshold 0"},
      {{.action = BypassAction{}}, "bypass  proto any remote any local any"},
  };
  for (const auto& [description, text] : cases) EXPECT_EQ(DescriptionText(description), text);
}

TEST(RuleDescriptionKinds, DecodesKindIndex) {
  for (std::size_t index = 0; index < kActionKindCount; ++index) EXPECT_EQ(MakeAction(index).index(), index);
  EXPECT_STREQ(KindWord(5), "nat-action");
  EXPECT_THROW(KindWord(kActionKindCount), oro::Exception);
  EXPECT_THROW(MakeAction(kActionKindCount), oro::Exception);
}

TEST(RuleDescriptionProblems, RefusesWhatTheKernelWouldRefuseOrPrintDifferently) {
  EXPECT_EQ(DescriptionProblem(kTcpLocalPort22), std::nullopt);
  EXPECT_EQ(DescriptionProblem(EveryCondition()), std::nullopt);
  const RuleDescription fine[] = {
      {.protocol = 17, .action = DivertAction{8080, std::nullopt}},
      {.side = Side::Outgoing, .action = NatAction{1}},
      {.action = NatAction{0}},
      {.side = Side::Outgoing, .classid = 1, .action = MarkAction{1}},
      {.classid = 1, .action = AccessAction{}},
      {.iface = InterfaceMatch{"abcdefghijklmno", false}, .action = NflogAction{5, std::string(63, 'p'), 0}},
  };
  for (const auto& description : fine) EXPECT_EQ(DescriptionProblem(description), std::nullopt) << description;
  const std::pair<RuleDescription, const char*> bad[] = {
      {{.protocol = 6, .localPorts = PortRange{80, 79}}, "ends before it starts"},
      {{.localPorts = PortRange{80, 80}}, "ports need protocol"},
      {{.protocol = 17, .tcpFlags = TcpFlagsMatch{1, 1, false}}, "tcp-flags need"},
      {{.protocol = 6, .tcpFlags = TcpFlagsMatch{0, 0, true}}, "at least one flag"},
      {{.protocol = 6, .tcpFlags = TcpFlagsMatch{0x42, 0x02, false}}, "only use FIN"},
      {{.action = NflogAction{5, "pre fix", 0}}, "nflog prefix"},
      {{.action = NflogAction{5, std::string(64, 'p'), 0}}, "longer than 63"},
      {{.action = RawAction{"", {}}}, "raw target"},
      {{.iface = InterfaceMatch{"eth 0", false}}, "interface name"},
      {{.iface = InterfaceMatch{"abcdefghijklmnop", false}}, "longer than 15"},
      // Where the kind stands, the kernel would refuse these.
      {{.side = Side::Outgoing, .protocol = 6, .action = DivertAction{8080, std::nullopt}}, "incoming"},
      {{.protocol = 1, .action = DivertAction{8080, std::nullopt}}, "divert needs protocol"},
      {{.action = NatAction{1}}, "outgoing"},
      {{.classid = 1, .action = MarkAction{1}}, "classid"},
      {{.classid = 1, .action = NatAction{0}}, "classid"},
  };
  for (const auto& [description, reason] : bad) {
    const auto problem = DescriptionProblem(description);
    ASSERT_TRUE(problem.has_value()) << reason;
    EXPECT_NE(problem->find(reason), std::string::npos) << *problem;
  }
}

}  // namespace
}  // namespace qel::firewall
