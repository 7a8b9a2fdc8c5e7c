// Each kind of dynamic rule does to real traffic what it says, with each
// iptables backend: the service runs in one network namespace ("host"),
// joined by a veth pair to another ("peer"), and the cases send TCP
// connections between them. Blocked connections show as no answer within
// a short wait.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "support/netns.h"
#include "support/service_rig.h"
#include "support/tcp_sockets.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::test {
namespace {

using namespace firewall;
using tools::PortRange;

constexpr const char* kHost = PeerNamespace::kHost4;
constexpr const char* kPeer = PeerNamespace::kPeer4;

std::string Result(oro::result_t result) { return tracing::FormatResult(result); }
const std::string kOk = Result(oro::errOk);

RuleDescription TcpTo(std::uint16_t port, RuleAction action, Side side = Side::Incoming) {
  RuleDescription description{.side = side, .protocol = 6, .action = std::move(action)};
  (side == Side::Incoming ? description.localPorts : description.remotePorts) = PortRange{port, port};
  return description;
}

// The administrator's defaults block every incoming connection, replies
// of the host's own connections pass.
settings::FirewallSettings BlockIncoming() {
  settings::FirewallSettings settings;
  settings.defaultIncomingAction = settings::PacketRuleAction::Block;
  return settings;
}

std::string Enforce(ServiceRig& rig, const settings::FirewallSettings& settings) {
  const std::string result = Result(rig.service->SetPacketRules(settings));
  return result + " " + Result(rig.service->SetEnforce(true));
}

std::string Count(std::uint64_t packets) { return packets == 0 ? "none" : "some"; }

class RuleKindsTrafficNsTest : public testing::TestWithParam<IptablesBackend> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: every case creates its own network and mount namespaces";
  }

  // Runs `body` in a fresh host namespace with a peer joined to it.
  std::string Run(const std::function<std::string(ServiceRig&, const PeerNamespace&)>& body) {
    const ChildRun run = RunInNetworkNamespace(GetParam(), [&] {
      const PeerNamespace peer;
      ServiceRig rig;
      return body(rig, peer);
    });
    return run.completed ? run.output : "namespace child failed: " + run.output;
  }
};

// An accepted port is reachable while the defaults block everything else,
// its replies passing the defaults on the way out.
TEST_P(RuleKindsTrafficNsTest, AccessOpensOnlyItsPort) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    TcpListener open(kHost, 5001), closed(kHost, 5002);
    std::string text = Enforce(rig, BlockIncoming()) + " ";
    text += Result(rig.service->AddRules({TcpTo(5001, AccessAction{0})}, "web")) + "\n";
    text += "5001 " + peer.Within([] { return Reach(kHost, 5001); });
    return text + ", 5002 " + peer.Within([] { return Reach(kHost, 5002); });
  });
  EXPECT_EQ(output, kOk + " " + kOk + " " + kOk + "\n5001 connected, 5002 blocked");
}

// With no program bound to the queue, the kernel drops what goes there.
TEST_P(RuleKindsTrafficNsTest, QueueHandsPacketsOverAndNobodyTakesThem) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    TcpListener listener(kHost, 5003);
    const RuleDescription queue = TcpTo(5003, QueueAction{7});
    std::string text = Result(rig.service->AddRules({queue}, "inspect"));
    text += " queued " + peer.Within([] { return Reach(kHost, 5003); });
    text += ", " + Result(rig.service->RemoveRules({queue}));
    return text + " not queued " + peer.Within([] { return Reach(kHost, 5003); });
  });
  EXPECT_EQ(output, kOk + " queued blocked, " + kOk + " not queued connected");
}

// The marks show to the administrator's mark matches in the filter table,
// on both sides.
TEST_P(RuleKindsTrafficNsTest, MarkIsSeenByMarkMatches) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    TcpListener listener(kHost, 5004);
    RunToolOk({"iptables", "-A", "INPUT", "-m", "mark", "--mark", "0x40/0x40"});
    RunToolOk({"iptables", "-A", "OUTPUT", "-m", "mark", "--mark", "0x80/0x80"});
    const auto marked = [] {
      return Count(PacketsOf("iptables", "filter", "INPUT", "0x40")) + " in, " +
             Count(PacketsOf("iptables", "filter", "OUTPUT", "0x80")) + " out";
    };
    std::string text = Result(rig.service->AddRules(
        {TcpTo(5004, MarkAction{0x40}), {.side = Side::Outgoing, .protocol = 6, .localPorts = PortRange{5004, 5004},
                                         .action = MarkAction{0x80}}},
        "marks"));
    text += " before: " + marked();
    text += ", " + peer.Within([] { return Reach(kHost, 5004); });
    return text + ": " + marked();
  });
  EXPECT_EQ(output, kOk + " before: none in, none out, connected: some in, some out");
}

