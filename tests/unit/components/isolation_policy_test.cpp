#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>

#include "firewall/ebpf/isolation_policy.h"
#include "firewall/ebpf/isolation_policy_book.h"
#include "support/fake_framework.h"
#include "support/fake_policy_maps.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::test {
namespace {

using namespace firewall::ebpf;
using firewall::network_isolation_data::NetworkExclusionRule3;
using firewall::network_isolation_data::NetworkExclusionRules;
using tools::ParseIpAddress;
using tools::PortRange;

constexpr std::uint8_t kTcp = 6, kUdp = 17, kIcmp = 1;

// Executables by path: a path maps to its canonical form, a canonical path
// to its identity; anything else does not resolve.
class FakeExecutables final : public IExecutableLookup {
 public:
  std::map<std::string, std::string> canonical;
  std::map<std::string, IsolationAppKey> identity;
  std::optional<std::string> Canonical(const std::string& path) const override {
    auto it = canonical.find(path);
    return it == canonical.end() ? std::nullopt : std::optional(it->second);
  }
  std::optional<IsolationAppKey> Identity(const std::string& path) const override {
    auto it = identity.find(path);
    return it == identity.end() ? std::nullopt : std::optional(it->second);
  }
};

class PolicyTest : public ::testing::Test {
 protected:
  PolicyExclusions Prepare(const NetworkExclusionRules& rules) {
    return PreparePolicyExclude(rules, executables, tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(tracer.Get())));
  }
  // Adds a client's rules to the book and the maps; the writes must apply.
  PolicyHandle AddClient(const NetworkExclusionRules& rules) {
    auto change = book.Add(Prepare(rules));
    EXPECT_EQ(maps.Apply(change.writes), std::nullopt);
    return change.handle;
  }
  void RemoveClient(PolicyHandle handle) { EXPECT_EQ(maps.Apply(book.Remove(handle)), std::nullopt); }

  std::optional<IsolationAddressValue> Remote(const char* address) {
    return maps.Lookup<IsolationAddressValue>(PolicyMap::RemoteStep1, AddressKey(ParseIpAddress(address)));
  }
  bool Tcp(const char* remote, std::uint16_t remotePort, std::uint16_t localPort = 40000) {
    return maps.PortsPass(AddressKey(ParseIpAddress(remote)), kIsolationPortTcp, remotePort, localPort);
  }
  bool Udp(const char* remote, std::uint16_t remotePort, std::uint16_t localPort = 40000) {
    return maps.PortsPass(AddressKey(ParseIpAddress(remote)), kIsolationPortUdp, remotePort, localPort);
  }

  oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  FakeExecutables executables;
  IsolationPolicyBook book;
  FakePolicyMaps maps;
};

bool ProtocolSet(const IsolationAddressValue& value, unsigned protocol) {
  return (value.protocols[protocol / 64] >> (protocol % 64)) & 1;
}

// --- Port ranges as aligned blocks ---------------------------------------------

TEST(PortBlocksTest, SplitsRangesIntoTheFewestAlignedBlocks) {
  EXPECT_EQ(PortBlocks({0, 65535}), (std::vector<PortBlock>{{0, 16}}));
  EXPECT_EQ(PortBlocks({1, 1}), (std::vector<PortBlock>{{1, 0}}));
  EXPECT_EQ(PortBlocks({443, 443}), (std::vector<PortBlock>{{443, 0}}));
  EXPECT_EQ(PortBlocks({65535, 65535}), (std::vector<PortBlock>{{65535, 0}}));
  EXPECT_EQ(PortBlocks({1024, 65535}), (std::vector<PortBlock>{{1024, 10}, {2048, 11}, {4096, 12}, {8192, 13},
                                                               {16384, 14}, {32768, 15}}));
  EXPECT_EQ(PortBlocks({1000, 2000}), (std::vector<PortBlock>{{1000, 3}, {1008, 4}, {1024, 9}, {1536, 8},
                                                              {1792, 7}, {1920, 6}, {1984, 4}, {2000, 0}}));
}

TEST(PortBlocksTest, BlocksCoverTheRangeExactlyAndBecomeTriePrefixes) {
  for (PortRange range : {PortRange{0, 0}, PortRange{1, 65534}, PortRange{3, 17}, PortRange{32767, 32768}}) {
    std::uint32_t next = range.first;
    for (const auto& block : PortBlocks(range)) {
      EXPECT_EQ(block.first, next) << range.ToString();
      EXPECT_EQ(block.first % (1u << block.hostBits), 0u) << range.ToString();
      next += 1u << block.hostBits;
    }
    EXPECT_EQ(next, range.last + 1u) << range.ToString();
  }
  const auto key = PortsKey(7, {1024, 10});
  EXPECT_EQ(key.prefixlen, 54u);
  EXPECT_EQ(key.ipId, 7u);
  EXPECT_EQ(key.portBE, htonl(1024));
  EXPECT_EQ(PortsKey(7, {0, 16}).prefixlen, static_cast<unsigned>(kIsolationPortsKeyFixedBits));
}

