// Measures how fast isolation takes hold and how fast it lets go, as a
// client of firewall-host sees it.
//
// For each iptables backend, in a network namespace of its own joined to a
// peer, firewall-host runs with allow-all settings and the isolation
// backends given. The peer sends a UDP probe to an echo socket on the host
// every 250 µs. For each number of exclusions (addresses nobody probes
// from), an `isolate` request is sent over the control socket and the
// first probe sent after it that gets no echo marks the isolation; then a
// `release` request, and the first echo of a probe sent after it marks the
// release. Printed per scale: the request's round trip and the time to the
// first dropped or passing probe, medians over the repetitions. Nothing is
// asserted.
//
//   isolation_bench --host FIREWALL_HOST [--exclusions 10,1000] [--backends legacy,nft]
//                   [--isolation-backends iptables] [--repeat 3]

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/ctl_command.h"
#include "qel_common/unique_fd.h"
#include "support/netns.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using qel::test::IptablesBackend;
using qel::test::PeerNamespace;
using qel::tools::UniqueFd;

constexpr std::uint16_t kEchoPort = 7007;
constexpr auto kProbeInterval = 250us;
// Room for the probes of a long run: 250 µs apart, ten minutes.
constexpr std::size_t kMaxProbes = 2'400'000;
// A probe whose echo has not come back by then counts as dropped.
constexpr auto kEchoGrace = 300ms;
constexpr auto kReleaseWait = 10s;

std::int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

UniqueFd UdpSocket() {
  UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
  return fd;
}

sockaddr_in Ipv4(const char* address, std::uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  if (inet_pton(AF_INET, address, &a.sin_addr) != 1) throw std::runtime_error(std::string("bad address ") + address);
  return a;
}

// Waits for readability for at most 20 ms, so that a stop is seen soon.
bool Readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 20) > 0;
}

// Sends every datagram back where it came from; runs in the host's
// namespace.
class EchoServer {
 public:
  EchoServer() : m_fd(UdpSocket()) {
    const auto address = Ipv4("0.0.0.0", kEchoPort);
    if (::bind(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error(std::string("bind: ") + std::strerror(errno));
    }
    m_thread = std::thread([this] { Run(); });
  }
  ~EchoServer() {
    m_stop = true;
    m_thread.join();
  }
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

 private:
  void Run() {
    char buffer[64];
    while (!m_stop) {
      if (!Readable(m_fd.Get())) continue;
      sockaddr_in from{};
      socklen_t length = sizeof from;
      const ssize_t n = ::recvfrom(m_fd.Get(), buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
      if (n > 0) ::sendto(m_fd.Get(), buffer, static_cast<std::size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), length);
    }
  }

  UniqueFd m_fd;
  std::atomic<bool> m_stop = false;
  std::thread m_thread;
};

// The peer's side: numbered probes at a steady pace, with the time each
// was sent and the time its echo came back (0: not yet).
class Prober {
 public:
  explicit Prober(const PeerNamespace& peer)
      : m_fd(peer.Within([] { return UdpSocket(); })), m_sent(kMaxProbes), m_echoed(kMaxProbes) {
    const auto host = Ipv4(PeerNamespace::kHost4, kEchoPort);
    if (::connect(m_fd.Get(), reinterpret_cast<const sockaddr*>(&host), sizeof host) != 0) {
      throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
    }
    m_sender = std::thread([this] { Send(); });
    m_receiver = std::thread([this] { Receive(); });
  }
  ~Prober() {
    m_stop = true;
    m_sender.join();
    m_receiver.join();
  }
  Prober(const Prober&) = delete;
  Prober& operator=(const Prober&) = delete;

  // The first probe sent at or after `fromNs`, and its echo time.
  struct Probe {
    std::int64_t sentNs = 0;
    std::int64_t echoedNs = 0;
  };
  std::optional<Probe> FirstSentAfter(std::int64_t fromNs, bool echoed) const {
    const std::size_t count = m_count.load();
    for (std::size_t i = 0; i < count; ++i) {
      const std::int64_t sent = m_sent[i].load();
      if (sent < fromNs) continue;
      const std::int64_t echo = m_echoed[i].load();
      if ((echo != 0) == echoed) return Probe{sent, echo};
    }
    return std::nullopt;
  }
  // Whether a probe sent after `fromNs` has been echoed.
  bool EchoedAfter(std::int64_t fromNs) const { return FirstSentAfter(fromNs, true).has_value(); }

 private:
  void Send() {
    auto next = Clock::now();
    for (std::uint32_t seq = 0; !m_stop && seq < kMaxProbes; ++seq) {
      std::this_thread::sleep_until(next);
      next += kProbeInterval;
      m_sent[seq].store(NowNs());
      m_count.store(seq + 1);
      ::send(m_fd.Get(), &seq, sizeof seq, MSG_DONTWAIT);
    }
  }
  void Receive() {
    while (!m_stop) {
      if (!Readable(m_fd.Get())) continue;
      std::uint32_t seq = 0;
      if (::recv(m_fd.Get(), &seq, sizeof seq, 0) == sizeof seq && seq < kMaxProbes) m_echoed[seq].store(NowNs());
    }
  }

