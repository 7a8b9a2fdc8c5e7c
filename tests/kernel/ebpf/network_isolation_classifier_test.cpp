// The isolation classifiers' verdicts on packet fixtures. BPF_PROG_TEST_RUN
// runs a program on a copy of the packet and attaches nothing to any
// interface, so these tests need no network namespace; loading the object
// needs root.
#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/pkt_cls.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "firewall/ebpf/network_isolation_maps.h"
#include "support/packet_builder.h"

namespace qel::firewall::ebpf {
namespace {

using test::PacketBuilder;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* kLocal4 = "10.0.0.1";
constexpr const char* kRemote4 = "192.0.2.10";
constexpr const char* kOther4 = "198.51.100.7";
constexpr const char* kLocal6 = "fd00::1";
constexpr const char* kRemote6 = "2001:db8::10";
constexpr const char* kOther6 = "2001:db8:ffff::7";

enum class Hook { Ingress, Egress };
constexpr int kPass = TC_ACT_OK;
constexpr int kDrop = TC_ACT_SHOT;

// --- Map contents, written through the shared layouts -------------------------

IsolationAddressKey Prefix(const std::string& cidr) {
  IsolationAddressKey key{};
  const auto slash = cidr.find('/');
  const std::string text = cidr.substr(0, slash);
  if (text.find(':') == std::string::npos) {
    key.addr[10] = key.addr[11] = 0xff;
    EXPECT_EQ(inet_pton(AF_INET, text.c_str(), key.addr + 12), 1) << cidr;
    key.prefixlen = kIsolationIpv4MappedPrefixBits + (slash == std::string::npos ? 32 : std::stoul(cidr.substr(slash + 1)));
  } else {
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), key.addr), 1) << cidr;
    key.prefixlen = slash == std::string::npos ? 128 : std::stoul(cidr.substr(slash + 1));
  }
  return key;
}

IsolationAddressValue Protocols(std::uint32_t ipId, std::vector<int> protocols) {
  IsolationAddressValue value{};
  value.ipId = ipId;
  value.refCount = 1;
  for (int p : protocols) value.protocols[p / 64] |= 1ULL << (p % 64);
  return value;
}

IsolationAddressValue AllProtocols(std::uint32_t ipId) {
  IsolationAddressValue value = Protocols(ipId, {});
  for (auto& word : value.protocols) word = ~0ULL;
  return value;
}

// The 2^hostBits ports from `first` (aligned) of an id.
IsolationPortsKey Ports(std::uint32_t ipId, std::uint16_t first, unsigned hostBits = 0) {
  return {64 - hostBits, ipId, htonl(first)};
}

IsolationPortsKey AnyPort(std::uint32_t ipId) { return {kIsolationPortsKeyFixedBits, ipId, 0}; }

IsolationPortsValue PassPorts(std::uint8_t bits) { return {0, 1, bits, 0}; }
IsolationPortsValue ChainPorts(std::uint32_t localChainId, std::uint8_t bits) { return {localChainId, 1, 0, bits}; }

IsolationConnectionKey Connection(const char* local, std::uint16_t localPort, const char* remote, std::uint16_t remotePort) {
  IsolationConnectionKey key{};
  std::memcpy(key.local, Prefix(local).addr, 16);
  std::memcpy(key.remote, Prefix(remote).addr, 16);
  key.localPortBE = htons(localPort);
  key.remotePortBE = htons(remotePort);
  key.protocol = IPPROTO_TCP;
  return key;
}

struct Policy {
  std::vector<std::pair<IsolationAddressKey, IsolationAddressValue>> remote;  // step 1
  std::vector<std::pair<IsolationPortsKey, IsolationPortsValue>> ports;      // steps 2 and 4
  std::vector<std::pair<IsolationAddressKey, IsolationAddressValue>> local;   // step 3
  std::vector<IsolationConnectionKey> connections;                            // step 0
  std::vector<std::uint16_t> listening;                                       // step 0
};

// --- Packets ----------------------------------------------------------------------

