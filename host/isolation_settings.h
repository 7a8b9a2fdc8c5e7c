// The [isolation] section of the settings file: where the product's own
// servers are, which must stay reachable while the host is isolated, and
// which isolation backends the module may try. Servers are "HOST:PORT"
// ("[fd00::1]:443" for an IPv6 address); an empty text or list: none.
#pragma once

#include <string>
#include <vector>

namespace qel::host {

struct IsolationSettings {
  // The administration server that manages this host.
  std::string managementServer;
  // The targeted-attack analysis server's nodes.
  std::vector<std::string> tamberServers;
  // The desktop-virtualisation mode's integration server and its security
  // machines.
  std::string lumraIntegrationServer;
  std::vector<std::string> lumraSecurityMachines;
  // The cloud reputation network's proxies, its discovery URL
  // ("https://HOST:PORT/PATH") and the routes to its servers.
  std::string cloudProxyTcp;
  std::string cloudProxyHttps;
  std::string cloudDiscoveryUrl;
  std::vector<std::string> cloudRoutes;
  // The industrial-security product's servers.
  std::vector<std::string> industrialServers;
  // The backends the module may try, in its order of preference.
  std::vector<std::string> backends = {"ebpf", "iptables"};

  bool operator==(const IsolationSettings&) const = default;
};

}  // namespace qel::host
