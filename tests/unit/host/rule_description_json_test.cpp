#include "host/rule_description_json.h"

#include <gtest/gtest.h>

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::host {
namespace {

using namespace firewall;

RuleDescription FromLine(const std::string& line) {
  const auto parsed = RuleDescriptionFromJson(Json::parse(line));
  EXPECT_TRUE(parsed.Ok()) << line << ": " << (parsed.Ok() ? "" : parsed.ErrorText());
  return parsed.Ok() ? parsed.Value() : RuleDescription{};
}

std::string ErrorOf(const std::string& line) {
  const auto parsed = RuleDescriptionFromJson(Json::parse(line));
  return parsed.Ok() ? "(accepted)" : parsed.ErrorText();
}

// Every condition, negated where it can be, over the descriptions below.
RuleDescription AllConditions(RuleAction action) {
  RuleDescription d;
  d.side = Side::Outgoing;
  d.protocol = 6;
  d.remote = tools::ParseIpNetwork("10.0.0.0/8");
  d.local = tools::ParseIpNetwork("fd00::/64");
  d.iface = InterfaceMatch{"eth0", true};
  d.remotePorts = tools::PortRange{1000, 2000};
  d.localPorts = tools::PortRange{22, 22};
  d.classid = 0x100001;
  d.mark = MarkMatch{0x10, 0xff};
  d.excludeMark = MarkMatch{0x1, std::nullopt};
  d.excludeRemoteEndpoint = "endpoints";
  d.excludeRemote = "hosts";
  d.ctstate = ConnState::NewEstablished;
  d.ctdir = ConnDirection::Reply;
  d.remoteAddrtype = AddrtypeMatch{AddressType::Local, true};
  d.localAddrtype = AddrtypeMatch{AddressType::Local, false};
  d.ctmark = MarkMatch{0x1, 0xff};
  d.excludeCtmark = MarkMatch{0x2, std::nullopt};
  d.tcpFlags = TcpFlagsMatch{0x12, 0x02, true};
  d.action = std::move(action);
  return d;
}

TEST(RuleDescriptionJson, EveryKindAndConditionComesBackAsItWent) {
  const std::vector<RuleAction> actions = {
      RawAction{"CT", Tokens{"--notrack"}},
      AccessAction{1},
      QueueAction{7},
      MarkAction{0xdead},
      DivertAction{8080, 0x2},
      DivertAction{8081, std::nullopt},
      NatAction{1},
      ConnmarkAction{0x1, 0xff},
      ConnmarkSaveAction{0xff, 0xf0},
      ConnmarkRestoreAction{0xf0, 0xff},
      NflogAction{10001, "Allow", 5},
      NflogAction{10002, std::nullopt, 0},
      IsolationAction{4294967295u},
      BypassAction{},
  };
  for (const auto& action : actions) {
    for (const auto& description : {AllConditions(action), RuleDescription{.action = action}}) {
      const Json json = RuleDescriptionToJson(description);
      const auto back = RuleDescriptionFromJson(Json::parse(JsonLine(json)));
      ASSERT_TRUE(back.Ok()) << JsonLine(json) << ": " << back.ErrorText();
      EXPECT_EQ(back.Value(), description) << JsonLine(json);
    }
  }
}

TEST(RuleDescriptionJson, WritesTheKeyWordsOfThePrintedForm) {
  RuleDescription web{.protocol = 6, .localPorts = tools::PortRange{8080, 8080}, .action = AccessAction{0}};
  EXPECT_EQ(JsonLine(RuleDescriptionToJson(web)),
            R"({"kind":"access","side":"incoming","proto":6,"localPorts":[8080,8080],"action":0})");
  EXPECT_EQ(JsonLine(RuleDescriptionToJson(AllConditions(NflogAction{5, "web", 3}))),
            R"({"kind":"nflog","side":"outgoing","proto":6,"remote":"10.0.0.0/8","local":"fd00::/64",)"
            R"("! iface":"eth0","remotePorts":[1000,2000],"localPorts":[22,22],"classid":1048577,"mark":[16,255],)"
            R"("! mark":1,"excludeRemoteEndpoint":"endpoints","excludeRemote":"hosts","ctstate":"NEW,ESTABLISHED",)"
            R"("ctdir":"REPLY","! remoteAddrtype":"LOCAL","localAddrtype":"LOCAL","ctmark":[1,255],"! ctmark":2,)"
            R"("! tcp-flags":[18,2],"nflogGroup":5,"nflogPrefix":"web","nflogThreshold":3})");
}

TEST(RuleDescriptionJson, ReadsEachKeyIntoTheFieldThePrintedFormNamesWithIt) {
  EXPECT_EQ(DescriptionText(FromLine(
                R"({"kind":"access","action":0,"proto":6,"localPorts":[8080,8080],"side":"incoming"})")),
            "access  proto 6 remote any local any localPorts 8080 action 0");
  EXPECT_EQ(DescriptionText(FromLine(
                R"({"kind":"divert","divertToPort":8080,"assignMark":2,"proto":6,"iface":"eth1",)"
                R"("remote":"192.0.2.0/24","local":"198.51.100.7","remotePorts":[1,1023],"classid":16,)"
                R"("mark":16,"! mark":[1,3],"excludeRemote":"set","ctstate":"NEW","ctdir":"ORIGINAL",)"
                R"("remoteAddrtype":"LOCAL","! localAddrtype":"LOCAL","! ctmark":[1,255],"tcp-flags":[2,2]})")),
            "divert  proto 6 remote 192.0.2.0/24 local 198.51.100.7/32 iface eth1 remotePorts 1:1023 classid 0x10"
            " mark 0x10 ! mark 0x1/0x3 excludeRemote set ctstate NEW ctdir ORIGINAL remoteAddrtype LOCAL"
            " localAddrtype ! LOCAL ! ctmark 0x1 ctmask 0xff tcp-flags 0x2/0x2 divertToPort 8080 assignMark 0x2");
  EXPECT_EQ(DescriptionText(FromLine(R"({"kind":"raw","target":"CT","arguments":["--notrack"],"side":"outgoing",)"
                                     R"("excludeRemoteEndpoint":"pairs","ctmark":4})")),
            "raw  proto any remote any local any excludeRemoteEndpoint pairs ctmark 0x4 target CT -- --notrack"
            " side outgoing");
  EXPECT_EQ(DescriptionText(FromLine(R"({"kind":"connmark-restore","nfMask":255,"ctMask":15})")),
            "connmark-restore  proto any remote any local any nfMask 0xff ctMask 0xf");
}

TEST(RuleDescriptionJson, RefusalsNameTheKeyAndWhatIsWrong) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({"action":0})", "kind: missing (one of raw, access, queue,"},
      {R"({"kind":"allow"})", "kind: 'allow' is not one of raw, access,"},
      {R"({"kind":1})", "kind: expected a string, got 1"},
      {R"({"kind":"access"})", "action: missing (kind access needs it)"},
      {R"({"kind":"access","action":0,"queue":3})", "queue: not a field of kind access"},
      {R"({"kind":"bypass","colour":"red"})", "colour: unknown key"},
      {R"({"kind":"bypass","proto":256})", "proto: expected an integer from 0 to 255, got 256"},
      {R"({"kind":"bypass","proto":-1})", "proto: expected an integer from 0 to 255, got -1"},
      {R"({"kind":"bypass","proto":6.5})", "proto: expected an integer from 0 to 255, got 6.5"},
      {R"({"kind":"bypass","proto":"6"})", "proto: expected an integer"},
      {R"({"kind":"bypass","localPorts":8080})", "localPorts: expected [first, last], got 8080"},
      {R"({"kind":"bypass","localPorts":[1,70000]})", "localPorts: expected an integer from 0 to 65535, got 70000"},
      {R"({"kind":"bypass","remote":"10.0.0.0/33"})", "remote: '10.0.0.0/33': invalid mask"},
      {R"({"kind":"bypass","side":"in"})", "side: 'in' is not one of incoming, outgoing"},
      {R"({"kind":"bypass","ctstate":"new"})", "ctstate: 'new' is not one of NEW, ESTABLISHED, NEW,ESTABLISHED"},
      {R"({"kind":"bypass","iface":"a","! iface":"b"})", "! iface: the same condition as iface; give one of them"},
      {R"({"kind":"bypass","mark":[1]})", "mark: expected a mark or [mark, mask], got [1]"},
      {R"({"kind":"bypass","mark":true})", "mark: expected a mark or [mark, mask], got true"},
      {R"({"kind":"queue","queue":65536})", "queue: expected an integer from 0 to 65535, got 65536"},
      {R"({"kind":"mark","assignMark":4294967296})", "assignMark: expected an integer from 0 to 4294967295"},
      {R"({"kind":"raw","target":"CT","arguments":"--notrack"})", "arguments: expected an array of strings"},
      {R"(["kind","access"])", "expected an object, got [\"kind\",\"access\"]"},
  };
  for (const auto& [line, error] : cases) {
    const std::string got = ErrorOf(line);
    EXPECT_EQ(got.rfind(error, 0), 0u) << line << "\n  got: " << got;
  }
}

}  // namespace
}  // namespace qel::host
