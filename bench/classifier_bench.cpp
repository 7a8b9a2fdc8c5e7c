// What the isolation classifiers cost per packet, as the kernel itself times
// them: BPF_PROG_TEST_RUN runs a program `repeat` times on one packet and
// reports the mean time of a run. Each classifier is measured on a few
// representative packets with the policy maps filled, through the policy book
// and the skeleton as the module fills them, with rising numbers of
// exclusions. A program that only returns TC_ACT_OK is measured the same way
// on the same packet; what the run itself costs (the skb, the program call)
// is in both, so the difference is what the classifier adds to a packet.
// Printed: ns per packet, the ns added, and the added ns against the goal.
// Nothing attaches to an interface; loading programs needs root. Nothing
// about time is asserted; a verdict other than the expected one fails the
// run, since its figure would be that of another path.
//
//   classifier_bench [--exclusions 0,1000,10000] [--ports 10000] [--repeat 1000000] [--rounds 5]

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/pkt_cls.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "firewall/ebpf/isolation_policy.h"
#include "firewall/ebpf/isolation_policy_book.h"
#include "firewall/network_isolation_ebpf_skeleton.h"
#include "support/packet_builder.h"
#include "support/tc_programs.h"

namespace {

using qel::firewall::NetworkIsolationEbpfSkeleton;
using qel::firewall::ebpf::IsolationPolicyBook;
using qel::firewall::ebpf::PolicyHandle;
using qel::firewall::ebpf::PolicyWrites;
using qel::firewall::network_isolation_data::NetworkExclusionRule3;
using qel::firewall::network_isolation_data::NetworkExclusionRules;
using qel::test::PacketBuilder;
using qel::tools::ParseIpAddress;
using qel::tools::PortRange;
using Bytes = std::vector<std::uint8_t>;

// The goal: what the classifier may add to a packet at 10 000 exclusions.
constexpr double kGoalAddedNs = 100.0;
constexpr std::size_t kGoalExclusions = 10'000;

constexpr std::uint8_t kTcp = 6;
constexpr std::uint16_t kExcludedPort = 443;
constexpr std::uint16_t kLocalPort = 40000;
constexpr const char* kLocal4 = "10.0.0.1";
constexpr const char* kLocal6 = "fd00::1";
// Excluded in every scale but 0, as the first address exclusions.
constexpr const char* kExcluded4 = "10.64.0.1";
constexpr const char* kExcluded6 = "fd64::1";
// Never excluded.
constexpr const char* kOther4 = "198.51.100.7";

// The benchmark's rules name no application.
class NoExecutables final : public qel::firewall::ebpf::IExecutableLookup {
 public:
  std::optional<std::string> Canonical(const std::string&) const override { return std::nullopt; }
  std::optional<qel::firewall::ebpf::IsolationAppKey> Identity(const std::string&) const override {
    return std::nullopt;
  }
};

// The i-th address exclusion's remote address, alternately IPv4 and IPv6, so
// that both families fill the trie; 0 and 1 are kExcluded4 and kExcluded6.
std::string ExcludedAddress(std::size_t i) {
  const std::size_t n = i / 2 + 1;
  std::ostringstream text;
  if (i % 2 == 0)
    text << "10." << 64 + n / 65536 << '.' << (n / 256) % 256 << '.' << n % 256;
  else
    text << "fd64::" << std::hex << n / 65536 << ':' << n % 65536;
  return text.str();
}

// `count` exclusions of one TCP port on distinct remote addresses.
NetworkExclusionRules AddressExclusions(std::size_t count) {
  NetworkExclusionRules rules;
  rules.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    NetworkExclusionRule3 rule;
    rule.remoteAddress = ParseIpAddress(ExcludedAddress(i));
    rule.protocol = kTcp;
    rule.remotePortRange = PortRange{kExcludedPort, kExcludedPort};
    rules.push_back(rule);
  }
  return rules;
}

// `count` exclusions of single TCP ports, half on kExcluded4 and half on
// kExcluded6, among them kExcludedPort on each: many port entries under the
// two address entries the packets find.
NetworkExclusionRules PortExclusions(std::size_t count) {
  NetworkExclusionRules rules;
  rules.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    NetworkExclusionRule3 rule;
    rule.remoteAddress = ParseIpAddress(i % 2 == 0 ? kExcluded4 : kExcluded6);
    rule.protocol = kTcp;
    const auto port = static_cast<std::uint16_t>(i / 2 == 0 ? kExcludedPort : 1024 + i / 2);
    rule.remotePortRange = PortRange{port, port};
    rules.push_back(rule);
  }
  return rules;
}

