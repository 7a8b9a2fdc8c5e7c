// The firewall service against the real kernel and the real tools, with each
// iptables backend, every case in a network namespace of its own: a poll
// after any settings change composes nothing, foreign changes to the
// module's chains are repaired and reported while other programs' rules are
// left alone, a released service leaves no trace, a service that takes over
// after a killed one installs nothing twice, and input that the compiler or
// the kernel refuses loses none of the rules in force.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>

#include "host/settings_ini.h"
#include "support/fake_firewall.h"
#include "support/netns.h"
#include "support/service_rig.h"
#include "support/settings_corpus.h"

namespace qel::test {
namespace {

using settings::FirewallSettings;
using settings::PacketRule;
using settings::PacketRuleAction;
using settings::PacketRuleDirection;
using settings::PacketRuleProtocol;
using testing::HasSubstr;
using FactMap = std::map<std::string, std::string>;

struct NamedSettings {
  std::string name;
  FirewallSettings settings;
};

FirewallSettings Example(const std::string& file) {
  return host::LoadSettingsFile(std::string(QEL_EXAMPLES_DIR) + "/" + file).settings;
}

std::vector<NamedSettings> Examples() {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(QEL_EXAMPLES_DIR)) {
    if (entry.path().extension() == ".ini") files.push_back(entry.path().filename());
  }
  std::sort(files.begin(), files.end());
  std::vector<NamedSettings> examples;
  for (const auto& file : files) examples.push_back({file, Example(file)});
  return examples;
}

std::vector<NamedSettings> ExamplesAndCorpus() {
  auto all = Examples();
  for (const auto protocol : kAllProtocols) {
    all.push_back({std::string("corpus-") + settings::EnumToString(protocol), FieldFormCorpus(protocol)});
  }
  return all;
}

std::string Result(oro::result_t result) { return tracing::FormatResult(result); }

// One poll, as "<result>, events <n>[, integrity broken], composed:" and the
// scripts it handed to the kernel.
std::string PollOutcome(ServiceRig& rig) {
  const std::size_t scripts = rig.firewall->Changes();
  const std::size_t events = rig.publisher->events.size();
  const std::size_t mark = rig.Mark();
  const oro::result_t polled = rig.service->RunPoll();
  return Result(polled) + ", events " + std::to_string(rig.publisher->events.size() - events) +
         (rig.TracedSince(mark, "Integrity broken") ? ", integrity broken" : "") + ", composed:\n" +
         rig.firewall->ScriptsSince(scripts);
}
const std::string kQuietPoll = Result(oro::errOk) + ", events 0, composed:\n";

// The outcome without the scripts, for a poll that has to repair.
std::string PollHead(ServiceRig& rig) {
  const std::string outcome = PollOutcome(rig);
  return outcome.substr(0, outcome.find(", composed"));
}

// Lists the filter tables first. With the legacy backend listing a table
// loads it into the namespace, and the service's first synchronisation lists
// the filter table whether or not it has rules to put there: loaded now, the
// table is part of every snapshot instead of a difference between them.
void LoadFilterTables() {
  RunToolOk({"iptables", "-S"});
  RunToolOk({"ip6tables", "-S"});
}

// Another program's rules in the built-in chains, which the module must
// neither move nor remove.
void AddForeignInputRules() {
  RunToolOk({"iptables", "-A", "INPUT", "-s", "198.51.100.7/32", "-j", "DROP"});
  RunToolOk({"ip6tables", "-A", "INPUT", "-s", "2001:db8::7/128", "-j", "DROP"});
}

std::size_t OwnedRuleLines(const std::string& listing) {
  std::istringstream lines(listing);
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line);) count += line.rfind("-A vorn_", 0) == 0 ? 1 : 0;
  return count;
}

std::size_t CompiledRuleCount(const FirewallSettings& settings) {
  std::size_t count = 0;
  for (const auto family : {types::IPAddressFamily::IPv4, types::IPAddressFamily::IPv6}) {
    const auto compiled = firewall::CompileRules(settings, family, true);
    count += compiled.incoming.size() + compiled.outgoing.size();
  }
  return count;
}

std::size_t JumpCount(const std::string& listing, const char* builtin, const char* chain) {
  return CountLines(listing, std::string("-A ") + builtin + " -j " + chain);
}

class FirewallServiceNsTest : public testing::TestWithParam<IptablesBackend> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: every case creates its own network and mount namespaces";
  }

  // Runs `body` in a fresh namespace with this case's backend and returns
  // the facts it found; a body that fails or throws fails the case.
  FactMap Run(const std::function<void(Facts&)>& body) {
    const ChildRun run = RunInNetworkNamespace(GetParam(), [&] {
      Facts facts;
      body(facts);
      return facts.Encode();
    });
    if (!run.completed) {
      ADD_FAILURE() << "namespace child failed: " << run.output;
      return {};
    }
    return Facts::Decode(run.output);
  }
};

