// The isolation classifiers put on a real interface by the skeleton and
// judged by real traffic: the host side of a veth pair in a network
// namespace of the test's own, a peer namespace on the other side. What the
// policy does not name shows as no answer within a short wait.
#include <net/if.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "firewall/ebpf/bpf_tc_has_filters.h"
#include "firewall/ebpf/isolation_policy_book.h"
#include "firewall/ebpf/qdisc_controller.h"
#include "firewall/network_isolation_ebpf_skeleton.h"
#include "support/fake_framework.h"
#include "support/kernel_tables.h"
#include "support/netns.h"
#include "support/tc_programs.h"
#include "support/tcp_sockets.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::test {
namespace {

using firewall::NetworkIsolationEbpfSkeleton;
using firewall::network_isolation_data::NetworkExclusionRules;

constexpr const char* kNeedsRoot = "needs root to load eBPF programs and to create network namespaces";
constexpr std::uint16_t kNamedPort = 7001;
constexpr std::uint16_t kOtherPort = 7002;

class NoExecutables final : public firewall::ebpf::IExecutableLookup {
 public:
  std::optional<std::string> Canonical(const std::string&) const override { return std::nullopt; }
  std::optional<firewall::ebpf::IsolationAppKey> Identity(const std::string&) const override { return std::nullopt; }
};

// The peer's TCP port kNamedPort, in both families.
const NetworkExclusionRules kPeersNamedPort = {
    {.remoteAddress = tools::ParseIpAddress(PeerNamespace::kPeer4), .protocol = 6,
     .remotePortRange = tools::PortRange{kNamedPort, kNamedPort}},
    {.remoteAddress = tools::ParseIpAddress(PeerNamespace::kPeer6), .protocol = 6,
     .remotePortRange = tools::PortRange{kNamedPort, kNamedPort}}};

bool ToolSucceeds(std::vector<std::string> argv) {
  tools::SpawnContext context;
  tools::InitSpawnContext(context, std::move(argv));
  context.output.emplace();
  context.errorOutput.emplace();
  return oro::Succeeded(tools::SecureSpawn(context)) && context.exitCode == 0;
}

// The peer's ping to the host: "answered" or "unanswered".
std::string PeerPing(const PeerNamespace& peer, const char* family, const char* to) {
  return peer.Within([&] { return ToolSucceeds({"ping", family, "-c1", "-W1", to}); }) ? "answered" : "unanswered";
}

// The host side of the veth pair with a loaded skeleton.
struct Rig {
  PeerNamespace peer;
  int ifindex = static_cast<int>(if_nametoindex("veth-h"));
  oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  NetworkIsolationEbpfSkeleton skeleton{tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(tracer.Get())),
                                        QEL_ISOLATION_BPF_OBJECT};
  firewall::ebpf::IsolationPolicyBook book;
  NoExecutables executables;

  // Empty when ready, else what is missing.
  std::string Prepare() {
    if (ifindex < 1) return "no veth-h";
    if (skeleton.Load() != oro::errOk) return "the isolation object did not load";
    return {};
  }
  std::string AddPolicy(const NetworkExclusionRules& rules) {
    firewall::ebpf::PolicyWrites rollback;
    const auto change = book.Add(firewall::ebpf::PreparePolicyExclude(rules, executables, tracing::Tracer()));
    return skeleton.AddPolicyExclude(change.writes, rollback) == oro::errOk ? "" : "the policy was refused";
  }
  std::string Attach(int index) { return tracing::FormatResult(skeleton.AttachBlockerTo(index)); }

  // What TCP from the host to the peer does in both families, and whether
  // the peer's pings are answered.
  std::string Traffic() const {
    TcpListener named4 = peer.Within([] { return TcpListener(PeerNamespace::kPeer4, kNamedPort); });
    TcpListener other4 = peer.Within([] { return TcpListener(PeerNamespace::kPeer4, kOtherPort); });
    TcpListener named6 = peer.Within([] { return TcpListener(PeerNamespace::kPeer6, kNamedPort); });
    TcpListener other6 = peer.Within([] { return TcpListener(PeerNamespace::kPeer6, kOtherPort); });
    // Each family's first exchange needs the neighbours found afresh.
    ToolSucceeds({"ip", "neigh", "flush", "all"});
    ToolSucceeds({"ip", "-6", "neigh", "flush", "all"});
    peer.Within([] { return ToolSucceeds({"ip", "-6", "neigh", "flush", "all"}); });
    // One probe after the other: the operands of + have no order.
    std::string text = "named " + Reach(PeerNamespace::kPeer4, kNamedPort);
    text += "/" + Reach(PeerNamespace::kPeer6, kNamedPort);
    text += ", other " + Reach(PeerNamespace::kPeer4, kOtherPort);
    text += "/" + Reach(PeerNamespace::kPeer6, kOtherPort);
    text += ", ping " + PeerPing(peer, "-4", PeerNamespace::kHost4);
    return text + "/" + PeerPing(peer, "-6", PeerNamespace::kHost6);
  }
};

std::string InNamespace(const std::function<std::string(Rig&)>& body) {
  const ChildRun run = RunInNetworkNamespace([&] {
    Rig rig;
    if (auto missing = rig.Prepare(); !missing.empty()) return missing;
    return body(rig);
  });
  return run.completed ? run.output : "child failed: " + run.output;
}

const std::string kOk = tracing::FormatResult(oro::errOk);

