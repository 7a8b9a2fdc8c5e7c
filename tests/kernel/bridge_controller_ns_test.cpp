// The bridge controller on the bridge netfilter switches of a network
// namespace of the test's own, and the uevent listener on the kernel's
// uevent socket there. The module-load uevent itself cannot be produced
// without loading a module, which tests never do: the unit tests drive it
// through a fake source.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "firewall/bridge_controller.h"
#include "firewall/uevent_listener.h"
#include "support/fake_framework.h"
#include "support/fake_uevents.h"
#include "support/netns.h"

namespace qel::test {
namespace {

using namespace firewall;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

const fs::path kSwitches = BridgeController::kSwitchDirectory;
const fs::path kIpt = kSwitches / BridgeController::kIptablesSwitch;
const fs::path kIp6t = kSwitches / BridgeController::kIp6tablesSwitch;
constexpr const char* kSkip = "skip: ";

std::string Text(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Writes a switch of the namespace, as an administrator would.
void Put(const fs::path& file, const std::string& text) {
  std::ofstream out(file, std::ios::binary);
  out << text;
}

ino_t InodeOf(const fs::path& file) {
  struct stat status {};
  return ::stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

TEST(BridgeControllerNsTest, SwitchesOfTheNamespaceTakeTheChosenValueAndGetTheirTextsBack) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
  // The machine's own switch, looked at only: the namespace's must be
  // another file, or writing it would change the machine.
  const ino_t machineSwitch = InodeOf(kIpt);
  const auto run = RunInNetworkNamespace([machineSwitch]() -> std::string {
    if (!fs::exists(kSwitches)) {
      return std::string(kSkip) + kSwitches.string() + " does not exist: br_netfilter is not loaded";
    }
    if (InodeOf(kIpt) == machineSwitch) {
      return std::string(kSkip) + "the bridge netfilter switches are not per network namespace on this kernel";
    }
    Put(kIpt, "0\n");
    Put(kIp6t, "1\n");
    auto source = Make<FakeUeventSource>();
    oro::RefPtr<BridgeController> controller;
    CreateInstance(controller, oro::RefPtr<oro::ITracer>(), kSwitches,
                   oro::RefPtr<IUeventsSubscription>::Share(source.Get()));
    std::ostringstream seen;
    const auto step = [&](oro::result_t result) { seen << tracing::FormatResult(result) << " " << Text(kIpt)
                                                        << Text(kIp6t) << ";"; };
    step(controller->AddBridgeNfCallsClient(1, false, true));
    step(controller->AddBridgeNfCallsClient(2, true, false));
    step(controller->DeleteBridgeNfCallsClient(1));
    step(controller->DeleteBridgeNfCallsClient(2));
    return seen.str();
  });
  ASSERT_TRUE(run.completed) << run.output;
  if (run.output.starts_with(kSkip)) GTEST_SKIP() << run.output;
  const std::string ok = tracing::FormatResult(oro::errOk);
  EXPECT_EQ(run.output, ok + " 0\n0\n;" + ok + " 0\n0\n;" + ok + " 1\n1\n;" + ok + " 0\n1\n;");
}

TEST(UeventListenerNsTest, HearsTheUeventOfADeviceAddedInItsNamespace) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
  const auto run = RunInNetworkNamespace([]() -> std::string {
    auto tracer = Make<FakeTracer>();
    oro::RefPtr<UeventListener> listener;
    CreateInstance(listener, oro::RefPtr<oro::ITracer>::Share(tracer.Get()));
    auto sink = Make<RecordingUeventSink>();
    if (const auto r = listener->Subscribe(sink.Get()); r != oro::errOk) {
      return "Subscribe: " + tracing::FormatResult(r);
    }
    const PeerNamespace peer;  // adds veth-h here
    const bool heard = sink->WaitFor("add", "/net/veth-h", 10s);
    if (const auto r = listener->Unsubscribe(sink.Get()); r != oro::errOk) {
      return "Unsubscribe: " + tracing::FormatResult(r);
    }
    if (heard) return "heard";
    std::string seen = "not heard; seen:";
    for (const auto& uevent : sink->Seen()) seen += " [" + uevent + "]";
    return seen;
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "heard");
}

}  // namespace
}  // namespace qel::test
