// Every kind of dynamic rule through the service, against the real kernel
// and tools of each backend: the restore tools take it in both families
// where it exists there, it stands once in the table and chain of its kind
// however many clients want it, the next poll finds nothing to do, and
// removing it leaves every table as it was.
//
// Each description also carries a condition that the tools print back
// differently from the obvious way of writing it (a protocol by number, a
// range of every port, a mask of all ones, a threshold of one), so that a
// rule that would never be recognised as the module's shows as a poll that
// is not quiet.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/netns.h"
#include "support/service_rig.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::test {
namespace {

using namespace firewall;
using tools::PortRange;

std::string Result(oro::result_t result) { return tracing::FormatResult(result); }

struct KindCase {
  const char* name;
  RuleDescription description;
  // The lines that name the module's chains once the rule stands, as
  // ModuleLines gives them.
  std::string lines;
};

// The jumps and declarations of the module's chains reached from `builtin`
// in `table` of both families.
std::string Reached(const std::string& table, const std::string& builtin, const std::string& chain) {
  std::string lines;
  for (const char* tool : {"ip6tables-save", "iptables-save"}) {
    lines += std::string(tool) + " " + table + " -A " + builtin + " -j " + chain + "\n";
    lines += std::string(tool) + " " + table + " :" + chain + " -\n";
  }
  return lines;
}

// `rule` in `chain` of `table`, in each of `tools`.
std::string In(const std::string& table, const std::string& chain, const std::string& rule,
               std::vector<std::string> tools = {"ip6tables-save", "iptables-save"}) {
  std::string lines;
  for (const auto& tool : tools) lines += tool + " " + table + " -A " + chain + " " + rule + "\n";
  return lines;
}

const std::string kReplyTo = " -m conntrack --ctstate ESTABLISHED --ctdir REPLY";

// The isolation case's IPv4 exception into `in`, its replies out of `out`.
std::string IsolationException(const std::string& in, const std::string& out) {
  return In("filter", in, "-s 10.77.0.0/24 -p tcp -m tcp --dport 22 -j ACCEPT", {"iptables-save"}) +
         In("filter", out, "-d 10.77.0.0/24 -p tcp -m tcp --sport 22" + kReplyTo + " -j ACCEPT", {"iptables-save"});
}

std::string NeighbourDiscovery(const std::string& chain) {
  std::string lines;
  for (const char* type : {"133", "134", "135", "136", "137"}) {
    lines += In("filter", chain, std::string("-p ipv6-icmp -m icmp6 --icmpv6-type ") + type + " -j ACCEPT",
                {"ip6tables-save"});
  }
  return lines;
}

// What an isolated host keeps in `chain`: neighbour discovery, and DHCP
// with the given IPv6 and IPv4 ports.
std::string IsolationUpkeep(const std::string& chain, const std::string& dhcp6Ports, const std::string& dhcp4Ports) {
  std::string lines = NeighbourDiscovery(chain);
  lines += In("filter", chain, "-p udp -m udp " + dhcp6Ports + " -j ACCEPT", {"ip6tables-save"});
  return lines + In("filter", chain, "-p udp -m udp " + dhcp4Ports + " -j ACCEPT", {"iptables-save"});
}

std::vector<KindCase> Kinds() {
  return {
      {"raw", {.protocol = 4, .action = RawAction{"DROP", {}}},
       Reached("filter", "INPUT", "vorn_input") + In("filter", "vorn_input", "-p ipencap -j DROP")},
      {"access",
       {.protocol = 6, .remotePorts = PortRange{0, 65535}, .localPorts = PortRange{5001, 5001},
        .localAddrtype = AddrtypeMatch{AddressType::Local, false}, .action = AccessAction{0}},
       Reached("filter", "INPUT", "vorn_input") + Reached("filter", "OUTPUT", "vorn_output") +
           In("filter", "vorn_input", "-p tcp -m tcp --dport 5001 -m addrtype --dst-type LOCAL -j ACCEPT") +
           In("filter", "vorn_output",
              "-p tcp -m tcp --sport 5001 -m addrtype --src-type LOCAL" + kReplyTo + " -j ACCEPT")},
      {"queue", {.protocol = 17, .localPorts = PortRange{5003, 5003}, .action = QueueAction{7}},
       Reached("filter", "INPUT", "vorn_input") + Reached("filter", "OUTPUT", "vorn_output") +
           In("filter", "vorn_input", "-p udp -m udp --dport 5003 -j NFQUEUE --queue-num 7") +
           In("filter", "vorn_output", "-p udp -m udp --sport 5003" + kReplyTo + " -j NFQUEUE --queue-num 7")},
      {"mark", {.mark = MarkMatch{0x1, 0xffffffff}, .action = MarkAction{0x40}},
       Reached("mangle", "PREROUTING", "vorn_prerouting") +
           In("mangle", "vorn_prerouting", "-m mark --mark 0x1 -j MARK --set-xmark 0x40/0x40")},
      {"divert", {.protocol = 6, .localPorts = PortRange{8080, 8080}, .action = DivertAction{9999, 0x1}},
       Reached("mangle", "PREROUTING", "vorn_prerouting") +
           In("mangle", "vorn_prerouting",
              "-p tcp -m tcp --dport 8080 -j TPROXY --on-port 9999 --on-ip ::ffff:127.0.0.1 --tproxy-mark 0x1/0x1",
              {"ip6tables-save"}) +
           In("mangle", "vorn_prerouting",
              "-p tcp -m tcp --dport 8080 -j TPROXY --on-port 9999 --on-ip 127.0.0.1 --tproxy-mark 0x1/0x1",
              {"iptables-save"})},
      {"nat-action",
       {.side = Side::Outgoing, .protocol = 132, .iface = InterfaceMatch{"eth0", false}, .action = NatAction{1}},
       Reached("nat", "POSTROUTING", "vorn_postrouting") +
           In("nat", "vorn_postrouting", "-o eth0 -p sctp -j MASQUERADE")},
      {"connmark", {.ctmark = MarkMatch{0x2, std::nullopt}, .action = ConnmarkAction{0x1, 0xff}},
       Reached("mangle", "PREROUTING", "vorn_prerouting") +
           In("mangle", "vorn_prerouting", "-m connmark --mark 0x2/0x2 -j CONNMARK --set-xmark 0x1/0xff")},
      {"connmark-save", {.side = Side::Outgoing, .action = ConnmarkSaveAction{0xff, 0xff}},
       Reached("mangle", "OUTPUT", "vorn_output") +
           In("mangle", "vorn_output", "-j CONNMARK --save-mark --nfmask 0xff --ctmask 0xff")},
      {"connmark-restore", {.action = ConnmarkRestoreAction{0xffffffff, 0xffffffff}},
       Reached("mangle", "PREROUTING", "vorn_prerouting") +
           In("mangle", "vorn_prerouting", "-j CONNMARK --restore-mark --nfmask 0xffffffff --ctmask 0xffffffff")},
      {"nflog",
       {.protocol = 6, .tcpFlags = TcpFlagsMatch{0x12, 0x02, false}, .action = NflogAction{33, "seen", 1}},
       Reached("filter", "INPUT", "vorn_input") +
           In("filter", "vorn_input",
              "-p tcp -m tcp --tcp-flags SYN,ACK SYN -j NFLOG --nflog-prefix seen --nflog-group 33 "
              "--nflog-threshold 1")},
      // The exception is IPv4's; IPv6 is cut off all the same. Forwarded
      // traffic passes the exception only, the host keeps its upkeep.
      {"isolation",
       {.protocol = 6, .remote = tools::IpNetwork{tools::ParseIpAddress("10.77.0.0"), 24},
        .localPorts = PortRange{22, 22}, .action = IsolationAction{0}},
       Reached("filter", "INPUT", "vorn_input") + Reached("filter", "OUTPUT", "vorn_output") +
           Reached("filter", "FORWARD", "vorn_forward") +
           "ip6tables-save filter :vorn_post_isolation -\nip6tables-save filter :vorn_pre_isolation -\n" +
           "iptables-save filter :vorn_post_isolation -\niptables-save filter :vorn_pre_isolation -\n" +
           In("filter", "vorn_input", "-j vorn_pre_isolation") + In("filter", "vorn_output", "-j vorn_post_isolation") +
           IsolationException("vorn_forward", "vorn_forward") + NeighbourDiscovery("vorn_forward") +
           In("filter", "vorn_forward", "-j DROP") +
           IsolationException("vorn_pre_isolation", "vorn_post_isolation") +
           IsolationUpkeep("vorn_pre_isolation", "--sport 547 --dport 546", "--sport 67 --dport 68") +
           IsolationUpkeep("vorn_post_isolation", "--sport 546 --dport 547", "--sport 68 --dport 67") +
           In("filter", "vorn_post_isolation", "-j DROP") + In("filter", "vorn_post_isolation", "-o lo -j ACCEPT") +
           In("filter", "vorn_pre_isolation", "-j DROP") + In("filter", "vorn_pre_isolation", "-i lo -j ACCEPT")},
      {"bypass", {.protocol = 6, .localPorts = PortRange{5006, 5006}, .classid = 0x100001, .action = BypassAction{}},
       Reached("filter", "INPUT", "vorn_input") + Reached("filter", "OUTPUT", "vorn_output") +
           In("filter", "vorn_input", "-p tcp -m tcp --dport 5006 -m cgroup --cgroup 1048577 -j RETURN") +
           In("filter", "vorn_output", "-p tcp -m tcp --sport 5006 -m cgroup --cgroup 1048577" + kReplyTo +
                                           " -j RETURN")},
  };
}

// The lines sorted as ModuleLines sorts them.
std::string Sorted(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  std::string sorted;
  for (const auto& line : lines) sorted += line + "\n";
  return sorted;
}

class RuleKindsNsTest : public testing::TestWithParam<IptablesBackend> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the case creates its own network and mount namespaces";
  }
};

