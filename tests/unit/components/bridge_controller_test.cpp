// The bridge controller against switch files in a directory of the test's
// own and a uevent source the test drives.
#include "firewall/bridge_controller.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "support/fake_framework.h"
#include "support/fake_storage.h"
#include "support/fake_uevents.h"

namespace qel::test {
namespace {

using namespace firewall;
namespace fs = std::filesystem;

constexpr std::uint32_t kClientA = 0x72f9d8cb;
constexpr std::uint32_t kClientB = 0x4255454f;
constexpr bool kOn = true, kOff = false, kForced = true, kUnforced = false;

class BridgeControllerTest : public testing::Test {
 protected:
  void SetUp() override {
    directory = fs::temp_directory_path() /
                ("bridge_controller_test_" + std::to_string(::getpid()) + "_" +
                 testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(directory);
    fs::create_directories(directory);
  }
  void TearDown() override {
    controller.Reset();
    fs::remove_all(directory);
  }

  fs::path Ipt() const { return directory / "bridge-nf-call-iptables"; }
  fs::path Ip6t() const { return directory / "bridge-nf-call-ip6tables"; }
  static void Put(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::binary) << text; }
  static std::string Text(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  void PutSwitches(const std::string& ipt, const std::string& ip6t) {
    Put(Ipt(), ipt);
    Put(Ip6t(), ip6t);
  }
  // Both switches, as "iptables|ip6tables".
  std::string Switches() const { return Text(Ipt()) + "|" + Text(Ip6t()); }

  void Create() {
    CreateInstance(controller, oro::RefPtr<oro::ITracer>::Share(tracer.Get()), directory,
                   oro::RefPtr<IUeventsSubscription>::Share(source.Get()));
  }
  IUevents* Sink() const { return controller.Get(); }

  oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  oro::RefPtr<FakeUeventSource> source = Make<FakeUeventSource>();
  oro::RefPtr<BridgeController> controller;
  fs::path directory;
};

// The choice rule: the newest forced request wins, else the newest; the
// texts come back, exactly, when the last client leaves.
TEST_F(BridgeControllerTest, ValueInForceFollowsTheChoiceRuleAndTheSavedTextsComeBack) {
  PutSwitches("0\n", "1");  // whatever was there, byte for byte
  Create();

  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientA, kOff, kForced), oro::errOk);
  EXPECT_EQ(Switches(), "0\n|0\n");
  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientB, kOn, kUnforced), oro::errOk);
  EXPECT_EQ(Switches(), "0\n|0\n") << "a forced off stays off against a later unforced on";
  ASSERT_EQ(controller->AddBridgeNfCallsClient(3, kOn, kForced), oro::errOk);
  EXPECT_EQ(Switches(), "1\n|1\n") << "the newest forced request wins";
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(3), oro::errOk);
  EXPECT_EQ(Switches(), "0\n|0\n");
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientA), oro::errOk);
  EXPECT_EQ(Switches(), "1\n|1\n") << "with nothing forced, the newest request decides";

  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientB), oro::errOk);
  EXPECT_EQ(Switches(), "0\n|1") << "the texts from before the first write";
  EXPECT_TRUE(tracer->Contains("m_nfCallsHistory="));
  EXPECT_TRUE(tracer->Contains("m_savedNfCallsIpv4=\"0\\n\", m_savedNfCallsIpv6=\"1\""));

  // Changed by someone else while idle: the next round saves them afresh.
  PutSwitches("1\n", "0\n");
  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientA, kOff, kUnforced), oro::errOk);
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientA), oro::errOk);
  EXPECT_EQ(Switches(), "1\n|0\n");
}

// A run killed while it held the switches never wrote them back; the next
// run, over the same storage, brings back what they held before the killed
// run, not the value that run left.
TEST_F(BridgeControllerTest, TextsFromBeforeAKilledRunComeBackThroughStorage) {
  PutSwitches("0\n", "0\n");
  auto storage = std::make_shared<FakeStorage>();
  const auto node = [&] {
    auto root = Make<FakeStorageNode>(storage);
    oro::RefPtr<oro::IStorageNode> child;
    EXPECT_EQ(root->GetOrAppendNode("bridge", child.Out()), oro::errOk);
    return child;
  };
  oro::RefPtr<BridgeController> killed;
  CreateInstance(killed, oro::RefPtr<oro::ITracer>::Share(tracer.Get()), directory, oro::RefPtr<IUeventsSubscription>{},
                 node());
  ASSERT_EQ(killed->AddBridgeNfCallsClient(kClientA, kOn, kForced), oro::errOk);
  ASSERT_EQ(Switches(), "1\n|1\n");
  storage->Restart();  // only what was flushed survives the kill

  CreateInstance(controller, oro::RefPtr<oro::ITracer>::Share(tracer.Get()), directory,
                 oro::RefPtr<IUeventsSubscription>{}, node());
  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientA, kOn, kForced), oro::errOk);
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientA), oro::errOk);
  EXPECT_EQ(Switches(), "0\n|0\n");

  // Given back: a later round takes the switches' texts as they are then.
  PutSwitches("1\n", "1\n");
  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientA, kOff, kForced), oro::errOk);
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientA), oro::errOk);
  EXPECT_EQ(Switches(), "1\n|1\n");
  killed.Reset();
}