  UniqueFd m_fd;
  std::vector<std::atomic<std::int64_t>> m_sent;
  std::vector<std::atomic<std::int64_t>> m_echoed;
  std::atomic<std::size_t> m_count = 0;
  std::atomic<bool> m_stop = false;
  std::thread m_sender;
  std::thread m_receiver;
};

// firewall-host run in the current namespace, ended with SIGTERM.
class HostProcess {
 public:
  HostProcess(const std::string& hostPath, const std::filesystem::path& dir, const std::string& isolationBackends)
      : m_control((dir / "control" / "control.sock").string()) {
    const auto settings = dir / "settings.ini";
    std::ofstream(settings) << "[settings]\ndefaultIncomingAction = Allow\ndefaultIncomingPacketAction = Allow\n"
                            << "openOstraPorts = false\n\n[isolation]\nbackends = " << isolationBackends << "\n";
    const std::string out = (dir / "events").string(), err = (dir / "stderr").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::string state = (dir / "state").string(), settingsText = settings.string();
    std::vector<std::string> args{hostPath, "run", settingsText, "--control", m_control, "--state-dir", state};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int rc = posix_spawn(&m_pid, hostPath.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start " + hostPath + ": " + std::strerror(rc));
    WaitUntilAnswering(err);
  }
  ~HostProcess() {
    ::kill(m_pid, SIGTERM);
    int status = 0;
    ::waitpid(m_pid, &status, 0);
  }
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  // Sends one request; throws with the reply when the host refuses it.
  void Request(const std::string& json) const {
    std::ostringstream out, err;
    if (qel::host::RunCtlCommand(m_control, json, out, err) != 0) {
      throw std::runtime_error("request refused: " + json.substr(0, 120) + ": " + out.str() + err.str());
    }
  }

 private:
  void WaitUntilAnswering(const std::string& stderrPath) const {
    for (int i = 0; i < 200; ++i) {
      std::ostringstream out, err;
      if (qel::host::RunCtlCommand(m_control, R"({"cmd":"isolation"})", out, err) == 0) return;
      int status = 0;
      if (::waitpid(m_pid, &status, WNOHANG) == m_pid) break;
      std::this_thread::sleep_for(50ms);
    }
    std::ifstream in(stderrPath);
    throw std::runtime_error("firewall-host did not come up: " + std::string(std::istreambuf_iterator<char>(in), {}));
  }

  std::string m_control;
  pid_t m_pid = 0;
};

// Exclusions of TCP to or from addresses of the benchmarking range, which
// no probe comes from. Address and protocol only: the control socket takes
// request lines of up to 64 KiB, which holds some 1 400 of them.
std::string IsolateRequest(std::size_t exclusions) {
  std::string rules;
  for (std::size_t i = 0; i < exclusions; ++i) {
    if (i != 0) rules += ",";
    rules += "{\"remoteAddress\":\"198.18." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1) +
             "\",\"protocol\":6}";
  }
  return R"({"cmd":"isolate","client":1,"kind":0,"rules":[)" + rules + "]}";
}

struct Round {
  double isolateRequestMs = 0, firstDroppedMs = 0, releaseRequestMs = 0, firstPassingMs = 0;
};

double Ms(std::int64_t ns) { return static_cast<double>(ns) / 1e6; }

void WaitForEcho(const Prober& prober, std::chrono::nanoseconds within, const char* when) {
  const std::int64_t from = NowNs();
  for (auto end = Clock::now() + within; Clock::now() < end; std::this_thread::sleep_for(1ms)) {
    if (prober.EchoedAfter(from)) return;
  }
  throw std::runtime_error(std::string("no probe passes ") + when);
}

Round MeasureRound(const HostProcess& host, const Prober& prober, std::size_t exclusions) {
  const std::string isolate = IsolateRequest(exclusions);
  WaitForEcho(prober, 5s, "before the isolation");
  Round round;

  const std::int64_t isolateAt = NowNs();
  host.Request(isolate);
  round.isolateRequestMs = Ms(NowNs() - isolateAt);
  std::this_thread::sleep_for(kEchoGrace);
  const auto dropped = prober.FirstSentAfter(isolateAt, false);
  if (!dropped) throw std::runtime_error("no probe was dropped after the isolation");
  round.firstDroppedMs = Ms(dropped->sentNs - isolateAt);

  const std::int64_t releaseAt = NowNs();
  host.Request(R"({"cmd":"release","client":1})");
  round.releaseRequestMs = Ms(NowNs() - releaseAt);
  std::optional<Prober::Probe> passing;
  for (auto end = Clock::now() + kReleaseWait; !passing && Clock::now() < end; std::this_thread::sleep_for(1ms)) {
    passing = prober.FirstSentAfter(releaseAt, true);
  }
  if (!passing) throw std::runtime_error("no probe passed after the release");
  round.firstPassingMs = Ms(passing->echoedNs - releaseAt);
  return round;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Runs in the namespace child: one host, every scale, the figures as text.
std::string MeasureInNamespace(const std::string& hostPath, const std::string& isolationBackends,
                               const std::vector<std::size_t>& scales, int repeat, const char* backendName) {
  char pattern[] = "/tmp/isobench.XXXXXX";
  if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  const std::filesystem::path dir(pattern);
  std::ostringstream out;
  try {
    const PeerNamespace peer;
    const EchoServer echo;
    const HostProcess host(hostPath, dir, isolationBackends);
    const Prober prober(peer);
    for (const std::size_t scale : scales) {
      char line[256];
      try {
        std::vector<double> isolateRequest, firstDropped, releaseRequest, firstPassing;
        for (int i = 0; i < repeat; ++i) {
          const Round r = MeasureRound(host, prober, scale);
          isolateRequest.push_back(r.isolateRequestMs);
          firstDropped.push_back(r.firstDroppedMs);
          releaseRequest.push_back(r.releaseRequestMs);
          firstPassing.push_back(r.firstPassingMs);
        }
        std::snprintf(line, sizeof line, "%-7s %10zu %14.1f %14.1f %14.1f %14.1f\n", backendName, scale,
                      Median(isolateRequest), Median(firstDropped), Median(releaseRequest), Median(firstPassing));
      } catch (const std::exception& e) {
        // The other scales still say something; the host is released for them.
        std::snprintf(line, sizeof line, "%-7s %10zu failed: %.200s\n", backendName, scale, e.what());
        try {
          host.Request(R"({"cmd":"release","client":1})");
        } catch (const std::exception&) {
        }
      }
      out << line;
    }
  } catch (...) {
    std::filesystem::remove_all(dir);
    throw;
  }
  std::filesystem::remove_all(dir);
  return out.str();
}

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> items;
  std::stringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    if (!item.empty()) items.push_back(item);
  }
  if (items.empty()) throw std::invalid_argument("empty list: '" + text + "'");
  return items;
}

