// Measures how many logged packets the NFLOG listener takes before the
// kernel starts dropping them, and whether every drop is counted.
//
// For each backend and rate, in a namespace of its own joined to a peer, a
// logging rule (NFLOG group 10001, written as the module's compiler writes
// it) sees a burst of UDP packets that the peer sends at the given rate,
// paced with sendmmsg batches against a monotonic clock. The listener's
// client only counts (see --client-ns). Printed per rate: packets sent, events delivered,
// losses counted by the listener (gaps in the group's numbering) and failed
// receives (overruns), the rule's own packet counter, whether the counter
// equals delivered plus lost, and the listener thread's CPU per event.
// Nothing is asserted.
//
//   nflog_bench [--rates 10000,25000,50000,100000,200000,max] [--packets 100000]
//               [--backends legacy,nft] [--rcvbuf BYTES] [--client-ns NS]
//
// --client-ns makes the client spend that much CPU per event, so that the
// listener falls behind at lower rates and the counting of losses shows.

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "firewall/nflog_listener.h"
#include "support/kernel_tables.h"
#include "support/netns.h"
#include "support/tcp_sockets.h"

namespace {

using namespace qel;
using namespace std::chrono_literals;
using qel::test::IptablesBackend;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kGroup = 10001;
constexpr std::uint16_t kPort = 5001;
constexpr std::size_t kPayload = 32;
constexpr unsigned kBatch = 64;

// Counts, after spending a given CPU time per event, as a client that builds
// and publishes an event would.
class CountingCallback final : public ObjectImpl<CountingCallback, firewall::INflogDataCallback> {
 public:
  explicit CountingCallback(std::uint64_t workNs) : m_work(std::chrono::nanoseconds(workNs)) {}
  bool OnNflogData(std::uint16_t, firewall::NflogAttributes) noexcept override {
    if (m_work.count() != 0) {
      const auto until = Clock::now() + m_work;
      while (Clock::now() < until) {
      }
    }
    calls.fetch_add(1, std::memory_order_relaxed);
    return true;
  }
  std::atomic<std::uint64_t> calls = 0;

 private:
  const std::chrono::nanoseconds m_work;
};

// Nanoseconds the thread named `name` has run on a CPU; 0 when there is none.
std::uint64_t ThreadCpuNs(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string line;
    if (!std::getline(comm, line) || line != name) continue;
    std::ifstream schedstat(task.path() / "schedstat");
    std::uint64_t onCpu = 0;
    schedstat >> onCpu;
    return onCpu;
  }
  return 0;
}

// Sends `count` datagrams on the connected `fd`, `rate` a second (0: as fast
// as the socket takes them), in batches whose start times follow the rate.
std::uint64_t SendPaced(int fd, std::uint64_t count, std::uint64_t rate) {
  char payload[kPayload] = {};
  iovec data{payload, sizeof payload};
  std::vector<mmsghdr> batch(kBatch);
  for (auto& message : batch) {
    message.msg_hdr = {};
    message.msg_hdr.msg_iov = &data;
    message.msg_hdr.msg_iovlen = 1;
  }
  timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  const auto startNs = std::uint64_t(start.tv_sec) * 1'000'000'000 + std::uint64_t(start.tv_nsec);
  std::uint64_t sent = 0;
  while (sent < count) {
    if (rate != 0) {
      const std::uint64_t dueNs = startNs + sent * 1'000'000'000 / rate;
      const timespec due{time_t(dueNs / 1'000'000'000), long(dueNs % 1'000'000'000)};
      while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
      }
    }
    const unsigned want = unsigned(std::min<std::uint64_t>(kBatch, count - sent));
    const int done = sendmmsg(fd, batch.data(), want, 0);
    if (done > 0)
      sent += unsigned(done);
    else if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)
      throw std::runtime_error("sendmmsg failed");
  }
  return sent;
}

std::uint64_t RuleCounter() { return test::PacketsOf("iptables", "filter", "INPUT", "NFLOG"); }

// Waits until the listener has taken everything the kernel holds: no new
// event for longer than the kernel's flush time of a group (one second).
void WaitUntilDrained(const CountingCallback& callback) {
  std::uint64_t last = ~0ull;
  auto quietSince = Clock::now();
  for (;;) {
    const std::uint64_t now = callback.calls.load();
    if (now != last) {
      last = now;
      quietSince = Clock::now();
    } else if (Clock::now() - quietSince > 1500ms) {
      return;
    }
    std::this_thread::sleep_for(100ms);
  }
}