// An IPv4 or IPv6 packet from `source` to `destination`, whichever family
// the addresses are.
PacketBuilder Ip(const char* source, const char* destination, std::uint8_t protocol) {
  PacketBuilder b;
  if (std::strchr(source, ':')) return std::move(b.Ethernet(PacketBuilder::kEtherIpv6).Ipv6(source, destination, protocol));
  return std::move(b.Ethernet(PacketBuilder::kEtherIpv4).Ipv4(source, destination, protocol));
}
Bytes Tcp(const char* s, std::uint16_t sp, const char* d, std::uint16_t dp) { return Ip(s, d, PacketBuilder::kTcp).Tcp(sp, dp).Payload(10).Build(); }
Bytes Udp(const char* s, std::uint16_t sp, const char* d, std::uint16_t dp) { return Ip(s, d, PacketBuilder::kUdp).Udp(sp, dp).Payload(10).Build(); }
Bytes Icmp(const char* s, const char* d) { return Ip(s, d, PacketBuilder::kIcmp).Icmp(8).Build(); }
Bytes Icmpv6(const char* s, const char* d, std::uint8_t type) { return Ip(s, d, PacketBuilder::kIcmpv6).Icmpv6(type).Build(); }

struct Case {
  std::string label;
  Hook hook;
  Bytes packet;
  int verdict;
};

// --- The loaded object ------------------------------------------------------------

class Classifier {
 public:
  // Loaded from the build tree under the object name the module gives it.
  Classifier() {
    std::ifstream in(QEL_ISOLATION_BPF_OBJECT, std::ios::binary);
    m_image.assign(std::istreambuf_iterator<char>(in), {});
    bpf_object_open_opts opts{};
    opts.sz = sizeof(opts);
    opts.object_name = "IsolationBpf";
    m_object.reset(bpf_object__open_mem(m_image.data(), m_image.size(), &opts));
    if (!m_object || bpf_object__load(m_object.get()) != 0) m_object.reset();
  }

  bool Loaded() const { return m_object != nullptr; }
  bpf_object* Object() const { return m_object.get(); }

  int MapFd(const char* name) const { return bpf_map__fd(bpf_object__find_map_by_name(m_object.get(), name)); }

  void Apply(const Policy& policy) {
    for (const char* name : {"PolicyPacketExcludeDestIpStep1", "PolicyPacketExcludeSrcIpStep3",
                             "PolicyPacketExcludePortsRangeStep2And4", "TCPConntrack", "RuntimeListenSocket"})
      Clear(MapFd(name));
    for (const auto& [k, v] : policy.remote) Put("PolicyPacketExcludeDestIpStep1", &k, &v);
    for (const auto& [k, v] : policy.local) Put("PolicyPacketExcludeSrcIpStep3", &k, &v);
    for (const auto& [k, v] : policy.ports) Put("PolicyPacketExcludePortsRangeStep2And4", &k, &v);
    for (const auto& k : policy.connections) {
      const IsolationConnectionValue v{7, 1};
      Put("TCPConntrack", &k, &v);
    }
    for (auto port : policy.listening) {
      const IsolationListenKey k{htons(port), IPPROTO_TCP, 0};
      const IsolationListenValue v{7, 1};
      Put("RuntimeListenSocket", &k, &v);
    }
  }

  // The program's return value, or the negative error of the run.
  int Run(Hook hook, const Bytes& packet) const {
    const char* name = hook == Hook::Ingress ? "TcIsolateIngress" : "TcIsolateEgress";
    const int fd = bpf_program__fd(bpf_object__find_program_by_name(m_object.get(), name));
    bpf_test_run_opts opts{};
    opts.sz = sizeof(opts);
    opts.data_in = packet.data();
    opts.data_size_in = static_cast<std::uint32_t>(packet.size());
    opts.repeat = 1;
    if (int err = bpf_prog_test_run_opts(fd, &opts); err != 0) return err;
    return static_cast<int>(opts.retval);
  }

  void Expect(const std::vector<Case>& cases) const {
    for (const auto& c : cases) {
      EXPECT_EQ(Run(c.hook, c.packet), c.verdict)
          << c.label << (c.hook == Hook::Ingress ? " (ingress)" : " (egress)");
    }
  }

 private:
  struct Closer {
    void operator()(bpf_object* o) const { bpf_object__close(o); }
  };

  void Put(const char* map, const void* key, const void* value) {
    ASSERT_EQ(bpf_map_update_elem(MapFd(map), key, value, BPF_ANY), 0) << map;
  }

  static void Clear(int fd) {
    std::vector<std::uint8_t> key(64), next(64);
    while (bpf_map_get_next_key(fd, nullptr, next.data()) == 0) ASSERT_EQ(bpf_map_delete_elem(fd, next.data()), 0);
  }

