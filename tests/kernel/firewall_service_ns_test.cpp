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
#include "qel_common/service_locator.h"
#include "support/fake_firewall.h"
#include "support/netns.h"
#include "support/service_rig.h"
#include "support/settings_corpus.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

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
// A dynamic rule (with its replies' companion, in each family) stays through
// all changes.
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
    expected += name + ": " + kOk + ", rules " + std::to_string(CompiledRuleCount(settings) + 4) + ", poll " +
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
        for (const auto& [property, value] : rig.publisher->events[i].properties) {
          text += property + ":\n" + std::get<std::string>(value);
        }
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

// Dynamic rules in every table the module uses, of both families.
std::vector<firewall::TaggedRule> RulesInEveryTable() {
  using namespace firewall;
  const RuleDescription mark{.protocol = 6, .localPorts = tools::PortRange{5004, 5004}, .action = MarkAction{0x40}};
  const RuleDescription save{.side = Side::Outgoing, .action = ConnmarkSaveAction{0xff, 0xff}};
  const RuleDescription masquerade{.side = Side::Outgoing, .protocol = 6, .action = NatAction{1}};
  const RuleDescription noNat{.protocol = 17, .action = NatAction{0}};
  return {{AgentPort(4000), "ostra"}, {mark, "marks"}, {save, "marks"}, {masquerade, "nat"}, {noNat, "nat"}};
}

// A released service leaves no trace, whatever was changed under it, and so
// does one that takes over the rules of a killed one in every table, with
// the same rules (installing nothing twice) or with none.
TEST_P(FirewallServiceNsTest, ReleaseLeavesNoTraceAlsoAfterTakingOverFromAKilledService) {
  const std::string output = Run([] {
    // The tables exist beforehand, so that "restored" is exact.
    CreateAllTables();
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
    const auto leftovers = RulesInEveryTable();
    const std::string installed = InstallAndKill(Example("server.ini"), leftovers);
    {
      ServiceRig rig;
      text += Result(rig.service->SetPacketRules(Example("server.ini"))) + " ";
      text += Result(rig.service->SetEnforce(true)) + " ";
      for (const auto& [description, tag] : leftovers) text += Result(rig.service->AddRules({description}, tag)) + " ";
      const std::string listing = SaveAllTables();
      // Each family and table holds its jumps once.
      text += (listing == installed ? "\nas the killed one left" : "\nchanged:\n" + listing) + ", jumps";
      for (const char* jump : {"-A INPUT -j vorn_input", "-A OUTPUT -j vorn_output", "-A PREROUTING -j vorn_prerouting",
                               "-A POSTROUTING -j vorn_postrouting"}) {
        text += " " + std::to_string(CountLines(listing, jump));
      }
      // Until its dynamic rules come, the first synchronisation of the new
      // service finds those of the killed one unwanted: one report.
      text += "\nevents " + std::to_string(rig.publisher->events.size()) + ", poll ";
      text += PollOutcome(rig);
      rig.Release();
      text += restored();
    }
    // A service that wants nothing finds the leftovers in every table.
    InstallAndKill(Example("workstation.ini"), leftovers);
    ServiceRig().Release();
    return text + restored();
  });
  EXPECT_EQ(output, kOk + " " + kOk + " " + kOk + " " + kOk + "\n" + kOk + " " + kOk +
                        "\n-N vorn_input\n-A vorn_input -p tcp -m tcp --dport 4000 -j ACCEPT\n" + kOk +
                        "\nrestored\n" + kOk + " " + kOk + " " + kOk + " " + kOk + " " + kOk + " " + kOk + " " +
                        kOk + " \nas the killed one left, jumps 2 4 4 2\nevents 1, poll " + kQuietPoll +
                        "restored\nrestored\n");
}

// What the module reads of the existing tables, against what the save
// tools print: "read as saved" or what was read.
std::string ReadAsSaved(ServiceRig& rig) {
  const auto provider = qel::GetInterface<firewall::IIptablesInfoProvider>(rig.locator.Get());
  std::string read;
  for (const auto& [family, tool] : {std::pair{types::IPAddressFamily::IPv6, "ip6tables-save"},
                                     std::pair{types::IPAddressFamily::IPv4, "iptables-save"}}) {
    std::vector<std::string> tables;
    if (oro::Failed(provider->GetExistingTables(family, tables))) return "read failed";
    std::sort(tables.begin(), tables.end());
    for (const auto& table : tables) read += std::string(tool) + " " + table + "\n";
  }
  std::string saved;
  for (const auto& [table, text] : SavedTables()) saved += table + "\n";
  return read == saved ? "read as saved" : "read:\n" + read + "saved:\n" + saved;
}

// Which tables exist is found without creating any, on a host that had none
// of them and on one that had them all: the module reads what the save
// tools print, a service whose rules stand in one table of one family
// leaves behind at most that table, empty, and one that takes over from a
// killed service in every table leaves them as they were, up to the empty
// tables its rules made.
TEST_P(FirewallServiceNsTest, TablesAreFoundWithoutCreatingThem) {
  const firewall::RuleDescription mark{.remote = tools::IpNetwork{tools::ParseIpAddress("10.0.0.0"), 8},
                                       .action = firewall::MarkAction{0x40}};
  const auto scenario = [&](bool hadTables) {
    if (hadTables) CreateAllTables();
    const auto before = SavedTables();
    std::string text;
    {
      ServiceRig rig;
      text += ReadAsSaved(rig) + ", ";
      text += Result(rig.service->AddRules({mark}, "marks")) + " ";
      text += Result(rig.service->RemoveRules({mark})) + ", ";
      text += ReadAsSaved(rig) + "\n";
    }
    text += "one table: " + TablesSince(before, SavedTables()) + "\n";
    const std::string installed = InstallAndKill(Example("server.ini"), RulesInEveryTable());
    {
      ServiceRig rig;
      rig.service->SetPacketRules(Example("server.ini"));
      rig.service->SetEnforce(true);
      for (const auto& [description, tag] : RulesInEveryTable()) rig.service->AddRules({description}, tag);
      text += SaveAllTables() == installed ? "as the killed one left, poll " : "changed, poll ";
      text += PollOutcome(rig, false);
    }
    return text + "every table: " + TablesSince(before, SavedTables()) + "\n";
  };
  const std::string output = Run([&] {
    std::string text = "## none\n" + scenario(false);
    return text + "## all\n" + scenario(true);
  });
  const std::string reading = "read as saved, " + kOk + " " + kOk + ", read as saved\n";
  const std::string tookOver = "as the killed one left, poll " + kOk + ", events 0\n";
  EXPECT_EQ(output, "## none\n" + reading + "one table: as before, new and empty: iptables-save mangle\n" + tookOver +
                        "every table: as before, new and empty: ip6tables-save filter, ip6tables-save mangle, "
                        "ip6tables-save nat, iptables-save filter, iptables-save mangle, iptables-save nat\n"
                        "## all\n" + reading + "one table: as before\n" + tookOver + "every table: as before\n");
}

INSTANTIATE_TEST_SUITE_P(Backends, FirewallServiceNsTest,
                         testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const testing::TestParamInfo<IptablesBackend>& info) {
                           return std::string(BackendName(info.param));
                         });

}  // namespace
}  // namespace qel::test
