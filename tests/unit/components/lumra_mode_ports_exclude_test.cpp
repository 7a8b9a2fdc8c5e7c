#include "firewall/lumra_mode_ports_exclude.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "firewall/lumra_ports_file.h"
#include "support/fake_dynamic_rules.h"
#include "support/fake_framework.h"
#include "support/fake_lumra_host.h"

namespace qel::test {
namespace {

using firewall::LumraPortsFile;
using Texts = std::vector<std::string>;

// A guard against hanging, never a timing.
constexpr std::chrono::seconds kHangGuard{30};

Texts RulesOf(const LumraPortsFile& file, const std::string& hostType) {
  const auto* rules = file.RulesFor(hostType);
  return rules ? KernelTexts(*rules) : Texts{"(unknown)"};
}

TEST(LumraPortsFile, ShippedFileKnowsEveryHostTypeOfThePool) {
  LumraPortsFile file;
  std::string error;
  ASSERT_EQ(LumraPortsFile::Read(QEL_LUMRA_PORTS_FILE, file, error), oro::errOk) << error;
  for (const char* hostType : {"master", "clone", "broker"}) EXPECT_NE(file.RulesFor(hostType), nullptr) << hostType;
  EXPECT_EQ(file.RulesFor("kiosk"), nullptr);
}

// A connection needs a bypass each way; the way back only for established ones.
TEST(LumraPortsFile, EntriesBypassBothWaysOfTheirConnections) {
  LumraPortsFile file;
  std::string error;
  ASSERT_EQ(LumraPortsFile::Parse("# comment\r\n\n[host-type clone]\r\n  3389/udp/in \n443/tcp/out\n3389/udp/in\n"
                                  "[host-type empty]\n",
                                  file, error),
            oro::errOk)
      << error;
  EXPECT_EQ(RulesOf(file, "clone"),
            (Texts{"in -p tcp -m tcp --sport 443 -m conntrack --ctstate ESTABLISHED -j RETURN",
                   "in -p udp -m udp --dport 3389 -j RETURN", "out -p tcp -m tcp --dport 443 -j RETURN",
                   "out -p udp -m udp --sport 3389 -m conntrack --ctstate ESTABLISHED -j RETURN"}));
  EXPECT_EQ(RulesOf(file, "empty"), Texts{});
}

TEST(LumraPortsFile, EachBadLineIsNamedAndNothingIsTaken) {
  const std::pair<const char*, const char*> cases[] = {
      {"3389/tcp/in", "line 1: '3389/tcp/in' stands before any [host-type NAME] section"},
      {"[host-type a]\n[host type b]", "line 2: '[host type b]' is not a [host-type NAME] section"},
      {"[host-type a b]", "line 1: '[host-type a b]' is not a [host-type NAME] section"},
      {"[host-type a]\n\n[host-type a]", "line 3: host type 'a' appears twice"},
      {"[host-type a]\n3389/tcp", "line 2: '3389/tcp' is not PORT/PROTO/DIRECTION"},
      {"[host-type a]\n3389/tcp/in/x", "line 2: '3389/tcp/in/x' is not PORT/PROTO/DIRECTION"},
      {"[host-type a]\n0/tcp/in", "line 2: port '0' is not a number from 1 to 65535"},
      {"[host-type a]\n65536/tcp/in", "line 2: port '65536' is not a number from 1 to 65535"},
      {"[host-type a]\n-1/tcp/in", "line 2: port '-1' is not a number from 1 to 65535"},
      {"[host-type a]\n80/icmp/in", "line 2: protocol 'icmp' is neither tcp nor udp"},
      {"[host-type a]\n80/tcp/both", "line 2: direction 'both' is neither in nor out"},
  };
  LumraPortsFile kept;
  std::string error;
  ASSERT_EQ(LumraPortsFile::Parse("[host-type a]\n80/tcp/in", kept, error), oro::errOk);
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(LumraPortsFile::Parse(text, kept, error), oro::errInvalidArgument) << text;
    EXPECT_EQ(error, expected);
  }
  EXPECT_EQ(RulesOf(kept, "a").size(), 2u);
  EXPECT_NE(LumraPortsFile::Read("/nonexistent/lumra_ports.conf", kept, error), oro::errOk);
  EXPECT_EQ(error, "cannot open '/nonexistent/lumra_ports.conf': No such file or directory");
}

class LumraModePortsExcludeTest : public ::testing::Test {
 protected:
  void SetUp() override { std::ofstream(m_path) << "[host-type clone]\n3389/tcp/in\n"; }
  void TearDown() override { std::remove(m_path.c_str()); }

