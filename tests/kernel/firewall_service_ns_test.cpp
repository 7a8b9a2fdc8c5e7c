// The firewall service against the real kernel and the real tools, with each
// iptables backend, every case in a network namespace of its own: a poll
// after any settings change composes nothing, foreign changes to the
// module's chains are repaired and reported while other programs' rules are
// left alone, a released service leaves no trace, a service that takes over
// after a killed one installs nothing twice, and input that the compiler or
// the kernel refuses loses none of the rules in force.
//
// Each case's body runs in the namespace child and returns what it found as
// text, compared whole with what the case expects. The body writes one step
// a statement: the operands of + are not sequenced.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "host/settings_ini.h"
#include "support/fake_firewall.h"
#include "support/netns.h"
#include "support/service_rig.h"
#include "support/settings_corpus.h"

namespace qel::test {
namespace {

using settings::FirewallSettings;

FirewallSettings Example(const std::string& file) {
  return host::LoadSettingsFile(std::string(QEL_EXAMPLES_DIR) + "/" + file).settings;
}

// Every example, by file name, then the corpus of each protocol.
std::vector<std::pair<std::string, FirewallSettings>> ExamplesAndCorpus() {
  std::vector<std::pair<std::string, FirewallSettings>> all;
  for (const auto& entry : std::filesystem::directory_iterator(QEL_EXAMPLES_DIR)) {
    if (entry.path().extension() == ".ini") all.emplace_back(entry.path().filename(), Example(entry.path().filename()));
  }
  std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto protocol : kAllProtocols) {
    all.emplace_back(std::string("corpus-") + settings::EnumToString(protocol), FieldFormCorpus(protocol));
  }
  return all;
}

std::string Result(oro::result_t result) { return tracing::FormatResult(result); }
const std::string kOk = Result(oro::errOk);

// One poll, as "<result>, events <n>" and, if asked for, "composed:" and the
// scripts it handed to the kernel.
std::string PollOutcome(ServiceRig& rig, bool withScripts = true) {
  const std::size_t scripts = rig.scripts.size(), events = rig.publisher->events.size();
  std::string outcome = Result(rig.service->RunPoll());
  outcome += ", events " + std::to_string(rig.publisher->events.size() - events) + "\n";
  if (!withScripts) return outcome;
  outcome += "composed:\n";
  for (std::size_t i = scripts; i < rig.scripts.size(); ++i) outcome += rig.scripts[i];
  return outcome;
}
const std::string kQuietPoll = kOk + ", events 0\ncomposed:\n";

// Lists the filter tables first. With the legacy backend listing a table
// loads it into the namespace, and the service's first synchronisation lists
// the filter table whether or not it has rules to put there: loaded now, the
// table is part of every snapshot instead of a difference between them.
void LoadFilterTables() { ListFilterTables(); }

std::size_t CompiledRuleCount(const FirewallSettings& settings) {
  std::size_t count = 0;
  for (const auto family : {types::IPAddressFamily::IPv4, types::IPAddressFamily::IPv6}) {
    const auto compiled = firewall::CompileRules(settings, family, true);
    count += compiled.incoming.size() + compiled.outgoing.size();
  }
  return count;
}

class FirewallServiceNsTest : public testing::TestWithParam<IptablesBackend> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: every case creates its own network and mount namespaces";
  }

  // Runs `body` in a fresh namespace with this case's backend; a body that
  // fails or throws fails the case.
  std::string Run(const std::function<std::string()>& body) {
    const ChildRun run = RunInNetworkNamespace(GetParam(), body);
    return run.completed ? run.output : "namespace child failed: " + run.output;
  }
};

// Every compiled rule stands in the kernel, each once, and the poll after
// each change composes nothing, from the first settings to the last and back.
// A dynamic rule (one per family) stays through all changes.
TEST_P(FirewallServiceNsTest, ConvergenceAfterEachSettingsChange) {
  auto sequence = ExamplesAndCorpus();
  sequence.emplace_back("back to " + sequence.front().first, sequence.front().second);
  const std::string output = Run([&] {
    ServiceRig rig;
    std::string text = Result(rig.service->AddRules({AgentPort(4000)}, "ostra")) + " ";
    text += Result(rig.service->SetEnforce(true)) + "\n";
    for (const auto& [name, settings] : sequence) {
      text += name + ": " + Result(rig.service->SetPacketRules(settings));
      text += ", rules " + std::to_string(CountLines(ListFilterTables(), "-A vorn_")) + ", poll ";
      text += PollOutcome(rig);
    }
    return text + "events " + std::to_string(rig.publisher->events.size());
  });
  std::string expected = kOk + " " + kOk + "\n";
  for (const auto& [name, settings] : sequence) {
    expected += name + ": " + kOk + ", rules " + std::to_string(CompiledRuleCount(settings) + 2) + ", poll " +
                kQuietPoll;
  }
  EXPECT_EQ(output, expected + "events 0");
}

