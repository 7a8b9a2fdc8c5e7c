// The firewall service over the real iptables tools, wired as the module
// wires it but with the framework's services faked: the timer fires only
// when the test says so, events are collected, and every script handed to
// the restore tools is kept. Build it inside a network namespace of its own
// (see netns.h).
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "firewall/firewall_service.h"
#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
#include "support/fake_feature_techs_aggregator.h"
#include "support/fake_framework.h"
#include "support/kernel_tables.h"

namespace qel::test {

class ServiceRig {
 public:
  ServiceRig() {
    locator->Register(tracer);
    locator->Register(Make<FakeTimer>());
    locator->Register(publisher);
    locator->Register(Make<FakeFeatureTechsAggregator>());
    locator->Register(Make<firewall::IptablesInfoProvider>(locator.Get()));
    const auto firewall = Make<firewall::IptablesFirewall>(locator.Get(), [this](tools::SpawnContext& context) {
      if (context.input) scripts.push_back(context.program + ":\n" + *context.input);
      return tools::SecureSpawn(context);
    });
    locator->Register(static_cast<firewall::IFirewallStateQuery*>(firewall.Get()));
    if (oro::Failed(CreateInstance(service, locator.Get(), true))) throw std::runtime_error("no service");
  }

  // Releasing the service still runs the tools, which record into `scripts`.
  ~ServiceRig() { Release(); }

  // The last reference goes: the service removes every rule it installed.
  void Release() { service.Reset(); }

  const oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  const oro::RefPtr<FakePublisher> publisher = Make<FakePublisher>();
  const oro::RefPtr<FakeLocator> locator = Make<FakeLocator>();
  oro::RefPtr<firewall::FirewallService> service;
  // Each script as "<tool>:" and the text it read.
  std::vector<std::string> scripts;
};

// Installs `settings` and the dynamic rules of `dynamic` (each under its
// tag) with a service in a forked process and kills that process with
// SIGKILL once the rules stand, so that the service never gets to remove
// them, as after a crash. Returns every table as the killed service left
// it (SaveAllTables); throws when it installed nothing.
inline std::string InstallAndKill(const settings::FirewallSettings& settings,
                                  const std::vector<firewall::TaggedRule>& dynamic = {}) {
  int ready[2];
  if (pipe(ready) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = fork();
  if (child == 0) {
    close(ready[0]);
    try {
      // Never released: only the kill ends it.
      auto* rig = new ServiceRig;
      bool installed = oro::Succeeded(rig->service->SetPacketRules(settings)) &&
                       oro::Succeeded(rig->service->SetEnforce(true));
      for (const auto& [description, tag] : dynamic) {
        installed = installed && oro::Succeeded(rig->service->AddRules({description}, tag));
      }
      if (installed && write(ready[1], "+", 1) == 1) {
        for (;;) pause();
      }
    } catch (...) {
    }
    _exit(1);
  }
  close(ready[1]);
  char installed = 0;
  if (child > 0 && read(ready[0], &installed, 1) != 1) installed = 0;
  close(ready[0]);
  if (child > 0) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  if (installed != '+') throw std::runtime_error("the service to be killed installed nothing");
  return SaveAllTables();
}

}  // namespace qel::test
