// The firewall service over the real iptables tools, wired as the module
// wires it but with the framework's services faked: the timer fires only
// when the test says so, events are collected, and the kernel side is
// wrapped in a counting decorator. Build it inside a network namespace of
// its own (see netns.h).
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <stdexcept>
#include <string>

#include "firewall/firewall_service.h"
#include "firewall/iptables_firewall.h"
#include "firewall/iptables_info_provider.h"
#include "support/counting_firewall.h"
#include "support/fake_feature_techs_aggregator.h"
#include "support/fake_framework.h"
#include "support/kernel_tables.h"

namespace qel::test {

class ServiceRig {
 public:
  ServiceRig() {
    locator->Register(static_cast<oro::ITracer*>(tracer.Get()));
    locator->Register(static_cast<oro::ITimer*>(timer.Get()));
    locator->Register(static_cast<oro::IEventPublisher*>(publisher.Get()));
    locator->Register(static_cast<tools::IFeatureTechsAggregator*>(Make<FakeFeatureTechsAggregator>().Get()));
    Require(CreateInstance(provider, locator.Get()), "IptablesInfoProvider");
    locator->Register(static_cast<firewall::IIptablesInfoProvider*>(provider.Get()));
    Require(CreateInstance(real, locator.Get()), "IptablesFirewall");
    firewall = Make<CountingFirewall>(real);
    // Only the decorator is offered, so that every kernel call is counted.
    locator->Register(static_cast<firewall::IFirewallStateQuery*>(firewall.Get()));
    Require(CreateInstance(service, locator.Get(), true), "FirewallService");
  }

  // The last reference goes: the service removes every rule it installed.
  void Release() { service.Reset(); }

  // Trace lines written from here on are "since" the mark.
  std::size_t Mark() { return tracer->Lines().size(); }
  bool TracedSince(std::size_t mark, const std::string& text) {
    const auto lines = tracer->Lines();
    for (std::size_t i = mark; i < lines.size(); ++i) {
      if (lines[i].second.find(text) != std::string::npos) return true;
    }
    return false;
  }
  // The first trace line since the mark holding `text`, or "".
  std::string LineSince(std::size_t mark, const std::string& text) {
    const auto lines = tracer->Lines();
    for (std::size_t i = mark; i < lines.size(); ++i) {
      if (lines[i].second.find(text) != std::string::npos) return lines[i].second;
    }
    return "";
  }

  // An event's property by name, or "".
  static std::string Property(const oro::Event& event, const std::string& name) {
    for (const auto& [key, value] : event.properties) {
      if (key == name) return value;
    }
    return "";
  }

  const oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  const oro::RefPtr<FakeTimer> timer = Make<FakeTimer>();
  const oro::RefPtr<FakePublisher> publisher = Make<FakePublisher>();
  const oro::RefPtr<FakeLocator> locator = Make<FakeLocator>();
  oro::RefPtr<firewall::IptablesInfoProvider> provider;
  oro::RefPtr<firewall::IptablesFirewall> real;
  oro::RefPtr<CountingFirewall> firewall;
  oro::RefPtr<firewall::FirewallService> service;

 private:
  static void Require(oro::result_t result, const char* what) {
    if (oro::Failed(result)) throw std::runtime_error(std::string("cannot create ") + what);
  }
};

// Installs `settings` with a service in a forked process and kills that
// process with SIGKILL once the rules stand, so that the service never gets
// to remove them, as after a crash. Returns the filter tables as the killed
// service left them; throws when it installed nothing.
inline std::string InstallAndKill(const settings::FirewallSettings& settings) {
  int report[2];
  if (pipe(report) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    close(report[0]);
    std::string listing;
    try {
      // Never released: only the kill ends it.
      auto* rig = new ServiceRig;
      if (oro::Succeeded(rig->service->SetPacketRules(settings)) && oro::Succeeded(rig->service->SetEnforce(true))) {
        listing = ListFilterTables();
      }
    } catch (...) {
    }
    for (std::size_t written = 0; written < listing.size();) {
      const ssize_t n = write(report[1], listing.data() + written, listing.size() - written);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) _exit(1);
      written += static_cast<std::size_t>(n);
    }
    close(report[1]);
    for (;;) pause();
  }
  close(report[1]);
  std::string listing;
  char buffer[4096];
  for (ssize_t n; (n = read(report[0], buffer, sizeof buffer)) != 0;) {
    if (n > 0) listing.append(buffer, static_cast<std::size_t>(n));
    if (n < 0 && errno != EINTR) break;
  }
  close(report[0]);
  kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (listing.empty()) throw std::runtime_error("the service to be killed installed nothing");
  return listing;
}

// What a body run in a namespace child found, as named values; they travel
// back to the test through the child's text.
class Facts {
 public:
  void Set(const std::string& name, const std::string& value) { m_values[name] = value; }
  void Set(const std::string& name, std::size_t value) { Set(name, std::to_string(value)); }
  void Set(const std::string& name, bool value) { Set(name, std::string(value ? "true" : "false")); }

  std::string Encode() const {
    std::string text;
    for (const auto& [name, value] : m_values) text += name + kNameEnd + value + kValueEnd;
    return text;
  }
  static std::map<std::string, std::string> Decode(const std::string& text) {
    std::map<std::string, std::string> values;
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t nameEnd = text.find(kNameEnd, at);
      const std::size_t valueEnd = text.find(kValueEnd, nameEnd);
      if (nameEnd == std::string::npos || valueEnd == std::string::npos) {
        values["undecodable"] = text.substr(at);
        break;
      }
      values[text.substr(at, nameEnd - at)] = text.substr(nameEnd + 1, valueEnd - nameEnd - 1);
      at = valueEnd + 1;
    }
    return values;
  }

 private:
  static constexpr char kNameEnd = '\x1f';
  static constexpr char kValueEnd = '\x1e';
  std::map<std::string, std::string> m_values;
};

}  // namespace qel::test
