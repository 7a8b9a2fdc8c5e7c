// The iptables backend and the tool probing against canned tool runs: the
// command lines, scripts and answers they compose, without running a tool.
// The namespace tests cover what the real tools make of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
#include "oro/exception.h"
#include "support/fake_feature_techs_aggregator.h"
#include "support/fake_framework.h"

namespace qel::firewall {
namespace {

using Args = std::vector<std::string>;
using types::IPAddressFamily;

// A tool's canned run; a result other than errOk is a failure to spawn.
struct CannedRun {
  int exitCode = 0;
  std::string output = "", errorOutput = "";
  oro::result_t result = oro::errOk;
};
const CannedRun kNotFound{0, "", "", oro::errNotFound};

Rule MakeRule(Tokens match, Tokens target, bool isGoto = false, bool isPolicy = false) {
  return {std::move(match), std::move(target), isGoto, isPolicy, "", "", "", ""};
}

class IptablesBackendTest : public testing::Test {
 protected:
  IptablesBackendTest() {
    m_locator->Register(m_tracer);
    m_locator->Register(m_registry);
    m_answers["ip6tables"] = {};
  }

  // Answers by program name, a program without an answer is not found;
  // keeps every context it ran.
  ToolRunner Runner() {
    return [this](tools::SpawnContext& context) {
      const auto found = m_answers.find(context.program);
      const CannedRun run = found != m_answers.end() ? found->second : kNotFound;
      context.result = run.result;
      if (oro::Succeeded(run.result)) {
        context.exitCode = run.exitCode;
        if (context.output) *context.output = run.output;
        if (context.errorOutput) *context.errorOutput = run.errorOutput;
      }
      m_runs.push_back(context);
      return run.result;
    };
  }

  oro::RefPtr<IptablesInfoProvider> MakeProvider(const CannedRun& version) {
    m_answers["iptables"] = version;
    return test::Make<IptablesInfoProvider>(m_locator.Get(), Runner());
  }

  // A firewall over a provider that read `versionLine`; the probes' runs are
  // forgotten.
  oro::RefPtr<IptablesFirewall> MakeFirewall(const std::string& versionLine) {
    const auto locator = test::Make<test::FakeLocator>();
    locator->Register(m_tracer);
    locator->Register(MakeProvider({0, versionLine}));
    m_runs.clear();
    return test::Make<IptablesFirewall>(locator.Get(), Runner());
  }