// --- Rules as exclusions ---------------------------------------------------------

TEST_F(PolicyTest, AddressesAreKeyedAsWholeIpv6AddressesAndAbsentOnesGoToTheLocalAnyPrefix) {
  const auto policy = Prepare({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kIcmp},
                               {.remoteAddress = ParseIpAddress("fd77::5")},
                               {.protocol = kUdp}});
  ASSERT_EQ(policy.addresses.size(), 3u);
  const auto& v4 = policy.addresses[0];
  EXPECT_EQ(v4.map, PolicyMap::RemoteStep1);
  EXPECT_EQ(v4.address.prefixlen, 128u);
  const std::uint8_t mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 77, 0, 2};
  EXPECT_EQ(0, std::memcmp(v4.address.addr, mapped, 16));
  EXPECT_TRUE(v4.protocols.test(kIcmp));
  EXPECT_EQ(v4.protocols.count(), 1u);
  EXPECT_EQ(policy.addresses[1].protocols.count(), 256u) << "no protocol and no ports: the whole address";
  EXPECT_EQ(policy.addresses[2].map, PolicyMap::LocalStep3);
  EXPECT_EQ(policy.addresses[2].address.prefixlen, 0u);
}

TEST_F(PolicyTest, PortsWithoutAProtocolMeanTcpAndUdp) {
  const auto policy = Prepare({{.remotePortRange = PortRange{53, 53}},
                               {.protocol = kTcp, .localPortRange = PortRange{22, 22}}});
  ASSERT_EQ(policy.addresses.size(), 2u);
  EXPECT_EQ(policy.addresses[0].portProtocols, kIsolationPortTcp | kIsolationPortUdp);
  EXPECT_TRUE(policy.addresses[0].protocols.none());
  EXPECT_EQ(policy.addresses[1].portProtocols, kIsolationPortTcp);
  EXPECT_EQ(policy.addresses[1].remotePorts, (PortRange{0, 65535}));
}

TEST_F(PolicyTest, RulesTheMapsCannotExpressAreSkippedWithAReasonAndTheRestKept) {
  executables.canonical = {{"/usr/bin/curl", "/usr/bin/curl"},
                           {"/opt/long", "/" + std::string(256, 'x')},
                           {"/opt/gone", "/opt/gone"}};
  executables.identity = {{"/usr/bin/curl", IsolationAppKey{42, (8u << 20) | 1, 0}}};
  const auto policy = Prepare({{.protocol = kUdp, .applicationPath = "/usr/bin/curl"},
                               {.applicationPath = "/nowhere"},
                               {.applicationPath = "/opt/long"},
                               {.applicationPath = "/opt/gone"},
                               {.protocol = kIcmp, .remotePortRange = PortRange{1, 2}},
                               {.protocol = kTcp, .applicationPath = "/usr/bin/curl"},
                               {.protocol = kTcp, .localPortRange = PortRange{20, 10}},
                               {.remoteAddress = ParseIpAddress("10.0.0.1")}});
  EXPECT_TRUE(tracer->Contains(
      tracing::Skipped, "Currently support only tcp protocol for application exclude: '/usr/bin/curl' skipped"));
  EXPECT_TRUE(tracer->Contains(tracing::Skipped, "Application exclude: '/nowhere' skipped"));
  EXPECT_TRUE(tracer->Contains(tracing::Skipped,
                               "Application exclude: '/opt/long' too long. Currently support only len=256"));
  EXPECT_TRUE(tracer->Contains(tracing::Skipped, "Application exclude: '/opt/gone' skipped"));
  EXPECT_TRUE(tracer->Contains(tracing::Skipped, "Ports specified but unsupported protocol 1 skipped"));
  EXPECT_TRUE(tracer->Contains(tracing::Skipped, "Port range 20-10 ends before it starts, skipped"));
  ASSERT_EQ(policy.applications.size(), 1u);
  EXPECT_EQ(policy.applications[0].identity.inode, 42u);
  EXPECT_EQ(policy.applications[0].identity.device, (8u << 20) | 1);
  ASSERT_EQ(policy.addresses.size(), 1u);
}