std::string RunRate(std::uint64_t rate, std::uint64_t packets, int receiveBuffer, std::uint64_t clientNs) {
  const test::PeerNamespace peer;
  test::RunToolOk({"iptables", "-A", "INPUT", "-p", "udp", "--dport", std::to_string(kPort), "-j", "NFLOG",
                   "--nflog-prefix", "Block", "--nflog-group", std::to_string(kGroup)});
  auto callback = oro::RefPtr<CountingCallback>::Adopt(new CountingCallback(clientNs));
  oro::RefPtr<firewall::NflogListener> listener;
  if (ORO_FAILED(CreateInstance(listener, oro::RefPtr<oro::ITracer>(),
                                oro::RefPtr<firewall::INflogDataCallback>::Share(callback.Get()), receiveBuffer)) ||
      ORO_FAILED(listener->Start({kGroup}))) {
    throw std::runtime_error("cannot start the NFLOG listener");
  }
  const std::uint64_t cpuBefore = ThreadCpuNs("vornNfLogPoll");
  const test::SocketAddress host = test::SocketAddress::Of(test::PeerNamespace::kHost4, kPort);
  const tools::UniqueFd fd = peer.Within([] { return tools::UniqueFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); });
  if (!fd || connect(fd.Get(), host.Get(), host.length) != 0) throw std::runtime_error("cannot connect the sender");

  const auto begin = Clock::now();
  const std::uint64_t sent = SendPaced(fd.Get(), packets, rate);
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  WaitUntilDrained(*callback);
  // Losses at the end of the burst show with the group's next message.
  SendPaced(fd.Get(), 1, 0);
  firewall::NflogCounts counts;
  std::uint64_t counter = 0;
  for (int tries = 0; tries < 40; ++tries, std::this_thread::sleep_for(100ms)) {
    listener->GetNflogCounts(counts);
    counter = RuleCounter();
    if (counts.groups.at(0).delivered + counts.groups.at(0).lost == counter) break;
  }
  const std::uint64_t cpuNs = ThreadCpuNs("vornNfLogPoll") - cpuBefore;
  listener->Stop();

  const auto& group = counts.groups.at(0);
  char line[400];
  std::snprintf(line, sizeof line, "%9s %7llu %9.0f %9llu %8llu %8llu %9llu   %-3s %9.2f\n",
                rate ? std::to_string(rate).c_str() : "max", (unsigned long long)sent, sent / seconds,
                (unsigned long long)group.delivered, (unsigned long long)group.lost,
                (unsigned long long)counts.overruns, (unsigned long long)counter,
                group.delivered + group.lost == counter ? "yes" : "NO",
                group.delivered ? double(cpuNs) / 1000.0 / double(group.delivered) : 0.0);
  return line;
}

std::vector<std::uint64_t> ParseRates(const std::string& text) {
  std::vector<std::uint64_t> rates;
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');) rates.push_back(part == "max" ? 0 : std::stoull(part));
  return rates;
}

int Usage(const char* self) {
  std::fprintf(stderr,
               "usage: %s [--rates 10000,25000,...,max] [--packets N] [--backends legacy,nft] [--rcvbuf BYTES] "
               "[--client-ns NS]\n",
               self);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::uint64_t> rates{10000, 25000, 50000, 100000, 200000, 0};
  std::vector<IptablesBackend> backends{IptablesBackend::Legacy, IptablesBackend::Nft};
  std::uint64_t packets = 100000;
  int receiveBuffer = firewall::NflogListener::kReceiveBufferBytes;
  std::uint64_t clientNs = 0;
  try {
    for (int i = 1; i < argc; i += 2) {
      const std::string arg = argv[i];
      if (i + 1 >= argc) return Usage(argv[0]);
      if (arg == "--rates") {
        rates = ParseRates(argv[i + 1]);
      } else if (arg == "--packets") {
        packets = std::stoull(argv[i + 1]);
      } else if (arg == "--client-ns") {
        clientNs = std::stoull(argv[i + 1]);
      } else if (arg == "--rcvbuf") {
        receiveBuffer = std::stoi(argv[i + 1]);
      } else if (arg == "--backends") {
        backends.clear();
        const std::string list = argv[i + 1];
        if (list.find("legacy") != std::string::npos) backends.push_back(IptablesBackend::Legacy);
        if (list.find("nft") != std::string::npos) backends.push_back(IptablesBackend::Nft);
      } else {
        return Usage(argv[0]);
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return Usage(argv[0]);
  }
  if (geteuid() != 0) {
    std::fprintf(stderr, "nflog_bench needs root (network namespaces)\n");
    return 2;
  }
  std::printf(
      "nflog_bench: %llu UDP packets per rate from a peer namespace to a logging rule (NFLOG group %u),\n"
      "receive buffer asked for: %d bytes. After the burst has drained, one more packet is sent so that\n"
      "losses at its tail show; 'counter' is the rule's packet counter read after it, so 'adds up' compares\n"
      "it with delivered + lost, that extra packet included. CPU/event: the listener thread's time on a\n"
      "CPU (schedstat) per delivered event.\n",
      (unsigned long long)packets, kGroup, receiveBuffer);
  for (const IptablesBackend backend : backends) {
    std::printf("\n[%s]\n%9s %7s %9s %9s %8s %8s %9s %7s %9s\n", test::BackendName(backend), "rate/s", "sent", "sent/s",
                "delivered", "lost", "overruns", "counter", "adds up", "CPU/ev µs");
    for (const std::uint64_t rate : rates) {
      const test::ChildRun run =
          test::RunInNetworkNamespace(backend, [&] { return RunRate(rate, packets, receiveBuffer, clientNs); });
      std::printf("%s", run.completed ? run.output.c_str() : ("failed: " + run.output + "\n").c_str());
      std::fflush(stdout);
    }
  }
  return 0;
}
