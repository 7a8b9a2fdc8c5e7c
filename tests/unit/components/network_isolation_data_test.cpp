#include "firewall/network_isolation_data.h"

#include <gtest/gtest.h>

#include "firewall/type_descriptor_static_registry.h"
#include "support/fake_framework.h"
#include "support/fake_storage.h"

namespace qel::test {
namespace {

namespace nim = system_interceptors::network_isolation_manager;
namespace ci = system_interceptors::connection_interceptor;
using namespace firewall::network_isolation_data;
using oro::SerValue;

ip_t Ip(const char* text) { return tools::ParseIpAddress(text); }

nim::NetworkExclusionRule3 FullRule() {
  return {Ip("fd77::2"), 6, nim::PortRange{1024, 65535}, nim::PortRange{443, 443}, nim::data_source::Enum{3},
          "/usr/bin/updater"};
}

Endpoint Server(const char* domain, const char* address) {
  return {domain,
          {Ip(address)},
          {{std::nullopt, 443, 6, Direction{1}}, {8080, std::nullopt, std::nullopt, Direction{0}}}};
}

BuiltinRules FullBuiltin() {
  return {{Server("tamber.example", "10.0.0.1"), Server("tamber2.example", "10.0.0.2")},
          Server("pelm.example", "10.0.0.3"),
          Server("viis.example", "fd00::4"),
          {Server("svm.example", "10.0.0.5")},
          {Server("proxy.example", "10.0.0.6")},
          {Server("vyx.example", "10.0.0.7")},
          {Endpoint{"rusk.example", {}, {}}}};
}

// Each record filled in every field, with optional ones both present and
// absent where a record has several.
template <class T>
T Sample();
template <>
nim::PortRange Sample() { return {1000, 2000}; }
template <>
nim::NetworkExclusionRule3 Sample() { return FullRule(); }
template <>
ci::IpEndpoint Sample() { return {Ip("10.77.0.2"), 5353}; }
template <>
ci::IpEndpointPair Sample() { return {{Ip("fd77::2"), 443}, {Ip("10.77.0.1"), 50000}}; }
template <>
EndpointPort Sample() { return {7, std::nullopt, 17, Direction{2}}; }
template <>
Endpoint Sample() { return Server("srv.example", "192.0.2.1"); }
template <>
BuiltinRules Sample() { return FullBuiltin(); }
template <>
SessionData Sample() { return {"ni_0x1f", {FullRule(), {}, {.protocol = 17}}}; }
template <>
ManagerData Sample() { return {{31, 0, 0xffffffff}, FullBuiltin()}; }

const char* TypeNameOf(nim::PortRange*) { return "system_interceptors::network_isolation_manager::PortRange"; }
const char* TypeNameOf(nim::NetworkExclusionRule3*) {
  return "system_interceptors::network_isolation_manager::NetworkExclusionRule3";
}
const char* TypeNameOf(ci::IpEndpoint*) { return "system_interceptors::connection_interceptor::IpEndpoint"; }
const char* TypeNameOf(ci::IpEndpointPair*) { return "system_interceptors::connection_interceptor::IpEndpointPair"; }
const char* TypeNameOf(EndpointPort*) { return "qel::firewall::network_isolation_data::EndpointPort"; }
const char* TypeNameOf(Endpoint*) { return "qel::firewall::network_isolation_data::Endpoint"; }
const char* TypeNameOf(BuiltinRules*) { return "qel::firewall::network_isolation_data::BuiltinRules"; }
const char* TypeNameOf(SessionData*) { return "qel::firewall::network_isolation_data::SessionData"; }
const char* TypeNameOf(ManagerData*) { return "qel::firewall::network_isolation_data::ManagerData"; }

// The registry is how the host's serialiser finds descriptors, so records
// go through it here too.
const oro::SerObjDescriptor& Descriptor(const char* typeName) {
  static const auto registry = Make<firewall::TypeDescriptorStaticRegistry>(nullptr);
  const auto* descriptor = registry->FindDescriptor(typeName);
  if (!descriptor) throw std::runtime_error(std::string("no descriptor of ") + typeName);
  return *descriptor;
}

template <class T>
class RecordRoundTrip : public ::testing::Test {};
using Records = ::testing::Types<nim::PortRange, nim::NetworkExclusionRule3, ci::IpEndpoint, ci::IpEndpointPair,
                                 EndpointPort, Endpoint, BuiltinRules, SessionData, ManagerData>;
TYPED_TEST_SUITE(RecordRoundTrip, Records);

TYPED_TEST(RecordRoundTrip, ComesBackEqualFromStorageAfterARestart) {
  const auto& type = Descriptor(TypeNameOf(static_cast<TypeParam*>(nullptr)));
  EXPECT_STREQ(type.TypeName(), TypeNameOf(static_cast<TypeParam*>(nullptr)));
  auto storage = std::make_shared<FakeStorage>();
  auto root = Make<FakeStorageNode>(storage);
  auto serializer = Make<FakeSerializer>();
  for (const TypeParam& record : {Sample<TypeParam>(), TypeParam{}}) {
    oro::RefPtr<oro::IStorageNode> node;
    ASSERT_EQ(root->GetOrAppendNode("record", node.Out()), oro::errOk);
    ASSERT_EQ(serializer->Serialize(&record, type, node.Get(), oro::SerializerFlags::Default), oro::errOk);
    ASSERT_EQ(node->Flush(), oro::errOk);
    storage->Restart();
    // Starts from another value, so that a read that leaves it alone fails.
    TypeParam back = record == TypeParam{} ? Sample<TypeParam>() : TypeParam{};
    ASSERT_EQ(serializer->Deserialize(node.Get(), type, &back, oro::SerializerFlags::Default), oro::errOk)
        << serializer->problem;
    EXPECT_EQ(back, record);
  }
}

// The stored form is what other versions of the module read back: names and
// order of the fields, null for absent, addresses as text.
TEST(IsolationRecordDescriptors, RuleIsStoredAsNamedFieldsInOrder) {
  const auto& type = Descriptor(TypeNameOf(static_cast<nim::NetworkExclusionRule3*>(nullptr)));
  auto rule = FullRule();
  rule.remoteAddress = Ip("10.77.0.2");
  rule.localPortRange.reset();
  const auto range = SerValue{SerValue::Fields{{"start", {std::uint64_t{443}}}, {"end", {std::uint64_t{443}}}}};
  const SerValue expected{SerValue::Fields{{"remoteAddress", {std::string("10.77.0.2")}},
                                           {"protocol", {std::uint64_t{6}}},
                                           {"localPortRange", {}},
                                           {"remotePortRange", range},
                                           {"dataSource", {std::uint64_t{3}}},
                                           {"applicationPath", {std::string("/usr/bin/updater")}}}};
  EXPECT_EQ(type.ToValue(&rule), expected);
  EXPECT_EQ(type.FieldNames(), (std::vector<std::string>{"remoteAddress", "protocol", "localPortRange",
                                                         "remotePortRange", "dataSource", "applicationPath"}));
  const auto& manager = Descriptor(TypeNameOf(static_cast<ManagerData*>(nullptr)));
  EXPECT_EQ(manager.FieldNames(), (std::vector<std::string>{"clients", "builtIn"}));
  const auto& builtin = Descriptor(TypeNameOf(static_cast<BuiltinRules*>(nullptr)));
  EXPECT_EQ(builtin.FieldNames(),
            (std::vector<std::string>{"tamberServers", "pelmServer", "lumraVIISServer", "lumraSVMServers",
                                      "vyxProxies", "vyxServers", "ruskServers"}));
}

// Edits the stored value of `record` at a path of field names and list
// indexes.
SerValue& At(SerValue& value, const std::vector<std::variant<const char*, std::size_t>>& path) {
  SerValue* here = &value;
  for (const auto& step : path) {
    if (const auto* name = std::get_if<const char*>(&step)) {
      for (auto& field : std::get<SerValue::Fields>(here->value)) {
        if (field.first == *name) here = &field.second;
      }
    } else {
      here = &std::get<SerValue::List>(here->value).at(std::get<std::size_t>(step));
    }
  }
  return *here;
}

using Path = std::vector<std::variant<const char*, std::size_t>>;

struct Refusal {
  Path path;
  SerValue replacement;
  std::string problem;
};

TEST(IsolationRecordDescriptors, ValueOfTheWrongShapeIsRefusedNamingTheFieldAndLeavesTheRecord) {
  const auto& type = Descriptor(TypeNameOf(static_cast<SessionData*>(nullptr)));
  const SessionData original = Sample<SessionData>();
  const std::vector<Refusal> refusals = {
      {{"endpointExclusions3", std::size_t{1}}, {std::string("x")}, "endpointExclusions3[1]: not a set of fields"},
      {{"endpointExclusions3", std::size_t{0}, "remotePortRange", "start"},
       {std::string("443")},
       "endpointExclusions3[0].remotePortRange.start: not a number"},
      {{"endpointExclusions3", std::size_t{0}, "localPortRange", "end"},
       {std::uint64_t{65536}},
       "endpointExclusions3[0].localPortRange.end: out of range (65536 > 65535)"},
      {{"endpointExclusions3", std::size_t{2}, "protocol"},
       {std::int64_t{-1}},
       "endpointExclusions3[2].protocol: negative"},
      {{"endpointExclusions3", std::size_t{0}, "remoteAddress"},
       {std::string("10.77.0.256")},
       "endpointExclusions3[0].remoteAddress: not an IP address (\"10.77.0.256\")"},
      {{"endpointExclusions3"}, {SerValue::Fields{}}, "endpointExclusions3: not a list"},
      {{"firewallTag"}, {std::uint64_t{31}}, "firewallTag: not a text"},
      {{}, {SerValue::List{}}, "not a set of fields"},
  };
  for (const auto& refusal : refusals) {
    SerValue stored = type.ToValue(&original);
    At(stored, refusal.path) = refusal.replacement;
    SessionData record{"ni_0x7", {{}}};
    const SessionData before = record;
    std::string problem;
    EXPECT_EQ(type.FromValue(stored, &record, &problem), oro::errInvalidArgument) << refusal.problem;
    EXPECT_EQ(problem, refusal.problem);
    EXPECT_EQ(record, before) << refusal.problem;
  }
}

TEST(IsolationRecordDescriptors, MissingFieldIsAbsentWhenOptionalAndRefusedOtherwise) {
  const auto& type = Descriptor(TypeNameOf(static_cast<nim::NetworkExclusionRule3*>(nullptr)));
  nim::NetworkExclusionRule3 rule = FullRule();
  EXPECT_EQ(type.FromValue({SerValue::Fields{{"protocol", {std::int64_t{17}}}}}, &rule, nullptr), oro::errOk);
  EXPECT_EQ(rule, (nim::NetworkExclusionRule3{.protocol = 17}));

  const auto& session = Descriptor(TypeNameOf(static_cast<SessionData*>(nullptr)));
  SessionData data;
  std::string problem;
  EXPECT_EQ(session.FromValue({SerValue::Fields{{"firewallTag", {std::string("ni_0x1")}}}}, &data, &problem),
            oro::errInvalidArgument);
  EXPECT_EQ(problem, "endpointExclusions3: missing");
}

TEST(IsolationTracedForms, RuleRequestAndEndpoint) {
  EXPECT_EQ(TraceText(nim::NetworkExclusionRule3{}),
            "{\"remoteAddress\":null, \"protocol\":null, \"localPortRange\":null, \"remotePortRange\":null, "
            "\"dataSource\":null, \"applicationPath\":null}");
  EXPECT_EQ(TraceRequest(31, {FullRule(), {.remoteAddress = Ip("10.77.0.2")}}),
            "clientId=31, rules=[{\"remoteAddress\":fd77::2, \"protocol\":6, "
            "\"localPortRange\":{\"start\":1024, \"end\":65535}, \"remotePortRange\":{\"start\":443, \"end\":443}, "
            "\"dataSource\":3, \"applicationPath\":\"/usr/bin/updater\"}, "
            "{\"remoteAddress\":10.77.0.2, \"protocol\":null, \"localPortRange\":null, \"remotePortRange\":null, "
            "\"dataSource\":null, \"applicationPath\":null}]");
  EXPECT_EQ(TraceRequest(0, {}), "clientId=0, rules=[]");
  EXPECT_EQ(TraceEndpointTaken(Server("srv.example", "10.0.0.1")),
            " endpoint={\"domain\":\"srv.example\", \"addresses\":[10.0.0.1], "
            "\"ports\":[{\"localPort\":null, \"remotePort\":443, \"protocol\":6, \"direction\":1}, "
            "{\"localPort\":8080, \"remotePort\":null, \"protocol\":null, \"direction\":0}]}");
  EXPECT_EQ(TraceText(Endpoint{}), "{\"domain\":null, \"addresses\":[], \"ports\":[]}");
}

TEST(IsolationTags, ClientTagsAndBack) {
  EXPECT_EQ(ClientId2FWTag(31), "ni_0x1f");
  EXPECT_EQ(ClientId2FWTag(0), "ni_0x0");
  EXPECT_EQ(ClientId2FWTag(0xdeadbeef), "ni_0xdeadbeef");
  EXPECT_EQ(FWTag2ClientId("ni_0x1f"), 31u);
  EXPECT_EQ(FWTag2ClientId("ni_0xffffffff"), 0xffffffffu);
  for (const char* notATag : {"ni_0x", "ni_0x1F", "ni_0x01f", "ni_0x100000000", "ni_builtin", "ni_0x1g", "0x1f"}) {
    EXPECT_EQ(FWTag2ClientId(notATag), std::nullopt) << notATag;
  }
}

}  // namespace
}  // namespace qel::test