  std::vector<char> m_image;
  std::unique_ptr<bpf_object, Closer> m_object;
};

class IsolationClassifierTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (geteuid() == 0) s_classifier = new Classifier();
  }
  static void TearDownTestSuite() {
    delete s_classifier;
    s_classifier = nullptr;
  }
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to load eBPF programs";
    ASSERT_TRUE(s_classifier && s_classifier->Loaded()) << "the isolation object did not load: " << QEL_ISOLATION_BPF_OBJECT;
  }
  Classifier& C() { return *s_classifier; }

  static Classifier* s_classifier;
};
Classifier* IsolationClassifierTest::s_classifier = nullptr;

// --- What user space relies on ----------------------------------------------------

TEST_F(IsolationClassifierTest, ObjectOffersTheNamedMapsProgramsAndReadOnlyData) {
  for (const char* name : {"PolicyPacketExcludeForAppStep0", "PolicyPacketExcludeDestIpStep1", "PolicyPacketExcludeSrcIpStep3",
                           "PolicyPacketExcludePortsRangeStep2And4", "RuntimeSockets", "RuntimeListenSocket",
                           "RuntimeConnectRequestSocket", "Heap", "TCPConntrack", "Isolatio.rodata"})
    EXPECT_NE(bpf_object__find_map_by_name(C().Object(), name), nullptr) << name;
  EXPECT_EQ(bpf_map__key_size(bpf_object__find_map_by_name(C().Object(), "PolicyPacketExcludePortsRangeStep2And4")),
            sizeof(IsolationPortsKey));
  EXPECT_EQ(bpf_map__value_size(bpf_object__find_map_by_name(C().Object(), "PolicyPacketExcludeDestIpStep1")),
            sizeof(IsolationAddressValue));
  for (const char* name : {"TcIsolateIngress", "TcIsolateEgress"})
    EXPECT_NE(bpf_object__find_program_by_name(C().Object(), name), nullptr) << name;
}

// --- Always passed, and dropped without exclusions --------------------------------

TEST_F(IsolationClassifierTest, LinkAndAddressConfigurationPassWithoutExclusions) {
  C().Apply({});
  std::vector<Case> cases{
      {"ARP", Hook::Ingress, PacketBuilder().Ethernet(PacketBuilder::kEtherArp).Arp().Build(), kPass},
      {"ARP", Hook::Egress, PacketBuilder().Ethernet(PacketBuilder::kEtherArp).Arp().Build(), kPass},
      {"DHCP request", Hook::Egress, Udp("0.0.0.0", 68, "255.255.255.255", 67), kPass},
      {"DHCP offer", Hook::Ingress, Udp("10.0.0.254", 67, "255.255.255.255", 68), kPass},
      {"DHCPv6 solicit", Hook::Egress, Udp("fe80::1", 546, "ff02::1:2", 547), kPass},
      {"DHCPv6 reply", Hook::Ingress, Udp("fe80::2", 547, "fe80::1", 546), kPass},
      {"DHCP ports over IPv6", Hook::Egress, Udp("fe80::1", 68, "ff02::1:2", 67), kDrop},
      {"DHCPv6 ports over IPv4", Hook::Egress, Udp(kLocal4, 546, kRemote4, 547), kDrop},
      {"UDP from port 68 elsewhere", Hook::Egress, Udp(kLocal4, 68, kRemote4, 53), kDrop},
      {"ICMPv6 echo", Hook::Egress, Icmpv6(kLocal6, kRemote6, 128), kDrop},
      {"ICMPv6 132", Hook::Egress, Icmpv6(kLocal6, kRemote6, 132), kDrop},
      {"ICMPv6 138", Hook::Egress, Icmpv6(kLocal6, kRemote6, 138), kDrop},
      {"TCP", Hook::Egress, Tcp(kLocal4, 40000, kRemote4, 443), kDrop},
      {"TCP", Hook::Ingress, Tcp(kRemote6, 443, kLocal6, 40000), kDrop},
      {"UDP", Hook::Ingress, Udp(kRemote4, 53, kLocal4, 40000), kDrop},
      {"ICMP", Hook::Egress, Icmp(kLocal4, kRemote4), kDrop},
      {"other ether type", Hook::Egress, PacketBuilder().Ethernet(0x88cc).Payload(40).Build(), kDrop},
      {"IPv4 header length below 5", Hook::Egress, [] {
         auto p = Tcp(kLocal4, 40000, kRemote4, 443);
         p[14] = 0x44;
         return p;
       }(), kDrop},
  };
  for (std::uint8_t type = 133; type <= 137; ++type) {
    cases.push_back({"neighbour discovery " + std::to_string(type), Hook::Egress, Icmpv6("fe80::1", "ff02::1", type), kPass});
    cases.push_back({"neighbour discovery " + std::to_string(type), Hook::Ingress, Icmpv6("fe80::2", "fe80::1", type), kPass});
  }
  C().Expect(cases);
}

