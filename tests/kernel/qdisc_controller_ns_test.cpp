#include <gtest/gtest.h>
#include <net/if.h>
#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "firewall/ebpf/bpf_tc_has_filters.h"
#include "firewall/ebpf/qdisc_controller.h"
#include "support/fake_framework.h"
#include "support/netns.h"
#include "support/tc_programs.h"

namespace qel::test {
namespace {

using firewall::IQdisc;
using firewall::TcFilterPlace;
using firewall::TcProgram;

constexpr const char* kNeedsRoot = "needs root to create a network namespace and a veth pair";

// The host side of a veth pair in the namespace child, with a controller
// and an accepting classifier to attach.
TcFilterPlace Side(bpf_tc_attach_point direction) { return TcFilterPlace{direction, 1, 1}; }

struct Rig {
  PeerNamespace peer;
  int ifindex = static_cast<int>(if_nametoindex("veth-h"));
  oro::RefPtr<firewall::QdiscController> controller;
  tools::UniqueFd program = LoadAcceptingClassifier();

  Rig() { CreateInstance(controller, Make<FakeLocator>().Get()); }

  oro::RefPtr<IQdisc> Qdisc() const {
    oro::RefPtr<IQdisc> qdisc;
    controller->GetQdisc(ifindex, qdisc.Out());
    return qdisc;
  }
  TcProgram Program() const { return TcProgram{program.Get(), "accept_all"}; }
  // The hook while our classifier is attached on both sides, then after the
  // qdisc object is released: "held | released".
  std::string HeldThenReleased() const {
    std::string held;
    {
      auto qdisc = Qdisc();
      if (!qdisc) return "no qdisc";
      std::uint32_t in = 0, out = 0;
      qdisc->AttachFilter(Program(), Side(BPF_TC_INGRESS), in);
      qdisc->AttachFilter(Program(), Side(BPF_TC_EGRESS), out);
      held = HookState(ifindex);
    }
    return held + " | " + HookState(ifindex);
  }
  std::string Missing() const {
    if (ifindex < 1) return "no veth-h";
    if (!program) return "classifier refused";
    if (!controller) return "no controller";
    return {};
  }
};


TEST(QdiscControllerNs, AFreshInterfaceGetsAClsactThatGoesAtRelease) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const auto run = RunInNetworkNamespace([] {
    Rig rig;
    if (auto missing = rig.Missing(); !missing.empty()) return missing;
    return rig.HeldThenReleased();
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "clsact=1 ingress=1 egress=1 | clsact=0 ingress=0 egress=0");
}

TEST(QdiscControllerNs, AClsactFoundInPlaceKeepsItselfAndItsForeignFilter) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const auto run = RunInNetworkNamespace([] {
    Rig rig;
    if (auto missing = rig.Missing(); !missing.empty()) return missing;
    if (CreateClsact(rig.ifindex) != 0) return std::string("cannot create the clsact");
    if (AttachForeignFilter(rig.ifindex, BPF_TC_INGRESS, rig.program.Get(), 7, 7) != 0) {
      return std::string("cannot attach the foreign filter");
    }
    return rig.HeldThenReleased();
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "clsact=1 ingress=2 egress=1 | clsact=1 ingress=1 egress=0");
}

TEST(QdiscControllerNs, AClsactFoundInPlaceStaysEvenWithoutFilters) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const auto run = RunInNetworkNamespace([] {
    Rig rig;
    if (auto missing = rig.Missing(); !missing.empty()) return missing;
    if (CreateClsact(rig.ifindex) != 0) return std::string("cannot create the clsact");
    {
      auto qdisc = rig.Qdisc();
      std::uint32_t in = 0;
      if (!qdisc || qdisc->AttachFilter(rig.Program(), Side(BPF_TC_INGRESS), in) != oro::errOk) {
        return std::string("cannot attach");
      }
    }
    return HookState(rig.ifindex);
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "clsact=1 ingress=0 egress=0");
}

TEST(QdiscControllerNs, AClsactCreatedHereStaysWhileAForeignFilterIsOnIt) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const auto run = RunInNetworkNamespace([] {
    Rig rig;
    if (auto missing = rig.Missing(); !missing.empty()) return missing;
    {
      auto qdisc = rig.Qdisc();
      if (!qdisc) return std::string("no qdisc");
      std::uint32_t in = 0;
      qdisc->AttachFilter(rig.Program(), Side(BPF_TC_INGRESS), in);
      if (AttachForeignFilter(rig.ifindex, BPF_TC_EGRESS, rig.program.Get(), 7, 7) != 0) {
        return std::string("cannot attach the foreign filter");
      }
    }
    return HookState(rig.ifindex);
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "clsact=1 ingress=0 egress=1");
}

TEST(QdiscControllerNs, UsersOfOneInterfaceShareItsHookUntilTheLastLetsGo) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const auto run = RunInNetworkNamespace([] {
    Rig rig;
    if (auto missing = rig.Missing(); !missing.empty()) return missing;
    auto first = rig.Qdisc();
    auto second = rig.Qdisc();
    if (!first || !second) return std::string("no qdisc");
    std::ostringstream text;
    text << "same=" << (first.Get() == second.Get());
    first.Reset();
    text << " | " << HookState(rig.ifindex);
    second.Reset();
    text << " | " << HookState(rig.ifindex);
    oro::RefPtr<IQdisc> absent;
    text << " | missing interface " << (ORO_FAILED(rig.controller->GetQdisc(9999, absent.Out())) ? "fails" : "works");
    return text.str();
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output,
            "same=1 | clsact=1 ingress=0 egress=0 | clsact=0 ingress=0 egress=0 | missing interface fails");
}

TEST(QdiscControllerNs, AttachingAProgramTwiceGivesItsFilterAndDetachingForgetsIt) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const auto run = RunInNetworkNamespace([] {
    Rig rig;
    if (auto missing = rig.Missing(); !missing.empty()) return missing;
    auto qdisc = rig.Qdisc();
    if (!qdisc) return std::string("no qdisc");
    // Another descriptor of the same program is the same program.
    const tools::UniqueFd again(fcntl(rig.program.Get(), F_DUPFD_CLOEXEC, 0));
    std::uint32_t first = 0, second = 0, egress = 0;
    std::ostringstream text;
    text << (qdisc->AttachFilter(rig.Program(), Side(BPF_TC_INGRESS), first) == oro::errOk)
         << (qdisc->AttachFilter(TcProgram{again.Get(), "again"}, Side(BPF_TC_INGRESS), second) == oro::errOk)
         << (qdisc->AttachFilter(rig.Program(), Side(BPF_TC_EGRESS), egress) == oro::errOk);
    text << " same=" << (first == second) << " egressOwn=" << (egress != first) << " "
         << HookState(rig.ifindex);
    text << " | detach=" << (qdisc->DetachFilter(first) == oro::errOk) << " " << HookState(rig.ifindex);
    text << " | again=" << tracing::FormatResult(qdisc->DetachFilter(first))
         << " unknown=" << tracing::FormatResult(qdisc->DetachFilter(9999)) << " " << HookState(rig.ifindex);
    return text.str();
  });
  ASSERT_TRUE(run.completed) << run.output;
  const std::string notFound = tracing::FormatResult(oro::errNotFound);
  EXPECT_EQ(run.output, "111 same=1 egressOwn=1 clsact=1 ingress=1 egress=1 | detach=1 clsact=1 ingress=0 egress=1"
                        " | again=" + notFound + " unknown=" + notFound + " clsact=1 ingress=0 egress=1");
}

TEST(BpfTcHasFiltersNs, CountsTheFiltersOfEachSideApart) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  const auto run = RunInNetworkNamespace([] {
    Rig rig;
    if (auto missing = rig.Missing(); !missing.empty()) return missing;
    std::ostringstream text;
    text << "none: " << Filters(rig.ifindex, BPF_TC_INGRESS) << Filters(rig.ifindex, BPF_TC_EGRESS);
    CreateClsact(rig.ifindex);
    const int fd = rig.program.Get();
    AttachForeignFilter(rig.ifindex, BPF_TC_INGRESS, fd, 1, 1);
    AttachForeignFilter(rig.ifindex, BPF_TC_INGRESS, fd, 2, 2);
    AttachForeignFilter(rig.ifindex, BPF_TC_EGRESS, fd, 1, 1);
    text << " attached: " << Filters(rig.ifindex, BPF_TC_INGRESS) << Filters(rig.ifindex, BPF_TC_EGRESS);
    DetachForeignFilter(rig.ifindex, BPF_TC_INGRESS, 1, 1);
    text << " one gone: " << Filters(rig.ifindex, BPF_TC_INGRESS) << Filters(rig.ifindex, BPF_TC_EGRESS);
    text << " no such interface: " << Filters(9999, BPF_TC_INGRESS);
    text << " both sides at once: " << Filters(rig.ifindex, BPF_TC_INGRESS | BPF_TC_EGRESS);
    return text.str();
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "none: 00 attached: 21 one gone: 11 no such interface: 0 both sides at once: " +
                            std::to_string(-EINVAL));
}

}  // namespace
}  // namespace qel::test
