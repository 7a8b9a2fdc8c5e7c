#include "host/control_request.h"

#include <gtest/gtest.h>

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

TEST(ControlRequest, RefusalsNameWhatIsWrong) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "not JSON: parse error at line 1, column 1: syntax error while parsing value - unexpected end"},
      {R"({"cmd":"status")", "not JSON: parse error at line 1, column 16: syntax error while parsing object"},
      {R"({"cmd":"status"} {"cmd":"status"})", "not JSON: parse error at line 1, column 18: syntax error"},
      {R"({"cmd":"status","x":1e999})", "not JSON: number overflow parsing '1e999'"},
      {"\"status\"", "expected a JSON object with \"cmd\""},
      {R"({"command":"status"})", "cmd: missing (one of status, add-rules, remove-rules, agent-ports, queue)"},
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