// --- The exclusion steps ------------------------------------------------------------

TEST_F(IsolationClassifierTest, ApplicationConnectionsPassBothWays) {
  Policy policy;
  policy.connections = {Connection(kLocal4, 40000, kRemote4, 443), Connection(kLocal6, 40001, kRemote6, 443)};
  policy.listening = {8080};
  C().Apply(policy);
  C().Expect({
      {"tracked connection", Hook::Egress, Tcp(kLocal4, 40000, kRemote4, 443), kPass},
      {"tracked connection reply", Hook::Ingress, Tcp(kRemote4, 443, kLocal4, 40000), kPass},
      {"tracked IPv6 connection reply", Hook::Ingress, Tcp(kRemote6, 443, kLocal6, 40001), kPass},
      {"other local port", Hook::Egress, Tcp(kLocal4, 40002, kRemote4, 443), kDrop},
      {"other remote", Hook::Ingress, Tcp(kOther4, 443, kLocal4, 40000), kDrop},
      {"UDP with the same ends", Hook::Egress, Udp(kLocal4, 40000, kRemote4, 443), kDrop},
      {"to a listening port", Hook::Ingress, Tcp(kOther4, 50000, kLocal4, 8080), kPass},
      {"from a listening port", Hook::Egress, Tcp(kLocal6, 8080, kOther6, 50000), kPass},
      {"to another port", Hook::Ingress, Tcp(kOther4, 50000, kLocal4, 8081), kDrop},
  });
}

TEST_F(IsolationClassifierTest, RemoteAddressPassesItsProtocolsBothWays) {
  Policy policy;
  policy.remote = {{Prefix(kRemote4), AllProtocols(1)},
                   {Prefix("2001:db8:1::/48"), AllProtocols(2)},
                   {Prefix("203.0.113.0/24"), Protocols(3, {IPPROTO_UDP})}};
  C().Apply(policy);
  C().Expect({
      {"TCP to the address", Hook::Egress, Tcp(kLocal4, 40000, kRemote4, 80), kPass},
      {"TCP from the address", Hook::Ingress, Tcp(kRemote4, 80, kLocal4, 40000), kPass},
      {"ICMP to the address", Hook::Egress, Icmp(kLocal4, kRemote4), kPass},
      {"TCP to the host as the address", Hook::Ingress, Tcp(kOther4, 80, kRemote4, 40000), kDrop},
      {"another address", Hook::Egress, Tcp(kLocal4, 40000, kOther4, 80), kDrop},
      {"inside the IPv6 prefix", Hook::Ingress, Udp("2001:db8:1::99", 53, kLocal6, 40000), kPass},
      {"outside the IPv6 prefix", Hook::Egress, Udp(kLocal6, 40000, "2001:db8:2::99", 53), kDrop},
      {"UDP-only prefix, UDP", Hook::Egress, Udp(kLocal4, 40000, "203.0.113.9", 53), kPass},
      {"UDP-only prefix, TCP", Hook::Egress, Tcp(kLocal4, 40000, "203.0.113.9", 53), kDrop},
  });
}

