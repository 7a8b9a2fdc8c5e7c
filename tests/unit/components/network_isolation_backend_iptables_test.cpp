#include "firewall/network_isolation_backend_iptables.h"

#include <gtest/gtest.h>

#include "support/fake_bridge_controller.h"
#include "support/fake_dynamic_rules2.h"
#include "support/fake_framework.h"
#include "support/fake_network_interfaces.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::test {
namespace {

using namespace firewall;
using network_isolation_data::Endpoint;
using tools::ParseIpAddress;
using tools::PortRange;
using Calls = std::vector<std::string>;
using Request = FakeBridgeController::Request;

const NetworkExclusionRules kWeb{{.remoteAddress = ParseIpAddress("10.77.0.2"), .protocol = 6,
                                  .remotePortRange = PortRange{443, 443}}};
const NetworkExclusionRules kSsh{{.protocol = 6, .localPortRange = PortRange{22, 22}}};
const Request kBridgeOn{ClsIdNetworkIsolationBackendIptables, true, true};

class NetworkIsolationBackendIptablesTest : public ::testing::Test {
 protected:
  NetworkIsolationBackendIptablesTest() {
    NetworkIsolationBackendIptables::Collaborators collaborators{
        .lazyFw = oro::RefPtr<IDynamicRules2>::Share(m_fw.Get()),
        .bridge = oro::RefPtr<IBridgeController>::Share(m_bridge.Get()),
        .itfProvider = oro::RefPtr<INetworkInterfaceProvider>::Share(m_provider.Get()),
        .itfEvents = oro::RefPtr<INetworkInterfaceProviderEventsSubscription>::Share(m_provider.Get()),
        .resolvConf = [this](std::string& text) {
          text = m_resolvConf;
          return oro::errOk;
        }};
    if (oro::Failed(CreateInstance(m_backend, oro::RefPtr<oro::ITracer>::Share(m_tracer.Get()),
                                   std::move(collaborators)))) {
      throw std::runtime_error("no backend");
    }
  }
  ~NetworkIsolationBackendIptablesTest() override {
    // The provider holds the backend while it is subscribed.
    for (const std::uint32_t client : {31u, 32u}) m_backend->DeleteSession(client);
  }

  // The tags the firewall holds, with their number of rules.
  std::map<std::string, std::size_t> Held() {
    std::map<std::string, std::size_t> held;
    for (const auto& [tag, rules] : m_fw->Submitted()) held[tag] = rules.size();
    return held;
  }

