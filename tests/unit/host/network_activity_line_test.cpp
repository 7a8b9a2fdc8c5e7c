// Lines about logged packets: the module's event, plus the name of the rule
// in force at the event's rule index.
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "host/json.h"
#include "host/json_event_publisher.h"
#include "host/rule_names.h"

namespace qel::host {
namespace {

// As the module builds it: ports only when known, numbers as numbers.
oro::Event Activity(const std::string& kind, std::int64_t ruleIndex, bool withPorts = true) {
  oro::Event event{kind, {}};
  event.Add("direction", std::string("Incoming")).Add("ipVersion", std::int64_t{4}).Add("protocol", std::int64_t{6});
  event.Add("localAddress", std::string("10.77.0.1"));
  if (withPorts) event.Add("localPort", std::int64_t{22});
  event.Add("remoteAddress", std::string("10.77.0.2"));
  if (withPorts) event.Add("remotePort", std::int64_t{40312});
  event.Add("payloadLength", std::int64_t{60}).Add("ruleIndex", ruleIndex);
  return event;
}

std::optional<std::string> NameInLine(const oro::Event& event, const RuleNames& names) {
  const Json line = Json::parse(EventJson(event, &names));
  if (!line.contains("ruleName")) return std::nullopt;
  return line["ruleName"].get<std::string>();
}

TEST(NetworkActivityLine, NamesTheRuleAtTheEventsIndexAfterTheModulesProperties) {
  RuleNames names;
  settings::FirewallSettings settings;
  settings.packetRules.resize(2);
  settings.packetRules[0].name = u"ssh";
  settings.packetRules[1].name = u"zeitdienst \u00e4";
  names.Set(RuleNames::Of(settings));

  std::ostringstream out;
  auto publisher = oro::RefPtr<JsonEventPublisher>::Adopt(new JsonEventPublisher(out, &names));
  EXPECT_EQ(publisher->PublishEvent(Activity("NetworkActivityBlocked", 0)), oro::errOk);
  EXPECT_EQ(publisher->PublishEvent(Activity("NetworkActivityAllowed", 1, false)), oro::errOk);
  EXPECT_EQ(out.str(),
            R"({"event":"NetworkActivityBlocked","direction":"Incoming","ipVersion":4,"protocol":6,)"
            R"("localAddress":"10.77.0.1","localPort":22,"remoteAddress":"10.77.0.2","remotePort":40312,)"
            R"("payloadLength":60,"ruleIndex":0,"ruleName":"ssh"})"
            "\n"
            R"({"event":"NetworkActivityAllowed","direction":"Incoming","ipVersion":4,"protocol":6,)"
            R"("localAddress":"10.77.0.1","remoteAddress":"10.77.0.2","payloadLength":60,"ruleIndex":1,)"
            "\"ruleName\":\"zeitdienst \xc3\xa4\"}\n");
}

// An event that races with a reload may name an index the settings in force
// do not have: no name is better than another rule's.
TEST(NetworkActivityLine, AnIndexWithoutARuleInForceGetsNoName) {
  RuleNames names;
  EXPECT_EQ(NameInLine(Activity("NetworkActivityBlocked", 0), names), std::nullopt);
  names.Set({"ssh", "web"});
  EXPECT_EQ(NameInLine(Activity("NetworkActivityBlocked", 2), names), std::nullopt);
  EXPECT_EQ(NameInLine(Activity("NetworkActivityBlocked", -1), names), std::nullopt);
  EXPECT_EQ(NameInLine(Activity("NetworkActivityBlocked", std::int64_t{1} << 40), names), std::nullopt);
  oro::Event integrity{"FirewallIntegrityBroken", {}};
  integrity.Add("ruleIndex", std::int64_t{0});
  EXPECT_EQ(NameInLine(integrity, names), std::nullopt);
}

TEST(NetworkActivityLine, AnAcceptedReloadRenamesARefusedOneKeepsTheNamesInForce) {
  RuleNames names;
  names.Set({"ssh", "web"});
  const auto event = [](std::int64_t index) { return Activity("NetworkActivityBlocked", index); };

  // While the task takes the new settings, an event may come from either.
  names.BeginChange({"ssh", "dns", "web"});
  EXPECT_EQ(NameInLine(event(0), names), "ssh");
  EXPECT_EQ(NameInLine(event(1), names), std::nullopt);
  EXPECT_EQ(NameInLine(event(2), names), std::nullopt);
  names.EndChange(true);
  EXPECT_EQ(NameInLine(event(1), names), "dns");
  EXPECT_EQ(NameInLine(event(2), names), "web");

  names.BeginChange({"telnet"});
  names.EndChange(false);
  EXPECT_EQ(NameInLine(event(0), names), "ssh");
  EXPECT_EQ(NameInLine(event(1), names), "dns");
  EXPECT_EQ(NameInLine(event(2), names), "web");
}

// The module's thread writes lines while the main thread reloads: every line
// names a rule of the settings it could have come from, or none.
TEST(NetworkActivityLine, LinesWrittenDuringReloadsNameOnlyRulesOfEitherSettings) {
  RuleNames names;
  names.Set({"ssh", "web"});
  std::atomic<bool> done = false;
  std::atomic<int> wrong = 0;
  std::thread events([&] {
    while (!done) {
      const auto name = NameInLine(Activity("NetworkActivityAllowed", 1), names);
      if (name && *name != "web" && *name != "www") ++wrong;
      if (NameInLine(Activity("NetworkActivityAllowed", 0), names) != "ssh") ++wrong;
    }
  });
  for (int i = 0; i < 2000; ++i) {
    names.BeginChange({"ssh", i % 2 ? "web" : "www"});
    names.EndChange(i % 3 != 0);
  }
  done = true;
  events.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace qel::host