TEST_F(IsolationClassifierTest, RemotePortsPassUnderTheirAddressAndChainToLocalPorts) {
  Policy policy;
  policy.remote = {{Prefix(kRemote4), Protocols(1, {})}, {Prefix(kRemote6), Protocols(2, {})}};
  policy.ports = {{Ports(1, 443), PassPorts(kIsolationPortTcp)},
                  {Ports(1, 8000, 2), PassPorts(kIsolationPortTcp | kIsolationPortUdp)},
                  {AnyPort(2), ChainPorts(3, kIsolationPortUdp)},
                  {Ports(3, 5000), PassPorts(kIsolationPortUdp)}};
  C().Apply(policy);
  C().Expect({
      {"remote port", Hook::Egress, Tcp(kLocal4, 40000, kRemote4, 443), kPass},
      {"reply from the remote port", Hook::Ingress, Tcp(kRemote4, 443, kLocal4, 40000), kPass},
      {"local port as the remote one", Hook::Ingress, Tcp(kRemote4, 40000, kLocal4, 443), kDrop},
      {"another remote port", Hook::Egress, Tcp(kLocal4, 40000, kRemote4, 80), kDrop},
      {"remote port, UDP not excluded", Hook::Egress, Udp(kLocal4, 40000, kRemote4, 443), kDrop},
      {"remote port, other address", Hook::Egress, Tcp(kLocal4, 40000, kOther4, 443), kDrop},
      {"in the port block", Hook::Egress, Udp(kLocal4, 40000, kRemote4, 8003), kPass},
      {"past the port block", Hook::Egress, Udp(kLocal4, 40000, kRemote4, 8004), kDrop},
      {"chained local port", Hook::Egress, Udp(kLocal6, 5000, kRemote6, 12345), kPass},
      {"chained local port, reply", Hook::Ingress, Udp(kRemote6, 12345, kLocal6, 5000), kPass},
      {"chained, other local port", Hook::Egress, Udp(kLocal6, 5001, kRemote6, 12345), kDrop},
      {"chained, TCP not excluded", Hook::Egress, Tcp(kLocal6, 5000, kRemote6, 12345), kDrop},
      {"no ports: ICMP", Hook::Egress, Icmp(kLocal4, kRemote4), kDrop},
  });
}

TEST_F(IsolationClassifierTest, LocalAddressStepsApplyWhereRemoteEntriesDoNot) {
  Policy policy;
  // Any remote, local TCP port 22; and one remote with port 443 only, which
  // must not hide the local-port exclusion from that remote.
  policy.local = {{Prefix("::/0"), Protocols(10, {})}, {Prefix("10.9.0.1"), AllProtocols(12)}};
  policy.remote = {{Prefix(kRemote4), Protocols(1, {})}};
  policy.ports = {{AnyPort(10), ChainPorts(11, kIsolationPortTcp)},
                  {Ports(11, 22), PassPorts(kIsolationPortTcp)},
                  {Ports(1, 443), PassPorts(kIsolationPortTcp)}};
  C().Apply(policy);
  C().Expect({
      {"to the local port from anywhere", Hook::Ingress, Tcp(kOther4, 50000, kLocal4, 22), kPass},
      {"answer from the local port", Hook::Egress, Tcp(kLocal6, 22, kOther6, 50000), kPass},
      {"to the local port from a remote with its own entry", Hook::Ingress, Tcp(kRemote4, 50000, kLocal4, 22), kPass},
      {"to another local port", Hook::Ingress, Tcp(kOther4, 50000, kLocal4, 23), kDrop},
      {"UDP to the local port", Hook::Ingress, Udp(kOther4, 50000, kLocal4, 22), kDrop},
      {"to the excluded local address", Hook::Ingress, Icmp(kOther4, "10.9.0.1"), kPass},
      {"from the excluded local address", Hook::Egress, Udp("10.9.0.1", 1, kOther4, 2), kPass},
      {"excluded local address as remote", Hook::Egress, Udp(kLocal4, 1, "10.9.0.1", 2), kDrop},
  });
}

// --- Fragments, options, extension headers, tags ----------------------------------

