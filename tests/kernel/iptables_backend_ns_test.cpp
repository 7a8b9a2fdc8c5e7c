// The iptables backend and the tool probing against the real tools, with
// each backend, inside network namespaces of their own.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "firewall/diagnostic_dump.h"
#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
#include "support/fake_feature_techs_aggregator.h"
#include "support/fake_framework.h"
#include "support/netns.h"

namespace qel::firewall {
namespace {

using test::IptablesBackend;
using types::IPAddressFamily;


// The module's objects over the real tools; built inside the child.
struct RealBackend {
  RealBackend() {
    locator->Register(tracer);
    locator->Register(test::Make<test::FakeFeatureTechsAggregator>());
    provider = test::Make<IptablesInfoProvider>(locator.Get());
    locator->Register(provider);
    firewall = test::Make<IptablesFirewall>(locator.Get());
  }

  const oro::RefPtr<test::FakeTracer> tracer = test::Make<test::FakeTracer>();
  const oro::RefPtr<test::FakeLocator> locator = test::Make<test::FakeLocator>();
  oro::RefPtr<IptablesInfoProvider> provider;
  oro::RefPtr<IptablesFirewall> firewall;
};

Rule MakeRule(Tokens match, std::string target) {
  Rule rule;
  rule.match = std::move(match);
  rule.target = {std::move(target)};
  return rule;
}

Rule MakePolicy(std::string policy) {
  Rule rule = MakeRule({}, std::move(policy));
  rule.isPolicy = true;
  return rule;
}

Change MakeChange(ChangeKind kind, std::string chain, std::string match = "", std::string target = "") {
  return {kind, std::move(chain), std::move(match), std::move(target), false, -1};
}

ChangeList InstallChain(const std::string& source) {
  return {
      MakeChange(ChangeKind::CreateChain, "vorn_input"),
      MakeChange(ChangeKind::AddRule, "INPUT", "-p tcp -m tcp --dport 22", "vorn_input"),
      MakeChange(ChangeKind::AddRule, "vorn_input", "-s " + source, "ACCEPT"),
      MakeChange(ChangeKind::AddRule, "vorn_input", "", "DROP"),
      MakeChange(ChangeKind::SetPolicy, "FORWARD", "", "DROP"),
  };
}

State InstalledState(const std::string& source) {
  return {{
      Chain{"INPUT", {MakeRule({"-p", "tcp", "-m", "tcp", "--dport", "22"}, "vorn_input"), MakePolicy("ACCEPT")}},
      Chain{"FORWARD", {MakePolicy("DROP")}},
      Chain{"OUTPUT", {MakePolicy("ACCEPT")}},
      Chain{"vorn_input", {MakeRule({"-s", source}, "ACCEPT"), MakeRule({}, "DROP")}},
  }};
}

// "<result> <state dump>" of installing the chain, then reading the table.
std::string InstallAndRead(RealBackend& backend, IPAddressFamily::Type family, const std::string& source) {
  const oro::result_t changed = backend.firewall->ChangeState(family, "filter", InstallChain(source));
  State state;
  const oro::result_t read = backend.firewall->GetState(family, "filter", state);
  return tracing::FormatResult(changed) + " " + tracing::FormatResult(read) + " " + DumpState(state);
}

class IptablesBackendNamespaceTest : public testing::TestWithParam<IptablesBackend> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create network and mount namespaces";
  }

  test::ChildRun RunWithBackend(const std::function<std::string()>& body) {
    return test::RunInNetworkNamespace(GetParam(), body);
  }
};

