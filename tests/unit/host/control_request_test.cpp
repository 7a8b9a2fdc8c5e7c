#include "host/control_request.h"

#include <gtest/gtest.h>

#include "host/isolation_json.h"

namespace qel::host {
namespace {

using firewall::OstraPort;

ControlRequest Parse(const std::string& line) {
  const auto parsed = ParseControlRequest(line);
  EXPECT_TRUE(parsed.Ok()) << line << ": " << (parsed.Ok() ? "" : parsed.ErrorText());
  return parsed.Ok() ? parsed.Value() : ControlRequest{};
}

std::string ErrorOf(const std::string& line) {
  const auto parsed = ParseControlRequest(line);
  return parsed.Ok() ? "(accepted)" : parsed.ErrorText();
}

firewall::RuleDescription WebRule() {
  firewall::RuleDescription rule;
  rule.protocol = 6;
  rule.localPorts = tools::PortRange{8080, 8080};
  rule.action = firewall::AccessAction{0};
  return rule;
}

TEST(ControlRequest, ReadsEachCommand) {
  EXPECT_EQ(Parse(R"({"cmd":"status"})"), ControlRequest{StatusRequest{}});
  const std::string web = R"({"kind":"access","action":0,"proto":6,"localPorts":[8080,8080],"side":"incoming"})";
  EXPECT_EQ(Parse(R"({"cmd":"add-rules","tag":"web","rules":[)" + web + "," + web + "]}\r"),
            ControlRequest(AddRulesRequest{"web", {WebRule(), WebRule()}}));
  EXPECT_EQ(Parse(R"({"rules":[)" + web + R"(],"cmd":"remove-rules"})"),
            ControlRequest(RemoveRulesRequest{{WebRule()}}));
  EXPECT_EQ(Parse(R"({"cmd":"agent-ports","ports":["15000/tcp/in","13000/TCP/InOut","15001/udp/out"]})"),
            ControlRequest(AgentPortsRequest{{{15000, 0, 0}, {13000, 0, 2}, {15001, 1, 1}}}));
  EXPECT_EQ(Parse(R"({"cmd":"agent-ports","ports":[]})"), ControlRequest(AgentPortsRequest{}));
  EXPECT_EQ(Parse(R"({"cmd":"queue","count":4})"), ControlRequest(QueueRequest{4}));
  EXPECT_EQ(Parse(R"({"count":65535,"cmd":"queue"})"), ControlRequest(QueueRequest{65535}));
}

TEST(ControlRequest, ReadsIsolationRequests) {
  using system_interceptors::network_isolation_manager::NetworkExclusionRule3;
  using system_interceptors::network_isolation_manager::data_source::Enum;
  const NetworkExclusionRule3 full{.remoteAddress = tools::ParseIpAddress("10.77.0.2"),
                                   .protocol = 6,
                                   .localPortRange = tools::PortRange{1, 2},
                                   .remotePortRange = tools::PortRange{443, 443},
                                   .dataSource = Enum{3},
                                   .applicationPath = "/usr/bin/x"};
  const std::string fullJson =
      R"({"remoteAddress":"10.77.0.2","protocol":6,"localPortRange":{"start":1,"end":2},)"
      R"("remotePortRange":{"start":443,"end":443},"dataSource":3,"applicationPath":"/usr/bin/x"})";
  EXPECT_EQ(Parse(R"({"cmd":"isolate","client":31,"kind":2,"rules":[)" + fullJson + R"(,{},{"remoteAddress":"FD77::2","protocol":null}]})"),
            ControlRequest(IsolateRequest{31, 2, {full, {}, {.remoteAddress = tools::ParseIpAddress("fd77::2")}}}));
  EXPECT_EQ(Parse(R"({"cmd":"isolate","client":4294967295,"rules":[]})"), ControlRequest(IsolateRequest{4294967295u, 0, {}}));
  EXPECT_EQ(Parse(R"({"cmd":"release","client":0})"), ControlRequest(ReleaseRequest{0}));
  EXPECT_EQ(Parse(R"({"cmd":"isolation"})"), ControlRequest(IsolationRequest{}));
  EXPECT_EQ(Parse(R"({"cmd":"turn-off"})"), ControlRequest(TurnOffRequest{}));
  // What the host writes back reads as the same rule.
  EXPECT_EQ(JsonLine(ExclusionRuleToJson(full)), fullJson);
  EXPECT_EQ(JsonLine(ExclusionRuleToJson({})), "{}");
}

TEST(ControlRequest, IsolationRefusalsNameTheFieldAndValue) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({"cmd":"isolate","rules":[]})", "client: missing (isolate needs cmd, client, rules, kind (optional))"},
      {R"({"cmd":"isolate","client":-1,"rules":[]})", "client: expected an integer from 0 to 4294967295, got -1"},
      {R"({"cmd":"isolate","client":4294967296,"rules":[]})", "client: expected an integer from 0 to 4294967295, got 4294967296"},
      {R"({"cmd":"isolate","client":31,"kind":"xdr","rules":[]})", "kind: expected an integer from 0 to 4294967295, got \"xdr\""},
      {R"({"cmd":"isolate","client":31,"rules":[{"remoteAddress":"10.77.0.256"}]})",
       "rules[0].remoteAddress: \"10.77.0.256\" is not an IPv4 or IPv6 address"},
      {R"({"cmd":"isolate","client":31,"rules":[{"protocol":256}]})", "rules[0].protocol: expected an integer from 0 to 255, got 256"},
      {R"({"cmd":"isolate","client":31,"rules":[{},{"remotePortRange":{"start":443}}]})", "rules[1].remotePortRange.end: missing"},
      {R"({"cmd":"isolate","client":31,"rules":[{"localPortRange":{"start":9,"end":8}}]})",
       "rules[0].localPortRange: end 8 is below start 9"},
      {R"({"cmd":"isolate","client":31,"rules":[{"localPortRange":{"start":1,"end":2,"step":1}}]})",
       "rules[0].localPortRange.step: unknown key (expected end, start)"},
      {R"({"cmd":"isolate","client":31,"rules":[{"remotePortRange":[443,443]}]})",
       "rules[0].remotePortRange: expected {\"start\":PORT,\"end\":PORT}, got [443,443]"},
      {R"({"cmd":"isolate","client":31,"rules":[{"dataSource":4294967296}]})", "rules[0].dataSource: expected an integer from 0 to 4294967295"},
      {R"({"cmd":"isolate","client":31,"rules":[{"applicationPath":""}]})", "rules[0].applicationPath: empty"},
      {R"({"cmd":"isolate","client":31,"rules":[{"proto":6}]})", "rules[0].proto: unknown key (expected applicationPath, dataSource,"},
      {R"({"cmd":"isolate","client":31,"rules":["10.0.0.1"]})", "rules[0]: expected an object of exclusion fields"},
      {R"({"cmd":"release","client":31,"kind":2})", "kind: unknown key for release (expected cmd, client)"},
      {R"({"cmd":"release"})", "client: missing"},
  };
  for (const auto& [line, error] : cases) {
    const std::string got = ErrorOf(line);
    EXPECT_EQ(got.rfind(error, 0), 0u) << line << "\n  got: " << got;
  }
}