struct Scale {
  std::string label;
  std::size_t exclusions = 0;
  NetworkExclusionRules rules;
};

enum class Hook { Ingress, Egress };

struct Probe {
  std::string label;
  Hook hook;
  Bytes packet;
  bool passWhenExcluded;  // the verdict expected once the scale excludes anything
};

Bytes Syn(const char* source, std::uint16_t sourcePort, const char* destination, std::uint16_t destinationPort) {
  PacketBuilder b;
  if (std::strchr(source, ':'))
    b.Ethernet(PacketBuilder::kEtherIpv6).Ipv6(source, destination, kTcp);
  else
    b.Ethernet(PacketBuilder::kEtherIpv4).Ipv4(source, destination, kTcp);
  return b.Tcp(sourcePort, destinationPort).Build();
}

// A SYN out to each kind of remote end, and the same exchange coming back.
std::vector<Probe> Probes() {
  std::vector<Probe> probes;
  const struct {
    const char* label;
    const char* local;
    const char* remote;
    bool excluded;
  } ends[] = {{"tcp4 excluded address+port", kLocal4, kExcluded4, true},
              {"tcp4 other address (drop)", kLocal4, kOther4, false},
              {"tcp6 excluded address+port", kLocal6, kExcluded6, true}};
  for (const auto& end : ends) {
    probes.push_back({end.label, Hook::Egress, Syn(end.local, kLocalPort, end.remote, kExcludedPort), end.excluded});
    probes.push_back({end.label, Hook::Ingress, Syn(end.remote, kExcludedPort, end.local, kLocalPort), end.excluded});
  }
  return probes;
}

struct Timing {
  double ns = 0;  // median over the rounds of the kernel's mean per run
  int verdict = 0;
};

// The program run `repeat` times on `packet`, `rounds` times over.
Timing Measure(int programFd, const Bytes& packet, unsigned repeat, int rounds) {
  std::vector<double> figures;
  Timing timing;
  for (int round = 0; round < rounds; ++round) {
    bpf_test_run_opts opts{};
    opts.sz = sizeof(opts);
    opts.data_in = packet.data();
    opts.data_size_in = static_cast<std::uint32_t>(packet.size());
    opts.repeat = repeat;
    if (int err = bpf_prog_test_run_opts(programFd, &opts); err != 0)
      throw std::runtime_error("BPF_PROG_TEST_RUN failed: " + std::string(std::strerror(-err)));
    figures.push_back(static_cast<double>(opts.duration));
    timing.verdict = static_cast<int>(opts.retval);
  }
  std::sort(figures.begin(), figures.end());
  timing.ns = figures[figures.size() / 2];
  return timing;
}

const char* VerdictName(int verdict) {
  if (verdict == TC_ACT_OK) return "pass";
  if (verdict == TC_ACT_SHOT) return "drop";
  return "other";
}

class Bench {
 public:
  Bench(unsigned repeat, int rounds) : m_repeat(repeat), m_rounds(rounds) {}

  void Load() {
    if (ORO_FAILED(m_skeleton.Load()))
      throw std::runtime_error(std::string("the isolation object did not load: ") + QEL_ISOLATION_BPF_OBJECT);
    m_empty = qel::test::LoadAcceptingClassifier();
    if (!m_empty) throw std::runtime_error("the empty classifier did not load: " + std::string(std::strerror(errno)));
  }

  // Fills the maps with `scale`, measures every probe, empties the maps;
  // returns the largest ns added, or -1 after an unexpected verdict.
  double Run(const Scale& scale, const std::vector<Probe>& probes) {
    const PolicyHandle handle = Fill(scale.rules);
    double worstAdded = 0;
    bool verdictsRight = true;
    for (const auto& probe : probes) {
      const int classifier = bpf_program__fd(probe.hook == Hook::Ingress ? m_skeleton.IngressClassifier()
                                                                        : m_skeleton.EgressClassifier());
      const Timing measured = Measure(classifier, probe.packet, m_repeat, m_rounds);
      const Timing empty = Measure(m_empty.Get(), probe.packet, m_repeat, m_rounds);
      const double added = measured.ns - empty.ns;
      const bool expectPass = probe.passWhenExcluded && !scale.rules.empty();
      const bool right = measured.verdict == (expectPass ? TC_ACT_OK : TC_ACT_SHOT);
      verdictsRight = verdictsRight && right;
      worstAdded = std::max(worstAdded, added);
      std::printf("%-18s %-28s %-7s %-5s %9.1f %9.1f %9.1f%s\n", scale.label.c_str(), probe.label.c_str(),
                  probe.hook == Hook::Ingress ? "ingress" : "egress", VerdictName(measured.verdict), measured.ns,
                  empty.ns, added, right ? "" : "  <- unexpected verdict");
      std::fflush(stdout);
    }
    Empty(handle);
    return verdictsRight ? worstAdded : -1;
  }