TEST_F(BridgeControllerTest, DuplicateOrUnknownClientIsRefusedWithNothingChanged) {
  PutSwitches("0\n", "0\n");
  Create();
  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientA, kOn, kUnforced), oro::errOk);

  EXPECT_EQ(controller->AddBridgeNfCallsClient(kClientA, kOff, kForced), oro::errAlreadyExists);
  EXPECT_EQ(Switches(), "1\n|1\n");
  EXPECT_TRUE(tracer->Contains(tracing::Error, "(it == m_nfCallsHistory.end()) failed"));
  EXPECT_EQ(controller->DeleteBridgeNfCallsClient(kClientB), oro::errNotFound);
  EXPECT_EQ(Switches(), "1\n|1\n");

  // One request only was recorded: deleting it is the last client leaving.
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientA), oro::errOk);
  EXPECT_EQ(Switches(), "0\n|0\n");
  EXPECT_FALSE(source->Subscribed(Sink()));
}

// Without br_netfilter the switch files are missing: the request is kept,
// and the module's "add" uevent applies it; other uevents change nothing.
TEST_F(BridgeControllerTest, RequestThatCouldNotBeWrittenIsAppliedWhenTheModuleLoads) {
  Put(Ip6t(), "0\n");  // the iptables switch is missing
  Create();

  EXPECT_NE(controller->AddBridgeNfCallsClient(kClientA, kOn, kUnforced), oro::errOk);
  EXPECT_EQ(Text(Ip6t()), "0\n") << "the ip6tables switch is written only after the iptables one";
  EXPECT_TRUE(tracer->Contains(tracing::Error, "SetSysctl(m_iptablesSwitch, value, m_savedNfCallsIpv4)"));
  EXPECT_TRUE(source->Subscribed(Sink()));

  Put(Ipt(), "0\n");
  source->Send("add", "/module/bridge");
  source->Send("remove", "/module/br_netfilter");
  source->Send("add", "/devices/virtual/net/br_netfilter");
  source->Send("change", "/module/br_netfilter");
  EXPECT_EQ(Switches(), "0\n|0\n");

  source->SendModuleLoaded();
  EXPECT_EQ(Switches(), "1\n|1\n");
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientA), oro::errOk);
  EXPECT_EQ(Switches(), "0\n|0\n");

  // With no client left, a late notification writes nothing.
  PutSwitches("0\n", "0\n");
  controller->OnUevent(Uevent{"add", "/module/br_netfilter", {}});
  EXPECT_EQ(Switches(), "0\n|0\n");
}

TEST_F(BridgeControllerTest, SubscribedToUeventsExactlyWhileItHasClients) {
  PutSwitches("0\n", "0\n");
  Create();
  EXPECT_FALSE(source->Subscribed(Sink()));

  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientA, kOn, kUnforced), oro::errOk);
  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientB, kOn, kUnforced), oro::errOk);
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientA), oro::errOk);
  EXPECT_TRUE(source->Subscribed(Sink()));
  EXPECT_EQ(source->subscribes, 1);
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientB), oro::errOk);
  EXPECT_FALSE(source->Subscribed(Sink()));

  // A failed subscription is reported, the value applied all the same, and
  // the next client subscribes again.
  source->failSubscribe = true;
  EXPECT_NE(controller->AddBridgeNfCallsClient(kClientA, kOn, kUnforced), oro::errOk);
  EXPECT_EQ(Switches(), "1\n|1\n");
  source->failSubscribe = false;
  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientB, kOn, kUnforced), oro::errOk);
  EXPECT_TRUE(source->Subscribed(Sink()));

  // A failed unsubscribe is traced; the sink may still be there when the
  // next client comes, which is as good as subscribed.
  source->failUnsubscribe = true;
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientA), oro::errOk);
  ASSERT_EQ(controller->DeleteBridgeNfCallsClient(kClientB), oro::errOk);
  EXPECT_TRUE(tracer->Contains(tracing::Error, "potentially services leak will be, cannot unsubscribe: 0x"));
  source->failUnsubscribe = false;

  // Released with a client still there: switches back, subscription ended.
  ASSERT_EQ(controller->AddBridgeNfCallsClient(kClientB, kOff, kForced), oro::errOk);
  IUevents* const released = Sink();
  controller.Reset();
  EXPECT_EQ(Switches(), "0\n|0\n");
  EXPECT_FALSE(source->Subscribed(released));
}

// Clients come and go on several threads while module uevents arrive on
// others: no deadlock (an unsubscribe waits for a notification that takes
// the controller's lock), the saved texts are never overwritten, and the
// end state is the idle one.
TEST_F(BridgeControllerTest, ConcurrentClientsAndUeventsKeepTheInvariant) {
  PutSwitches("0\n", "1\n");
  Create();
  std::atomic<bool> done = false;
  std::vector<std::jthread> senders;
  for (int i = 0; i < 2; ++i) {
    senders.emplace_back([&] {
      while (!done) {
        source->SendModuleLoaded();
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    });
  }
  std::vector<std::jthread> clients;
  std::atomic<int> failures = 0;
  for (std::uint32_t client = 1; client <= 4; ++client) {
    clients.emplace_back([&, client] {
      std::mt19937 random(client);
      for (int round = 0; round < 100; ++round) {
        const bool value = random() % 2, force = random() % 3 == 0;
        if (controller->AddBridgeNfCallsClient(client, value, force) != oro::errOk) ++failures;
        if (controller->DeleteBridgeNfCallsClient(client) != oro::errOk) ++failures;
      }
    });
  }
  clients.clear();
  done = true;
  senders.clear();

  EXPECT_EQ(failures, 0);
  EXPECT_EQ(Switches(), "0\n|1\n");
  EXPECT_FALSE(source->Subscribed(Sink()));
  EXPECT_EQ(source->subscribes, source->unsubscribes);
}

}  // namespace
}  // namespace qel::test