TEST_P(FirewallServiceNsTest, IntegrityRepairsOwnedChainsOnlyAndReportsOnce) {
  const std::string output = Run([] {
    LoadFilterTables();
    ServiceRig rig;
    rig.service->SetPacketRules(Example("worked-ssh.ini"));
    rig.service->SetEnforce(true);
    const std::string installed = ListFilterTables();
    std::string text;
    // Changes the tables, then polls: once to repair, once more to find
    // nothing left to do.
    const auto breakAndPoll = [&](const std::string& name, const std::vector<std::vector<std::string>>& commands) {
      for (const auto& argv : commands) RunToolOk(argv);
      const std::size_t events = rig.publisher->events.size();
      text += "## " + name + "\n" + PollOutcome(rig, false);
      for (std::size_t i = events; i < rig.publisher->events.size(); ++i) {
        text += rig.publisher->events[i].kind + "\n";
        for (const auto& [property, value] : rig.publisher->events[i].properties) text += property + ":\n" + value;
      }
      text += ListFilterTables() == installed ? "as installed\n" : "INPUT:\n" + ListChain("INPUT");
      text += PollOutcome(rig);
    };
    breakAndPoll("deleted", {{"iptables", "-D", "vorn_input", "-s", "10.0.0.0/8", "-p", "tcp", "-m", "tcp",
                              "--dport", "22", "-m", "conntrack", "--ctstate", "NEW", "-j", "ACCEPT"}});
    breakAndPoll("added", {{"iptables", "-A", "vorn_input", "-s", "203.0.113.9/32", "-j", "ACCEPT"},
                           {"ip6tables", "-A", "vorn_output", "-d", "2001:db8::9/128", "-j", "DROP"}});
    breakAndPoll("foreign in INPUT", {{"iptables", "-I", "INPUT", "1", "-s", "198.51.100.1/32", "-j", "DROP"},
                                      {"iptables", "-A", "INPUT", "-p", "udp", "-m", "udp", "--dport", "9999",
                                       "-j", "ACCEPT"}});
    // A removed jump goes back to the head, ahead of the other rules.
    breakAndPoll("jump deleted", {{"iptables", "-D", "INPUT", "-j", "vorn_input"}});
    return text;
  });
  const std::string broken = kOk + ", events 1\nFirewallIntegrityBroken\n";
  EXPECT_EQ(output,
            "## deleted\n" + broken +
                "extra:\nmissing:\nIPv4 filter vorn_input: -s 10.0.0.0/8 -p tcp -m tcp --dport 22 -m conntrack "
                "--ctstate NEW -j ACCEPT item_0000 name ssh\nas installed\n" + kQuietPoll +
            "## added\n" + broken +
                "extra:\nIPv4 filter vorn_input: -s 203.0.113.9/32 -j ACCEPT\n"
                "IPv6 filter vorn_output: -d 2001:db8::9/128 -j DROP\nmissing:\nas installed\n" + kQuietPoll +
            "## foreign in INPUT\n" + kOk + ", events 0\n"
                "INPUT:\n-P INPUT ACCEPT\n-A INPUT -s 198.51.100.1/32 -j DROP\n-A INPUT -j vorn_input\n"
                "-A INPUT -p udp -m udp --dport 9999 -j ACCEPT\n" + kQuietPoll +
            "## jump deleted\n" + broken +
                "extra:\nmissing:\nIPv4 filter INPUT: -j vorn_input\n"
                "INPUT:\n-P INPUT ACCEPT\n-A INPUT -j vorn_input\n-A INPUT -s 198.51.100.1/32 -j DROP\n"
                "-A INPUT -p udp -m udp --dport 9999 -j ACCEPT\n" + kQuietPoll);
}