TEST_F(PolicyTest, ACanonicalPathOfExactlyTheLimitIsKept) {
  const std::string path = "/" + std::string(255, 'y');
  executables.canonical = {{"/a", path}};
  executables.identity = {{path, IsolationAppKey{1, 2, 0}}};
  EXPECT_EQ(Prepare({{.applicationPath = "/a"}}).applications.size(), 1u);
}

// --- What the maps then pass -------------------------------------------------------

TEST_F(PolicyTest, AnAddressWithPortsPassesThoseProtocolsAndPortsOnly) {
  AddClient({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kTcp, .remotePortRange = PortRange{443, 443}},
             {.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kIcmp}});
  auto entry = Remote("10.77.0.2");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->refCount, 2u);
  EXPECT_TRUE(ProtocolSet(*entry, kIcmp));
  EXPECT_FALSE(ProtocolSet(*entry, kTcp)) << "TCP passes only on its port";
  EXPECT_TRUE(Tcp("10.77.0.2", 443));
  EXPECT_FALSE(Tcp("10.77.0.2", 444));
  EXPECT_FALSE(Udp("10.77.0.2", 443));
  EXPECT_FALSE(Tcp("10.77.0.3", 443));
}

TEST_F(PolicyTest, OverlappingRangesOfOneAddressEachKeepTheirProtocols) {
  const auto address = ParseIpAddress("10.0.0.9");
  AddClient({{.remoteAddress = address, .protocol = kTcp, .remotePortRange = PortRange{1000, 2000}},
             {.remoteAddress = address, .protocol = kUdp, .remotePortRange = PortRange{1500, 1500}},
             {.remoteAddress = address, .protocol = kTcp, .remotePortRange = PortRange{1990, 2100}}});
  EXPECT_TRUE(Tcp("10.0.0.9", 1500)) << "the narrower UDP range must not hide the TCP one";
  EXPECT_TRUE(Udp("10.0.0.9", 1500));
  EXPECT_FALSE(Udp("10.0.0.9", 1501));
  EXPECT_TRUE(Tcp("10.0.0.9", 1000));
  EXPECT_TRUE(Tcp("10.0.0.9", 2100));
  EXPECT_FALSE(Tcp("10.0.0.9", 999));
  EXPECT_FALSE(Tcp("10.0.0.9", 2101));
}

TEST_F(PolicyTest, LocalPortsChainEachRemoteRangeToItsOwnLocalRanges) {
  const auto address = ParseIpAddress("192.0.2.1");
  AddClient({{.remoteAddress = address, .protocol = kTcp,
              .localPortRange = PortRange{1000, 2000}, .remotePortRange = PortRange{443, 443}},
             {.remoteAddress = address, .protocol = kUdp,
              .localPortRange = PortRange{3000, 3000}, .remotePortRange = PortRange{443, 443}},
             {.remoteAddress = address, .protocol = kTcp,
              .localPortRange = PortRange{5000, 5000}, .remotePortRange = PortRange{80, 80}}});
  EXPECT_TRUE(Tcp("192.0.2.1", 443, 1500));
  EXPECT_FALSE(Tcp("192.0.2.1", 443, 3000)) << "UDP's local port does not open TCP";
  EXPECT_TRUE(Udp("192.0.2.1", 443, 3000));
  EXPECT_FALSE(Udp("192.0.2.1", 443, 1500));
  EXPECT_FALSE(Tcp("192.0.2.1", 443, 5000)) << "port 80's local port does not open 443";
  EXPECT_TRUE(Tcp("192.0.2.1", 80, 5000));
  EXPECT_FALSE(Tcp("192.0.2.1", 80, 1500));
}

TEST_F(PolicyTest, ExclusionsWithoutAnAddressApplyUnderTheAnyPrefix) {
  AddClient({{.protocol = kTcp, .localPortRange = PortRange{22, 22}},
             {.remoteAddress = ParseIpAddress("10.0.0.1"), .protocol = kIcmp}});
  EXPECT_TRUE(Tcp("10.0.0.1", 50000, 22)) << "an address of its own must not hide the any-address exclusion";
  EXPECT_TRUE(Tcp("198.51.100.1", 50000, 22));
  EXPECT_FALSE(Tcp("198.51.100.1", 50000, 23));
}

// --- Sharing, removing, undoing ------------------------------------------------------

