// The isolation object loaded through the skeleton, its maps filled from
// clients' rules through the policy book, and the classifiers run on packets
// through BPF_PROG_TEST_RUN. A test run attaches nothing to any interface, so
// no network namespace is needed; loading the object needs root.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/pkt_cls.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>

#include <gtest/gtest.h>

#include "firewall/ebpf/isolation_policy_book.h"
#include "firewall/network_isolation_ebpf_skeleton.h"
#include "support/fake_framework.h"
#include "support/packet_builder.h"
#include "support/temp_directory.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::test {
namespace {

using firewall::NetworkIsolationEbpfSkeleton;
using firewall::ebpf::IsolationPolicyBook;
using firewall::ebpf::PolicyMap;
using firewall::ebpf::PolicyWrites;
using firewall::network_isolation_data::NetworkExclusionRules;
using tools::ParseIpAddress;
using tools::PortRange;
using Bytes = std::vector<std::uint8_t>;

constexpr int kPass = TC_ACT_OK;
constexpr int kDrop = TC_ACT_SHOT;
constexpr std::uint8_t kTcp = 6, kUdp = 17;

// Rules of this suite name no application.
class NoExecutables final : public firewall::ebpf::IExecutableLookup {
 public:
  std::optional<std::string> Canonical(const std::string&) const override { return std::nullopt; }
  std::optional<firewall::ebpf::IsolationAppKey> Identity(const std::string&) const override { return std::nullopt; }
};

Bytes Packet(const char* source, std::uint16_t sourcePort, const char* destination, std::uint16_t destinationPort,
             std::uint8_t protocol) {
  PacketBuilder b;
  if (std::strchr(source, ':'))
    b.Ethernet(PacketBuilder::kEtherIpv6).Ipv6(source, destination, protocol);
  else
    b.Ethernet(PacketBuilder::kEtherIpv4).Ipv4(source, destination, protocol);
  if (protocol == kTcp) b.Tcp(sourcePort, destinationPort);
  if (protocol == kUdp) b.Udp(sourcePort, destinationPort);
  if (protocol == PacketBuilder::kIcmp) b.Icmp(8);
  if (protocol == PacketBuilder::kIcmpv6) b.Icmpv6(128);
  return b.Payload(10).Build();
}

class EbpfSkeletonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to load eBPF programs";
    ASSERT_EQ(skeleton.Load(), oro::errOk) << "the isolation object did not load: " << QEL_ISOLATION_BPF_OBJECT;
  }

  firewall::ebpf::PolicyHandle AddClient(const NetworkExclusionRules& rules) {
    auto change = book.Add(firewall::ebpf::PreparePolicyExclude(rules, executables, Tracer()));
    PolicyWrites rollback;
    EXPECT_EQ(skeleton.AddPolicyExclude(change.writes, rollback), oro::errOk);
    return change.handle;
  }
  void RemoveClient(firewall::ebpf::PolicyHandle handle) {
    EXPECT_EQ(skeleton.RemovePolicyExclude(book.Remove(handle)), oro::errOk);
  }

  // The verdict of the egress classifier on a packet from the host, and of
  // the ingress one on the same exchange seen coming back.
  int Out(const char* remote, std::uint16_t remotePort, std::uint8_t protocol = kTcp) {
    return Run(skeleton.EgressClassifier(), Packet(Local(remote), 40000, remote, remotePort, protocol));
  }
  int In(const char* remote, std::uint16_t remotePort, std::uint8_t protocol = kTcp) {
    return Run(skeleton.IngressClassifier(), Packet(remote, remotePort, Local(remote), 40000, protocol));
  }

  // Every entry of the policy maps.
  std::map<std::pair<PolicyMap, Bytes>, Bytes> Contents() {
    std::map<std::pair<PolicyMap, Bytes>, Bytes> contents;
    for (auto map : {PolicyMap::AppStep0, PolicyMap::RemoteStep1, PolicyMap::LocalStep3, PolicyMap::PortsStep2And4}) {
      bpf_map* m = skeleton.PolicyMap(map);
      Bytes key(bpf_map__key_size(m)), next(key.size());
      const void* previous = nullptr;
      while (bpf_map__get_next_key(m, previous, next.data(), next.size()) == 0) {
        Bytes value;
        EXPECT_EQ(skeleton.Lookup(m, next, value), oro::errOk);
        contents[{map, next}] = value;
        key = next;
        previous = key.data();
      }
    }
    return contents;
  }

  tracing::Tracer Tracer() { return tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(tracer.Get())); }

  oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  NetworkIsolationEbpfSkeleton skeleton{Tracer(), QEL_ISOLATION_BPF_OBJECT};
  IsolationPolicyBook book;
  NoExecutables executables;

 private:
  static const char* Local(const char* remote) { return std::strchr(remote, ':') ? "fd00::1" : "10.0.0.1"; }

  static int Run(bpf_program* program, const Bytes& packet) {
    bpf_test_run_opts opts{};
    opts.sz = sizeof(opts);
    opts.data_in = packet.data();
    opts.data_size_in = static_cast<std::uint32_t>(packet.size());
    opts.repeat = 1;
    if (int err = bpf_prog_test_run_opts(bpf_program__fd(program), &opts); err != 0) return err;
    return static_cast<int>(opts.retval);
  }
};

const NetworkExclusionRules kWebServerAndHost = {
    {.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kTcp, .remotePortRange = PortRange{443, 443}},
    {.remoteAddress = ParseIpAddress("fd77::2")}};