TEST_P(FirewallServiceNsTest, ConvergenceOfEachSettingsFromScratch) {
  const auto all = ExamplesAndCorpus();
  auto facts = Run([&](Facts& facts) {
    for (const auto& [name, settings] : all) {
      ServiceRig rig;
      const oro::result_t set = rig.service->SetPacketRules(settings);
      const oro::result_t enforced = rig.service->SetEnforce(true);
      facts.Set(name, Result(set) + " " + Result(enforced) + " " + PollOutcome(rig));
      facts.Set(name + " installed", OwnedRuleLines(ListFilterTables()));
    }
  });
  for (const auto& [name, settings] : all) {
    EXPECT_EQ(facts[name], Result(oro::errOk) + " " + Result(oro::errOk) + " " + kQuietPoll) << name;
    // Every compiled rule stands in the kernel, each once.
    EXPECT_EQ(facts[name + " installed"], std::to_string(CompiledRuleCount(settings))) << name;
  }
}

TEST_P(FirewallServiceNsTest, ConvergenceAfterEachSettingsChange) {
  auto sequence = ExamplesAndCorpus();
  sequence.push_back({"back to " + sequence.front().name, sequence.front().settings});
  auto facts = Run([&](Facts& facts) {
    ServiceRig rig;
    // A dynamic rule stays through all changes and has to read back too.
    facts.Set("agent", Result(rig.service->AddRules({AgentPort(4000)}, "ostra")));
    facts.Set("enforce", Result(rig.service->SetEnforce(true)));
    for (const auto& [name, settings] : sequence) {
      const std::size_t events = rig.publisher->events.size();
      const oro::result_t set = rig.service->SetPacketRules(settings);
      facts.Set(name, Result(set) + " events " + std::to_string(rig.publisher->events.size() - events) + " " +
                          PollOutcome(rig));
    }
  });
  EXPECT_EQ(facts["agent"], Result(oro::errOk));
  EXPECT_EQ(facts["enforce"], Result(oro::errOk));
  for (const auto& [name, settings] : sequence) {
    EXPECT_EQ(facts[name], Result(oro::errOk) + " events 0 " + kQuietPoll) << name;
  }
}