 private:
  PolicyHandle Fill(const NetworkExclusionRules& rules) {
    auto change = m_book.Add(qel::firewall::ebpf::PreparePolicyExclude(rules, m_executables, {}));
    PolicyWrites rollback;
    if (ORO_FAILED(m_skeleton.AddPolicyExclude(change.writes, rollback)))
      throw std::runtime_error("the policy maps refused " + std::to_string(rules.size()) + " exclusions");
    return change.handle;
  }

  void Empty(PolicyHandle handle) {
    if (ORO_FAILED(m_skeleton.RemovePolicyExclude(m_book.Remove(handle))))
      throw std::runtime_error("the policy maps kept some exclusions");
  }

  unsigned m_repeat;
  int m_rounds;
  NetworkIsolationEbpfSkeleton m_skeleton{qel::tracing::Tracer{}, QEL_ISOLATION_BPF_OBJECT};
  IsolationPolicyBook m_book;
  NoExecutables m_executables;
  qel::tools::UniqueFd m_empty;
};

std::vector<std::size_t> SplitCounts(const std::string& text) {
  std::vector<std::size_t> counts;
  std::stringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    if (!item.empty()) counts.push_back(std::stoul(item));
  }
  if (counts.empty()) throw std::invalid_argument("empty list: '" + text + "'");
  return counts;
}

int Usage(const char* self) {
  std::fprintf(stderr,
               "usage: %s [--exclusions 0,1000,10000] [--ports 10000] [--repeat 1000000] [--rounds 5]\n"
               "  --ports 0 leaves out the port exclusions\n",
               self);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::size_t> addressScales{0, 1000, 10000};
  std::size_t ports = 10000;
  unsigned repeat = 1'000'000;
  int rounds = 5;
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      if (i + 1 >= argc) return Usage(argv[0]);
      const std::string value = argv[++i];
      if (arg == "--exclusions") {
        addressScales = SplitCounts(value);
      } else if (arg == "--ports") {
        ports = std::stoul(value);
      } else if (arg == "--repeat") {
        repeat = static_cast<unsigned>(std::max(1UL, std::stoul(value)));
      } else if (arg == "--rounds") {
        rounds = std::max(1, std::stoi(value));
      } else {
        return Usage(argv[0]);
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return Usage(argv[0]);
  }
  if (geteuid() != 0) {
    std::fprintf(stderr, "classifier_bench needs root (loading eBPF programs)\n");
    return 2;
  }

  std::vector<Scale> scales;
  for (auto count : addressScales)
    scales.push_back({std::to_string(count) + " addresses", count, AddressExclusions(count)});
  if (ports > 0) scales.push_back({std::to_string(ports) + " ports", ports, PortExclusions(ports)});

  std::printf("classifier_bench: the isolation classifiers run by BPF_PROG_TEST_RUN, %u runs per figure,\n", repeat);
  std::printf("median of %d rounds; ns per packet as the kernel times a run. \"empty\" is a classifier that only\n",
              rounds);
  std::printf("returns TC_ACT_OK, run the same way; \"added\" is the classifier less the empty one.\n\n");
  std::printf("%-18s %-28s %-7s %-5s %9s %9s %9s\n", "exclusions", "packet", "hook", "verd.", "ns", "empty ns",
              "added ns");
  try {
    Bench bench(repeat, rounds);
    bench.Load();
    const auto probes = Probes();
    double worstAtGoal = -1;
    bool verdictsRight = true;
    for (const auto& scale : scales) {
      const double worst = bench.Run(scale, probes);
      if (worst < 0) verdictsRight = false;
      if (scale.exclusions >= kGoalExclusions) worstAtGoal = std::max(worstAtGoal, worst);
    }
    if (worstAtGoal >= 0)
      std::printf("\ngoal: at most %.0f ns added per packet at %zu exclusions; worst added %.1f ns,"
                  " %.2f of the goal (at most 1.00 meets it)\n",
                  kGoalAddedNs, kGoalExclusions, worstAtGoal, worstAtGoal / kGoalAddedNs);
    if (!verdictsRight) {
      std::fprintf(stderr, "classifier_bench: a classifier gave an unexpected verdict; its figure is of another path\n");
      return 1;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "classifier_bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
