// The NFLOG listener against the kernel, with each iptables backend: rules
// with the NFLOG target set up by the iptables tools in a namespace of the
// test's own, and real packets between it and a peer namespace.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "firewall/nflog_listener_factory.h"
#include "support/fake_framework.h"
#include "support/fake_nflog_callback.h"
#include "support/kernel_tables.h"
#include "support/netns.h"
#include "support/tcp_sockets.h"

namespace qel::test {
namespace {

using namespace firewall;
using namespace std::chrono_literals;

constexpr const char* kHost4 = PeerNamespace::kHost4;
constexpr const char* kPeer4 = PeerNamespace::kPeer4;
constexpr const char* kHost6 = PeerNamespace::kHost6;

std::string Result(oro::result_t result) { return tracing::FormatResult(result); }
const std::string kOk = Result(oro::errOk);

// Sends `count` datagrams of `size` bytes to `address`:`port`.
void SendUdp(const std::string& address, std::uint16_t port, int count = 1, std::size_t size = 200) {
  const SocketAddress to = SocketAddress::Of(address, port);
  const tools::UniqueFd fd(socket(to.Family(), SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd) ThrowSocketError("socket");
  const std::string data(size, 'x');
  for (int i = 0; i < count; ++i) {
    if (sendto(fd.Get(), data.data(), data.size(), 0, to.Get(), to.length) < 0 && errno != ENOBUFS) {
      ThrowSocketError("sendto " + to.Text());
    }
  }
}

// NFLOG rules as the module writes them: the group and the action's name.
void LogTo(const char* tool, const std::string& chain, const std::string& match, std::uint16_t group,
           const char* prefix) {
  std::vector<std::string> argv{tool, "-A", chain};
  std::istringstream words(match);
  for (std::string word; words >> word;) argv.push_back(word);
  argv.insert(argv.end(), {"-j", "NFLOG", "--nflog-group", std::to_string(group), "--nflog-prefix", prefix});
  RunToolOk(argv);
}

std::size_t ThreadsNamed(const std::string& name) {
  std::size_t count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  }
  return count;
}

std::size_t OpenDescriptors() {
  const auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::string Counts(INflogListener* listener) {
  NflogCounts counts;
  const auto counters = oro::QueryInterface<INflogCounters>(listener);
  if (!counters || ORO_FAILED(counters->GetNflogCounts(counts))) return "no counts";
  std::string text;
  for (const auto& g : counts.groups) {
    text += std::to_string(g.group) + ":" + std::to_string(g.delivered) + "/" + std::to_string(g.lost) + " ";
  }
  return text + "overruns " + std::to_string(counts.overruns);
}

// A listener made through the module's factory, for one case.
struct ListenerRig {
  ListenerRig() {
    locator->Register(tracer);
    if (ORO_FAILED(CreateInstance(factory, locator.Get())) ||
        ORO_FAILED(factory->Create(callback.Get(), listener.Out()))) {
      throw std::runtime_error("cannot create an NFLOG listener");
    }
  }

  oro::RefPtr<FakeTracer> tracer = oro::RefPtr<FakeTracer>::Adopt(new FakeTracer);
  oro::RefPtr<FakeLocator> locator = oro::RefPtr<FakeLocator>::Adopt(new FakeLocator);
  oro::RefPtr<FakeNflogCallback> callback = oro::RefPtr<FakeNflogCallback>::Adopt(new FakeNflogCallback);
  oro::RefPtr<NflogListenerFactory> factory;
  oro::RefPtr<INflogListener> listener;
};

class NflogListenerNsTest : public testing::TestWithParam<IptablesBackend> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: every case creates its own network and mount namespaces";
  }