TEST(ControlRequest, RefusalsNameWhatIsWrong) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "not JSON: parse error at line 1, column 1: syntax error while parsing value - unexpected end"},
      {R"({"cmd":"status")", "not JSON: parse error at line 1, column 16: syntax error while parsing object"},
      {R"({"cmd":"status"} {"cmd":"status"})", "not JSON: parse error at line 1, column 18: syntax error"},
      {R"({"cmd":"status","x":1e999})", "not JSON: number overflow parsing '1e999'"},
      {"\"status\"", "expected a JSON object with \"cmd\""},
      {R"({"command":"status"})", "cmd: missing (one of status, add-rules, remove-rules, agent-ports, queue, isolate, release, isolation, turn-off)"},
      {R"({"cmd":["status"]})", "cmd: expected a string"},
      {R"({"cmd":"flush"})", "cmd: unknown command 'flush' (expected one of status, add-rules,"},
      {R"({"cmd":"status","verbose":true})", "verbose: unknown key for status (expected cmd)"},
      {R"({"cmd":"add-rules","rules":[]})", "tag: missing (add-rules needs cmd, tag, rules)"},
      {R"({"cmd":"add-rules","tag":"","rules":[]})", "tag: empty"},
      {R"({"cmd":"add-rules","tag":7,"rules":[]})", "tag: expected a string"},
      {R"({"cmd":"remove-rules","rules":{}})", "rules: expected an array"},
      {R"({"cmd":"remove-rules","rules":[{"kind":"bypass"},{"kind":"bypass","proto":300}]})",
       "rules[1].proto: expected an integer from 0 to 255, got 300"},
      {R"({"cmd":"remove-rules","rules":[5]})", "rules[0]: expected an object, got 5"},
      {R"({"cmd":"agent-ports","ports":["15000/tcp/in",15001]})", "ports[1]: expected a string like"},
      {R"({"cmd":"agent-ports","ports":["15000/sctp/in"]})",
       "ports[0]: '15000/sctp/in': protocol 'sctp' is not one of tcp, udp"},
      {R"({"cmd":"agent-ports","ports":["0/tcp/in"]})", "ports[0]: '0/tcp/in': port '0' is not a number from 1"},
      {R"({"cmd":"agent-ports","ports":["15000/tcp/both"]})",
       "ports[0]: '15000/tcp/both': direction 'both' is not one of in, out, inout"},
      {R"({"cmd":"agent-ports","ports":["15000:tcp:in"]})", "ports[0]: '15000:tcp:in': expected PORT/PROTOCOL/DIRECTION"},
      {R"({"cmd":"status","x":[[[[[[[[[1]]]]]]]]]})", "nested deeper than 8 levels"},
      {R"({"cmd":"queue"})", "count: missing (queue needs cmd, count)"},
      {R"({"cmd":"queue","count":4,"first":0})", "first: unknown key for queue (expected cmd, count)"},
      {R"({"cmd":"queue","count":"4"})", "count: expected an integer from 0 to 65535, got \"4\""},
      {R"({"cmd":"queue","count":4.0})", "count: expected an integer from 0 to 65535, got 4.0"},
      {R"({"cmd":"queue","count":-1})", "count: expected an integer from 0 to 65535, got -1"},
      {R"({"cmd":"queue","count":65536})", "count: expected an integer from 0 to 65535, got 65536"},
      {R"({"cmd":"queue","count":null})", "count: expected an integer from 0 to 65535, got null"},
  };
  for (const auto& [line, error] : cases) {
    const std::string got = ErrorOf(line);
    EXPECT_EQ(got.rfind(error, 0), 0u) << line << "\n  got: " << got;
  }
}

}  // namespace
}  // namespace qel::host