TEST_P(FirewallServiceNsTest, IntegrityRepairsOwnedChainsOnlyAndReportsOnce) {
  auto facts = Run([](Facts& facts) {
    LoadFilterTables();
    ServiceRig rig;
    rig.service->SetPacketRules(Example("worked-ssh.ini"));
    rig.service->SetEnforce(true);
    const std::string installed = ListFilterTables();
    const auto lastEvent = [&](const char* property) {
      return rig.publisher->events.empty() ? "" : ServiceRig::Property(rig.publisher->events.back(), property);
    };

    RunToolOk({"iptables", "-D", "vorn_input", "-s", "10.0.0.0/8", "-p", "tcp", "-m", "tcp", "--dport", "22", "-m",
               "conntrack", "--ctstate", "NEW", "-j", "ACCEPT"});
    facts.Set("deleted.poll", PollHead(rig));
    facts.Set("deleted.kind", rig.publisher->events.empty() ? "" : rig.publisher->events.back().kind);
    facts.Set("deleted.missing", lastEvent("missing"));
    facts.Set("deleted.extra", lastEvent("extra"));
    facts.Set("deleted.repaired", ListFilterTables() == installed);
    facts.Set("deleted.next", PollOutcome(rig));

    RunToolOk({"iptables", "-A", "vorn_input", "-s", "203.0.113.9/32", "-j", "ACCEPT"});
    RunToolOk({"ip6tables", "-A", "vorn_output", "-d", "2001:db8::9/128", "-j", "DROP"});
    facts.Set("foreign.poll", PollHead(rig));
    facts.Set("foreign.missing", lastEvent("missing"));
    facts.Set("foreign.extra", lastEvent("extra"));
    facts.Set("foreign.repaired", ListFilterTables() == installed);
    facts.Set("foreign.next", PollOutcome(rig));

    RunToolOk({"iptables", "-I", "INPUT", "1", "-s", "198.51.100.1/32", "-j", "DROP"});
    RunToolOk({"iptables", "-A", "INPUT", "-p", "udp", "-m", "udp", "--dport", "9999", "-j", "ACCEPT"});
    facts.Set("builtin.poll", PollOutcome(rig));
    facts.Set("builtin.input", ListRules("iptables", "filter", "INPUT"));

    // A removed jump goes back to the head, ahead of the other rules.
    RunToolOk({"iptables", "-D", "INPUT", "-j", "vorn_input"});
    facts.Set("jump.poll", PollHead(rig));
    facts.Set("jump.missing", lastEvent("missing"));
    facts.Set("jump.input", ListRules("iptables", "filter", "INPUT"));
    facts.Set("jump.next", PollOutcome(rig));
    rig.Release();
  });
  const std::string brokenOnce = Result(oro::errOk) + ", events 1, integrity broken";
  EXPECT_EQ(facts["deleted.poll"], brokenOnce);
  EXPECT_EQ(facts["deleted.kind"], "FirewallIntegrityBroken");
  EXPECT_THAT(facts["deleted.missing"],
              HasSubstr("IPv4 filter vorn_input: -s 10.0.0.0/8 -p tcp -m tcp --dport 22 -m conntrack --ctstate NEW "
                        "-j ACCEPT item_0000 name ssh\n"));
  EXPECT_EQ(facts["deleted.extra"], "");
  EXPECT_EQ(facts["deleted.repaired"], "true");
  EXPECT_EQ(facts["deleted.next"], kQuietPoll);

  EXPECT_EQ(facts["foreign.poll"], brokenOnce);
  EXPECT_EQ(facts["foreign.missing"], "");
  EXPECT_EQ(facts["foreign.extra"],
            "IPv4 filter vorn_input: -s 203.0.113.9/32 -j ACCEPT\n"
            "IPv6 filter vorn_output: -d 2001:db8::9/128 -j DROP\n");
  EXPECT_EQ(facts["foreign.repaired"], "true");
  EXPECT_EQ(facts["foreign.next"], kQuietPoll);

  EXPECT_EQ(facts["builtin.poll"], kQuietPoll);
  EXPECT_EQ(facts["builtin.input"],
            "-P INPUT ACCEPT\n-A INPUT -s 198.51.100.1/32 -j DROP\n-A INPUT -j vorn_input\n"
            "-A INPUT -p udp -m udp --dport 9999 -j ACCEPT\n");

  EXPECT_EQ(facts["jump.poll"], brokenOnce);
  EXPECT_EQ(facts["jump.missing"], "IPv4 filter INPUT: -j vorn_input\n");
  EXPECT_EQ(facts["jump.input"],
            "-P INPUT ACCEPT\n-A INPUT -j vorn_input\n-A INPUT -s 198.51.100.1/32 -j DROP\n"
            "-A INPUT -p udp -m udp --dport 9999 -j ACCEPT\n");
  EXPECT_EQ(facts["jump.next"], kQuietPoll);
}

TEST_P(FirewallServiceNsTest, ReleaseLeavesNoTrace) {
  auto facts = Run([](Facts& facts) {
    LoadFilterTables();
    AddForeignInputRules();
    const std::string snapshot = SaveAllTables();
    facts.Set("snapshot", snapshot);
    ServiceRig rig;
    std::string results;
    const auto step = [&](oro::result_t result) { results += Result(result) + "\n"; };
    step(rig.service->SetPacketRules(Example("workstation.ini")));
    step(rig.service->SetEnforce(true));
    step(rig.service->SetPacketRules(Example("server.ini")));
    step(rig.service->AddRules({AgentPort(4000)}, "ostra"));
    facts.Set("installed", SaveAllTables() != snapshot);
    RunToolOk({"iptables", "-A", "vorn_input", "-j", "ACCEPT"});
    RunToolOk({"ip6tables", "-D", "OUTPUT", "-j", "vorn_output"});
    step(rig.service->RunPoll());
    step(rig.service->SetEnforce(false));
    facts.Set("unenforced", ListRules("iptables", "filter", "vorn_input"));
    step(rig.service->SetEnforce(true));
    facts.Set("results", results);
    rig.Release();
    facts.Set("after", SaveAllTables());
  });
  std::string succeeded;
  for (int step = 0; step < 7; ++step) succeeded += Result(oro::errOk) + "\n";
  EXPECT_EQ(facts["results"], succeeded);
  EXPECT_EQ(facts["installed"], "true");
  EXPECT_EQ(facts["unenforced"], "-N vorn_input\n-A vorn_input -p tcp -m tcp --dport 4000 -j ACCEPT\n");
  EXPECT_EQ(facts["after"], facts["snapshot"]);
  EXPECT_THAT(facts["snapshot"], HasSubstr("-A INPUT -s 198.51.100.7/32 -j DROP"));
}