TEST_F(IsolationClassifierTest, NonFirstFragmentsAreJudgedByAddressOnly) {
  Policy policy;
  policy.remote = {{Prefix(kRemote4), AllProtocols(1)}, {Prefix(kRemote6), AllProtocols(2)},
                   {Prefix(kOther4), Protocols(3, {})}, {Prefix(kOther6), Protocols(4, {})}};
  policy.ports = {{Ports(3, 53), PassPorts(kIsolationPortUdp)}, {Ports(4, 53), PassPorts(kIsolationPortUdp)}};
  C().Apply(policy);
  auto v4 = [](const char* remote, std::uint16_t offset, bool more) {
    return PacketBuilder().Ethernet(PacketBuilder::kEtherIpv4).Ipv4(remote, kLocal4, PacketBuilder::kUdp, 0, offset, more);
  };
  auto v6 = [](const char* remote, std::uint16_t offset, bool more) {
    return PacketBuilder().Ethernet(PacketBuilder::kEtherIpv6).Ipv6(remote, kLocal6, PacketBuilder::kFragment).Ipv6Fragment(PacketBuilder::kUdp, offset, more);
  };
  C().Expect({
      {"IPv4 later fragment, excluded address", Hook::Ingress, v4(kRemote4, 185, false).Payload(64).Build(), kPass},
      {"IPv4 later fragment, port exclusion only", Hook::Ingress, v4(kOther4, 185, false).Payload(64).Build(), kDrop},
      {"IPv4 first fragment, excluded port", Hook::Ingress, v4(kOther4, 0, true).Udp(53, 40000).Payload(64).Build(), kPass},
      {"IPv4 first fragment, other port", Hook::Ingress, v4(kOther4, 0, true).Udp(54, 40000).Payload(64).Build(), kDrop},
      {"IPv4 later fragment whose bytes look like port 53", Hook::Ingress, v4(kOther4, 1, true).Udp(53, 40000).Build(), kDrop},
      {"IPv4 later fragment of DHCP", Hook::Ingress, v4("10.0.0.254", 3, false).Udp(67, 68).Build(), kDrop},
      {"IPv6 later fragment, excluded address", Hook::Ingress, v6(kRemote6, 100, true).Payload(64).Build(), kPass},
      {"IPv6 later fragment, port exclusion only", Hook::Ingress, v6(kOther6, 100, false).Udp(53, 40000).Build(), kDrop},
      {"IPv6 first fragment, excluded port", Hook::Ingress, v6(kOther6, 0, true).Udp(53, 40000).Payload(64).Build(), kPass},
  });
}

TEST_F(IsolationClassifierTest, OptionsExtensionHeadersAndTagsAreWalkedToTheTransportHeader) {
  Policy policy;
  policy.remote = {{Prefix(kRemote4), Protocols(1, {})}, {Prefix(kRemote6), Protocols(2, {})}};
  policy.ports = {{Ports(1, 443), PassPorts(kIsolationPortTcp)}, {Ports(2, 443), PassPorts(kIsolationPortTcp)}};
  C().Apply(policy);
  auto v6 = [] { return PacketBuilder().Ethernet(PacketBuilder::kEtherIpv6); };
  using P = PacketBuilder;
  std::vector<Case> cases{
      {"VLAN tag", Hook::Egress, P().Ethernet(P::kEtherVlan).Vlan(P::kEtherIpv4).Ipv4(kLocal4, kRemote4, P::kTcp).Tcp(1, 443).Build(), kPass},
      {"two VLAN tags", Hook::Egress, P().Ethernet(P::kEtherVlan).Vlan(P::kEtherVlan).Vlan(P::kEtherIpv6).Ipv6(kLocal6, kRemote6, P::kTcp).Tcp(1, 443).Build(), kPass},
      {"hop-by-hop, routing, destination options", Hook::Ingress,
       v6().Ipv6(kRemote6, kLocal6, P::kHopByHop).Ipv6Extension(P::kHopByHop, P::kRouting, 16).Ipv6Extension(P::kRouting, P::kDestinationOptions, 24)
           .Ipv6Extension(P::kDestinationOptions, P::kTcp).Tcp(443, 40000).Build(), kPass},
      {"authentication header", Hook::Ingress,
       v6().Ipv6(kRemote6, kLocal6, P::kAuthentication).Ipv6Authentication(P::kTcp, 20).Tcp(443, 40000).Build(), kPass},
      {"extension headers, other port", Hook::Ingress,
       v6().Ipv6(kRemote6, kLocal6, P::kHopByHop).Ipv6Extension(P::kHopByHop, P::kTcp, 16).Tcp(444, 40000).Build(), kDrop},
      {"neighbour discovery behind hop-by-hop", Hook::Ingress,
       v6().Ipv6("fe80::2", "ff02::1", P::kHopByHop).Ipv6Extension(P::kHopByHop, P::kIcmpv6).Icmpv6(136).Build(), kPass},
      {"first fragment header before TCP", Hook::Egress,
       v6().Ipv6(kLocal6, kRemote6, P::kFragment).Ipv6Fragment(P::kTcp, 0, true).Tcp(40000, 443).Build(), kPass},
  };
  for (std::size_t options = 4; options <= 40; options += 12) {
    cases.push_back({"IPv4 with " + std::to_string(options) + " bytes of options", Hook::Egress,
                     P().Ethernet(P::kEtherIpv4).Ipv4(kLocal4, kRemote4, P::kTcp, options).Tcp(40000, 443).Build(), kPass});
    cases.push_back({"IPv4 with " + std::to_string(options) + " bytes of options, other port", Hook::Egress,
                     P().Ethernet(P::kEtherIpv4).Ipv4(kLocal4, kRemote4, P::kTcp, options).Tcp(40000, 444).Build(), kDrop});
  }
  auto chain = [&](int headers) {
    P b = v6();
    b.Ipv6(kLocal6, kRemote6, P::kDestinationOptions);
    for (int i = 0; i < headers; ++i) b.Ipv6Extension(P::kDestinationOptions, i + 1 == headers ? P::kTcp : P::kDestinationOptions);
    return b.Tcp(40000, 443).Build();
  };
  cases.push_back({"as many extension headers as walked", Hook::Egress, chain(kIsolationMaxExtensionHeaders), kPass});
  cases.push_back({"one extension header more", Hook::Egress, chain(kIsolationMaxExtensionHeaders + 1), kDrop});
  C().Expect(cases);
}

