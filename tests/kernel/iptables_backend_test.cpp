// The iptables backend and the tool probing against canned tool runs: the
// command lines, scripts and answers they compose, without running a tool.
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
#include "oro/exception.h"
#include "support/fake_feature_techs_aggregator.h"
#include "support/fake_framework.h"

namespace qel::firewall {
namespace {

using Args = std::vector<std::string>;
using types::IPAddressFamily;

struct CannedRun {
  oro::result_t result = oro::errOk;
  int exitCode = 0;
  std::string output;
  std::string errorOutput;
};

CannedRun Exited(int exitCode, std::string output = "", std::string errorOutput = "") {
  return {oro::errOk, exitCode, std::move(output), std::move(errorOutput)};
}

CannedRun NotFound() { return {oro::errNotFound, 0, "", ""}; }

Change MakeChange(ChangeKind kind, std::string chain, std::string match = "", std::string target = "",
                  bool isGoto = false, std::int32_t position = -1) {
  return {kind, std::move(chain), std::move(match), std::move(target), isGoto, position};
}

// Answers by program name; a program without an answer is not found. Keeps
// every context it ran.
class FakeTools {
 public:
  void Answer(const std::string& program, CannedRun run) { m_runs[program] = std::move(run); }

  ToolRunner Runner() {
    return [this](tools::SpawnContext& context) { return Run(context); };
  }

  std::vector<tools::SpawnContext> runs;

 private:
  oro::result_t Run(tools::SpawnContext& context) {
    const auto found = m_runs.find(context.program);
    const CannedRun run = found != m_runs.end() ? found->second : NotFound();
    context.result = run.result;
    if (oro::Succeeded(run.result)) {
      context.exitCode = run.exitCode;
      if (context.output) *context.output = run.output;
      if (context.errorOutput) *context.errorOutput = run.errorOutput;
    } else {
      context.reason = tools::SpawnFinishReason::ProgramNotFound;
    }
    runs.push_back(context);
    return run.result;
  }

  std::map<std::string, CannedRun> m_runs;
};

class IptablesBackendTest : public testing::Test {
 protected:
  IptablesBackendTest() {
    m_locator->Register(m_tracer);
    m_locator->Register(m_registry);
    m_tools.Answer("ip6tables", Exited(0));
  }

  void AnswerVersion(const std::string& line) { m_tools.Answer("iptables", Exited(0, line)); }

  oro::RefPtr<IptablesInfoProvider> MakeProvider() {
    return test::Make<IptablesInfoProvider>(m_locator.Get(), m_tools.Runner());
  }

  // A firewall over a provider that read `versionLine`; the probes' runs are
  // forgotten.
  oro::RefPtr<IptablesFirewall> MakeFirewall(const std::string& versionLine) {
    AnswerVersion(versionLine);
    const auto locator = test::Make<test::FakeLocator>();
    locator->Register(m_tracer);
    locator->Register(MakeProvider());
    m_tools.runs.clear();
    return test::Make<IptablesFirewall>(locator.Get(), m_tools.Runner());
  }

