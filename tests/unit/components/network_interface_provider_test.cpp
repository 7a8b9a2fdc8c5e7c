// The interface provider with a list the test sets and a sysfs tree in a
// temporary directory: what it hands out, what it notifies, its
// subscriptions and its thread.
#include "firewall/network_interface_provider.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "support/fake_framework.h"
#include "support/fake_network_interfaces.h"

namespace qel::firewall {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::FakeInterfaceList;
using test::FakeTracer;
using test::Make;
using test::RecordingInterfaceSink;

// Long enough for a loaded machine; only a failing test waits this long.
constexpr auto kGuard = 10s;
constexpr auto kPeriod = 5ms;

const InterfaceSnapshot kLo{1, true, "lo"};
const InterfaceSnapshot kEth0{2, true, "eth0"};
const InterfaceSnapshot kVlan{3, true, "eth0.10"};

// /sys/class/net as the kernel lays it out for a card with a vlan on it.
class FakeSysfs {
 public:
  FakeSysfs() {
    char pattern[] = "/tmp/itf_sysfs_XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    m_root = pattern;
    fs::create_directories(m_root / "lo");
    fs::create_directories(m_root / "eth0");
    fs::create_directories(m_root / "eth0.10");
    fs::create_directories(m_root / "devices" / "pci0000:00");
    fs::create_directory_symlink(m_root / "devices" / "pci0000:00", m_root / "eth0" / "device");
    fs::create_directory_symlink(m_root / "eth0.10", m_root / "eth0" / "upper_eth0.10");
    fs::create_directory_symlink(m_root / "eth0", m_root / "eth0.10" / "lower_eth0");
    // Another bridge port link of the same card, listed after the vlan.
    fs::create_directory_symlink(m_root / "eth0.10", m_root / "eth0" / "upper_br0");
  }
  ~FakeSysfs() {
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
  }
  const fs::path& Root() const { return m_root; }

