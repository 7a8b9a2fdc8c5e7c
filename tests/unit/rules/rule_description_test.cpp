#include "firewall/rule_description.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "oro/exception.h"

namespace qel::firewall {
namespace {

using types::IPAddressFamily;

Network Net(const char* address, std::uint8_t prefixLength) {
  Network network;
  network.prefixLength = prefixLength;
  if (inet_pton(AF_INET, address, network.address.data()) == 1) return network;
  network.family = IPAddressFamily::IPv6;
  EXPECT_EQ(inet_pton(AF_INET6, address, network.address.data()), 1) << address;
  return network;
}

RuleDescription TcpLocalPort22() {
  RuleDescription d;
  d.protocol = 6;
  d.localPorts = PortRange{22, 22};
  d.action = AccessAction{};
  return d;
}

// Every condition at once, so that the order of the fragments shows.
RuleDescription EveryCondition() {
  RuleDescription d;
  d.protocol = 6;
  d.remote = Net("10.0.0.0", 8);
  d.local = Net("192.168.1.5", 32);
  d.iface = InterfaceMatch{"eth0", true};
  d.remotePorts = PortRange{1000, 2000};
  d.localPorts = PortRange{22, 22};
  d.classid = 0x100001;
  d.mark = MarkMatch{0x10, 0xff};
  d.excludeMark = MarkMatch{0x20, std::nullopt};
  d.excludeRemoteEndpoint = "endpoints";
  d.excludeRemote = "addresses";
  d.ctstate = ConnState::NewEstablished;
  d.ctdir = ConnDirection::Reply;
  d.remoteAddrtype = AddrtypeMatch{AddressType::Local, true};
  d.localAddrtype = AddrtypeMatch{AddressType::Local, false};
  d.ctmark = MarkMatch{0x1, std::nullopt};
  d.excludeCtmark = MarkMatch{0x2, 0xf};
  d.tcpFlags = TcpFlagsMatch{0x17, 0x02, true};
  d.action = QueueAction{5};
  return d;
}

RuleDescription With(auto change) {
  RuleDescription d;
  change(d);
  return d;
}

TEST(RuleDescriptionTranslation, ConditionsInFixedOrder) {
  constexpr auto v4 = IPAddressFamily::IPv4;
  const struct {
    RuleDescription description;
    IPAddressFamily::Type family;
    Side side;
    const char* match;
  } cases[] = {
      {TcpLocalPort22(), v4, Side::Incoming, "-p tcp -m tcp --dport 22"},
      {TcpLocalPort22(), v4, Side::Outgoing, "-p tcp -m tcp --sport 22"},
      {With([](auto& d) { d.mark = MarkMatch{0x10, std::nullopt}; }), v4, Side::Incoming,
       "-m mark --mark 0x10/0x10"},
      {EveryCondition(), v4, Side::Incoming,
       "-s 10.0.0.0/8 -d 192.168.1.5/32 ! -i eth0 -p tcp -m tcp --sport 1000:2000 --dport 22 "
       "! --tcp-flags FIN,SYN,RST,ACK SYN -m cgroup --cgroup 1048577 -m mark --mark 0x10/0xff "
       "-m mark ! --mark 0x20/0x20 -m set ! --match-set endpoints src,src -m set ! --match-set addresses src "
       "-m conntrack --ctstate NEW,ESTABLISHED --ctdir REPLY -m addrtype --dst-type LOCAL ! --src-type LOCAL "
       "-m connmark --mark 0x1/0x1 -m connmark ! --mark 0x2/0xf"},
      {EveryCondition(), v4, Side::Outgoing,
       "-s 192.168.1.5/32 -d 10.0.0.0/8 ! -o eth0 -p tcp -m tcp --sport 22 --dport 1000:2000 "
       "! --tcp-flags FIN,SYN,RST,ACK SYN -m cgroup --cgroup 1048577 -m mark --mark 0x10/0xff "
       "-m mark ! --mark 0x20/0x20 -m set ! --match-set endpoints dst,dst -m set ! --match-set addresses dst "
       "-m conntrack --ctstate NEW,ESTABLISHED --ctdir REPLY -m addrtype --src-type LOCAL ! --dst-type LOCAL "
       "-m connmark --mark 0x1/0x1 -m connmark ! --mark 0x2/0xf"},
      {With([](auto& d) { d.remote = Net("::", 0); }), IPAddressFamily::IPv6, Side::Incoming, ""},
      {With([](auto& d) { d.local = Net("fe80::", 10); }), IPAddressFamily::IPv6, Side::Incoming, "-d fe80::/10"},
      // Written as the listing prints them back: network part only.
      {With([](auto& d) { d.remote = Net("10.1.2.3", 8); }), IPAddressFamily::IPv4, Side::Incoming, "-s 10.0.0.0/8"},
      {With([](auto& d) { d.remote = Net("10.1.2.3", 0); }), IPAddressFamily::IPv4, Side::Incoming, ""},
      {With([](auto& d) {
         d.protocol = 17;
         d.remotePorts = PortRange{53, 53};
         d.tcpFlags = TcpFlagsMatch{0x3f, 0, false};  // TCP only
       }),
       v4, Side::Incoming, "-p udp -m udp --sport 53"},
      {With([](auto& d) {
         d.protocol = 1;
         d.localPorts = PortRange{22, 22};  // TCP and UDP only
       }),
       v4, Side::Incoming, "-p icmp"},
      {With([](auto& d) {
         d.protocol = 6;
         d.tcpFlags = TcpFlagsMatch{0x3f, 0, false};
       }),
       v4, Side::Incoming, "-p tcp -m tcp --tcp-flags FIN,SYN,RST,PSH,ACK,URG NONE"},
      {With([](auto& d) { d.protocol = 132; }), v4, Side::Incoming, "-p 132"},
      {With([](auto& d) { d.ctdir = ConnDirection::Original; }), v4, Side::Incoming,
       "-m conntrack --ctdir ORIGINAL"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.match);
    const auto rule = TranslateDescription(c.description, c.family, c.side);
    ASSERT_TRUE(rule);
    EXPECT_EQ(JoinTokens(rule->match), c.match);
  }
}

TEST(RuleDescriptionTranslation, TargetPerKind) {
  constexpr auto v4 = IPAddressFamily::IPv4;
  const struct {
    RuleAction action;
    IPAddressFamily::Type family;
    const char* target;
  } cases[] = {
      {RawAction{"MARK", {"--set-mark", "1"}}, v4, "MARK --set-mark 1"},
      {AccessAction{1}, v4, "DROP"},
      {AccessAction{2}, v4, "RETURN"},
      {AccessAction{7}, v4, "ACCEPT"},
      {QueueAction{5}, v4, "NFQUEUE --queue-num 5"},
      {MarkAction{0x10}, v4, "MARK --set-xmark 0x10/0x10"},
      {DivertAction{8080, 0x2}, v4, "TPROXY --on-port 8080 --on-ip 127.0.0.1 --tproxy-mark 0x2/0x2"},
      {DivertAction{8080, 0x2}, IPAddressFamily::IPv6,
       "TPROXY --on-port 8080 --on-ip ::ffff:127.0.0.1 --tproxy-mark 0x2/0x2"},
      {DivertAction{8080, std::nullopt}, v4, "TPROXY --on-port 8080 --on-ip 127.0.0.1 --tproxy-mark 0x0/0x0"},
      {NatAction{1}, v4, "MASQUERADE"},
      {NatAction{0}, v4, "ACCEPT"},
      {ConnmarkAction{0x1, 0xff}, v4, "CONNMARK --set-xmark 0x1/0xff"},
      {ConnmarkSaveAction{0xff, 0xffffffff}, v4, "CONNMARK --save-mark --nfmask 0xff --ctmask 0xffffffff"},
      {ConnmarkRestoreAction{0xf, 0xff}, v4, "CONNMARK --restore-mark --nfmask 0xf --ctmask 0xff"},
      {NflogAction{10001, "Allow", 3}, v4, "NFLOG --nflog-prefix Allow --nflog-group 10001 --nflog-threshold 3"},
      {NflogAction{7, std::nullopt, 0}, v4, "NFLOG --nflog-group 7"},
      {IsolationAction{1}, v4, "DROP"},
      {BypassAction{}, v4, "RETURN"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    RuleDescription d;
    d.action = c.action;
    const auto rule = TranslateDescription(d, c.family, Side::Incoming);
    ASSERT_TRUE(rule);
    EXPECT_EQ(JoinTokens(rule->target), c.target);
  }
}

TEST(RuleDescriptionTranslation, NetworkOfOtherFamilyYieldsNoRule) {
  RuleDescription remoteV6;
  remoteV6.remote = Net("fe80::1", 128);
  EXPECT_FALSE(TranslateDescription(remoteV6, IPAddressFamily::IPv4, Side::Incoming));
  EXPECT_TRUE(TranslateDescription(remoteV6, IPAddressFamily::IPv6, Side::Incoming));

  RuleDescription localV4;
  localV4.local = Net("0.0.0.0", 0);  // even the all-zero address keeps its family
  EXPECT_FALSE(TranslateDescription(localV4, IPAddressFamily::IPv6, Side::Outgoing));
  EXPECT_FALSE(TranslateEstablished(localV4, IPAddressFamily::IPv6, Side::Outgoing, ConnDirection::Reply));
}

TEST(RuleDescriptionTranslation, EstablishedFormAppendsConnectionState) {
  const auto withDirection =
      TranslateEstablished(TcpLocalPort22(), IPAddressFamily::IPv4, Side::Incoming, ConnDirection::Original);
  ASSERT_TRUE(withDirection);
  EXPECT_EQ(JoinTokens(withDirection->match),
            "-p tcp -m tcp --dport 22 -m conntrack --ctstate ESTABLISHED --ctdir ORIGINAL");
  EXPECT_EQ(withDirection->target, Tokens{"ACCEPT"});

  const auto anyDirection = TranslateEstablished(RuleDescription{}, IPAddressFamily::IPv6, Side::Outgoing, {});
  ASSERT_TRUE(anyDirection);
  EXPECT_EQ(JoinTokens(anyDirection->match), "-m conntrack --ctstate ESTABLISHED");
}

TEST(RuleDescriptionText, PrintsEveryPresentField) {
  EXPECT_EQ(DescriptionText(EveryCondition()),
            "queue  proto 6 remote 10.0.0.0/8 local 192.168.1.5/32 ! iface eth0 remotePorts 1000:2000 "
            "localPorts 22 classid 0x100001 mark 0x10/0xff ! mark 0x20 excludeRemoteEndpoint endpoints "
            "excludeRemote addresses ctstate NEW,ESTABLISHED ctdir REPLY remoteAddrtype ! LOCAL "
            "localAddrtype LOCAL ctmark 0x1 ! ctmark 0x2 ctmask 0xf ! tcp-flags 0x17/0x2 queue 5");
}

TEST(RuleDescriptionText, PrintsKindFields) {
  const std::pair<RuleAction, const char*> cases[] = {
      {RawAction{"MARK", {"--set-mark", "1"}}, "raw  proto any remote any local any target MARK -- --set-mark 1"},
      {DivertAction{8080, 0x2}, "divert  proto any remote any local any divertToPort 8080 assignMark 0x2"},
      {NflogAction{3, "Block", 0},
       "nflog  proto any remote any local any nflogGroup 3 nflogPrefix Block nflogThreshold 0"},
      {BypassAction{}, "bypass  proto any remote any local any"},
  };
  for (const auto& [action, text] : cases) {
    RuleDescription d;
    d.action = action;
    EXPECT_EQ(DescriptionText(d), text);
  }
}

TEST(RuleDescriptionKinds, DecodesKindIndex) {
  for (std::size_t index = 0; index < kActionKindCount; ++index) EXPECT_EQ(MakeAction(index).index(), index);
  EXPECT_STREQ(KindWord(5), "nat-action");
  EXPECT_THROW(KindWord(kActionKindCount), oro::Exception);
  try {
    MakeAction(kActionKindCount);
    ADD_FAILURE() << "no exception";
  } catch (const oro::Exception& e) {
    EXPECT_STREQ(e.what(), "Unexpected index");
  }
}

TEST(RuleDescriptionProblems, RefusesWhatTheKernelWouldRefuseOrPrintDifferently) {
  EXPECT_EQ(DescriptionProblem(TcpLocalPort22()), std::nullopt);
  EXPECT_EQ(DescriptionProblem(EveryCondition()), std::nullopt);
  const std::pair<RuleDescription, const char*> bad[] = {
      {With([](auto& d) { d.localPorts = PortRange{80, 79}; d.protocol = 6; }), "ends before it starts"},
      {With([](auto& d) { d.localPorts = PortRange{80, 80}; }), "ports need protocol"},
      {With([](auto& d) { d.tcpFlags = TcpFlagsMatch{1, 1, false}; d.protocol = 17; }), "tcp-flags need"},
      {With([](auto& d) { d.action = NflogAction{5, "pre fix", 0}; }), "nflog prefix"},
      {With([](auto& d) { d.action = RawAction{"", {}}; }), "raw target"},
      {With([](auto& d) { d.iface = InterfaceMatch{"eth 0", false}; }), "interface name"},
      {With([](auto& d) { d.action = DivertAction{8080, std::nullopt}; d.side = Side::Outgoing; }), "incoming"},
  };
  for (const auto& [description, reason] : bad) {
    const auto problem = DescriptionProblem(description);
    ASSERT_TRUE(problem.has_value()) << reason;
    EXPECT_NE(problem->find(reason), std::string::npos) << *problem;
  }
}

}  // namespace
}  // namespace qel::firewall