// Two clients add each rule; it stands once, the poll composes nothing, and
// removing it restores every table. The tables exist beforehand, as on a
// host where other programs use them, so that "as it was" is exact.
TEST_P(RuleKindsNsTest, EachKindIsTakenStandsOnceConvergesAndGoesAway) {
  const auto kinds = Kinds();
  const ChildRun run = RunInNetworkNamespace(GetParam(), [&] {
    CreateAllTables();
    const std::string before = SaveAllTables();
    ServiceRig rig;
    std::string text;
    for (const auto& kind : kinds) {
      text += std::string("## ") + kind.name + ": ";
      text += Result(rig.service->AddRules({kind.description}, "client-a")) + " ";
      text += Result(rig.service->AddRules({kind.description}, "client-b")) + "\n";
      text += ModuleLines();
      const std::size_t scripts = rig.scripts.size();
      text += "poll " + Result(rig.service->RunPoll());
      text += rig.scripts.size() == scripts ? " quiet\n" : " composed:\n" + rig.scripts.back();
      text += "removed " + Result(rig.service->RemoveRules({kind.description}));
      text += SaveAllTables() == before ? " as it was\n" : " left:\n" + SaveAllTables();
    }
    return text;
  });
  ASSERT_TRUE(run.completed) << run.output;
  std::string expected;
  for (const auto& kind : kinds) {
    expected += std::string("## ") + kind.name + ": " + Result(oro::errOk) + " " + Result(oro::errOk) + "\n" +
                Sorted(kind.lines) + "poll " + Result(oro::errOk) + " quiet\nremoved " + Result(oro::errOk) +
                " as it was\n";
  }
  EXPECT_EQ(run.output, expected);
}

INSTANTIATE_TEST_SUITE_P(Backends, RuleKindsNsTest, testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const testing::TestParamInfo<IptablesBackend>& info) {
                           return std::string(BackendName(info.param));
                         });

}  // namespace
}  // namespace qel::test