// A connection to a port nothing listens on reaches the transparent
// listener of the divert's port, which sees the address it was made to;
// the host routes the divert's mark to itself, as a divert needs.
TEST_P(RuleKindsTrafficNsTest, DivertHandsConnectionsToTheLocalListener) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    for (const char* ip : {"-4", "-6"}) {
      RunToolOk({"ip", ip, "rule", "add", "fwmark", "0x1", "lookup", "100"});
      RunToolOk({"ip", ip, "route", "add", "local", std::string(ip) == "-4" ? "0.0.0.0/0" : "::/0", "dev", "lo",
                 "table", "100"});
    }
    std::string text = Result(rig.service->AddRules({TcpTo(8080, DivertAction{9999, 0x1})}, "proxy")) + "\n";
    // One family at a time: both listeners would take the same port.
    const auto divertedTo = [&](const char* listenOn, const char* address) {
      TcpListener listener(listenOn, 9999, true);
      std::string outcome = address + std::string(": ") + peer.Within([&] { return Reach(address, 8080); });
      const auto accepted = listener.Accept();
      return outcome + (accepted ? ", taken as " + accepted->local + "\n" : ", not taken\n");
    };
    text += divertedTo("127.0.0.1", PeerNamespace::kHost4);
    return text + divertedTo("::ffff:127.0.0.1", PeerNamespace::kHost6);
  });
  EXPECT_EQ(output, kOk + "\n10.77.0.1: connected, taken as 10.77.0.1:8080\nfd77::1: connected, taken as [fd77::1]:8080\n");
}

// Connections from a second address of the host leave with the outgoing
// interface's address while the masquerade stands.
TEST_P(RuleKindsTrafficNsTest, MasqueradeShowsThePeerTheInterfaceAddress) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    RunToolOk({"ip", "addr", "add", "10.77.0.5/24", "dev", "veth-h"});
    TcpListener listener = peer.Within([] { return TcpListener(kPeer, 6000); });
    const auto seenFrom = [&] {
      if (!TcpConnects(kPeer, 6000, "10.77.0.5")) return std::string("blocked");
      const auto accepted = listener.Accept();
      return accepted ? accepted->remote.substr(0, accepted->remote.find(':')) : "not taken";
    };
    const RuleDescription masquerade = TcpTo(6000, NatAction{1}, Side::Outgoing);
    std::string text = Result(rig.service->AddRules({masquerade}, "nat"));
    text += " seen from " + seenFrom();
    text += ", " + Result(rig.service->RemoveRules({masquerade}));
    return text + " seen from " + seenFrom();
  });
  EXPECT_EQ(output, kOk + " seen from 10.77.0.1, " + kOk + " seen from 10.77.0.5");
}

// The logging rule counts what it logged, and lets it go on.
TEST_P(RuleKindsTrafficNsTest, NflogLogsAndLetsThrough) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    TcpListener listener(kHost, 5005);
    const auto logged = [] { return Count(PacketsOf("iptables", "filter", "vorn_input", "NFLOG")); };
    std::string text = Result(rig.service->AddRules({TcpTo(5005, NflogAction{33, "seen", 0})}, "log"));
    text += " logged " + logged();
    text += ", " + peer.Within([] { return Reach(kHost, 5005); });
    return text + ", logged " + logged();
  });
  EXPECT_EQ(output, kOk + " logged none, connected, logged some");
}

// A bypass lets through what the administrator's rules block, replies too.
TEST_P(RuleKindsTrafficNsTest, BypassLetsThroughWhatTheAdministratorBlocks) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    TcpListener listener(kHost, 5006);
    std::string text = Enforce(rig, BlockIncoming());
    text += " blocked: " + peer.Within([] { return Reach(kHost, 5006); });
    text += ", " + Result(rig.service->AddRules({TcpTo(5006, BypassAction{})}, "bypass"));
    return text + " bypassed: " + peer.Within([] { return Reach(kHost, 5006); });
  });
  EXPECT_EQ(output, kOk + " " + kOk + " blocked: blocked, " + kOk + " bypassed: connected");
}