TEST_P(FirewallServiceNsTest, RestartAfterKillInstallsNothingTwiceAndReleasesAll) {
  auto facts = Run([](Facts& facts) {
    LoadFilterTables();
    AddForeignInputRules();
    const std::string snapshot = SaveAllTables();
    const FirewallSettings settings = Example("server.ini");
    const std::string installed = InstallAndKill(settings);
    facts.Set("left", ListFilterTables() == installed);

    ServiceRig rig;
    facts.Set("set", Result(rig.service->SetPacketRules(settings)));
    facts.Set("enforce", Result(rig.service->SetEnforce(true)));
    const std::string listing = ListFilterTables();
    facts.Set("same", listing == installed);
    facts.Set("listing", listing);
    facts.Set("jumps", std::to_string(JumpCount(listing, "INPUT", "vorn_input")) + " " +
                           std::to_string(JumpCount(listing, "OUTPUT", "vorn_output")));
    facts.Set("events", rig.publisher->events.size());
    facts.Set("poll", PollOutcome(rig));
    rig.Release();
    facts.Set("restored", SaveAllTables() == snapshot);
  });
  EXPECT_EQ(facts["left"], "true");
  EXPECT_EQ(facts["set"], Result(oro::errOk));
  EXPECT_EQ(facts["enforce"], Result(oro::errOk));
  EXPECT_EQ(facts["same"], "true") << facts["listing"];
  // Each family lists its jumps once.
  EXPECT_EQ(facts["jumps"], "2 2");
  EXPECT_EQ(facts["events"], "0");
  EXPECT_EQ(facts["poll"], kQuietPoll);
  EXPECT_EQ(facts["restored"], "true");
}

TEST_P(FirewallServiceNsTest, RestartAfterKillWithoutSettingsCleansUp) {
  auto facts = Run([](Facts& facts) {
    LoadFilterTables();
    AddForeignInputRules();
    const std::string snapshot = SaveAllTables();
    InstallAndKill(Example("workstation.ini"));
    ServiceRig rig;
    rig.Release();
    facts.Set("restored", SaveAllTables() == snapshot);
  });
  EXPECT_EQ(facts["restored"], "true");
}

TEST_P(FirewallServiceNsTest, BadInputLosesNothing) {
  auto facts = Run([](Facts& facts) {
    LoadFilterTables();
    ServiceRig rig;
    FirewallSettings settings = Example("workstation.ini");
    rig.service->SetPacketRules(settings);
    rig.service->SetEnforce(true);
    const std::string inForce = SaveAllTables();

    PacketRule broken;
    broken.name = u"broken";
    broken.remoteAddress = u"10.0.0.300";
    settings.packetRules.push_back(broken);
    facts.Set("compile.index", std::to_string(settings.packetRules.size() - 1));
    std::size_t mark = rig.Mark();
    facts.Set("compile.result", Result(rig.service->SetPacketRules(settings)));
    facts.Set("compile.trace", rig.LineSince(mark, "Cannot compile packet rules"));
    facts.Set("compile.kept", SaveAllTables() == inForce);
    facts.Set("compile.poll", PollOutcome(rig));

    firewall::RuleDescription unknown = AgentPort(5000);
    unknown.action = firewall::RawAction{"NOSUCHTARGET", {}};
    mark = rig.Mark();
    facts.Set("restore.result", Result(rig.service->AddRules({unknown}, "test")));
    const std::string refusal = rig.LineSince(mark, "ExitedWithZero");
    facts.Set("restore.stderr", refusal.substr(std::min(refusal.size(), refusal.find("stderr: '"))));
    facts.Set("restore.kept", SaveAllTables() == inForce);
    // The refused rule is not kept: the poll does not try it again.
    facts.Set("restore.poll", PollOutcome(rig));
    rig.Release();
  });
  EXPECT_EQ(facts["compile.result"], Result(oro::errInvalidArgument));
  EXPECT_THAT(facts["compile.trace"],
              HasSubstr("packet rule " + facts["compile.index"] + " (broken), remoteAddress '10.0.0.300'"));
  EXPECT_EQ(facts["compile.kept"], "true");
  EXPECT_EQ(facts["compile.poll"], kQuietPoll);

  EXPECT_NE(facts["restore.result"], Result(oro::errOk));
  // The tool's own complaint about the target reaches the trace.
  EXPECT_THAT(facts["restore.stderr"], HasSubstr("NOSUCHTARGET"));
  EXPECT_EQ(facts["restore.kept"], "true");
  EXPECT_EQ(facts["restore.poll"], kQuietPoll);
}

INSTANTIATE_TEST_SUITE_P(Backends, FirewallServiceNsTest,
                         testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const testing::TestParamInfo<IptablesBackend>& info) {
                           return std::string(BackendName(info.param));
                         });

}  // namespace
}  // namespace qel::test