// A released service leaves no trace, whatever was changed under it, and so
// does one that takes over the rules of a killed one, with the same settings
// (installing nothing twice) or with none.
TEST_P(FirewallServiceNsTest, ReleaseLeavesNoTraceAlsoAfterTakingOverFromAKilledService) {
  const std::string output = Run([] {
    LoadFilterTables();
    // Another program's rules in the built-in chains, which the module must
    // neither move nor remove.
    RunToolOk({"iptables", "-A", "INPUT", "-s", "198.51.100.7/32", "-j", "DROP"});
    RunToolOk({"ip6tables", "-A", "INPUT", "-s", "2001:db8::7/128", "-j", "DROP"});
    const std::string snapshot = SaveAllTables();
    const auto restored = [&] {
      const std::string now = SaveAllTables();
      return now == snapshot ? std::string("restored\n") : "left:\n" + now;
    };
    std::string text;
    {
      ServiceRig rig;
      text += Result(rig.service->SetPacketRules(Example("workstation.ini"))) + " ";
      text += Result(rig.service->SetEnforce(true)) + " ";
      text += Result(rig.service->SetPacketRules(Example("server.ini"))) + " ";
      text += Result(rig.service->AddRules({AgentPort(4000)}, "ostra")) + "\n";
      RunToolOk({"iptables", "-A", "vorn_input", "-j", "ACCEPT"});
      RunToolOk({"ip6tables", "-D", "OUTPUT", "-j", "vorn_output"});
      text += Result(rig.service->RunPoll()) + " ";
      // Not enforcing keeps the dynamic rules only.
      text += Result(rig.service->SetEnforce(false)) + "\n";
      text += ListChain("vorn_input");
      text += Result(rig.service->SetEnforce(true)) + "\n";
      rig.Release();
      text += restored();
    }
    const std::string installed = InstallAndKill(Example("server.ini"));
    {
      ServiceRig rig;
      text += Result(rig.service->SetPacketRules(Example("server.ini"))) + " ";
      text += Result(rig.service->SetEnforce(true)) + "\n";
      const std::string listing = ListFilterTables();
      // Each family lists its jumps once.
      text += (listing == installed ? "as the killed one left" : "changed:\n" + listing) + ", jumps " +
              std::to_string(CountLines(listing, "-A INPUT -j vorn_input")) + " " +
              std::to_string(CountLines(listing, "-A OUTPUT -j vorn_output")) + "\n";
      text += "events " + std::to_string(rig.publisher->events.size()) + ", poll ";
      text += PollOutcome(rig);
      rig.Release();
      text += restored();
    }
    InstallAndKill(Example("workstation.ini"));
    ServiceRig().Release();
    return text + restored();
  });
  EXPECT_EQ(output, kOk + " " + kOk + " " + kOk + " " + kOk + "\n" + kOk + " " + kOk +
                        "\n-N vorn_input\n-A vorn_input -p tcp -m tcp --dport 4000 -j ACCEPT\n" + kOk +
                        "\nrestored\n" + kOk + " " + kOk + "\nas the killed one left, jumps 2 2\nevents 0, poll " +
                        kQuietPoll + "restored\nrestored\n");
}

// Settings the compiler refuses, then a rule the kernel's tool refuses: the
// trace tells why, the rules in force stay, and the refused input is not
// kept, so that the poll does not try it again.
TEST_P(FirewallServiceNsTest, BadInputLosesNothing) {
  FirewallSettings broken = Example("workstation.ini");
  broken.packetRules.emplace_back().name = u"broken";
  broken.packetRules.back().remoteAddress = u"10.0.0.300";
  const std::string brokenRule =
      "packet rule " + std::to_string(broken.packetRules.size() - 1) + " (broken), remoteAddress '10.0.0.300'";
  firewall::RuleDescription unknown = AgentPort(5000);
  unknown.action = firewall::RawAction{"NOSUCHTARGET", {}};
  const std::string output = Run([&] {
    LoadFilterTables();
    ServiceRig rig;
    rig.service->SetPacketRules(Example("workstation.ini"));
    rig.service->SetEnforce(true);
    const std::string inForce = SaveAllTables();
    std::string text;
    // `line` picks the trace line that tells why; it must hold `why`.
    const auto refused = [&](const std::function<oro::result_t()>& change, const char* line, const std::string& why) {
      const std::size_t mark = rig.Mark();
      text += Result(change());
      text += rig.LineSince(mark, line).find(why) != std::string::npos ? " traced\n" : " untraced\n";
      text += SaveAllTables() == inForce ? "kept\n" : "changed\n";
      text += PollOutcome(rig);
    };
    refused([&] { return rig.service->SetPacketRules(broken); }, "Cannot compile packet rules", brokenRule);
    // The tool's own complaint about the target: the tool's report holds no script.
    refused([&] { return rig.service->AddRules({unknown}, "test"); }, "ExitedWithZero", "NOSUCHTARGET");
    return text;
  });
  EXPECT_EQ(output, Result(oro::errInvalidArgument) + " traced\nkept\n" + kQuietPoll + Result(oro::errUnexpected) +
                        " traced\nkept\n" + kQuietPoll);
}

INSTANTIATE_TEST_SUITE_P(Backends, FirewallServiceNsTest,
                         testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const testing::TestParamInfo<IptablesBackend>& info) {
                           return std::string(BackendName(info.param));
                         });

}  // namespace
}  // namespace qel::test