TEST_F(PolicyTest, ClientsShareAnAddressEntryByIdAndCount) {
  const auto first = AddClient({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kTcp,
                                 .remotePortRange = PortRange{443, 443}}});
  const auto once = *Remote("10.77.0.2");
  const auto second = AddClient({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kUdp,
                                  .remotePortRange = PortRange{53, 53}}});
  const auto twice = *Remote("10.77.0.2");
  EXPECT_EQ(twice.ipId, once.ipId);
  EXPECT_EQ(twice.refCount, 2u);
  EXPECT_TRUE(Udp("10.77.0.2", 53));

  RemoveClient(first);
  EXPECT_EQ(Remote("10.77.0.2")->refCount, 1u);
  EXPECT_FALSE(Tcp("10.77.0.2", 443));
  EXPECT_TRUE(Udp("10.77.0.2", 53)) << "the other client's exclusion stays";
  RemoveClient(second);
  EXPECT_TRUE(maps.Empty());
  EXPECT_TRUE(book.Empty());
}

TEST_F(PolicyTest, ClientsShareAnApplicationEntryByIdAndCount) {
  executables.canonical = {{"/bin/app", "/bin/app"}, {"/usr/../bin/app", "/bin/app"}};
  executables.identity = {{"/bin/app", IsolationAppKey{9, 3, 0}}};
  const auto first = AddClient({{.applicationPath = "/bin/app"}});
  const auto second = AddClient({{.protocol = kTcp, .applicationPath = "/usr/../bin/app"}});
  const IsolationAppKey key{9, 3, 0};
  auto value = maps.Lookup<IsolationAppValue>(PolicyMap::AppStep0, key);
  ASSERT_TRUE(value);
  EXPECT_EQ(value->refCount, 2u);
  RemoveClient(second);
  EXPECT_EQ(maps.Lookup<IsolationAppValue>(PolicyMap::AppStep0, key)->refCount, 1u);
  RemoveClient(first);
  EXPECT_TRUE(maps.Empty());
}

TEST_F(PolicyTest, RemovingAClientRestoresTheMapsExactly) {
  executables.canonical = {{"/bin/app", "/bin/app"}};
  executables.identity = {{"/bin/app", IsolationAppKey{9, 3, 0}}};
  const auto address = ParseIpAddress("fd77::2");
  AddClient({{.remoteAddress = address, .protocol = kTcp, .remotePortRange = PortRange{1000, 2000}},
             {.remoteAddress = address, .protocol = kTcp,
              .localPortRange = PortRange{22, 22}, .remotePortRange = PortRange{5000, 5000}},
             {.applicationPath = "/bin/app"}});
  const FakePolicyMaps before = maps;
  const auto second = AddClient({{.remoteAddress = address, .protocol = kUdp, .remotePortRange = PortRange{1500, 1600}},
                                 {.remoteAddress = address, .protocol = kTcp,
                                  .localPortRange = PortRange{23, 23}, .remotePortRange = PortRange{5000, 5000}},
                                 {.protocol = kIcmp},
                                 {.applicationPath = "/bin/app"}});
  EXPECT_TRUE(Tcp("fd77::2", 5000, 23));
  RemoveClient(second);
  EXPECT_TRUE(maps == before);
  EXPECT_FALSE(Tcp("fd77::2", 5000, 23));
  EXPECT_TRUE(Tcp("fd77::2", 5000, 22));
}

TEST_F(PolicyTest, TheInverseOfAnAddUndoesEveryWriteItDid) {
  AddClient({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kTcp, .remotePortRange = PortRange{443, 443}}});
  const FakePolicyMaps before = maps;
  const auto change = book.Add(Prepare({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kTcp,
                                         .remotePortRange = PortRange{400, 500}},
                                        {.remoteAddress = ParseIpAddress("fd77::1")}}));
  // Each prefix of the writes, undone, leaves the maps as they were.
  for (std::size_t done = 0; done <= change.writes.size(); ++done) {
    FakePolicyMaps partial = before;
    const PolicyWrites head(change.writes.begin(), change.writes.begin() + static_cast<std::ptrdiff_t>(done));
    ASSERT_EQ(partial.Apply(head), std::nullopt);
    ASSERT_EQ(partial.Apply(Inverse(head)), std::nullopt) << done;
    EXPECT_TRUE(partial == before) << done;
  }
}

TEST_F(PolicyTest, EntriesArePutInBeforeTheAddressThatLeadsToThem) {
  const auto change = book.Add(Prepare({{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = kTcp,
                                         .remotePortRange = PortRange{443, 443}}}));
  ASSERT_EQ(change.writes.size(), 2u);
  EXPECT_EQ(change.writes[0].map, PolicyMap::PortsStep2And4);
  EXPECT_EQ(change.writes[1].map, PolicyMap::RemoteStep1);
  const auto removal = book.Remove(change.handle);
  ASSERT_EQ(removal.size(), 2u);
  EXPECT_EQ(removal[0].map, PolicyMap::RemoteStep1);
  EXPECT_EQ(removal[1].map, PolicyMap::PortsStep2And4);
}

}  // namespace
}  // namespace qel::test