  FakeTools m_tools;
  const oro::RefPtr<test::FakeTracer> m_tracer = test::Make<test::FakeTracer>();
  const oro::RefPtr<test::FakeFeatureTechsAggregator> m_registry = test::Make<test::FakeFeatureTechsAggregator>();
  const oro::RefPtr<test::FakeLocator> m_locator = test::Make<test::FakeLocator>();
};

// --- Tool probing -------------------------------------------------------------

TEST_F(IptablesBackendTest, InfoProviderReadsVersionAndThresholds) {
  struct Case {
    const char* line;
    bool known;
    bool atLeast_1_4_8;
    bool waitOption;
  };
  const Case cases[] = {
      {"iptables v1.4.20\n", true, true, true},
      {"iptables v1.4.19\n", true, true, false},
      {"iptables v1.8.7 (nf_tables)\n", true, true, true},
      {"iptables v2.0\n", false, false, false},
      {"iptables v0.9.9\n", true, false, false},
      {"iptables v1.4.7\n", true, false, false},
      {"iptables v1.4.8\n", true, true, false},
      {"iptables v1.3.99\n", true, false, false},
      {"iptables v2.0.0\n", true, true, true},
      {"iptables v99999999999999999999.1.1\n", false, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    AnswerVersion(c.line);
    const auto provider = MakeProvider();
    EXPECT_EQ(provider->IsVersionKnown(), c.known);
    EXPECT_EQ(provider->IsVersionAtLeast_1_4_8(), c.atLeast_1_4_8);
    EXPECT_EQ(provider->SupportsWaitOption(), c.waitOption);
  }
  EXPECT_TRUE(m_tracer->Contains(800, "Version of iptables tool: 1.8.7"));
  EXPECT_TRUE(m_tracer->Contains(500, "Can not determine version of iptables tool"));
}

TEST_F(IptablesBackendTest, InfoProviderProbesWithFixedCommands) {
  AnswerVersion("iptables v1.8.9 (legacy)\n");
  auto provider = MakeProvider();
  ASSERT_EQ(m_tools.runs.size(), 2u);
  EXPECT_EQ(m_tools.runs[0].argv, (Args{"iptables", "-V"}));
  EXPECT_TRUE(m_tools.runs[0].output.has_value());
  EXPECT_EQ(m_tools.runs[1].argv, (Args{"ip6tables", "-m", "addrtype", "--help"}));
  EXPECT_STREQ(provider->GetIptables(), "iptables");
  EXPECT_STREQ(provider->GetIp6tables(), "ip6tables");
  EXPECT_STREQ(provider->GetIptablesRestore(), "iptables-restore");
  EXPECT_STREQ(provider->GetIp6tablesRestore(), "ip6tables-restore");

  const auto lines = m_tracer->Lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], (std::pair<std::uint32_t, std::string>{800, "IptablesInfoProvider() "}));
  EXPECT_EQ(lines[1], (std::pair<std::uint32_t, std::string>{800, "FetchVersion"}));
  EXPECT_TRUE(m_tracer->Contains(700, "FetchIpv6Support: "));
  provider.Reset();
  EXPECT_EQ(m_tracer->Lines().back(), (std::pair<std::uint32_t, std::string>{800, "~IptablesInfoProvider() "}));
}

TEST_F(IptablesBackendTest, InfoProviderWithoutVersionToolKeepsVersionUnknown) {
  m_tools.Answer("iptables", NotFound());
  const auto provider = MakeProvider();
  EXPECT_FALSE(provider->IsVersionKnown());
  EXPECT_FALSE(provider->SupportsWaitOption());
  EXPECT_TRUE(m_tracer->Contains(500, "FetchVersion: "));
}

// The probe needs the tool and its address-type match: a tool that starts
// but cannot load the match exits non-zero.
TEST_F(IptablesBackendTest, InfoProviderCountsIpv6OnlyForCleanProbe) {
  AnswerVersion("iptables v1.8.9\n");
  const std::pair<CannedRun, bool> cases[] = {
      {Exited(0), true},
      {Exited(2, "", "Couldn't load match `addrtype'"), false},
      {NotFound(), false},
  };
  for (const auto& [run, supported] : cases) {
    m_tools.Answer("ip6tables", run);
    EXPECT_EQ(MakeProvider()->IsIpv6Supported(), supported) << run.exitCode << " " << run.result;
  }
}

TEST_F(IptablesBackendTest, InfoProviderReportsFeaturesItHas) {
  struct Case {
    const char* versionLine;
    int ipv6ExitCode;
    std::vector<std::string> calls;
  };
  const Case cases[] = {
      {"iptables v1.8.7", 0,
       {"OpenGroup(2)", "SetFeature(2,3)", "SetFeature(2,6)", "SetFeature(2,7)", "CloseGroup(2)"}},
      {"iptables v1.4.19", 2, {"OpenGroup(2)", "SetFeature(2,7)", "CloseGroup(2)"}},
      {"iptables", 2, {"OpenGroup(2)", "CloseGroup(2)"}},
  };
  for (const auto& c : cases) {
    m_registry->calls.clear();
    AnswerVersion(c.versionLine);
    m_tools.Answer("ip6tables", Exited(c.ipv6ExitCode));
    MakeProvider();
    EXPECT_EQ(m_registry->calls, c.calls) << c.versionLine;
  }
}

TEST_F(IptablesBackendTest, InfoProviderCannotBeBuiltWhenRegistryRefuses) {
  AnswerVersion("iptables v1.8.7");
  m_registry->failures["SetFeature(2,6)"] = oro::errInvalidState;
  try {
    MakeProvider();
    ADD_FAILURE() << "no exception";
  } catch (const oro::Exception& e) {
    EXPECT_EQ(e.Code(), oro::errInvalidState);
    EXPECT_NE(std::string(e.what()).find("firewall/iptables_info_provider.cpp("), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("Expression failed"), std::string::npos) << e.what();
  }

  auto bare = test::Make<test::FakeLocator>();
  EXPECT_THROW(test::Make<IptablesInfoProvider>(bare.Get(), m_tools.Runner()), oro::GetInterfaceException);
}

// --- Reading and changing tables ------------------------------------------------

TEST_F(IptablesBackendTest, CommandsCarryWaitOptionFromVersion) {
  struct Case {
    const char* versionLine;
    IPAddressFamily::Type family;
    Args listing;
    Args restore;
  };
  const Case cases[] = {
      {"iptables v1.4.20", IPAddressFamily::IPv4,
       {"iptables", "-t", "nat", "-S", "-w"}, {"iptables-restore", "-n", "-w"}},
      {"iptables v1.4.20", IPAddressFamily::IPv6,
       {"ip6tables", "-t", "nat", "-S", "-w"}, {"ip6tables-restore", "-n", "-w"}},
      {"iptables v1.4.19", IPAddressFamily::IPv4, {"iptables", "-t", "nat", "-S"}, {"iptables-restore", "-n"}},
      {"iptables v1.4.19", IPAddressFamily::IPv6, {"ip6tables", "-t", "nat", "-S"}, {"ip6tables-restore", "-n"}},
      {"no version", IPAddressFamily::IPv4, {"iptables", "-t", "nat", "-S"}, {"iptables-restore", "-n"}},
      {"no version", IPAddressFamily::Type{7}, {"ip6tables", "-t", "nat", "-S"}, {"ip6tables-restore", "-n"}},
  };
  m_tools.Answer("iptables-restore", Exited(0));
  m_tools.Answer("ip6tables-restore", Exited(0));
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.versionLine) + " family " + std::to_string(c.family));
    const auto firewall = MakeFirewall(c.versionLine);
    State state;
    ASSERT_EQ(firewall->GetState(c.family, "nat", state), oro::errOk);
    ASSERT_EQ(firewall->ChangeState(c.family, "nat", {}), oro::errOk);
    ASSERT_EQ(m_tools.runs.size(), 2u);
    EXPECT_EQ(m_tools.runs[0].argv, c.listing);
    EXPECT_FALSE(m_tools.runs[0].input.has_value());
    EXPECT_EQ(m_tools.runs[1].argv, c.restore);
  }
}

