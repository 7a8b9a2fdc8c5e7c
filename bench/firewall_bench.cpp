// Measures what the module costs on top of the iptables tools it drives.
//
// For each backend and scale, inside a network namespace of its own, the
// module's first full apply, its steady-state poll and a one-rule settings
// change are timed against the bare tools doing the same kernel work. Wall
// times are medians over the repetitions; CPU time is split into the
// module's own (this process) and the tools' (its reaped children), so that
// the module's share stays visible even where the tools dominate the clock.
//
//   firewall_bench [--scales 1000,10000,50000] [--backends legacy,nft] [--repeat 3]

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "firewall/chain_layout.h"
#include "firewall/firewall_service.h"
#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
#include "qel_common/secure_spawn.h"
#include "qel_common/string_conv.h"
#include "support/fake_feature_techs_aggregator.h"
#include "support/fake_framework.h"
#include "support/netns.h"

namespace {

using qel::firewall::ChainLayout;
using qel::firewall::FirewallService;
using qel::firewall::IptablesFirewall;
using qel::firewall::IptablesInfoProvider;
using qel::settings::FirewallSettings;
using qel::settings::PacketRule;
using qel::test::IptablesBackend;
using qel::test::Make;

// The rules of the compiled settings that are not packet rules: loopback
// and default actions in vorn_input and vorn_output, and the two jumps.
constexpr int kFixedIpv4Rules = 10;

// --- measuring ------------------------------------------------------------------

struct Sample {
  double wallMs = 0;
  double selfCpuMs = 0;   // this process: the module (or the bench's own spawning)
  double childCpuMs = 0;  // reaped children: the tools
};

double CpuMs(const rusage& usage) {
  const auto ms = [](const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

class Stopwatch {
 public:
  Stopwatch() {
    getrusage(RUSAGE_SELF, &m_self);
    getrusage(RUSAGE_CHILDREN, &m_children);
    m_start = std::chrono::steady_clock::now();
  }
  Sample Stop() const {
    const auto end = std::chrono::steady_clock::now();
    rusage self{}, children{};
    getrusage(RUSAGE_SELF, &self);
    getrusage(RUSAGE_CHILDREN, &children);
    return {std::chrono::duration<double, std::milli>(end - m_start).count(), CpuMs(self) - CpuMs(m_self),
            CpuMs(children) - CpuMs(m_children)};
  }

 private:
  rusage m_self{}, m_children{};
  std::chrono::steady_clock::time_point m_start;
};

// --- the bare tools -------------------------------------------------------------

// A file in memory as a tool's standard input or error; prepared outside
// the timed part, so that the bare run is the tool's work alone.
class MemoryFile {
 public:
  MemoryFile() : m_fd(memfd_create("bench", MFD_CLOEXEC)) {
    if (m_fd < 0) throw std::runtime_error(std::string("memfd_create: ") + std::strerror(errno));
  }
  explicit MemoryFile(const std::string& text) : MemoryFile() {
    for (std::size_t done = 0; done < text.size();) {
      const ssize_t n = write(m_fd, text.data() + done, text.size() - done);
      if (n <= 0) throw std::runtime_error("writing a memory file failed");
      done += static_cast<std::size_t>(n);
    }
    Rewind();
  }
  ~MemoryFile() { close(m_fd); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int Fd() const { return m_fd; }
  void Rewind() const { lseek(m_fd, 0, SEEK_SET); }
  void Clear() const {
    if (ftruncate(m_fd, 0) != 0) throw std::runtime_error("ftruncate failed");
    Rewind();
  }
  std::string Read() const {
    Rewind();
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(m_fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
    return text;
  }

 private:
  int m_fd;
};

// The tools live in /usr/sbin, where the module finds them first too.
std::string ResolveTool(const std::string& name) { return name[0] == '/' ? name : "/usr/sbin/" + name; }

struct ToolRun {
  int exitCode = -1;
  std::string output;
};

// Runs a tool the cheapest way there is: posix_spawn (no copy of this
// process's memory), standard input from a memory file, standard output
// read through a pipe with a blocking read. Fails loudly: a bare run that did
// not do its work would flatter the module.
ToolRun RunTool(const std::vector<std::string>& argv, const MemoryFile* input, bool captureOutput) {
  // The environment the module gives its tools, so that both run alike.
  static const std::vector<char*> environment = [] {
    std::vector<char*> entries;
    for (const auto& entry : qel::tools::FilteredEnvironment()) entries.push_back(const_cast<char*>(entry.c_str()));
    entries.push_back(nullptr);
    return entries;
  }();
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  MemoryFile errors;
  int out[2] = {-1, -1};
  if (captureOutput && pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (input) {
    input->Rewind();
    posix_spawn_file_actions_adddup2(&actions, input->Fd(), STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  if (captureOutput) {
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, errors.Fd(), STDERR_FILENO);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, ResolveTool(argv[0]).c_str(), &actions, nullptr, args.data(), environment.data());
  posix_spawn_file_actions_destroy(&actions);
  ToolRun run;
  if (captureOutput) {
    close(out[1]);
    if (error == 0) {
      static char piece[1 << 16];
      for (;;) {
        const ssize_t n = read(out[0], piece, sizeof piece);
        if (n > 0) run.output.append(piece, static_cast<std::size_t>(n));
        if (n == 0 || (n < 0 && errno != EINTR)) break;
      }
    }
    close(out[0]);
  }
  if (error != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (run.exitCode != 0) {
    std::string command;
    for (const auto& arg : argv) command += " " + arg;
    throw std::runtime_error("bare" + command + " exited with " + std::to_string(run.exitCode) + ": " +
                             errors.Read());
  }
  return run;
}

// --- the module's surroundings ------------------------------------------------

// Detail tracing (800) is off, as on a production host; what would be
// written at error level is kept, to be shown if a run fails.
class QuietTracer final : public qel::ObjectImpl<QuietTracer, oro::ITracer> {
 public:
  bool IsEnabled(std::uint32_t level) noexcept override { return level <= oro::trace_level::Warning; }
  void Trace(std::uint32_t level, const char* text) noexcept override {
    if (level <= oro::trace_level::Error) errors.emplace_back(text);
  }
  std::vector<std::string> errors;
};

// How often the module ran each tool; a poll that found nothing to do must
// not have restored anything.
struct ToolCounts {
  int listings = 0;
  int restores = 0;
  std::size_t restoreBytes = 0;
};

struct Module {
  explicit Module(ToolCounts& counts) {
    locator->Register(tracer);
    locator->Register(timer);
    locator->Register(publisher);
    locator->Register(Make<qel::test::FakeFeatureTechsAggregator>());
    provider = Make<IptablesInfoProvider>(locator.Get());
    locator->Register(provider);
    auto counting = [&counts](qel::tools::SpawnContext& context) {
      if (context.input) {
        ++counts.restores;
        counts.restoreBytes += context.input->size();
      } else {
        ++counts.listings;
      }
      return qel::tools::SecureSpawn(context);
    };
    firewall = Make<IptablesFirewall>(locator.Get(), counting);
    locator->Register(static_cast<qel::firewall::IFirewallStateQuery*>(firewall.Get()));
    if (ORO_FAILED(qel::CreateInstance(service, locator.Get(), true))) {
      throw std::runtime_error("cannot create the service");
    }
  }
  void Check(oro::result_t result, const char* what) const {
    if (ORO_SUCCEEDED(result)) return;
    std::string text = std::string(what) + " failed";
    for (const auto& line : tracer->errors) text += "\n  " + line;
    throw std::runtime_error(text);
  }

  oro::RefPtr<QuietTracer> tracer = Make<QuietTracer>();
  oro::RefPtr<qel::test::FakeTimer> timer = Make<qel::test::FakeTimer>();
  oro::RefPtr<qel::test::FakePublisher> publisher = Make<qel::test::FakePublisher>();
  oro::RefPtr<qel::test::FakeLocator> locator = Make<qel::test::FakeLocator>();
  oro::RefPtr<IptablesInfoProvider> provider;
  oro::RefPtr<IptablesFirewall> firewall;
  oro::RefPtr<FirewallService> service;
};

// --- the workload ---------------------------------------------------------------

std::string AddressOf(int i) {
  return "10." + std::to_string((i >> 16) & 255) + "." + std::to_string((i >> 8) & 255) + "." +
         std::to_string(i & 255);
}

int PortOf(int i) { return 1024 + i % 60000; }

// Incoming-packet TCP rules from distinct addresses: one kernel rule each,
// all IPv4, so that IPv6 holds only the small default set.
FirewallSettings MakeSettings(int packetRules) {
  FirewallSettings settings;
  settings.packetRules.reserve(static_cast<std::size_t>(packetRules));
  for (int i = 0; i < packetRules; ++i) {
    PacketRule rule;
    rule.name = qel::tools::ToUtf16(std::to_string(i));
    rule.direction = qel::settings::PacketRuleDirection::IncomingPacket;
    rule.protocol = qel::settings::PacketRuleProtocol::TCP;
    rule.localPorts = qel::tools::ToUtf16(std::to_string(PortOf(i)));
    rule.remoteAddress = qel::tools::ToUtf16(AddressOf(i));
    settings.packetRules.push_back(std::move(rule));
  }
  return settings;
}

// The port a changed rule gets: not used by any other rule.
constexpr int kChangedPort = 65100;

// Larger settings changes, each measured against the settings in force:
// which packet rules get the changed port.
struct ChangeShape {
  const char* key;
  const char* title;
  bool (*changes)(int rule, int rules);
};

constexpr ChangeShape kShapes[] = {
    {"every_second", "every second rule", [](int rule, int) { return rule % 2 == 1; }},
    {"first_half", "the first half", [](int rule, int rules) { return rule < rules / 2; }},
    {"second_half", "the second half", [](int rule, int rules) { return rule >= rules / 2; }},
};

// The module's own CPU for a shape may be at most this many times its own
// CPU for a one-rule change at the same size: the work grows with what
// changes, never with its square.
constexpr double kShapeGoal = 3.0;

FirewallSettings ChangedSettings(const FirewallSettings& settings, const ChangeShape& shape) {
  FirewallSettings changed = settings;
  const int rules = static_cast<int>(changed.packetRules.size());
  for (int i = 0; i < rules; ++i) {
    if (shape.changes(i, rules)) {
      changed.packetRules[static_cast<std::size_t>(i)].localPorts = qel::tools::ToUtf16(std::to_string(kChangedPort));
    }
  }
  return changed;
}

// The kernel text of packet rule `i` listening on `port`, as the listing
// prints it.
std::string KernelRuleText(int i, int port) {
  return "-s " + AddressOf(i) + "/32 -p tcp -m tcp --dport " + std::to_string(port) + " -j ACCEPT";
}

const char* const kEmptyFilter =
    "*filter\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\n:OUTPUT ACCEPT [0:0]\nCOMMIT\n";

// The dump as a script that installs the same rules and nothing else: the
// module never sets policies, so the built-in chains' declarations (which
// would) and the comments go.
std::string InstallScript(const std::string& dump) {
  std::string script;
  std::istringstream lines(dump);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == ':') {
      const std::string chain = line.substr(1, line.find(' ') - 1);
      if (ChainLayout::IsBuiltinChain(chain)) continue;
    }
    script += line + "\n";
  }
  return script;
}

std::string CountRules(const std::string& dump) {
  int rules = 0;
  for (std::size_t at = dump.find("\n-A "); at != std::string::npos; at = dump.find("\n-A ", at + 1)) ++rules;
  return std::to_string(rules);
}

// --- one backend and scale, inside the namespace --------------------------------

struct Measurements {
  std::map<std::string, std::vector<Sample>> samples;
  std::map<std::string, std::string> facts;
};

std::string Serialise(const Measurements& m) {
  std::ostringstream out;
  for (const auto& [key, list] : m.samples) {
    for (const auto& s : list) out << "sample " << key << " " << s.wallMs << " " << s.selfCpuMs << " " << s.childCpuMs << "\n";
  }
  for (const auto& [key, value] : m.facts) out << "fact " << key << " " << value << "\n";
  return out.str();
}

Measurements Deserialise(const std::string& text) {
  Measurements m;
  std::istringstream in(text);
  std::string kind, key;
  while (in >> kind >> key) {
    if (kind == "sample") {
      Sample s;
      in >> s.wallMs >> s.selfCpuMs >> s.childCpuMs;
      m.samples[key].push_back(s);
    } else {
      std::string value;
      std::getline(in >> std::ws, value);
      m.facts[key] = value;
    }
  }
  return m;
}

// The module runs its tools with this many open files allowed, or as many
// as the hard limit lets it; the bare runs inherit the same limit.
constexpr rlim_t kToolOpenFiles = 20480;

void LimitOpenFilesAsTheModuleDoes() {
  rlimit current{};
  if (getrlimit(RLIMIT_NOFILE, &current) != 0) throw std::runtime_error("getrlimit failed");
  const rlim_t limit = std::min(kToolOpenFiles, current.rlim_max);
  const rlimit wanted{limit, limit};
  if (setrlimit(RLIMIT_NOFILE, &wanted) != 0) {
    throw std::runtime_error(std::string("setrlimit: ") + std::strerror(errno));
  }
}

// What starting one child costs the module beyond what the bare runs pay:
// the module creates its children with a plain fork, which copies this
// process's page tables, where the bare runs use posix_spawn, which shares
// them. Measured with the module loaded, on a program that does nothing.
void MeasureSpawnCost(Measurements& m) {
  constexpr int kTries = 5;
  for (int i = 0; i < kTries; ++i) {
    {
      qel::tools::SpawnContext context;
      qel::tools::InitSpawnContext(context, {"/bin/true"});
      const Stopwatch watch;
      if (ORO_FAILED(qel::tools::SecureSpawn(context)) || context.exitCode != 0) {
        throw std::runtime_error("spawning /bin/true failed");
      }
      m.samples["spawn.module"].push_back(watch.Stop());
    }
    const Stopwatch watch;
    RunTool({"/bin/true"}, nullptr, false);
    m.samples["spawn.bare"].push_back(watch.Stop());
  }
}

std::string MeasureInNamespace(int scale, int repeat) {
  LimitOpenFilesAsTheModuleDoes();
  const std::vector<std::string> wait = {"-w"};
  const int packetRules = std::max(1, scale - kFixedIpv4Rules);
  const FirewallSettings settings = MakeSettings(packetRules);
  const int changed = packetRules / 2;
  FirewallSettings changedSettings = settings;
  changedSettings.packetRules[static_cast<std::size_t>(changed)].localPorts =
      qel::tools::ToUtf16(std::to_string(kChangedPort));

  const MemoryFile emptyFilter(kEmptyFilter);
  const auto clean = [&] {
    RunTool({"iptables-restore", "-w"}, &emptyFilter, false);
    RunTool({"ip6tables-restore", "-w"}, &emptyFilter, false);
  };
  const auto listBoth = [&] {
    RunTool({"iptables", "-t", "filter", "-S", "-w"}, nullptr, true);
    RunTool({"ip6tables", "-t", "filter", "-S", "-w"}, nullptr, true);
  };
  // vorn_input: the loopback rule, then the packet rules in order.
  const MemoryFile revert("*filter\n-R vorn_input " + std::to_string(changed + 2) + " " +
                          KernelRuleText(changed, PortOf(changed)) + "\nCOMMIT\n");

  Measurements m;
  std::optional<MemoryFile> dump4, dump6;
  for (int r = 0; r < repeat; ++r) {
    clean();
    ToolCounts counts;
    {
      Module module(counts);
      // (a) the first full apply.
      {
        const Stopwatch watch;
        module.Check(module.service->SetPacketRules(settings), "SetPacketRules");
        module.Check(module.service->SetEnforce(true), "SetEnforce(true)");
        m.samples["a.module"].push_back(watch.Stop());
      }
      m.facts["apply_spawns"] = std::to_string(counts.listings + counts.restores);
      MeasureSpawnCost(m);
      if (!dump4) {
        const std::string text4 = RunTool({"iptables-save", "-t", "filter"}, nullptr, true).output;
        const std::string text6 = RunTool({"ip6tables-save", "-t", "filter"}, nullptr, true).output;
        m.facts["ipv4_rules"] = CountRules(text4);
        m.facts["ipv6_rules"] = CountRules(text6);
        m.facts["restore_bytes"] = std::to_string(counts.restoreBytes);
        dump4.emplace(InstallScript(text4));
        dump6.emplace(InstallScript(text6));
      }
      // (b) a poll with nothing to do.
      {
        const ToolCounts before = counts;
        const Stopwatch watch;
        module.Check(module.service->RunPoll(), "RunPoll");
        m.samples["b.module"].push_back(watch.Stop());
        if (counts.restores != before.restores || !module.publisher->events.empty()) {
          throw std::runtime_error("the poll changed the kernel: the module does not recognise its own rules");
        }
        m.facts["poll_listings"] = std::to_string(counts.listings - before.listings);
        m.facts["poll_spawns"] = m.facts["poll_listings"];
      }
      {
        const Stopwatch watch;
        listBoth();
        m.samples["b.bare"].push_back(watch.Stop());
      }
      // (c) one packet rule's port changes.
      {
        const ToolCounts before = counts;
        const Stopwatch watch;
        module.Check(module.service->SetPacketRules(changedSettings), "SetPacketRules(changed)");
        m.samples["c.module"].push_back(watch.Stop());
        m.facts["change_listings"] = std::to_string(counts.listings - before.listings);
        m.facts["change_restores"] = std::to_string(counts.restores - before.restores);
        m.facts["change_script_bytes"] = std::to_string(counts.restoreBytes - before.restoreBytes);
        m.facts["change_spawns"] =
            std::to_string(counts.listings - before.listings + counts.restores - before.restores);
      }
      {
        // The same listings, and the change undone in one line.
        const Stopwatch watch;
        listBoth();
        RunTool({"iptables-restore", "-n", "-w"}, &revert, false);
        m.samples["c.bare"].push_back(watch.Stop());
      }
      // Larger changes, each from the original settings and back (the way
      // back is not measured).
      module.Check(module.service->SetPacketRules(settings), "SetPacketRules(back)");
      for (const auto& shape : kShapes) {
        const FirewallSettings shaped = ChangedSettings(settings, shape);
        const Stopwatch watch;
        module.Check(module.service->SetPacketRules(shaped), shape.key);
        m.samples[std::string("shape.") + shape.key].push_back(watch.Stop());
        module.Check(module.service->SetPacketRules(settings), "SetPacketRules(back)");
      }
      // Releasing the service removes its rules; not measured.
    }
    // (a) bare: the same final state restored by the tool alone.
    clean();
    {
      const Stopwatch watch;
      RunTool({"iptables-restore", "-n", "-w"}, &*dump4, false);
      RunTool({"ip6tables-restore", "-n", "-w"}, &*dump6, false);
      m.samples["a.bare"].push_back(watch.Stop());
    }
    const std::string restored = RunTool({"iptables-save", "-t", "filter"}, nullptr, true).output;
    if (CountRules(restored) != m.facts["ipv4_rules"]) throw std::runtime_error("the bare restore lost rules");
  }
  clean();
  return Serialise(m);
}

// --- reporting ------------------------------------------------------------------

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

Sample MedianOf(const std::vector<Sample>& samples) {
  std::vector<double> wall, self, child;
  for (const auto& s : samples) {
    wall.push_back(s.wallMs);
    self.push_back(s.selfCpuMs);
    child.push_back(s.childCpuMs);
  }
  return {Median(wall), Median(self), Median(child)};
}

// A goal bounds the ratio, or with `lessSpawnCost` the ratio with the
// fork's extra cost per child taken off: on the legacy backend the first
// apply is so quick that the plain fork the module starts its tools with
// is a visible part of it.
struct Goal {
  double ratio;
  bool lessSpawnCost;
};

struct Case {
  const char* key;
  const char* title;
  Goal legacy;
  Goal nft;
};

constexpr Case kCases[] = {
    {"a", "(a) first full apply", {1.5, true}, {1.3, false}},
    {"b", "(b) steady-state poll", {1.2, false}, {1.2, false}},
    {"c", "(c) one-rule change", {1.3, false}, {1.3, false}},
};

constexpr int kGoalScale = 10000;

struct Result {
  bool ok = false;
  std::string error;
  Measurements m;
};

// How much longer a child takes to start from the module's process than by
// posix_spawn; "ratio -sc" takes that off the module's time for each child
// it started.
double SpawnCost(const Measurements& m) {
  return std::max(0.0, MedianOf(m.samples.at("spawn.module")).wallMs - MedianOf(m.samples.at("spawn.bare")).wallMs);
}

int SpawnsOf(const Measurements& m, const std::string& caseKey) {
  static const std::map<std::string, std::string> kFacts = {
      {"a", "apply_spawns"}, {"b", "poll_spawns"}, {"c", "change_spawns"}};
  const auto fact = m.facts.find(kFacts.at(caseKey));
  return fact == m.facts.end() ? 0 : std::stoi(fact->second);
}

// Own CPU of the larger changes against that of the one-rule change.
void PrintShapes(const Measurements& m) {
  const double oneRule = MedianOf(m.samples.at("c.module")).selfCpuMs;
  std::printf("   %-32s %10s %12s %14s\n", "changed packet rules", "module ms", "own CPU ms", "x one-rule");
  for (const auto& shape : kShapes) {
    const auto samples = m.samples.find(std::string("shape.") + shape.key);
    if (samples == m.samples.end()) continue;
    const Sample s = MedianOf(samples->second);
    const double times = s.selfCpuMs / oneRule;
    std::printf("   %-32s %10.1f %12.1f %8.2f <= %.0f %s\n", shape.title, s.wallMs, s.selfCpuMs, times, kShapeGoal,
                times <= kShapeGoal ? "met" : "NOT MET");
  }
}

void PrintScale(const char* backend, int scale, const Result& result, int repeat) {
  std::printf("\n== %s, %d rules", backend, scale);
  if (!result.ok) {
    std::printf(": FAILED\n%s\n", result.error.c_str());
    return;
  }
  const auto& f = result.m.facts;
  const auto fact = [&](const char* key) { return f.count(key) ? f.at(key).c_str() : "?"; };
  std::printf(" (kernel: IPv4 filter %s rules, IPv6 filter %s; median of %d)\n", fact("ipv4_rules"),
              fact("ipv6_rules"), repeat);
  const double spawnCost = SpawnCost(result.m);
  std::printf("   %-24s %10s %10s %7s  | %12s %12s | %12s | %8s %9s\n", "", "module ms", "bare ms", "ratio",
              "own CPU ms", "tools CPU ms", "bare tools", "spawns", "ratio -sc");
  for (const auto& c : kCases) {
    const Sample mod = MedianOf(result.m.samples.at(std::string(c.key) + ".module"));
    const Sample bare = MedianOf(result.m.samples.at(std::string(c.key) + ".bare"));
    const int spawns = SpawnsOf(result.m, c.key);
    std::printf("   %-24s %10.1f %10.1f %7.3f  | %12.1f %12.1f | %12.1f | %8d %9.3f\n", c.title, mod.wallMs,
                bare.wallMs, mod.wallMs / bare.wallMs, mod.selfCpuMs, mod.childCpuMs, bare.childCpuMs, spawns,
                (mod.wallMs - spawns * spawnCost) / bare.wallMs);
  }
  const Sample forked = MedianOf(result.m.samples.at("spawn.module"));
  const Sample spawned = MedianOf(result.m.samples.at("spawn.bare"));
  std::printf("   spawn cost (sc): /bin/true by the module's fork %.2f ms, by posix_spawn %.2f ms: %.2f ms more "
              "per child\n",
              forked.wallMs, spawned.wallMs, spawnCost);
  std::printf("   module ran: poll %s listings; change %s listings, %s restore(s), script %s bytes; "
              "first apply script %s bytes\n",
              fact("poll_listings"), fact("change_listings"), fact("change_restores"), fact("change_script_bytes"),
              fact("restore_bytes"));
  PrintShapes(result.m);
}

void PrintSummary(const char* backend, const std::map<int, Result>& results) {
  std::printf("\n-- %s summary\n", backend);
  const auto goal = results.find(kGoalScale);
  if (goal == results.end() || !goal->second.ok) std::printf("   (the goals are judged at %d rules)\n", kGoalScale);
  if (goal != results.end() && goal->second.ok) {
    for (const auto& c : kCases) {
      const Sample mod = MedianOf(goal->second.m.samples.at(std::string(c.key) + ".module"));
      const Sample bare = MedianOf(goal->second.m.samples.at(std::string(c.key) + ".bare"));
      const double ratio = mod.wallMs / bare.wallMs;
      const double lessSpawnCost =
          (mod.wallMs - SpawnsOf(goal->second.m, c.key) * SpawnCost(goal->second.m)) / bare.wallMs;
      const Goal& g = std::string(backend) == "legacy" ? c.legacy : c.nft;
      const double judged = g.lessSpawnCost ? lessSpawnCost : ratio;
      std::printf("   goal %-24s at %d: ratio %.3f (%.3f less the spawn cost); %s <= %.1f  %s\n", c.title,
                  kGoalScale, ratio, lessSpawnCost, g.lessSpawnCost ? "less the spawn cost" : "ratio", g.ratio,
                  judged <= g.ratio ? "met" : "NOT MET");
    }
  }
  // Own CPU per rule at the largest scale against the goal scale: 1.0 is
  // linear growth.
  const auto large = results.rbegin();
  if (goal != results.end() && goal->second.ok && large->first > kGoalScale && large->second.ok) {
    for (const auto& c : kCases) {
      const double small = MedianOf(goal->second.m.samples.at(std::string(c.key) + ".module")).selfCpuMs;
      const double big = MedianOf(large->second.m.samples.at(std::string(c.key) + ".module")).selfCpuMs;
      const double growth = big / small;
      const double perRule = growth * kGoalScale / large->first;
      std::printf("   own CPU %-24s %d -> %d: %.1f ms -> %.1f ms, x%.2f for x%.1f rules, per-rule ratio %.2f\n",
                  c.title, kGoalScale, large->first, small, big, growth,
                  static_cast<double>(large->first) / kGoalScale, perRule);
    }
  }
}

std::vector<int> ParseScales(const std::string& text) {
  std::vector<int> scales;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    if (!item.empty()) scales.push_back(std::stoi(item));
  }
  std::sort(scales.begin(), scales.end());
  return scales;
}

std::vector<IptablesBackend> ParseBackends(const std::string& text) {
  std::vector<IptablesBackend> backends;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    if (item == "legacy") {
      backends.push_back(IptablesBackend::Legacy);
    } else if (item == "nft") {
      backends.push_back(IptablesBackend::Nft);
    } else {
      throw std::invalid_argument("unknown backend '" + item + "'");
    }
  }
  return backends;
}

int Usage(const char* program) {
  std::fprintf(stderr, "usage: %s [--scales 1000,10000,50000] [--backends legacy,nft] [--repeat 3]\n", program);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> scales{1000, 10000, 50000};
  std::vector<IptablesBackend> backends{IptablesBackend::Legacy, IptablesBackend::Nft};
  int repeat = 3;
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      if (i + 1 >= argc) return Usage(argv[0]);
      if (arg == "--scales") {
        scales = ParseScales(argv[++i]);
      } else if (arg == "--backends") {
        backends = ParseBackends(argv[++i]);
      } else if (arg == "--repeat") {
        repeat = std::max(1, std::stoi(argv[++i]));
      } else {
        return Usage(argv[0]);
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return Usage(argv[0]);
  }
  if (geteuid() != 0) {
    std::fprintf(stderr, "firewall_bench needs root (network namespaces)\n");
    return 2;
  }

  std::printf("firewall_bench: wall times are medians of %d runs; ratio = module / bare.\n", repeat);
  std::printf("own CPU = the module's process (getrusage SELF), tools CPU = reaped tool processes (CHILDREN).\n");
  std::printf("(a) SetPacketRules + SetEnforce(true) vs iptables-restore -n / ip6tables-restore -n of its result\n"
              "    (the saved chains and rules, without the built-in chains' policies)\n");
  std::printf("(b) RunPoll with nothing to do vs iptables -S + ip6tables -S of the filter tables\n");
  std::printf("(c) SetPacketRules with one port changed vs both listings + a one-line iptables-restore -n\n");
  std::printf("changed packet rules: SetPacketRules with every second, the first half or the second half of the\n"
              "    packet rules changed; their own CPU against that of (c)\n");
  std::printf("ratio -sc: the ratio with the module's extra cost of starting each child by fork taken off\n");
  bool allOk = true;
  for (const auto backend : backends) {
    std::map<int, Result> results;
    for (const int scale : scales) {
      std::fflush(stdout);
      const auto run =
          qel::test::RunInNetworkNamespace(backend, [&] { return MeasureInNamespace(scale, repeat); });
      Result& result = results[scale];
      result.ok = run.completed;
      if (run.completed) {
        result.m = Deserialise(run.output);
      } else {
        result.error = run.output;
        allOk = false;
      }
      PrintScale(qel::test::BackendName(backend), scale, result, repeat);
    }
    PrintSummary(qel::test::BackendName(backend), results);
  }
  std::fflush(stdout);
  return allOk ? 0 : 1;
}