  std::string Run(const std::function<std::string(ListenerRig&, const PeerNamespace&)>& body) {
    const ChildRun run = RunInNetworkNamespace(GetParam(), [&] {
      const PeerNamespace peer;
      ListenerRig rig;
      return body(rig, peer);
    });
    return run.completed ? run.output : "namespace child failed: " + run.output;
  }
};

// Sorted: each group's messages wait in the kernel for a flush of their
// own, so groups may arrive in any order.
std::string Lines(std::vector<std::string> lines) {
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  return text;
}

// Incoming and outgoing, IPv4 and IPv6, UDP, TCP and ICMP: each reaches the
// client with its group and the attributes the logger reads, its payload cut
// to the copy range.
TEST_P(NflogListenerNsTest, LoggedPacketsReachTheClientWithTheirGroupAndAttributes) {
  const std::string output = Run([](ListenerRig& rig, const PeerNamespace& peer) {
    LogTo("iptables", "INPUT", "-p udp --dport 5001", 10001, "Block");
    LogTo("ip6tables", "INPUT", "-p tcp --dport 5002 --syn", 10002, "Allow");
    LogTo("iptables", "OUTPUT", "-p udp --dport 5003", 10003, "Allow");
    LogTo("iptables", "INPUT", "-p icmp", 10005, "Block");
    std::string text = Result(rig.listener->Start({10001, 10002, 10003, 10005})) + "\n";
    peer.Within([] { SendUdp(kHost4, 5001); });
    rig.callback->WaitFor(1);
    peer.Within([] { return TcpConnects(kHost6, 5002, "", 300ms); });  // nobody listens: one SYN logged
    rig.callback->WaitFor(2);
    SendUdp(kPeer4, 5003, 1, 20);
    rig.callback->WaitFor(3);
    peer.Within([] { return RunToolOk({"ping", "-c", "1", "-W", "1", kHost4}); });
    rig.callback->WaitFor(4);
    text += Lines(rig.callback->Packets());
    text += Counts(rig.listener.Get()) + "\n";
    return text + Result(rig.listener->Stop());
  });
  EXPECT_EQ(output, kOk +
                        "\n"
                        "10001 hook 1 Block v4 proto 17 payload 60 numbered\n"
                        "10002 hook 1 Allow v6 proto 6 payload 60 numbered\n"
                        "10003 hook 3 Allow v4 proto 17 payload 48 numbered\n"
                        "10005 hook 1 Block v4 proto 1 payload 60 numbered\n"
                        "10001:1/0 10002:1/0 10003:1/0 10005:1/0 overruns 0\n" +
                        kOk);
}

// The thread and the socket exist exactly while started; a second start is
// refused and leaves the running listener delivering.
TEST_P(NflogListenerNsTest, StartAndStopOwnTheThreadAndTheSocket) {
  const std::string output = Run([](ListenerRig& rig, const PeerNamespace& peer) {
    LogTo("iptables", "INPUT", "-p udp --dport 5001", 10001, "Block");
    LogTo("iptables", "INPUT", "-p udp --dport 5002", 10002, "Block");
    const std::size_t descriptors = OpenDescriptors();
    // The call's result, then the threads and descriptors it left.
    const auto after = [&](oro::result_t result) {
      return Result(result) + " threads " + std::to_string(ThreadsNamed("vornNfLogPoll")) + " descriptors +" +
             std::to_string(OpenDescriptors() - descriptors);
    };
    std::string text = "stopped: " + after(rig.listener->Stop()) + "\n";
    text += "no groups: " + after(rig.listener->Start({}));
    text += ", " + after(rig.listener->Stop()) + "\n";
    text += "started: " + after(rig.listener->Start({10001})) + "\n";
    text += "again: " + after(rig.listener->Start({10002})) + "\n";
    peer.Within([] {
      SendUdp(kHost4, 5002);
      SendUdp(kHost4, 5001);
    });
    rig.callback->WaitFor(1);
    text += Lines(rig.callback->Packets());
    text += "stop: " + after(rig.listener->Stop());
    return text + " " + Counts(rig.listener.Get());
  });
  EXPECT_EQ(output, "stopped: " + kOk +
                        " threads 0 descriptors +0\n"
                        "no groups: " +
                        kOk + " threads 1 descriptors +2, " + kOk +
                        " threads 0 descriptors +0\n"
                        "started: " +
                        kOk +
                        " threads 1 descriptors +2\n"
                        "again: " +
                        Result(oro::errInvalidState) +
                        " threads 1 descriptors +2\n"
                        "10001 hook 1 Block v4 proto 17 payload 60 numbered\n"
                        "stop: " +
                        kOk + " threads 0 descriptors +0 overruns 0");
}

// A client too slow for a burst makes the kernel drop packets; the listener
// counts them, so that delivered and lost add up to what the logging rule
// saw. Packets lost at the end of the burst show only when the group's next
// message arrives: one more packet is sent after the burst.
TEST_P(NflogListenerNsTest, PacketsTheKernelDropsAreCounted) {
  const std::string output = Run([](ListenerRig& rig, const PeerNamespace& peer) {
    LogTo("iptables", "INPUT", "-p udp --dport 5001", 10001, "Block");
    std::string text = Result(rig.listener->Start({10001}));
    rig.callback->Hold();
    peer.Within([] { SendUdp(kHost4, 5001, 100000, 16); });
    rig.callback->Let();
    const auto tally = [&] {
      NflogCounts counts;
      oro::QueryInterface<INflogCounters>(rig.listener.Get())->GetNflogCounts(counts);
      return counts;
    };
    // Drained when the count stays put for a while.
    for (std::uint64_t last = ~0ull; tally().groups[0].delivered != last;) {
      last = tally().groups[0].delivered;
      std::this_thread::sleep_for(200ms);
    }
    peer.Within([] { SendUdp(kHost4, 5001); });
    const std::uint64_t logged = PacketsOf("iptables", "filter", "INPUT", "NFLOG");
    NflogCounts counts;
    for (int tries = 0; tries < 50; ++tries, std::this_thread::sleep_for(100ms)) {
      counts = tally();
      if (counts.groups[0].delivered + counts.groups[0].lost == logged) break;
    }
    const auto& group = counts.groups[0];
    text += std::string(" lost ") + (group.lost > 0 ? "some" : "none");
    text += std::string(", overruns ") + (counts.overruns > 0 ? "some" : "none");
    const bool addsUp = group.delivered + group.lost == logged;
    text += std::string(", delivered + lost ") + (addsUp ? "==" : "!=") + " rule counter";
    if (!addsUp) {
      text += " (" + std::to_string(group.delivered) + " + " + std::to_string(group.lost) + " vs " +
              std::to_string(logged) + ")";
    }
    return text + (rig.tracer->Contains(tracing::Warning, "NFLOG packets lost: ") ? ", traced" : ", not traced");
  });
  EXPECT_EQ(output, kOk + " lost some, overruns some, delivered + lost == rule counter, traced");
}

INSTANTIATE_TEST_SUITE_P(Backends, NflogListenerNsTest, testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const auto& info) { return std::string(BackendName(info.param)); });

}  // namespace
}  // namespace qel::test
