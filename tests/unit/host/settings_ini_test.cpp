#include "host/settings_ini.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "host/compile_command.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::host {
namespace {

using namespace settings;

LoadedSettings Parse(const std::string& text) {
  std::istringstream in(text);
  return ParseSettingsIni(in);
}

std::string ErrorOf(const std::string& text) {
  try {
    ValidateRuleFields(Parse(text));
  } catch (const SettingsError& e) {
    return e.what();
  }
  return "";
}

TEST(SettingsIni, ReadsSettingsAndRulesInFileOrder) {
  const auto loaded = Parse(
      "[settings]\ndefaultIncomingAction = Allow            ; Allow | Block\nopenOstraPorts = true\n"
      "networkZonesTrusted = 10.0.0.0/8; fd00::/8\n"
      "[rule ssh]\naction = Allow\ndirection = Incoming   ; stateful\nprotocol = TCP\nlocalPorts = 22\n"
      "doLogAttempts = true\nremoteAddress = 10.0.0.1; fe80::1   ; spaced out\n"
      "[rule second]\nname = Block Telnet\naction = Block\ndirection = OutgoingPacket\n"
      "[agent]\nports = 15000/tcp/in; 13000/TCP/InOut;15001/udp/out ;  the agent's own\n"
      "[lumra]\nhostType = clone\n");
  const FirewallSettings expected{
      .defaultIncomingAction = PacketRuleAction::Allow,
      .packetRules = {{.name = u"ssh", .direction = PacketRuleDirection::Incoming, .protocol = PacketRuleProtocol::TCP,
                       .localPorts = u"22", .remoteAddress = u"10.0.0.1;fe80::1", .doLogAttempts = true},
                      {.name = u"Block Telnet", .action = PacketRuleAction::Block,
                       .direction = PacketRuleDirection::OutgoingPacket}},
      .openOstraPorts = true,
      .networkZonesTrusted = {u"10.0.0.0/8", u"fd00::/8"}};
  EXPECT_EQ(loaded.settings, expected);
  EXPECT_EQ(loaded.ruleSections, (std::vector<std::string>{"rule ssh", "rule second"}));
  EXPECT_EQ(loaded.agentPorts, (firewall::OstraPortList{{15000, 0, 0}, {13000, 0, 2}, {15001, 1, 1}}));
  // Without the section the agent's ports are left as they are; with it, even empty, they are set.
  EXPECT_EQ(loaded.lumraHostType, "clone");
  EXPECT_EQ(Parse("[settings]\n").agentPorts, std::nullopt);
  EXPECT_EQ(Parse("[settings]\n").lumraHostType, std::nullopt);
  EXPECT_EQ(Parse("[agent]\nports =\n").agentPorts, firewall::OstraPortList{});
}

TEST(SettingsIni, ErrorsNameSectionKeyAndReason) {
  const std::string rule = "[rule ssh]\naction = Allow\ndirection = Incoming\n";
  const std::pair<std::string, std::string> cases[] = {
      {"[rule ssh]\naction = Allow\n", "[rule ssh] direction: missing (it is required)"},
      {"[rule ssh]\naction = allow\ndirection = Incoming\n", "[rule ssh] action: 'allow' is not one of Allow, Block"},
      {rule + "protocol = SCTP\n", "[rule ssh] protocol: 'SCTP' is not one of Any, ICMP"},
      {rule + "colour = blue\n", "[rule ssh] colour: unknown key"},
      {rule + "doLogAttempts = yes\n", "[rule ssh] doLogAttempts: 'yes' is not one of true, false"},
      {"[firewall]\nx = 1\n", "[firewall] unknown section"},
      {"[settings]\nopenOstraPorts = maybe\n", "[settings] openOstraPorts: 'maybe'"},
      {rule + "remoteAddress = 10.0.0.300\n", "[rule ssh] remoteAddress: '10.0.0.300': Invalid format of ip address"},
      {rule + "protocol = TCP\nlocalPorts = 22x\n", "[rule ssh] localPorts: '22x': bad lexical cast"},
      {rule + "action = Block\n", "duplicate key name"},
      {"[agent]\nports = 15000/tcp/in; 15001/udp/sideways\n",
       "[agent] ports: '15001/udp/sideways': direction 'sideways' is not one of in, out, inout"},
      {"[agent]\nports = 15000/tcp\n", "[agent] ports: '15000/tcp': expected PORT/PROTOCOL/DIRECTION"},
      {"[agent]\nport = 15000/tcp/in\n", "[agent] port: unknown key (expected one of ports)"},
      {"[lumra]\nhostType = pool master\n", "[lumra] hostType: 'pool master' is not a name of letters"},
  };
  for (const auto& [text, error] : cases) {
    const std::string got = ErrorOf(text);
    EXPECT_NE(got.find(error), std::string::npos) << "got: " << got;
  }
}

TEST(SettingsIni, ReadsTheIsolationSection) {
  const auto loaded = Parse(
      "[isolation]\nmanagementServer = ksc.example:13000\ntamberServers = 10.0.0.9:443, [fd00::9]:8443 ;nodes\n"
      "lumraIntegrationServer = viis.example:7271\nlumraSecurityMachines = svm1.example:9000;svm2.example:9000\n"
      "cloudProxyTcp = 10.1.1.1:3128\ncloudProxyHttps = proxy.example:443\n"
      "cloudDiscoveryUrl = https://ds.example:443/discovery\ncloudRoutes = r1.example:443\n"
      "industrialServers = scada.example:4430\nbackends = iptables\n");
  const IsolationSettings expected{.managementServer = "ksc.example:13000",
                                   .tamberServers = {"10.0.0.9:443", "[fd00::9]:8443"},
                                   .lumraIntegrationServer = "viis.example:7271",
                                   .lumraSecurityMachines = {"svm1.example:9000", "svm2.example:9000"},
                                   .cloudProxyTcp = "10.1.1.1:3128",
                                   .cloudProxyHttps = "proxy.example:443",
                                   .cloudDiscoveryUrl = "https://ds.example:443/discovery",
                                   .cloudRoutes = {"r1.example:443"},
                                   .industrialServers = {"scada.example:4430"},
                                   .backends = {"iptables"}};
  EXPECT_EQ(loaded.isolation, expected);
  // Without the section (or the key) every backend, eBPF first.
  EXPECT_EQ(Parse("[settings]\n").isolation, IsolationSettings{});
  EXPECT_EQ(Parse("[isolation]\n").isolation.backends, (std::vector<std::string>{"ebpf", "iptables"}));
  EXPECT_EQ(Parse("[isolation]\nbackends = iptables, ebpf\n").isolation.backends,
            (std::vector<std::string>{"iptables", "ebpf"}));
}

TEST(SettingsIni, IsolationErrorsNameKeyAndValue) {
  const std::pair<std::string, std::string> cases[] = {
      {"managementServer = ksc.example", "[isolation] managementServer: 'ksc.example' is not HOST:PORT (the port is missing)"},
      {"managementServer = ksc.example:0", "[isolation] managementServer: 'ksc.example:0' is not HOST:PORT: port '0'"},
      {"managementServer = ksc.example:70000", "port '70000' is not a number from 1 to 65535"},
      {"managementServer = fd00::1:443", "'fd00::1:443' is not HOST:PORT (an IPv6 address stands in brackets"},
      {"tamberServers = a.example:1, b_c!:2", "[isolation] tamberServers: 'b_c!:2' is not HOST:PORT: 'b_c!' is not a host"},
      {"cloudProxyHttps = [10.0.0.1]:443", "[isolation] cloudProxyHttps: '[10.0.0.1]:443' is not HOST:PORT: '10.0.0.1' is not an IPv6"},
      {"cloudDiscoveryUrl = http://ds.example:80/", "[isolation] cloudDiscoveryUrl: 'http://ds.example:80/' does not start with https://"},
      {"cloudDiscoveryUrl = https://ds.example/x", "[isolation] cloudDiscoveryUrl: 'https://ds.example/x': 'ds.example' is not HOST:PORT (the port"},
      {"backends = ebpf, nft", "[isolation] backends: 'nft' is not one of ebpf, iptables"},
      {"backends = iptables, iptables", "[isolation] backends: 'iptables' is named twice"},
      {"backends =", "[isolation] backends: empty"},
      {"pelmServer = a:1", "[isolation] pelmServer: unknown key (expected one of backends, cloudDiscoveryUrl"},
  };
  for (const auto& [line, error] : cases) {
    const std::string got = ErrorOf("[isolation]\n" + line + "\n");
    EXPECT_NE(got.find(error), std::string::npos) << line << "\n  got: " << got;
  }
}

TEST(CompileCommand, PrintsBothFamiliesOrOnlyTheErrorOnStderr) {
  const std::string good = ::testing::TempDir() + "/good.ini", bad = ::testing::TempDir() + "/bad.ini";
  std::ofstream(good) << "[rule ping6]\naction = Block\ndirection = IncomingPacket\nprotocol = ICMPv6\n"
                         "icmpType = 128\nlocalAddress = fe80::/10\n";
  std::ofstream(bad) << "[rule ssh]\naction = Allow\ndirection = Incoming\nremoteAddress = 10.0.0.0/33\n";

  std::ostringstream out, err, onlyV4;
  EXPECT_EQ(RunCompileCommand(good, std::nullopt, out, err), 0);
  const std::string text = out.str();
  const auto v4in = text.find("# IPv4 incoming\n-i lo -j ACCEPT\n");
  const auto v4out = text.find("# IPv4 outgoing\n-o lo -j ACCEPT\n");
  const auto v6in = text.find("# IPv6 incoming\n-i lo -j ACCEPT\n"
                              "-d fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 128 -j DROP item_0000 name ping6\n");
  const auto v6out = text.find("# IPv6 outgoing\n");
  EXPECT_TRUE(v4in < v4out && v4out < v6in && v6in < v6out && v6out != std::string::npos) << text;
  EXPECT_EQ(RunCompileCommand(good, types::IPAddressFamily::IPv4, onlyV4, err), 0);
  EXPECT_EQ(onlyV4.str().find("IPv6"), std::string::npos);
  EXPECT_TRUE(err.str().empty());

  std::ostringstream badOut, badErr;
  EXPECT_NE(RunCompileCommand(bad, std::nullopt, badOut, badErr), 0);
  EXPECT_TRUE(badOut.str().empty());
  EXPECT_NE(badErr.str().find("[rule ssh] remoteAddress: '10.0.0.0/33': invalid mask in network address"),
            std::string::npos)
      << badErr.str();
}

}  // namespace
}  // namespace qel::host