  std::map<std::string, CannedRun> m_answers;
  std::vector<tools::SpawnContext> m_runs;
  const oro::RefPtr<test::FakeTracer> m_tracer = test::Make<test::FakeTracer>();
  const oro::RefPtr<test::FakeFeatureTechsAggregator> m_registry = test::Make<test::FakeFeatureTechsAggregator>();
  const oro::RefPtr<test::FakeLocator> m_locator = test::Make<test::FakeLocator>();
};

TEST_F(IptablesBackendTest, InfoProviderReadsVersionAndThresholds) {
  const std::tuple<CannedRun, bool, bool, bool> cases[] = {
      // Version line; whether the version is known, at least 1.4.8, and
      // gets "-w" (from 1.4.20 on).
      {{0, "iptables v1.4.20\n"}, true, true, true},
      {{0, "iptables v1.4.19\n"}, true, true, false},
      {{0, "iptables v1.8.7 (nf_tables)\n"}, true, true, true},
      {{0, "iptables v2.0\n"}, false, false, false},
      {{0, "iptables v0.9.9\n"}, true, false, false},
      {{0, "iptables v1.4.7\n"}, true, false, false},
      {{0, "iptables v1.4.8\n"}, true, true, false},
      {{0, "iptables v1.3.99\n"}, true, false, false},
      {{0, "iptables v2.0.0\n"}, true, true, true},
      {{0, "iptables v99999999999999999999.1.1\n"}, false, false, false},
      {kNotFound, false, false, false},
  };
  for (const auto& [version, known, atLeast_1_4_8, waitOption] : cases) {
    SCOPED_TRACE(version.output);
    const auto provider = MakeProvider(version);
    EXPECT_EQ(provider->IsVersionKnown(), known);
    EXPECT_EQ(provider->IsVersionAtLeast_1_4_8(), atLeast_1_4_8);
    EXPECT_EQ(provider->SupportsWaitOption(), waitOption);
  }
  EXPECT_TRUE(m_tracer->Contains(500, "Can not determine version of iptables tool"));
}

// The IPv6 probe needs the tool and its address-type match: a tool that
// starts but cannot load the match exits non-zero. The features reported
// follow from the probes.
TEST_F(IptablesBackendTest, InfoProviderProbesIpv6AndReportsFeaturesItHas) {
  const std::tuple<const char*, CannedRun, bool, std::vector<std::string>> cases[] = {
      {"iptables v1.8.7", {},
       true, {"OpenGroup(2)", "SetFeature(2,3)", "SetFeature(2,6)", "SetFeature(2,7)", "CloseGroup(2)"}},
      {"iptables v1.4.19", {2, "", "Couldn't load match `addrtype'"},
       false, {"OpenGroup(2)", "SetFeature(2,7)", "CloseGroup(2)"}},
      {"iptables", kNotFound, false, {"OpenGroup(2)", "CloseGroup(2)"}},
  };
  for (const auto& [versionLine, probe, ipv6, calls] : cases) {
    SCOPED_TRACE(versionLine);
    m_registry->calls.clear();
    m_runs.clear();
    m_answers["ip6tables"] = probe;
    EXPECT_EQ(MakeProvider({0, versionLine})->IsIpv6Supported(), ipv6);
    EXPECT_EQ(m_registry->calls, calls);
    ASSERT_EQ(m_runs.size(), 2u);
    EXPECT_EQ(m_runs[0].argv, (Args{"iptables", "-V"}));
    EXPECT_EQ(m_runs[1].argv, (Args{"ip6tables", "-m", "addrtype", "--help"}));
  }
}

TEST_F(IptablesBackendTest, NeitherIsBuiltWithoutWhatItNeeds) {
  m_registry->failures["SetFeature(2,6)"] = oro::errInvalidState;
  EXPECT_THAT([&] { MakeProvider({0, "iptables v1.8.7"}); },
              testing::Throws<oro::Exception>(testing::Property(&oro::Exception::Code, oro::errInvalidState)));
  const auto bare = test::Make<test::FakeLocator>();
  EXPECT_THROW(test::Make<IptablesInfoProvider>(bare.Get(), Runner()), oro::GetInterfaceException);
  EXPECT_THROW(test::Make<IptablesFirewall>(bare.Get(), Runner()), oro::GetInterfaceException);
}

TEST_F(IptablesBackendTest, CommandsCarryWaitOptionFromVersion) {
  const std::tuple<const char*, IPAddressFamily::Type, Args, Args> cases[] = {
      {"iptables v1.4.20", IPAddressFamily::IPv4,
       {"iptables", "-t", "nat", "-S", "-w"}, {"iptables-restore", "-n", "-w"}},
      {"iptables v1.4.20", IPAddressFamily::IPv6,
       {"ip6tables", "-t", "nat", "-S", "-w"}, {"ip6tables-restore", "-n", "-w"}},
      {"iptables v1.4.19", IPAddressFamily::IPv4, {"iptables", "-t", "nat", "-S"}, {"iptables-restore", "-n"}},
      {"iptables v1.4.19", IPAddressFamily::IPv6, {"ip6tables", "-t", "nat", "-S"}, {"ip6tables-restore", "-n"}},
      {"no version", IPAddressFamily::IPv4, {"iptables", "-t", "nat", "-S"}, {"iptables-restore", "-n"}},
      {"no version", IPAddressFamily::Type{7}, {"ip6tables", "-t", "nat", "-S"}, {"ip6tables-restore", "-n"}},
  };
  m_answers["iptables-restore"] = m_answers["ip6tables-restore"] = {};
  for (const auto& [versionLine, family, listing, restore] : cases) {
    SCOPED_TRACE(std::string(versionLine) + " family " + std::to_string(family));
    const auto firewall = MakeFirewall(versionLine);
    State state;
    ASSERT_EQ(firewall->GetState(family, "nat", state), oro::errOk);
    ASSERT_EQ(firewall->ChangeState(family, "nat", {}), oro::errOk);
    ASSERT_EQ(m_runs.size(), 2u);
    EXPECT_EQ(m_runs[0].argv, listing);
    EXPECT_EQ(m_runs[1].argv, restore);
  }
}

TEST_F(IptablesBackendTest, ChangeStateWritesChangesInTheirOrder) {
  m_answers["iptables-restore"] = {};
  const auto firewall = MakeFirewall("iptables v1.4.19");
  const ChangeList changes = {
      {ChangeKind::DeleteChain, "old", "", ""},
      {ChangeKind::CreateChain, "vorn_input", "", ""},
      {ChangeKind::AddRule, "INPUT", "", "ACCEPT"},
      {ChangeKind::AddRule, "INPUT", "-p tcp", "vorn_input", true, 0},
      {ChangeKind::DeleteRule, "vorn_input", "-s 10.0.0.1", "DROP"},
      {ChangeKind::SetPolicy, "FORWARD", "", "DROP"},
      {ChangeKind::FlushChain, "old", "", ""},
  };
  ASSERT_EQ(firewall->ChangeState(IPAddressFamily::IPv4, "mangle", changes), oro::errOk);
  const std::string script =
      "*mangle\n-X old\n:vorn_input - [0:0]\n-A INPUT -j ACCEPT\n-I INPUT 0 -p tcp -g vorn_input\n"
      "-D vorn_input -s 10.0.0.1 -j DROP\n-P FORWARD DROP\n-F old\nCOMMIT\n";
  EXPECT_EQ(m_runs.back().input, script);
  // The trace names "-w" even though this version does not get it: readers
  // of the trace know the command in this form.
  EXPECT_TRUE(m_tracer->Contains(800, "Command:\niptables-restore -n -w << EOF\n" + script + "EOF"));
  ASSERT_EQ(firewall->ChangeState(IPAddressFamily::IPv4, "filter", {}), oro::errOk);
  EXPECT_EQ(m_runs.back().input, "*filter\nCOMMIT\n");
}

TEST_F(IptablesBackendTest, GetStateReplacesStateWithParsedListingOrKeepsItOnParseFailure) {
  const auto firewall = MakeFirewall("iptables v1.8.7");
  m_answers["ip6tables"] = {0, "-P INPUT DROP\n-N vorn_input\n-A INPUT -p tcp -j vorn_input\n-A vorn_input -g other\n"};
  State state{{Chain{"stale", {}}}};
  ASSERT_EQ(firewall->GetState(IPAddressFamily::IPv6, "filter", state), oro::errOk);
  const State parsed{{Chain{"INPUT", {MakeRule({"-p", "tcp"}, {"vorn_input"}), MakeRule({}, {"DROP"}, false, true)}},
                      Chain{"vorn_input", {MakeRule({}, {"other"}, true)}}}};
  EXPECT_EQ(state, parsed);

  m_answers["ip6tables"] = {0, "-P INPUT\n"};
  EXPECT_EQ(firewall->GetState(IPAddressFamily::IPv6, "filter", state), oro::errUnexpected);
  EXPECT_EQ(state, parsed);
  EXPECT_TRUE(m_tracer->Contains(300, "Cannot parse output '-P INPUT\n'"));
}

TEST_F(IptablesBackendTest, ToolFailuresAreReported) {
  const auto firewall = MakeFirewall("iptables v1.8.7");
  State state;
  m_answers["iptables"] = {1, "", "iptables: Table does not exist"};
  EXPECT_EQ(firewall->GetState(IPAddressFamily::IPv4, "raw", state), oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains(300, "iptables: Table does not exist"));

  m_answers["iptables-restore"] = {2, "", "iptables-restore: line 2 failed"};
  EXPECT_EQ(firewall->ChangeState(IPAddressFamily::IPv4, "filter", {{ChangeKind::FlushChain, "x", "", ""}}),
            oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains(300, "iptables-restore: line 2 failed"));

  // Spawn failures come back as they are.
  EXPECT_EQ(firewall->ChangeState(IPAddressFamily::IPv6, "filter", {}), oro::errNotFound);
}

}  // namespace
}  // namespace qel::firewall