// Isolation lets only its exception through, whatever the administrator
// allows: not another port, not the host's own connections.
TEST_P(RuleKindsTrafficNsTest, IsolationPassesOnlyTheException) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    TcpListener exception(kHost, 5007), other(kHost, 5008);
    TcpListener peerListener = peer.Within([] { return TcpListener(kPeer, 6001); });
    settings::FirewallSettings allowAll;
    allowAll.defaultIncomingAction = settings::PacketRuleAction::Allow;
    std::string text = Enforce(rig, allowAll) + " ";
    text += Result(rig.service->AddRules({TcpTo(5007, IsolationAction{0})}, "ni_0x1")) + "\n";
    text += "5007 " + peer.Within([] { return Reach(kHost, 5007); });
    text += ", 5008 " + peer.Within([] { return Reach(kHost, 5008); });
    return text + ", out " + Reach(kPeer, 6001);
  });
  EXPECT_EQ(output, kOk + " " + kOk + " " + kOk + "\n5007 connected, 5008 blocked, out blocked");
}

// An isolation exception for TCP with `address` on `side`, to its port
// there: the host's port when incoming, the remote one when outgoing.
RuleDescription ExceptionFor(const char* address, std::uint16_t port, Side side) {
  RuleDescription description = TcpTo(port, IsolationAction{0}, side);
  description.remote = tools::ParseIpNetwork(address);
  return description;
}

// The first neighbour solicitation on a link just brought up may go
// unanswered, and the next comes a second later: one answered ping makes
// the link ready before anything is measured.
void WaitForIpv6Path(const std::string& to) { RunToolOk({"ping", "-6", "-c1", "-W3", to}); }

// The neighbours forget each other, so that the next packet to one needs
// neighbour discovery first.
void ForgetNeighbours(const PeerNamespace& peer) {
  RunToolOk({"ip", "-6", "neigh", "flush", "all"});
  peer.Within([] { RunToolOk({"ip", "-6", "neigh", "flush", "all"}); });
}

// The isolated host still finds its IPv6 neighbours, and they find it:
// each exception's connection needs neighbour discovery first, one way and
// the other, and what no exception names stays cut off.
TEST_P(RuleKindsTrafficNsTest, IsolatedHostKeepsNeighbourDiscovery) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    WaitForIpv6Path(PeerNamespace::kPeer6);
    TcpListener hostListener(PeerNamespace::kHost6, 5009);
    TcpListener named = peer.Within([] { return TcpListener(PeerNamespace::kPeer6, 6003); });
    TcpListener other = peer.Within([] { return TcpListener(PeerNamespace::kPeer6, 6004); });
    std::string text = Result(rig.service->AddRules({ExceptionFor(PeerNamespace::kPeer6, 6003, Side::Outgoing),
                                                     ExceptionFor(PeerNamespace::kPeer6, 5009, Side::Incoming)},
                                                    "ni_0x1"));
    ForgetNeighbours(peer);
    text += " out " + Reach(PeerNamespace::kPeer6, 6003);
    ForgetNeighbours(peer);
    text += ", in " + peer.Within([] { return Reach(PeerNamespace::kHost6, 5009); });
    return text + ", other " + Reach(PeerNamespace::kPeer6, 6004);
  });
  EXPECT_EQ(output, kOk + " out connected, in connected, other blocked");
}

void WriteSetting(const std::string& path, const std::string& value) {
  std::ofstream file(path);
  if (!(file << value << std::flush)) throw std::runtime_error("cannot write " + path);
}

// `third` reaches the peer through the host, which routes between them in
// both families. The settings are those of the test's own namespace.
void RouteThrough(const PeerNamespace& peer, const PeerNamespace& third) {
  WriteSetting("/proc/sys/net/ipv4/ip_forward", "1");
  WriteSetting("/proc/sys/net/ipv6/conf/all/forwarding", "1");
  peer.Within([] {
    RunToolOk({"ip", "route", "add", "10.78.0.0/24", "via", PeerNamespace::kHost4});
    RunToolOk({"ip", "-6", "route", "add", "fd78::/64", "via", PeerNamespace::kHost6});
  });
  third.Within([] {
    RunToolOk({"ip", "route", "add", "default", "via", "10.78.0.1"});
    RunToolOk({"ip", "-6", "route", "add", "default", "via", "fd78::1"});
  });
}