TEST_F(IptablesBackendTest, ChangeStateWritesChangesInTheirOrder) {
  m_tools.Answer("iptables-restore", Exited(0));
  const auto firewall = MakeFirewall("iptables v1.4.19");
  ASSERT_EQ(firewall->ChangeState(IPAddressFamily::IPv4, "filter", {}), oro::errOk);
  EXPECT_EQ(m_tools.runs.back().input, "*filter\nCOMMIT\n");
  // The display form names "-w" even though this version does not get it.
  EXPECT_TRUE(m_tracer->Contains(800, "Command:\niptables-restore -n -w << EOF\n*filter\nCOMMIT\nEOF"));

  const ChangeList changes = {
      MakeChange(ChangeKind::DeleteChain, "old"),
      MakeChange(ChangeKind::CreateChain, "vorn_input"),
      MakeChange(ChangeKind::AddRule, "INPUT", "", "ACCEPT"),
      MakeChange(ChangeKind::AddRule, "INPUT", "-p tcp", "vorn_input", true, 0),
      MakeChange(ChangeKind::DeleteRule, "vorn_input", "-s 10.0.0.1", "DROP"),
      MakeChange(ChangeKind::SetPolicy, "FORWARD", "", "DROP"),
      MakeChange(ChangeKind::FlushChain, "old"),
  };
  ASSERT_EQ(firewall->ChangeState(IPAddressFamily::IPv4, "mangle", changes), oro::errOk);
  EXPECT_EQ(m_tools.runs.back().input,
            "*mangle\n-X old\n:vorn_input - [0:0]\n-A INPUT -j ACCEPT\n-I INPUT 0 -p tcp -g vorn_input\n"
            "-D vorn_input -s 10.0.0.1 -j DROP\n-P FORWARD DROP\n-F old\nCOMMIT\n");
  EXPECT_TRUE(m_tracer->Contains(800, "IptablesFirewall::ChangeState(qel::types::IPAddressFamily::Type, const "
                                      "string8_t&, const ChangeList&) family: IPv4 table: mangle"));
}