TEST(NetworkIsolationEbpfSkeletonNs, AnAttachedInterfacePassesOnlyWhatThePolicyNamesUntilUnload) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const std::string output = InNamespace([](Rig& rig) {
    // A link just brought up may miss the first neighbour solicitation.
    ToolSucceeds({"ping", "-6", "-c1", "-W3", PeerNamespace::kPeer6});
    std::string text = "before: " + rig.Traffic() + "\n";
    if (auto refused = rig.AddPolicy(kPeersNamedPort); !refused.empty()) return refused;
    text += "attach " + rig.Attach(rig.ifindex);
    text += " " + HookState(rig.ifindex) + "\n";
    text += "isolated: " + rig.Traffic() + "\n";
    rig.skeleton.UnloadAll();
    return text + "unloaded " + HookState(rig.ifindex) + ": " + rig.Traffic();
  });
  EXPECT_EQ(output,
            "before: named connected/connected, other connected/connected, ping answered/answered\n"
            "attach " + kOk + " clsact=1 ingress=1 egress=1\n"
            "isolated: named connected/connected, other blocked/blocked, ping unanswered/unanswered\n"
            "unloaded clsact=0 ingress=0 egress=0: named connected/connected, other connected/connected, "
            "ping answered/answered");
}

TEST(NetworkIsolationEbpfSkeletonNs, AClsactFoundInPlaceKeepsItselfAndItsForeignFilterAfterUnload) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const std::string output = InNamespace([](Rig& rig) {
    const tools::UniqueFd foreign = LoadAcceptingClassifier();
    if (!foreign || CreateClsact(rig.ifindex) != 0 ||
        AttachForeignFilter(rig.ifindex, BPF_TC_INGRESS, foreign.Get(), 7, 7) != 0) {
      return std::string("cannot set up the foreign filter");
    }
    std::string text = "attach " + rig.Attach(rig.ifindex);
    text += " " + HookState(rig.ifindex);
    rig.skeleton.UnloadAll();
    return text + " | " + HookState(rig.ifindex);
  });
  EXPECT_EQ(output, "attach " + kOk + " clsact=1 ingress=2 egress=1 | clsact=1 ingress=1 egress=0");
}

TEST(NetworkIsolationEbpfSkeletonNs, AttachingTwiceKeepsOneFilterPerSide) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const std::string output = InNamespace([](Rig& rig) {
    std::string text = rig.Attach(rig.ifindex);
    text += " " + rig.Attach(rig.ifindex);
    return text + " " + HookState(rig.ifindex);
  });
  EXPECT_EQ(output, kOk + " " + kOk + " clsact=1 ingress=1 egress=1");
}

// Isolating one way only would be neither isolated nor free: when the egress
// slot is taken, the ingress classifier comes off again.
TEST(NetworkIsolationEbpfSkeletonNs, ASideThatCannotBeAttachedLeavesNeitherAttached) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const std::string output = InNamespace([](Rig& rig) {
    const tools::UniqueFd foreign = LoadAcceptingClassifier();
    if (!foreign || CreateClsact(rig.ifindex) != 0 ||
        AttachForeignFilter(rig.ifindex, BPF_TC_EGRESS, foreign.Get(), 1, 1) != 0) {
      return std::string("cannot set up the foreign filter");
    }
    // Another user of the hook holds it, so the qdisc outlives the attempt.
    oro::RefPtr<firewall::QdiscController> controller;
    CreateInstance(controller, tracing::Tracer());
    oro::RefPtr<firewall::IQdisc> held;
    controller->GetQdisc(rig.ifindex, held.Out());
    NetworkIsolationEbpfSkeleton skeleton(tracing::Tracer(), QEL_ISOLATION_BPF_OBJECT,
                                          oro::RefPtr<firewall::IQdiscController>::Share(controller.Get()));
    if (skeleton.Load() != oro::errOk) return std::string("the isolation object did not load");
    std::string text = skeleton.AttachBlockerTo(rig.ifindex) == oro::errOk ? "attached" : "refused";
    return text + " " + HookState(rig.ifindex);
  });
  EXPECT_EQ(output, "refused clsact=1 ingress=0 egress=1");
}

TEST(NetworkIsolationEbpfSkeletonNs, AnInterfaceThatWentAwayDoesNotKeepTheOthersAttached) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const std::string output = InNamespace([](Rig& rig) {
    const int loopback = static_cast<int>(if_nametoindex("lo"));
    std::string text = rig.Attach(rig.ifindex);
    text += " " + rig.Attach(loopback);
    ToolSucceeds({"ip", "link", "del", "veth-h"});
    rig.skeleton.UnloadAll();
    return text + " | lo " + HookState(loopback) + ", loaded=" + std::to_string(rig.skeleton.IsLoaded());
  });
  EXPECT_EQ(output, kOk + " " + kOk + " | lo clsact=0 ingress=0 egress=0, loaded=0");
}

TEST(NetworkIsolationEbpfSkeletonNs, NothingIsAttachedWithoutTheObjectOrTheInterface) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const std::string output = InNamespace([](Rig& rig) {
    const std::string missing = rig.Attach(9999);
    rig.skeleton.UnloadAll();
    const std::string unloaded = rig.Attach(rig.ifindex);
    return (missing != kOk ? std::string("missing fails") : "missing works") + ", unloaded " + unloaded + " " +
           HookState(rig.ifindex);
  });
  EXPECT_EQ(output, "missing fails, unloaded " + tracing::FormatResult(oro::errInvalidState) +
                        " clsact=0 ingress=0 egress=0");
}

}  // namespace
}  // namespace qel::test