 private:
  fs::path m_root;
};

class NetworkInterfaceProviderTest : public ::testing::Test {
 protected:
  oro::RefPtr<NetworkInterfaceProvider> MakeProvider(std::chrono::milliseconds period = kPeriod) {
    return Make<NetworkInterfaceProvider>(oro::RefPtr<oro::ITracer>::Share(m_tracer.Get()), m_list.Source(),
                                          m_sysfs.Root(), period);
  }
  oro::RefPtr<INetworkInterface> Find(INetworkInterfaceProvider& provider, const std::string& name) {
    NetworkInterfaces interfaces;
    EXPECT_EQ(provider.GetInterfaces(interfaces), oro::errOk);
    for (auto& itf : interfaces) {
      if (itf->GetName() == name) return itf;
    }
    return nullptr;
  }

  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  FakeInterfaceList m_list{{kLo, kEth0, kVlan}};
  FakeSysfs m_sysfs;
};

TEST_F(NetworkInterfaceProviderTest, HandsOutTheCurrentInterfacesWithWhatSysfsSaysOfThem) {
  auto provider = MakeProvider(1h);
  NetworkInterfaces interfaces;
  ASSERT_EQ(provider->GetInterfaces(interfaces), oro::errOk);
  ASSERT_EQ(interfaces.size(), 3u);
  EXPECT_EQ(interfaces[1]->GetIndex(), 2u);
  EXPECT_STREQ(interfaces[1]->GetName(), "eth0");
  EXPECT_TRUE(interfaces[1]->IsEnabled());

  const auto lo = Find(*provider, "lo");
  const auto eth0 = Find(*provider, "eth0");
  const auto vlan = Find(*provider, "eth0.10");
  ASSERT_TRUE(lo && eth0 && vlan);
  EXPECT_EQ(eth0->IsPhysical(), oro::errOk);
  EXPECT_EQ(lo->IsPhysical(), oro::errFalse);
  EXPECT_EQ(vlan->IsPhysical(), oro::errFalse);

  std::vector<std::string> names{"stale"};
  EXPECT_EQ(eth0->GetUpperInterfaces(names), oro::errOk);
  EXPECT_EQ(names, (std::vector<std::string>{"br0", "eth0.10"}));
  EXPECT_EQ(eth0->GetLowerInterfaces(names), oro::errOk);
  EXPECT_TRUE(names.empty());
  EXPECT_EQ(vlan->GetLowerInterfaces(names), oro::errOk);
  EXPECT_EQ(names, (std::vector<std::string>{"eth0"}));

  // The list changes; objects handed out earlier keep what they were.
  m_list.Set({kLo, {2, false, "wan"}});
  interfaces.clear();
  ASSERT_EQ(provider->GetInterfaces(interfaces), oro::errOk);
  ASSERT_EQ(interfaces.size(), 2u);
  EXPECT_STREQ(interfaces[1]->GetName(), "wan");
  EXPECT_FALSE(interfaces[1]->IsEnabled());
  EXPECT_STREQ(eth0->GetName(), "eth0");
}

TEST_F(NetworkInterfaceProviderTest, FailuresLeaveTheCallersListsAlone) {
  auto provider = MakeProvider(1h);
  const auto eth0 = Find(*provider, "eth0");
  ASSERT_TRUE(eth0);
  fs::remove_all(m_sysfs.Root() / "eth0");
  std::vector<std::string> names{"kept"};
  EXPECT_TRUE(oro::Failed(eth0->GetUpperInterfaces(names)));
  EXPECT_EQ(names, std::vector<std::string>{"kept"});
  EXPECT_TRUE(m_tracer->Contains(tracing::Error, "failed to open " + (m_sysfs.Root() / "eth0").string()));
  EXPECT_EQ(eth0->IsPhysical(), oro::errFalse);

  m_list.FailWith(oro::errUnexpected);
  NetworkInterfaces interfaces{eth0};
  EXPECT_EQ(provider->GetInterfaces(interfaces), oro::errUnexpected);
  EXPECT_EQ(interfaces.size(), 1u);
}

TEST_F(NetworkInterfaceProviderTest, NotifiesEachDifferenceOnceAndTracesIt) {
  auto provider = MakeProvider();
  auto sink = Make<RecordingInterfaceSink>();
  ASSERT_EQ(provider->Subscribe(sink.Get()), oro::errOk);
  EXPECT_EQ(provider->Subscribe(sink.Get()), oro::errAlreadyExists);
  EXPECT_EQ(provider->Subscribe(nullptr), oro::errInvalidArgument);

  // What was there at creation is not news.
  ASSERT_TRUE(m_list.WaitForReadings(3, kGuard));
  EXPECT_TRUE(sink->Changes().empty());

  // Interfaces are told apart by index: a rename, a state change alone and
  // a listing in another order are one change each or none.
  const InterfaceSnapshot loDown{1, false, "lo"};
  const InterfaceSnapshot wan{2, false, "wan"};
  const InterfaceSnapshot eth1{4, true, "eth1"};
  m_list.Set({eth1, loDown, wan});
  ASSERT_TRUE(sink->WaitForCount(4, kGuard));
  // Later passes find nothing new.
  ASSERT_TRUE(m_list.WaitForReadings(3, kGuard));
  const InterfaceChanges expected{{kVlan, std::nullopt}, {std::nullopt, eth1}, {kLo, loDown}, {kEth0, wan}};
  EXPECT_EQ(sink->Changes(), expected);

  EXPECT_TRUE(m_tracer->Contains("deletedInterface={index=3, enabled=true, name=eth0.10}"));
  EXPECT_TRUE(m_tracer->Contains(
      "oldInterface={index=2, enabled=true, name=eth0}, newInterface={index=2, enabled=false, name=wan}"));
  EXPECT_TRUE(m_tracer->Contains("addedInterface={index=4, enabled=true, name=eth1}"));
  EXPECT_EQ(provider->Unsubscribe(sink.Get()), oro::errOk);
  EXPECT_EQ(provider->Unsubscribe(sink.Get()), oro::errNotFound);
}

TEST_F(NetworkInterfaceProviderTest, AReadingThatFailsIsNotTakenForInterfacesGone) {
  auto provider = MakeProvider();
  auto sink = Make<RecordingInterfaceSink>();
  ASSERT_EQ(provider->Subscribe(sink.Get()), oro::errOk);
  m_list.FailWith(oro::errUnexpected);
  ASSERT_TRUE(m_list.WaitForReadings(3, kGuard));
  m_list.FailWith(oro::errOk);
  ASSERT_TRUE(m_list.WaitForReadings(3, kGuard));
  EXPECT_TRUE(sink->Changes().empty());
  EXPECT_TRUE(m_tracer->Contains(tracing::Error, "Cannot read the interface list"));
}

// Each call is checked against the subscriptions when it starts, not when
// the pass began; a sink may unsubscribe itself from its notification.
TEST_F(NetworkInterfaceProviderTest, NoNotificationReachesASinkOnceUnsubscribeReturns) {
  auto provider = MakeProvider();
  auto first = Make<RecordingInterfaceSink>();
  auto second = Make<RecordingInterfaceSink>();
  auto staying = Make<RecordingInterfaceSink>();
  auto goneEarlier = Make<RecordingInterfaceSink>();
  std::atomic<oro::result_t> selfResult = oro::errUnexpected;
  std::atomic<oro::result_t> otherResult = oro::errUnexpected;
  first->duringCall = [&, once = true]() mutable {
    if (!std::exchange(once, false)) return;
    selfResult = provider->UnsubscribeAndWait(first.Get());
    otherResult = provider->Unsubscribe(second.Get());
  };
  for (const auto& sink : {first, second, staying, goneEarlier}) ASSERT_EQ(provider->Subscribe(sink.Get()), oro::errOk);
  ASSERT_EQ(provider->Unsubscribe(goneEarlier.Get()), oro::errOk);
  m_list.Set({kLo});
  ASSERT_TRUE(staying->WaitForCount(2, kGuard));
  EXPECT_EQ(selfResult, oro::errOk);
  EXPECT_EQ(otherResult, oro::errOk);
  EXPECT_EQ(first->Changes().size(), 1u);
  EXPECT_TRUE(second->Changes().empty());
  EXPECT_TRUE(goneEarlier->Changes().empty());
}

TEST_F(NetworkInterfaceProviderTest, UnsubscribeAndWaitReturnsOnlyWhenTheSinksNotificationHasEnded) {
  auto provider = MakeProvider();
  auto sink = Make<RecordingInterfaceSink>();
  auto other = Make<RecordingInterfaceSink>();
  sink->HoldFirstCall();
  ASSERT_EQ(provider->Subscribe(sink.Get()), oro::errOk);
  ASSERT_EQ(provider->Subscribe(other.Get()), oro::errOk);
  m_list.Set({kLo, kEth0});
  ASSERT_TRUE(sink->WaitUntilHeld(kGuard));

  std::atomic<bool> returned = false;
  std::thread unsubscriber([&] {
    EXPECT_EQ(provider->UnsubscribeAndWait(sink.Get()), oro::errOk);
    returned = true;
  });
  // Plenty of time to return, were it not waiting; the check cannot fail
  // by being slow.
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(returned);
  sink->LetGo();
  unsubscriber.join();
  EXPECT_TRUE(returned);

  // Nothing more for the sink; the other one hears on.
  m_list.Set({kLo});
  ASSERT_TRUE(other->WaitForCount(2, kGuard));
  EXPECT_EQ(sink->Changes().size(), 1u);
}

TEST_F(NetworkInterfaceProviderTest, TheLastReleaseStopsAndJoinsTheMonitoringThread) {
  auto provider = MakeProvider(20ms);
  EXPECT_TRUE(m_tracer->Contains("checkPeriod=0.02"));
  auto sink = Make<RecordingInterfaceSink>();
  ASSERT_EQ(provider->Subscribe(sink.Get()), oro::errOk);
  ASSERT_TRUE(m_list.WaitForReadings(2, kGuard));
  provider.Reset();
  // Joined: the thread said goodbye before the release returned.
  EXPECT_TRUE(m_tracer->Contains("Waiting end of monitoring thread ..."));
  EXPECT_TRUE(m_tracer->Contains("Monitoring thread going to stop"));
  const std::size_t readings = m_list.Readings();
  m_list.Set({});
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(m_list.Readings(), readings);
  EXPECT_TRUE(sink->Changes().empty());
}

TEST_F(NetworkInterfaceProviderTest, NoNotificationStartsOnceTheReleaseHasBegun) {
  auto provider = MakeProvider();
  auto sink = Make<RecordingInterfaceSink>();
  sink->HoldFirstCall();
  ASSERT_EQ(provider->Subscribe(sink.Get()), oro::errOk);
  // Two differences in one pass: the release comes during the first.
  m_list.Set({kLo, {2, false, "eth0"}});
  ASSERT_TRUE(sink->WaitUntilHeld(kGuard));
  std::thread releaser([&] { provider.Reset(); });
  const bool releasing = m_tracer->WaitFor("Waiting end of monitoring thread ...", 1, kGuard);
  sink->LetGo();
  releaser.join();
  ASSERT_TRUE(releasing);
  EXPECT_EQ(sink->Changes().size(), 1u);
}

}  // namespace
}  // namespace qel::firewall
