// The iptables backend and the tool probing against the real tools, with
// each backend, inside network namespaces of their own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "firewall/diagnostic_dump.h"
#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
#include "support/fake_feature_techs_aggregator.h"
#include "support/fake_framework.h"
#include "support/kernel_tables.h"
#include "support/netns.h"

namespace qel::firewall {
namespace {

using test::IptablesBackend;
using types::IPAddressFamily;

// The module's objects over the real tools; built inside the child.
struct RealBackend {
  RealBackend() {
    locator->Register(test::Make<test::FakeTracer>());
    locator->Register(test::Make<test::FakeFeatureTechsAggregator>());
    provider = test::Make<IptablesInfoProvider>(locator.Get());
    locator->Register(provider);
    firewall = test::Make<IptablesFirewall>(locator.Get());
  }
  const oro::RefPtr<test::FakeLocator> locator = test::Make<test::FakeLocator>();
  oro::RefPtr<IptablesInfoProvider> provider;
  oro::RefPtr<IptablesFirewall> firewall;
};

Rule MakeRule(Tokens match, std::string target, bool isPolicy = false) {
  return {std::move(match), {std::move(target)}, false, isPolicy, "", "", "", ""};
}

std::string Result(oro::result_t result) { return tracing::FormatResult(result); }

class IptablesBackendNamespaceTest : public testing::TestWithParam<IptablesBackend> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create network and mount namespaces";
  }
};

// Per family: what was written reads back equal; then a valid change before
// one naming a chain that does not exist, of which neither may take effect.
TEST_P(IptablesBackendNamespaceTest, WrittenTableReadsBackAndRejectedScriptChangesNothing) {
  const std::pair<IPAddressFamily::Type, std::string> families[] = {{IPAddressFamily::IPv4, "10.0.0.0/8"},
                                                                    {IPAddressFamily::IPv6, "fd00::/8"}};
  const auto run = test::RunInNetworkNamespace(GetParam(), [&] {
    RealBackend backend;
    std::string text;
    for (const auto& [family, source] : families) {
      const ChangeList install = {
          {ChangeKind::CreateChain, "vorn_input", "", ""},
          {ChangeKind::AddRule, "INPUT", "-p tcp -m tcp --dport 22", "vorn_input"},
          {ChangeKind::AddRule, "vorn_input", "-s " + source, "ACCEPT"},
          {ChangeKind::AddRule, "vorn_input", "", "DROP"},
          {ChangeKind::SetPolicy, "FORWARD", "", "DROP"},
      };
      const ChangeList rejected = {{ChangeKind::AddRule, "vorn_input", "-p udp", "ACCEPT"},
                                   {ChangeKind::AddRule, "vorn_input", "", "vorn_missing"}};
      // One step a statement: the operands of + are not sequenced.
      State installed, after;
      text += Result(backend.firewall->ChangeState(family, "filter", install)) + " ";
      text += Result(backend.firewall->GetState(family, "filter", installed)) + " ";
      text += DumpState(installed) + "\n";
      text += Result(backend.firewall->ChangeState(family, "filter", rejected)) + " ";
      text += Result(backend.firewall->GetState(family, "filter", after));
      text += after == installed ? " unchanged\n" : " changed: " + DumpState(after) + "\n";
    }
    return text;
  });
  ASSERT_TRUE(run.completed) << run.output;
  std::string expected;
  for (const auto& [family, source] : families) {
    const State installed{{
        Chain{"INPUT",
              {MakeRule({"-p", "tcp", "-m", "tcp", "--dport", "22"}, "vorn_input"), MakeRule({}, "ACCEPT", true)}},
        Chain{"FORWARD", {MakeRule({}, "DROP", true)}},
        Chain{"OUTPUT", {MakeRule({}, "ACCEPT", true)}},
        Chain{"vorn_input", {MakeRule({"-s", source}, "ACCEPT"), MakeRule({}, "DROP")}},
    }};
    expected += Result(oro::errOk) + " " + Result(oro::errOk) + " " + DumpState(installed) + "\n" +
                Result(oro::errUnexpected) + " " + Result(oro::errOk) + " unchanged\n";
  }
  EXPECT_EQ(run.output, expected);
}

// Guards the namespace helper: the plain tool names must reach the chosen
// backend, or the other cases would test the machine's choice twice. The
// probing finds the tools capable.
TEST_P(IptablesBackendNamespaceTest, ToolNamesRunChosenBackendAndProbingFindsThemCapable) {
  const auto run = test::RunInNetworkNamespace(GetParam(), [] {
    std::string text;
    for (const char* tool : {"iptables", "ip6tables", "iptables-restore", "ip6tables-restore"}) {
      text += test::RunToolOk({tool, "-V"});
    }
    RealBackend backend;
    return std::regex_replace(text, std::regex(" v[0-9.]+ "), " v ") +
           "known=" + std::to_string(backend.provider->IsVersionKnown()) +
           " wait=" + std::to_string(backend.provider->SupportsWaitOption()) +
           " ipv6=" + std::to_string(backend.provider->IsIpv6Supported());
  });
  ASSERT_TRUE(run.completed) << run.output;
  const std::string word = GetParam() == IptablesBackend::Legacy ? " v (legacy)\n" : " v (nf_tables)\n";
  EXPECT_EQ(run.output, "iptables" + word + "ip6tables" + word + "iptables-restore" + word + "ip6tables-restore" + word +
                            "known=1 wait=1 ipv6=1");
}

INSTANTIATE_TEST_SUITE_P(Backends, IptablesBackendNamespaceTest,
                         testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const testing::TestParamInfo<IptablesBackend>& info) {
                           return test::BackendName(info.param);
                         });

}  // namespace
}  // namespace qel::firewall