TEST_F(EbpfSkeletonTest, AClientsPolicyPassesWhatItNamesBothWaysAndDropsTheRest) {
  EXPECT_EQ(Out("10.77.0.2", 443), kDrop) << "nothing passes before the policy";
  AddClient(kWebServerAndHost);
  EXPECT_EQ(Out("10.77.0.2", 443), kPass);
  EXPECT_EQ(In("10.77.0.2", 443), kPass);
  EXPECT_EQ(Out("10.77.0.2", 80), kDrop);
  EXPECT_EQ(Out("10.77.0.2", 443, kUdp), kDrop);
  EXPECT_EQ(Out("10.77.0.3", 443), kDrop);
  EXPECT_EQ(Out("fd77::2", 22), kPass);
  EXPECT_EQ(In("fd77::2", 53, kUdp), kPass);
  EXPECT_EQ(Out("fd77::2", 0, PacketBuilder::kIcmpv6), kPass);
  EXPECT_EQ(Out("fd77::3", 22), kDrop);
}

TEST_F(EbpfSkeletonTest, ClientsSharingAnAddressKeepTheirOwnExclusionsUntilTheLastGoes) {
  const auto first = AddClient(kWebServerAndHost);
  const auto second = AddClient(
      {{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kUdp, .remotePortRange = PortRange{53, 53}}});
  EXPECT_EQ(Out("10.77.0.2", 53, kUdp), kPass);
  EXPECT_EQ(Out("10.77.0.2", 443), kPass);

  RemoveClient(first);
  EXPECT_EQ(Out("10.77.0.2", 443), kDrop);
  EXPECT_EQ(Out("fd77::2", 22), kDrop);
  EXPECT_EQ(In("10.77.0.2", 53, kUdp), kPass) << "the second client's exclusion must stay";

  RemoveClient(second);
  EXPECT_EQ(Out("10.77.0.2", 53, kUdp), kDrop);
  EXPECT_TRUE(Contents().empty());
}

TEST_F(EbpfSkeletonTest, AFailingWriteLeavesTheMapsAsTheyWere) {
  AddClient(kWebServerAndHost);
  auto change = book.Add(firewall::ebpf::PreparePolicyExclude(
      {{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kTcp, .remotePortRange = PortRange{8000, 8999}},
       {.remoteAddress = ParseIpAddress("192.0.2.9"), .protocol = kUdp}},
      executables, Tracer()));
  // An entry the change means to insert is there already, so the kernel
  // refuses that insert after the writes before it went through.
  const auto clash = std::find_if(change.writes.rbegin(), change.writes.rend(), [](const auto& write) {
    return write.kind == firewall::ebpf::PolicyWrite::Kind::Insert;
  });
  ASSERT_NE(clash, change.writes.rend());
  ASSERT_NE(clash, change.writes.rbegin() + static_cast<std::ptrdiff_t>(change.writes.size()) - 1)
      << "some writes must go through before the clash";
  bpf_map* map = skeleton.PolicyMap(clash->map);
  ASSERT_EQ(skeleton.Insert(map, clash->key, clash->value, false), oro::errOk);
  const auto before = Contents();

  PolicyWrites rollback;
  EXPECT_EQ(skeleton.AddPolicyExclude(change.writes, rollback), oro::errAlreadyExists);
  EXPECT_TRUE(tracer->Contains(tracing::Error, "Failed to add policy element"));
  EXPECT_TRUE(tracer->Contains(tracing::Error, "libbpf.errno=17"));
  EXPECT_EQ(Contents(), before);
  EXPECT_EQ(Out("10.77.0.2", 443), kPass);
  EXPECT_EQ(Out("10.77.0.2", 8080), kDrop);
}

TEST_F(EbpfSkeletonTest, TheRollbackOfASuccessfulAddUndoesIt) {
  AddClient(kWebServerAndHost);
  const auto before = Contents();
  auto change = book.Add(firewall::ebpf::PreparePolicyExclude(
      {{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kUdp}}, executables, Tracer()));
  PolicyWrites rollback;
  ASSERT_EQ(skeleton.AddPolicyExclude(change.writes, rollback), oro::errOk);
  EXPECT_EQ(Out("10.77.0.2", 53, kUdp), kPass);
  EXPECT_EQ(skeleton.RemovePolicyExclude(rollback), oro::errOk);
  EXPECT_EQ(Contents(), before);
}

TEST(EbpfSkeletonLoadTest, AnEmptyObjectFileIsRefusedWithAReason) {
  TempDirectory directory;
  const std::string path = directory / "network_isolation.o";
  std::ofstream(path).close();
  auto tracer = Make<FakeTracer>();
  NetworkIsolationEbpfSkeleton skeleton(tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(tracer.Get())), path);
  EXPECT_TRUE(oro::Failed(skeleton.Load()));
  EXPECT_FALSE(skeleton.IsLoaded());
  EXPECT_TRUE(tracer->Contains(tracing::Error, "zero size of ebpf program"));
}

TEST(EbpfSkeletonLoadTest, WritesWithoutALoadedObjectFail) {
  auto tracer = Make<FakeTracer>();
  NetworkIsolationEbpfSkeleton skeleton(tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(tracer.Get())), "/nonexistent");
  IsolationPolicyBook book;
  NoExecutables executables;
  auto change = book.Add(firewall::ebpf::PreparePolicyExclude({{.protocol = kUdp}}, executables, {}));
  PolicyWrites rollback;
  EXPECT_TRUE(oro::Failed(skeleton.AddPolicyExclude(change.writes, rollback)));
  EXPECT_TRUE(rollback.empty());
}

}  // namespace
}  // namespace qel::test