TEST_P(IptablesBackendNamespaceTest, ChangedTableReadsBackEqual) {
  const auto run = RunWithBackend([] {
    RealBackend backend;
    return InstallAndRead(backend, IPAddressFamily::IPv4, "10.0.0.0/8") + "\n" +
           InstallAndRead(backend, IPAddressFamily::IPv6, "fd00::/8");
  });
  ASSERT_TRUE(run.completed) << run.output;
  const std::string ok = tracing::FormatResult(oro::errOk) + " " + tracing::FormatResult(oro::errOk) + " ";
  EXPECT_EQ(run.output, ok + DumpState(InstalledState("10.0.0.0/8")) + "\n" + ok +
                            DumpState(InstalledState("fd00::/8")));
}

TEST_P(IptablesBackendNamespaceTest, RejectedScriptLeavesTableUnchanged) {
  const auto run = RunWithBackend([] {
    RealBackend backend;
    const oro::result_t installed =
        backend.firewall->ChangeState(IPAddressFamily::IPv4, "filter", InstallChain("10.0.0.0/8"));
    State before;
    backend.firewall->GetState(IPAddressFamily::IPv4, "filter", before);
    // A valid change before one naming a chain that does not exist: neither
    // may take effect.
    const ChangeList rejected = {
        MakeChange(ChangeKind::AddRule, "vorn_input", "-s 192.168.0.0/16", "ACCEPT"),
        MakeChange(ChangeKind::AddRule, "vorn_input", "", "vorn_missing"),
    };
    const oro::result_t result = backend.firewall->ChangeState(IPAddressFamily::IPv4, "filter", rejected);
    State after;
    backend.firewall->GetState(IPAddressFamily::IPv4, "filter", after);
    return tracing::FormatResult(installed) + " " + tracing::FormatResult(result) +
           (after == before ? " unchanged" : " changed: " + DumpState(after)) +
           (backend.tracer->Contains(300, "(ExitedWithZero(context)) failed") ? " traced" : " not traced");
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output,
            tracing::FormatResult(oro::errOk) + " " + tracing::FormatResult(oro::errUnexpected) + " unchanged traced");
}

// Guards the namespace helper: the plain tool names must reach the chosen
// backend, or the other cases would test the machine's choice twice.
TEST_P(IptablesBackendNamespaceTest, ToolNamesRunChosenBackend) {
  const auto run = RunWithBackend([] {
    std::string versions;
    for (const char* tool : {"iptables", "ip6tables", "iptables-restore", "ip6tables-restore"}) {
      tools::SpawnContext context;
      tools::InitSpawnContext(context, {tool, "-V"});
      context.output.emplace();
      tools::SecureSpawn(context);
      versions += *context.output;
    }
    return versions;
  });
  ASSERT_TRUE(run.completed) << run.output;
  const std::string word = GetParam() == IptablesBackend::Legacy ? "(legacy)" : "(nf_tables)";
  for (const char* tool : {"iptables v", "ip6tables v", "iptables-restore v", "ip6tables-restore v"}) {
    EXPECT_NE(run.output.find(tool), std::string::npos) << tool << " in " << run.output;
  }
  std::size_t backendWords = 0;
  for (auto at = run.output.find(word); at != std::string::npos; at = run.output.find(word, at + 1)) ++backendWords;
  EXPECT_EQ(backendWords, 4u) << run.output;
}

TEST_P(IptablesBackendNamespaceTest, InfoProviderFindsToolsCapable) {
  const auto run = RunWithBackend([] {
    RealBackend backend;
    const auto& provider = *backend.provider;
    return std::string("known=") + (provider.IsVersionKnown() ? "1" : "0") +
           " wait=" + (provider.SupportsWaitOption() ? "1" : "0") +
           " ipv6=" + (provider.IsIpv6Supported() ? "1" : "0");
  });
  ASSERT_TRUE(run.completed) << run.output;
  EXPECT_EQ(run.output, "known=1 wait=1 ipv6=1");
}

INSTANTIATE_TEST_SUITE_P(Backends, IptablesBackendNamespaceTest,
                         testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const testing::TestParamInfo<IptablesBackend>& info) {
                           return test::BackendName(info.param);
                         });

}  // namespace
}  // namespace qel::firewall
