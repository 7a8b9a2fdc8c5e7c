// Isolation through the real firewall service and the real tools, with each
// iptables backend: while a session stands the peer reaches the host only
// through what the exclusions name, and the host the peer likewise; once
// the session is deleted the tables are as they were.
#include <gtest/gtest.h>
#include <unistd.h>

#include "firewall/lazy_dynamic_rules.h"
#include "firewall/network_isolation_backend_iptables.h"
#include "support/fake_bridge_controller.h"
#include "support/fake_network_interfaces.h"
#include "support/netns.h"
#include "support/service_rig.h"
#include "support/tcp_sockets.h"

// Designated initializers spell out only the fields that a case is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace qel::test {
namespace {

using namespace firewall;
using tools::ParseIpAddress;
using tools::PortRange;

constexpr const char* kHost4 = PeerNamespace::kHost4;
constexpr const char* kHost6 = PeerNamespace::kHost6;
constexpr const char* kPeer4 = PeerNamespace::kPeer4;
constexpr const char* kPeer6 = PeerNamespace::kPeer6;

std::string Result(oro::result_t result) { return tracing::FormatResult(result); }

// The peer may reach the host's port 5001 over IPv4; the host may reach the
// peer's port 6001 over IPv6.
const NetworkExclusionRules kExclusions{
    {.remoteAddress = ParseIpAddress(kPeer4), .protocol = 6, .localPortRange = PortRange{5001, 5001}},
    {.remoteAddress = ParseIpAddress(kPeer6), .protocol = 6, .remotePortRange = PortRange{6001, 6001}}};

oro::RefPtr<INetworkIsolationBackend> MakeBackend(ServiceRig& rig) {
  oro::RefPtr<IDynamicRules2> lazy;
  const tracing::Tracer tracer(oro::RefPtr<oro::ITracer>::Share(rig.tracer.Get()));
  if (oro::Failed(CreateLazyDynamicRules(tracer, oro::RefPtr<IDynamicRules>::Share(rig.service.Get()), lazy))) {
    throw std::runtime_error("no lazy dynamic rules");
  }
  const auto provider = Make<FakeInterfaceProvider>();
  NetworkIsolationBackendIptables::Collaborators collaborators{
      .lazyFw = lazy,
      .bridge = oro::RefPtr<IBridgeController>::Share(Make<FakeBridgeController>().Get()),
      .itfProvider = oro::RefPtr<INetworkInterfaceProvider>::Share(provider.Get()),
      .itfEvents = oro::RefPtr<INetworkInterfaceProviderEventsSubscription>::Share(provider.Get()),
      .resolvConf = [](std::string& text) {
        text = "nameserver 10.77.0.53\n";
        return oro::errOk;
      }};
  oro::RefPtr<NetworkIsolationBackendIptables> backend;
  if (oro::Failed(CreateInstance(backend, oro::RefPtr<oro::ITracer>::Share(rig.tracer.Get()),
                                 std::move(collaborators)))) {
    throw std::runtime_error("no backend");
  }
  return oro::RefPtr<INetworkIsolationBackend>::Share(backend.Get());
}

// What connects between the two namespaces, one line per direction.
std::string Connections(const PeerNamespace& peer) {
  std::string text = "peer->host 5001 " + peer.Within([] { return Reach(kHost4, 5001); });
  text += ", 5002 " + peer.Within([] { return Reach(kHost4, 5002); });
  text += ", [6]5001 " + peer.Within([] { return Reach(kHost6, 5001); });
  text += "\nhost->peer [6]6001 " + Reach(kPeer6, 6001);
  text += ", 6001 " + Reach(kPeer4, 6001);
  return text + ", [6]6002 " + Reach(kPeer6, 6002) + "\n";
}

// Read with the tool: sysfs shows the namespace that mounted it.
std::string MacOf(const std::string& interface) {
  const std::string link = RunToolOk({"ip", "-o", "link", "show", "dev", interface});
  const std::string key = "link/ether ";
  const auto at = link.find(key);
  return at == std::string::npos ? "" : link.substr(at + key.size(), 17);
}

// Neighbour discovery is the isolation chains' own business, not the
// backend's: fixed IPv6 neighbours keep this case about the exclusions.
void PinIpv6Neighbours(const PeerNamespace& peer) {
  const std::string hostMac = MacOf("veth-h");
  const std::string peerMac = peer.Within([] { return MacOf("veth-p"); });
  RunToolOk({"ip", "-6", "neigh", "replace", kPeer6, "lladdr", peerMac, "dev", "veth-h", "nud", "permanent"});
  peer.Within([&] {
    return RunToolOk({"ip", "-6", "neigh", "replace", kHost6, "lladdr", hostMac, "dev", "veth-p", "nud", "permanent"});
  });
}

class NetworkIsolationBackendIptablesNsTest : public testing::TestWithParam<IptablesBackend> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the case creates its own network and mount namespaces";
  }
};

TEST_P(NetworkIsolationBackendIptablesNsTest, SessionCutsAllButItsExclusionsAndLeavesNoTrace) {
  const ChildRun run = RunInNetworkNamespace(GetParam(), [] {
    const PeerNamespace peer;
    TcpListener host5001(kHost4, 5001), host5002(kHost4, 5002), host6(kHost6, 5001);
    auto peer6001 = peer.Within([] { return TcpListener(kPeer4, 6001); });
    auto peer6001v6 = peer.Within([] { return TcpListener(kPeer6, 6001); });
    auto peer6002v6 = peer.Within([] { return TcpListener(kPeer6, 6002); });
    PinIpv6Neighbours(peer);
    CreateAllTables();
    const std::string before = SaveAllTables();
    ServiceRig rig;
    const auto backend = MakeBackend(rig);
    std::string text = "create " + Result(backend->CreateSession(31, kExclusions)) + "\n";
    text += Connections(peer);
    text += "delete " + Result(backend->DeleteSession(31)) + "\n";
    text += Connections(peer);
    return text + (SaveAllTables() == before ? "tables as before" : "tables differ:\n" + SaveAllTables());
  });
  const std::string ok = Result(oro::errOk);
  EXPECT_EQ(run.completed ? run.output : "namespace child failed: " + run.output,
            "create " + ok +
                "\npeer->host 5001 connected, 5002 blocked, [6]5001 blocked\n"
                "host->peer [6]6001 connected, 6001 blocked, [6]6002 blocked\n"
                "delete " + ok +
                "\npeer->host 5001 connected, 5002 connected, [6]5001 connected\n"
                "host->peer [6]6001 connected, 6001 connected, [6]6002 connected\n"
                "tables as before");
}

INSTANTIATE_TEST_SUITE_P(Backends, NetworkIsolationBackendIptablesNsTest,
                         testing::Values(IptablesBackend::Legacy, IptablesBackend::Nft),
                         [](const auto& info) { return std::string(BackendName(info.param)); });

}  // namespace
}  // namespace qel::test