  // An object whose host names `hostType` and the data file `path`.
  oro::RefPtr<firewall::LumraModePortsExclude> Create(std::optional<std::string> hostType,
                                                      std::optional<std::string> path) {
    auto& locator = m_locators.emplace_back(Make<FakeLocator>());  // outlives the object
    locator->Register(m_tracer);
    locator->Register(m_firewall);
    auto host = Make<FakeLumraHost>(std::move(hostType), std::move(path));
    locator->Register(static_cast<firewall::ILumraHostType*>(host.Get()));
    oro::RefPtr<firewall::LumraModePortsExclude> exclude;
    EXPECT_EQ(CreateInstance(exclude, locator.Get()), oro::errOk);
    return exclude;
  }
  // Every apply ends with this line.
  bool WaitForResults(std::size_t count) {
    return m_tracer->WaitFor("Apply lumra exclusion rules result:", count, kHangGuard);
  }

  const std::string m_path = ::testing::TempDir() + "lumra_ports_" + std::to_string(::getpid()) + ".conf";
  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  std::vector<oro::RefPtr<FakeLocator>> m_locators;
  oro::RefPtr<FakeDynamicRules> m_firewall = Make<FakeDynamicRules>();
};

TEST_F(LumraModePortsExcludeTest, AppliesTheHostTypesRulesOnItsOwnThreadOnce) {
  auto exclude = Create("clone", m_path);
  ASSERT_EQ(exclude->Apply(), oro::errOk);
  ASSERT_TRUE(WaitForResults(1));
  const auto calls = m_firewall->Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_NE(calls[0].thread, std::this_thread::get_id());
  EXPECT_EQ(calls[0].tag, "lumra");
  EXPECT_EQ(calls[0].rules.size(), 2u);
  EXPECT_TRUE(m_tracer->Contains("lumra ports for host type: clone will be applied:\n  bypass "));

  ASSERT_EQ(exclude->Apply(), oro::errOk);
  ASSERT_TRUE(WaitForResults(2));
  EXPECT_TRUE(m_tracer->Contains("Apply lumra exclusion rules result: 0x80000067"));
  EXPECT_TRUE(m_tracer->Contains("Rules have been already applied"));
  EXPECT_EQ(m_firewall->Calls().size(), 1u);
}

TEST_F(LumraModePortsExcludeTest, NoHostTypeUnknownHostTypeOrNoFileAddNothing) {
  const std::tuple<std::optional<std::string>, std::string, std::string> cases[] = {
      {std::nullopt, m_path, "the host is in no virtualisation mode, nothing to apply"},
      {"kiosk", m_path, "host type 'kiosk' is not in " + m_path + ", nothing to apply"},
      {"clone", m_path + ".missing", "Cannot read lumra ports: cannot open '" + m_path + ".missing'"},
  };
  std::size_t applied = 0;
  for (const auto& [hostType, path, message] : cases) {
    auto exclude = Create(hostType, path);
    ASSERT_EQ(exclude->Apply(), oro::errOk);
    ASSERT_TRUE(WaitForResults(++applied));
    EXPECT_TRUE(m_tracer->Contains(message)) << message;
  }
  EXPECT_TRUE(m_firewall->Calls().empty());
}

// The firewall answers only once the object is being released: Apply must
// not have waited for it, and the release must wait for the thread.
TEST_F(LumraModePortsExcludeTest, ReleaseWaitsForTheApplyUnderWay) {
  m_firewall->duringAdd = [&] { m_tracer->WaitFor("FinalRelease", 1, kHangGuard); };
  auto exclude = Create("clone", m_path);
  ASSERT_EQ(exclude->Apply(), oro::errOk);
  EXPECT_EQ(exclude->Apply(), oro::errInvalidState);
  exclude.Reset();
  EXPECT_EQ(m_firewall->Calls().size(), 1u);
  EXPECT_TRUE(m_tracer->Contains("Apply lumra exclusion rules result: 0x00000000"));
}

}  // namespace
}  // namespace qel::test