int Usage(const char* self) {
  std::fprintf(stderr,
               "usage: %s --host FIREWALL_HOST [--exclusions 10,1000] [--backends legacy,nft]\n"
               "          [--isolation-backends iptables] [--repeat 3]\n",
               self);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string hostPath, isolationBackends = "iptables";
  std::vector<std::size_t> scales{10, 1000};
  std::vector<IptablesBackend> backends{IptablesBackend::Legacy, IptablesBackend::Nft};
  int repeat = 3;
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      if (i + 1 >= argc) return Usage(argv[0]);
      const std::string value = argv[++i];
      if (arg == "--host") {
        hostPath = std::filesystem::absolute(value).string();
      } else if (arg == "--exclusions") {
        scales.clear();
        for (const auto& item : SplitList(value)) scales.push_back(std::stoul(item));
      } else if (arg == "--backends") {
        backends.clear();
        for (const auto& item : SplitList(value)) {
          if (item != "legacy" && item != "nft") throw std::invalid_argument("backend '" + item + "' is not legacy or nft");
          backends.push_back(item == "nft" ? IptablesBackend::Nft : IptablesBackend::Legacy);
        }
      } else if (arg == "--isolation-backends") {
        isolationBackends = value;
      } else if (arg == "--repeat") {
        repeat = std::max(1, std::stoi(value));
      } else {
        return Usage(argv[0]);
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return Usage(argv[0]);
  }
  if (hostPath.empty()) return Usage(argv[0]);
  if (geteuid() != 0) {
    std::fprintf(stderr, "isolation_bench needs root (network namespaces)\n");
    return 2;
  }

  std::printf("isolation_bench: firewall-host with [isolation] backends = %s; medians of %d rounds.\n",
              isolationBackends.c_str(), repeat);
  std::printf("the peer probes the host over UDP every %lld us; times in ms from the request being sent:\n",
              static_cast<long long>(kProbeInterval.count()));
  std::printf("  isolate rtt / release rtt: the request's round trip on the control socket\n");
  std::printf("  first dropped: the first probe sent after `isolate` that gets no echo\n");
  std::printf("  first passing: the echo of the first probe sent after `release` that gets one\n\n");
  std::printf("%-7s %10s %14s %14s %14s %14s\n", "tables", "exclusions", "isolate rtt", "first dropped",
              "release rtt", "first passing");
  bool allOk = true;
  for (const auto backend : backends) {
    std::fflush(stdout);
    const char* name = qel::test::BackendName(backend);
    const auto run = qel::test::RunInNetworkNamespace(
        backend, [&] { return MeasureInNamespace(hostPath, isolationBackends, scales, repeat, name); });
    if (run.completed) {
      std::printf("%s", run.output.c_str());
    } else {
      std::printf("%-7s failed: %s\n", name, run.output.c_str());
      allOk = false;
    }
  }
  std::fflush(stdout);
  return allOk ? 0 : 1;
}