// `third` reaches the peer through a bridge of the host's that joins both
// links, the host's addresses on the bridge, and bridged traffic passes the
// forward hook. Returns why not when the namespace has no bridge switches
// of its own.
std::string BridgeThrough(ino_t machineSwitch) {
  const std::string switchFile = "/proc/sys/net/bridge/bridge-nf-call-iptables";
  struct stat status {};
  if (::stat(switchFile.c_str(), &status) != 0) return "br_netfilter is not loaded";
  if (status.st_ino == machineSwitch) return "the bridge netfilter switches are not per network namespace";
  WriteSetting(switchFile, "1");
  WriteSetting("/proc/sys/net/bridge/bridge-nf-call-ip6tables", "1");
  RunToolOk({"ip", "link", "add", "br0", "type", "bridge"});
  for (const char* port : {"veth-h", "veth-t"}) {
    RunToolOk({"ip", "addr", "flush", "dev", port});
    RunToolOk({"ip", "link", "set", port, "master", "br0"});
  }
  RunToolOk({"ip", "addr", "add", std::string(kHost) + "/24", "dev", "br0"});
  RunToolOk({"ip", "-6", "addr", "add", std::string(PeerNamespace::kHost6) + "/64", "dev", "br0", "nodad"});
  RunToolOk({"ip", "link", "set", "br0", "up"});
  return "";
}

ino_t InodeOf(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0 ? status.st_ino : 0;
}

// Traffic the isolated host forwards from `third` to the peer is cut, in
// both families, but for what an exception names; once the isolation rules
// go it passes again.
std::string ForwardedWhileIsolated(ServiceRig& rig, const PeerNamespace& peer, const PeerNamespace& third) {
  TcpListener listener4 = peer.Within([] { return TcpListener(kPeer, 6005); });
  TcpListener listener6 = peer.Within([] { return TcpListener(PeerNamespace::kPeer6, 6005); });
  const auto forwarded = [&] {
    return third.Within([] { return Reach(kPeer, 6005) + "/" + Reach(PeerNamespace::kPeer6, 6005); });
  };
  const std::vector<RuleDescription> otherPort = {ExceptionFor(kPeer, 6006, Side::Outgoing),
                                                  ExceptionFor(PeerNamespace::kPeer6, 6006, Side::Outgoing)};
  const std::vector<RuleDescription> named = {ExceptionFor(kPeer, 6005, Side::Outgoing),
                                              ExceptionFor(PeerNamespace::kPeer6, 6005, Side::Outgoing)};
  third.Within([] { WaitForIpv6Path(PeerNamespace::kPeer6); });
  // One step a statement: the operands of + may be evaluated in any order.
  std::string text = "before " + forwarded();
  text += ", " + Result(rig.service->AddRules(otherPort, "ni_0x1"));
  text += " isolated " + forwarded();
  text += ", " + Result(rig.service->AddRules(named, "ni_0x2"));
  // Neighbour discovery, bridged or routed, happens while isolated.
  ForgetNeighbours(peer);
  third.Within([] { RunToolOk({"ip", "-6", "neigh", "flush", "all"}); });
  text += " named " + forwarded();
  text += ", " + Result(rig.service->RemoveRules(otherPort));
  text += " " + Result(rig.service->RemoveRules(named));
  return text + " released " + forwarded();
}

const std::string kForwardedWhileIsolated = "before connected/connected, " + kOk + " isolated blocked/blocked, " +
                                            kOk + " named connected/connected, " + kOk + " " + kOk +
                                            " released connected/connected";

TEST_P(RuleKindsTrafficNsTest, IsolationCutsRoutedTrafficButTheExceptions) {
  const std::string output = Run([](ServiceRig& rig, const PeerNamespace& peer) {
    const PeerNamespace third({"veth-t", "veth-3", "10.78.0.1", "10.78.0.2", "fd78::1", "fd78::2"});
    RouteThrough(peer, third);
    return ForwardedWhileIsolated(rig, peer, third);
  });
  EXPECT_EQ(output, kForwardedWhileIsolated);
}

TEST_P(RuleKindsTrafficNsTest, IsolationCutsBridgedTrafficButTheExceptions) {
  // The machine's own switch, only looked at: the namespace's must be
  // another file, or writing it would change the machine.
  const ino_t machineSwitch = InodeOf("/proc/sys/net/bridge/bridge-nf-call-iptables");
  const std::string output = Run([machineSwitch](ServiceRig& rig, const PeerNamespace& peer) {
    // The third namespace stands on the peer's link, behind the bridge.
    const PeerNamespace third({"veth-t", "veth-3", "10.77.0.4", "10.77.0.3", "fd77::4", "fd77::3"});
    const std::string notBridged = BridgeThrough(machineSwitch);
    return notBridged.empty() ? ForwardedWhileIsolated(rig, peer, third) : "skip: " + notBridged;
  });
  if (output.starts_with("skip: ")) GTEST_SKIP() << output;
  EXPECT_EQ(output, kForwardedWhileIsolated);
}

INSTANTIATE_TEST_SUITE_P(Backends, RuleKindsTrafficNsTest,
                         testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const testing::TestParamInfo<IptablesBackend>& info) {
                           return std::string(BackendName(info.param));
                         });

}  // namespace
}  // namespace qel::test
