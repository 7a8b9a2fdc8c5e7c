// Several owners, the firewall task and the timer call the service at once
// while the kernel refuses some changes. After every round, with every call
// returned, the service must poll exactly when polling is needed, and one
// clean poll must leave in the kernel exactly the rules of the calls that
// succeeded.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <thread>

#include "qel_common/string_conv.h"
#include "support/faked_service.h"

namespace qel::test {
namespace {

using types::IPAddressFamily;

const FakeKernel::Table kFilter4{IPAddressFamily::IPv4, "filter"};
constexpr int kOwners = 3;
constexpr int kPortsPerOwner = 6;
constexpr int kCallsPerRound = 8;
constexpr std::uint16_t kRefusedPort = 6666;  // the kernel refuses any rule for it
const std::uint16_t kPacketRulePorts[] = {22, 80, 443};

settings::FirewallSettings PacketRuleFor(std::uint16_t port) {
  settings::FirewallSettings s;
  auto& rule = s.packetRules.emplace_back();
  rule.direction = settings::PacketRuleDirection::Incoming;
  rule.protocol = settings::PacketRuleProtocol::TCP;
  rule.localPorts = tools::ToUtf16(std::to_string(port));
  rule.name = rule.localPorts;
  return s;
}

std::string DynamicRuleText(int port) { return "-p tcp -m tcp --dport " + std::to_string(port) + " -j ACCEPT"; }

// What the callers were told, which is what the kernel must hold.
struct Model {
  std::set<int> held[kOwners];
  bool enforce = false;
  int packetRulePort = 0;  // 0: no packet rules given yet
  bool shutDown = false;

  bool PollingNeeded() const {
    if (shutDown) return false;
    bool anyHeld = false;
    for (const auto& ports : held) anyHeld = anyHeld || !ports.empty();
    return enforce || packetRulePort != 0 || anyHeld;
  }
};

class Stress : public FakedService {
 public:
  Stress() {
    tracer->enabledUpTo = oro::trace_level::Warning;
    kernel->refusedWord = std::to_string(kRefusedPort);
    for (const auto port : kPacketRulePorts) packetSettings.push_back(PacketRuleFor(port));
  }

  // One owner's calls; each call's outcome updates only that owner's part
  // of the model, which no other thread touches.
  void Owner(int owner, std::mt19937& random) {
    std::set<int>& held = model.held[owner];
    for (int call = 0; call < kCallsPerRound; ++call) {
      std::vector<int> ports;
      const bool adding = held.empty() || random() % 2 == 0;
      for (int j = 0; j < kPortsPerOwner; ++j) {
        const int port = 5000 + 10 * owner + j;
        if (held.count(port) != static_cast<std::size_t>(!adding) || random() % 3 != 0) continue;
        ports.push_back(port);
      }
      firewall::RuleDescriptions rules;
      for (int port : ports) rules.push_back(AgentPort(static_cast<std::uint16_t>(port)));
      if (adding && random() % 4 == 0) rules.push_back(AgentPort(kRefusedPort));
      if (adding) {
        const std::string tag = "owner" + std::to_string(owner);
        if (oro::Succeeded(service->AddRules(rules, tag))) held.insert(ports.begin(), ports.end());
      } else if (oro::Succeeded(service->RemoveRules(rules))) {
        for (int port : ports) held.erase(port);
      }
    }
  }

  // The firewall task: new settings and the enforcement switch, and in the
  // last round the shutdown.
  void Task(std::mt19937& random, bool shutDownThisRound) {
    const int shutdownAt = shutDownThisRound ? static_cast<int>(random() % kCallsPerRound) : -1;
    for (int call = 0; call < kCallsPerRound; ++call) {
      if (call == shutdownAt) {
        ASSERT_EQ(service->OnShutdown(), oro::errOk);
        model.shutDown = true;
      }
      if (random() % 2 == 0) {
        const std::size_t which = random() % std::size(kPacketRulePorts);
        const bool done = oro::Succeeded(service->SetPacketRules(packetSettings[which]));
        if (done && !model.shutDown) model.packetRulePort = kPacketRulePorts[which];
      } else {
        const bool enforce = random() % 2 == 0;
        service->SetEnforce(enforce);  // a failure keeps the new value; the poll retries
        if (!model.shutDown) model.enforce = enforce;
      }
    }
  }

  void Timer() {
    for (int tick = 0; tick < kCallsPerRound; ++tick) {
      timer->Fire();
      std::this_thread::yield();
    }
  }

  // The kernel's rules of the module's input chain, as texts.
  std::vector<std::string> Wanted() const {
    std::vector<std::string> texts;
    for (const auto& ports : model.held) {
      for (int port : ports) texts.push_back(DynamicRuleText(port));
    }
    return texts;
  }

  void CheckConverged(const char* when) {
    SCOPED_TRACE(when);
    kernel->failEveryNthChange = 0;
    EXPECT_EQ(timer->Armed(), model.PollingNeeded());
    const auto inForce = kernel->Texts(kFilter4, "vorn_input");
    EXPECT_EQ(service->RunPoll(), oro::errOk);
    const auto input = kernel->Texts(kFilter4, "vorn_input");
    if (model.shutDown) {
      EXPECT_EQ(input, inForce);  // nothing changes any more
      return;
    }
    std::multiset<std::string> dynamic, packetRules;
    for (const auto& text : input) {
      if (text.find("--ctstate") != std::string::npos || text.find("-i lo") != std::string::npos ||
          text.find("--dport") == std::string::npos) {
        packetRules.insert(text);
      } else {
        dynamic.insert(text);
      }
    }
    const auto wanted = Wanted();
    EXPECT_EQ(dynamic, std::multiset<std::string>(wanted.begin(), wanted.end()));
    const std::string packetPort = " --dport " + std::to_string(model.packetRulePort) + " ";
    const bool packetRuleIn = std::any_of(packetRules.begin(), packetRules.end(), [&](const std::string& text) {
      return text.find(packetPort) != std::string::npos;
    });
    const bool enforced = model.enforce && model.packetRulePort != 0;
    EXPECT_EQ(packetRuleIn, enforced);
    EXPECT_EQ(packetRules.empty(), !enforced);
  }

  std::vector<settings::FirewallSettings> packetSettings;  // one for each of kPacketRulePorts
  Model model;
};

TEST(FirewallServiceStress, ConcurrentOwnersTaskAndPollsKeepTheInvariants) {
  constexpr int kRounds = 40;
  Stress stress;
  for (int round = 0; round < kRounds && !::testing::Test::HasFatalFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    stress.kernel->failEveryNthChange = 5;
    std::vector<std::thread> threads;
    for (int owner = 0; owner < kOwners; ++owner) {
      threads.emplace_back([&, owner] {
        std::mt19937 random(static_cast<unsigned>(round * 31 + owner));
        stress.Owner(owner, random);
      });
    }
    threads.emplace_back([&] {
      std::mt19937 random(static_cast<unsigned>(round * 31 + kOwners));
      stress.Task(random, round == kRounds - 1);
    });
    threads.emplace_back([&] { stress.Timer(); });
    for (auto& thread : threads) thread.join();
    stress.CheckConverged("after the round");
  }
  stress.service.Reset();
  EXPECT_EQ(stress.kernel->TableOf(kFilter4), FakeKernel().TableOf(kFilter4));
  EXPECT_FALSE(stress.timer->Armed());
}

}  // namespace
}  // namespace qel::test
