// The interface provider against the kernel, in network namespaces of the
// tests' own: the real interface list and sysfs.
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <sstream>
#include <stdexcept>

#include "firewall/interface_list_reader.h"
#include "firewall/network_interface_provider.h"
#include "support/fake_framework.h"
#include "support/fake_network_interfaces.h"
#include "support/kernel_tables.h"
#include "support/netns.h"

namespace qel::test {
namespace {

using namespace std::chrono_literals;
using firewall::InterfaceChange;
using firewall::InterfaceSnapshot;

constexpr auto kGuard = 20s;
constexpr char kSkip[] = "skip: ";

// sysfs shows the network devices of the namespace it was mounted in: in a
// child that only left the machine's network namespace, /sys/class/net still
// lists the machine's. A fresh sysfs, in a mount namespace of the child's
// own, lists the child's.
void MountOwnSysfs() {
  if (unshare(CLONE_NEWNS) != 0) throw std::runtime_error(std::string("unshare: ") + std::strerror(errno));
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    throw std::runtime_error(std::string("making / private: ") + std::strerror(errno));
  }
  if (mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    throw std::runtime_error(std::string("mounting sysfs: ") + std::strerror(errno));
  }
}

void Ip(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "ip");
  RunToolOk(std::move(arguments));
}

oro::RefPtr<firewall::NetworkInterfaceProvider> MakeProvider(oro::RefPtr<FakeTracer> tracer,
                                                            std::chrono::milliseconds period) {
  firewall::InterfaceListReader reader{tracing::Tracer(oro::RefPtr<oro::ITracer>::Share(tracer.Get()))};
  return Make<firewall::NetworkInterfaceProvider>(
      oro::RefPtr<oro::ITracer>::Share(tracer.Get()),
      [reader](firewall::InterfaceSnapshots& out) { return reader.Read(out); }, "/sys/class/net", period);
}

std::string Describe(const firewall::InterfaceChanges& changes) {
  std::ostringstream text;
  for (const auto& change : changes) {
    text << "\n  ";
    if (change.before) text << *change.before;
    text << " -> ";
    if (change.after) text << *change.after;
  }
  return text.str();
}

// Waits for a change that `match` accepts and gives it back; throws with
// what came instead when none does.
InterfaceChange Await(RecordingInterfaceSink& sink, const std::string& what,
                      const std::function<bool(const InterfaceChange&)>& match) {
  if (!sink.WaitFor(match, kGuard)) {
    throw std::runtime_error("no notification of " + what + "; got:" + Describe(sink.Changes()));
  }
  for (const auto& change : sink.Changes()) {
    if (match(change)) return change;
  }
  throw std::logic_error("vanished");
}

bool Added(const InterfaceChange& c, const std::string& name) { return !c.before && c.after->name == name; }
bool Deleted(const InterfaceChange& c, const std::string& name) {
  return c.before && !c.after && c.before->name == name;
}
bool Changed(const InterfaceChange& c) { return c.before && c.after; }

TEST(NetworkInterfaceProviderNs, AVethAddedRenamedSetDownAndDeletedIsNotifiedStepByStep) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace and veth devices";
  const ChildRun run = RunInNetworkNamespace([] {
    auto provider = MakeProvider(Make<FakeTracer>(), 50ms);
    auto sink = Make<RecordingInterfaceSink>();
    if (provider->Subscribe(sink.Get()) != oro::errOk) return std::string("cannot subscribe");

    // Created down and without addresses, as a link shows before anyone
    // configures it: still listed.
    Ip({"link", "add", "itf-a", "type", "veth", "peer", "name", "itf-b"});
    const InterfaceSnapshot a = *Await(*sink, "itf-a added", [](auto& c) { return Added(c, "itf-a"); }).after;
    Await(*sink, "itf-b added", [](auto& c) { return Added(c, "itf-b"); });
    if (a.enabled || a.index == 0) return "itf-a added as " + Describe(sink->Changes());

    Ip({"link", "set", "itf-a", "name", "itf-c"});
    const InterfaceSnapshot renamed{a.index, false, "itf-c"};
    Await(*sink, "the rename", [&](auto& c) { return Changed(c) && *c.before == a && *c.after == renamed; });

    Ip({"link", "set", "itf-c", "up"});
    const InterfaceSnapshot up{a.index, true, "itf-c"};
    Await(*sink, "itf-c up", [&](auto& c) { return Changed(c) && *c.before == renamed && *c.after == up; });
    Ip({"link", "set", "itf-c", "down"});
    Await(*sink, "itf-c down", [&](auto& c) { return Changed(c) && *c.before == up && *c.after == renamed; });

    // Deleting one end takes the other with it.
    Ip({"link", "del", "itf-c"});
    Await(*sink, "itf-c deleted", [&](auto& c) { return Deleted(c, "itf-c") && c.before->index == a.index; });
    Await(*sink, "itf-b deleted", [](auto& c) { return Deleted(c, "itf-b"); });
    const auto changes = sink->Changes();
    if (changes.size() != 7) return "expected 7 notifications, got:" + Describe(changes);
    provider->UnsubscribeAndWait(sink.Get());
    return std::string("ok");
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "ok");
}

TEST(NetworkInterfaceProviderNs, SysfsTellsVirtualInterfacesAndTheirStacking) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create network and mount namespaces";
  const ChildRun run = RunInNetworkNamespace([] {
    MountOwnSysfs();
    Ip({"link", "add", "itf-a", "type", "veth", "peer", "name", "itf-b"});
    try {
      Ip({"link", "add", "link", "itf-a", "name", "itf-m", "type", "macvlan"});
    } catch (const std::exception& e) {
      return kSkip + std::string("the kernel cannot make a macvlan: ") + e.what();
    }
    // No hardware address: its index is not in the link entry of the list.
    Ip({"tuntap", "add", "dev", "itf-t", "mode", "tun"});
    auto provider = MakeProvider(Make<FakeTracer>(), 1h);
    firewall::NetworkInterfaces interfaces;
    if (provider->GetInterfaces(interfaces) != oro::errOk) return std::string("GetInterfaces failed");
    std::vector<std::string> lines;
    for (const auto& itf : interfaces) {
      std::vector<std::string> lower, upper;
      if (ORO_FAILED(itf->GetLowerInterfaces(lower)) || ORO_FAILED(itf->GetUpperInterfaces(upper))) {
        return std::string("cannot list the stacking of ") + itf->GetName();
      }
      if (itf->GetIndex() != if_nametoindex(itf->GetName())) return std::string("wrong index of ") + itf->GetName();
      std::ostringstream line;
      line << itf->GetName() << (itf->IsPhysical() == oro::errOk ? " physical" : " virtual");
      for (const auto& name : lower) line << " lower=" << name;
      for (const auto& name : upper) line << " upper=" << name;
      lines.push_back(line.str() + "\n");
    }
    std::sort(lines.begin(), lines.end());
    return std::accumulate(lines.begin(), lines.end(), std::string());
  });
  ASSERT_TRUE(run.completed) << run.output;
  if (run.output.starts_with(kSkip)) GTEST_SKIP() << run.output;
  EXPECT_EQ(run.output,
            "itf-a virtual upper=itf-m\n"
            "itf-b virtual\n"
            "itf-m virtual lower=itf-a\n"
            "itf-t virtual\n"
            "lo virtual\n");
}

}  // namespace
}  // namespace qel::test