  std::string m_resolvConf = "nameserver 10.0.0.53\n";
  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeDynamicRules2> m_fw = Make<FakeDynamicRules2>();
  oro::RefPtr<FakeBridgeController> m_bridge = Make<FakeBridgeController>();
  oro::RefPtr<FakeInterfaceProvider> m_provider = Make<FakeInterfaceProvider>();
  oro::RefPtr<NetworkIsolationBackendIptables> m_backend;
};

// The first session isolates: its group, the built-in group with the name
// servers, bridged traffic through the chains, interface events followed.
// The last one gone, all of that goes.
TEST_F(NetworkIsolationBackendIptablesTest, FirstSessionIsolatesAndLastOneLiftsIsolation) {
  ASSERT_EQ(m_backend->CreateSession(31, kWeb), oro::errOk);
  EXPECT_EQ(m_fw->TakeCalls(), (Calls{"add ni_0x1f 2", "add ni_builtin 2", "submit"}));
  EXPECT_EQ(Held(), (std::map<std::string, std::size_t>{{"ni_0x1f", 2}, {"ni_builtin", 2}}));
  EXPECT_EQ(m_bridge->Requests(), std::vector<Request>{kBridgeOn});
  EXPECT_EQ(m_provider->Subscribers(), 1u);

  ASSERT_EQ(m_backend->CreateSession(32, kSsh), oro::errOk);
  EXPECT_EQ(m_fw->TakeCalls(), (Calls{"add ni_0x20 2", "submit"}));
  EXPECT_EQ(m_bridge->Requests(), std::vector<Request>{kBridgeOn});

  ASSERT_EQ(m_backend->DeleteSession(31), oro::errOk);
  EXPECT_EQ(m_fw->TakeCalls(), (Calls{"remove ni_0x1f", "submit"}));
  EXPECT_EQ(m_provider->Subscribers(), 1u);

  ASSERT_EQ(m_backend->DeleteSession(32), oro::errOk);
  EXPECT_EQ(m_fw->TakeCalls(), (Calls{"remove ni_0x20", "remove ni_builtin", "submit"}));
  EXPECT_TRUE(Held().empty());
  EXPECT_TRUE(m_bridge->Requests().empty());
  EXPECT_EQ(m_provider->Subscribers(), 0u);
}

TEST_F(NetworkIsolationBackendIptablesTest, SecondCreateForAClientReplacesItsRules) {
  ASSERT_EQ(m_backend->CreateSession(31, kWeb), oro::errOk);
  m_fw->TakeCalls();
  ASSERT_EQ(m_backend->CreateSession(31, {}), oro::errOk);
  EXPECT_EQ(m_fw->TakeCalls(), (Calls{"update ni_0x1f 0", "submit"}));
  EXPECT_EQ(Held(), (std::map<std::string, std::size_t>{{"ni_0x1f", 0}, {"ni_builtin", 2}}));
}

TEST_F(NetworkIsolationBackendIptablesTest, UnknownClientCannotBeDeleted) {
  ASSERT_EQ(m_backend->CreateSession(31, kWeb), oro::errOk);
  m_fw->TakeCalls();
  EXPECT_EQ(m_backend->DeleteSession(7), oro::errNotFound);
  EXPECT_TRUE(m_fw->TakeCalls().empty());
  EXPECT_TRUE(m_tracer->Contains("0 != m_sessions.erase(clientId)"));
}

// A refused first batch leaves nothing behind: no group, no bridge request,
// no subscription; the next request starts afresh.
TEST_F(NetworkIsolationBackendIptablesTest, RefusedSubmitIsReturnedAndUndone) {
  m_fw->RefuseSubmits({oro::errUnexpected});
  EXPECT_EQ(m_backend->CreateSession(31, kWeb), oro::errUnexpected);
  EXPECT_TRUE(Held().empty());
  EXPECT_TRUE(m_bridge->Requests().empty());
  EXPECT_EQ(m_provider->Subscribers(), 0u);
  EXPECT_TRUE(m_tracer->Contains("failed to update the firewall"));

  m_fw->TakeCalls();
  ASSERT_EQ(m_backend->CreateSession(31, kWeb), oro::errOk);
  EXPECT_EQ(m_fw->TakeCalls(), (Calls{"add ni_0x1f 2", "add ni_builtin 2", "submit"}));

  m_fw->RefuseSubmits({oro::errUnexpected});
  EXPECT_EQ(m_backend->CreateSession(31, kSsh), oro::errUnexpected);
  EXPECT_EQ(Held(), (std::map<std::string, std::size_t>{{"ni_0x1f", 2}, {"ni_builtin", 2}}));
}

TEST_F(NetworkIsolationBackendIptablesTest, BadExclusionChangesNothing) {
  EXPECT_EQ(m_backend->CreateSession(31, {{.protocol = 1, .localPortRange = PortRange{7, 7}}}),
            oro::errInvalidArgument);
  EXPECT_TRUE(m_fw->TakeCalls().empty());
  EXPECT_TRUE(m_bridge->Requests().empty());
  EXPECT_TRUE(m_tracer->Contains("cannot convert isolation rules"));
}

// The built-in record given ahead is what the first session puts in place;
// a later one replaces the group, the name servers read again.
TEST_F(NetworkIsolationBackendIptablesTest, BuiltInRecordAndResolversMakeTheBuiltinGroup) {
  BuiltinRules builtIn;
  builtIn.pelmServer = Endpoint{.addresses = {ParseIpAddress("10.1.0.1")},
                                .ports = {{.remotePort = 13000, .protocol = 6,
                                           .direction = network_isolation_data::kDirectionOutbound}}};
  ASSERT_EQ(m_backend->UpdateBuiltInSession(builtIn), oro::errOk);
  EXPECT_TRUE(m_fw->TakeCalls().empty());
  ASSERT_EQ(m_backend->CreateSession(31, kWeb), oro::errOk);
  EXPECT_EQ(Held().at("ni_builtin"), 3u);

  m_resolvConf += "nameserver 10.0.0.54\n";
  m_fw->TakeCalls();
  ASSERT_EQ(m_backend->UpdateBuiltInSession({}), oro::errOk);
  EXPECT_EQ(m_fw->TakeCalls(), (Calls{"update ni_builtin 4", "submit"}));

  m_fw->RefuseSubmits({oro::errUnexpected});
  EXPECT_EQ(m_backend->UpdateBuiltInSession(builtIn), oro::errUnexpected);
  EXPECT_TRUE(m_tracer->Contains("failed to udptable rules on the firewall"));
  EXPECT_EQ(Held().at("ni_builtin"), 4u);
}

TEST_F(NetworkIsolationBackendIptablesTest, BridgeThatCannotBeWrittenDoesNotStopIsolation) {
  m_bridge->addResult = oro::errNotFound;
  EXPECT_EQ(m_backend->CreateSession(31, kWeb), oro::errOk);
  EXPECT_EQ(Held().size(), 2u);
}

}  // namespace
}  // namespace qel::test