TEST_F(IptablesBackendTest, GetStateReplacesStateWithParsedListing) {
  m_tools.Answer("ip6tables", Exited(0,
                                      "-P INPUT DROP\n-N vorn_input\n-A INPUT -p tcp -j vorn_input\n"
                                      "-A vorn_input -g other\n"));
  const auto firewall = MakeFirewall("iptables v1.8.7");
  State state{{Chain{"stale", {}}}};
  ASSERT_EQ(firewall->GetState(IPAddressFamily::IPv6, "filter", state), oro::errOk);

  Rule jump;
  jump.match = {"-p", "tcp"};
  jump.target = {"vorn_input"};
  Rule policy;
  policy.target = {"DROP"};
  policy.isPolicy = true;
  Rule go;
  go.target = {"other"};
  go.isGoto = true;
  EXPECT_EQ(state, (State{{Chain{"INPUT", {jump, policy}}, Chain{"vorn_input", {go}}}}));
  EXPECT_TRUE(m_tracer->Contains(800, "virtual result_t qel::firewall::IptablesFirewall::GetState(qel::types::"
                                      "IPAddressFamily::Type, const string8_t&, qel::firewall::State&) const "
                                      "family: IPv6 table: filter"));
  EXPECT_TRUE(m_tracer->Contains(800, "qel::firewall::State&) const parsed:\n{\"chainList\":["));
}

TEST_F(IptablesBackendTest, GetStateRefusesListingItCannotParse) {
  m_tools.Answer("ip6tables", Exited(0, "-P INPUT\n"));
  const auto firewall = MakeFirewall("iptables v1.8.7");
  const State kept{{Chain{"kept", {}}}};
  State state = kept;
  EXPECT_EQ(firewall->GetState(IPAddressFamily::IPv6, "filter", state), oro::errUnexpected);
  EXPECT_EQ(state, kept);
  EXPECT_TRUE(m_tracer->Contains(300, "(ParseIptablesOutput(GetTracer(), Convert(output), out)),(ORO_SUCCEEDED("
                                      "_result)) failed: result = 0x8000004b"));
  EXPECT_TRUE(m_tracer->Contains(300, "Cannot parse output '-P INPUT\n'"));
}

TEST_F(IptablesBackendTest, ToolFailuresAreReported) {
  const auto firewall = MakeFirewall("iptables v1.8.7");
  State state;

  m_tools.Answer("iptables", Exited(1, "", "iptables: Table does not exist"));
  EXPECT_EQ(firewall->GetState(IPAddressFamily::IPv4, "raw", state), oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains(300, "(ExitedWithZero(context)) failed"));
  EXPECT_TRUE(m_tracer->Contains(300, "iptables: Table does not exist"));

  m_tools.Answer("iptables-restore", Exited(2, "", "iptables-restore: line 2 failed"));
  EXPECT_EQ(firewall->ChangeState(IPAddressFamily::IPv4, "filter", {MakeChange(ChangeKind::FlushChain, "x")}),
            oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains(300, "iptables-restore: line 2 failed"));

  // Spawn failures come back as they are.
  EXPECT_EQ(firewall->ChangeState(IPAddressFamily::IPv6, "filter", {}), oro::errNotFound);
  EXPECT_TRUE(m_tracer->Contains(300, "(SecureSpawn(context)),(ORO_SUCCEEDED(_result)) failed: result = 0x8000004c"));
}

TEST_F(IptablesBackendTest, FirewallNeedsInfoProvider) {
  EXPECT_THROW(test::Make<IptablesFirewall>(m_locator.Get(), m_tools.Runner()), oro::GetInterfaceException);
}

}  // namespace
}  // namespace qel::firewall