// --- Truncation -----------------------------------------------------------------------

// Each packet passes whole; cut one byte short of the end of any header it
// needs, it is dropped. The kernel refuses to run a packet shorter than an
// Ethernet header, or an untagged one whose IP header is cut short, so the
// fixtures carry a VLAN tag (which the classifier skips) and cuts start after
// the Ethernet header.
TEST_F(IsolationClassifierTest, PacketsEndingInsideAHeaderAreDropped) {
  Policy policy;
  policy.remote = {{Prefix(kRemote4), Protocols(1, {})}, {Prefix(kRemote6), Protocols(2, {})},
                   {Prefix(kOther4), AllProtocols(3)}};
  policy.ports = {{Ports(1, 443), PassPorts(kIsolationPortTcp | kIsolationPortUdp)},
                  {Ports(2, 443), PassPorts(kIsolationPortTcp | kIsolationPortUdp)}};
  C().Apply(policy);
  using P = PacketBuilder;
  auto tagged = [](std::uint16_t etherType) { return P().Ethernet(P::kEtherVlan).Vlan(etherType); };
  const std::vector<P> packets{
      tagged(P::kEtherIpv4).Ipv4(kLocal4, kRemote4, P::kTcp, 8).Tcp(40000, 443),
      tagged(P::kEtherIpv4).Ipv4(kLocal4, kRemote4, P::kUdp).Udp(40000, 443),
      tagged(P::kEtherIpv6).Ipv6(kLocal6, kRemote6, P::kHopByHop).Ipv6Extension(P::kHopByHop, P::kRouting, 16)
          .Ipv6Extension(P::kRouting, P::kFragment).Ipv6Fragment(P::kTcp, 0, true).Tcp(40000, 443),
      tagged(P::kEtherIpv6).Ipv6("fe80::1", "ff02::1", P::kIcmpv6).Icmpv6(135),
      tagged(P::kEtherIpv4).Ipv4("0.0.0.0", "255.255.255.255", P::kUdp).Udp(68, 67),
      // Nothing is read after the options of a later fragment: their end is
      // checked all the same.
      tagged(P::kEtherIpv4).Ipv4(kLocal4, kOther4, P::kUdp, 12, 100),
  };
  for (const auto& packet : packets) {
    const Bytes whole = packet.Build();
    ASSERT_EQ(C().Run(Hook::Egress, whole), kPass) << "whole packet with " << packet.Headers().back().name;
    for (const auto& header : packet.Headers()) {
      if (header.name == "ethernet") continue;
      // ICMPv6 is needed up to its checksum only.
      const std::size_t needed = header.name == "icmpv6" ? header.begin + 4 : header.end;
      const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(needed - 1));
      EXPECT_EQ(C().Run(Hook::Egress, cut), kDrop) << "cut inside " << header.name << " at " << cut.size();
    }
  }
}

}  // namespace
}  // namespace qel::firewall::ebpf
