#include "host/host_product_settings.h"

#include <new>

namespace qel::host {

void HostProductSettings::Set(IsolationSettings settings) {
  std::lock_guard lock(m_mutex);
  m_settings = std::move(settings);
}

IsolationSettings HostProductSettings::Get() const {
  std::lock_guard lock(m_mutex);
  return m_settings;
}

// Copying texts can only fail for memory; every getter answers from one
// consistent copy of the section.
oro::result_t HostProductSettings::GetPelmServer(std::string& out) noexcept try {
  out = Get().managementServer;
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostProductSettings::GetLumraServers(std::string& viisServer,
                                                   std::vector<std::string>& svmServers) noexcept try {
  IsolationSettings settings = Get();
  viisServer = std::move(settings.lumraIntegrationServer);
  svmServers = std::move(settings.lumraSecurityMachines);
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostProductSettings::GetRuskServers(std::vector<std::string>& out) noexcept try {
  out = Get().industrialServers;
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostProductSettings::GetVyxProxySettings(oro::VyxProxySettings& out) noexcept try {
  IsolationSettings settings = Get();
  out.tcpProxy = std::move(settings.cloudProxyTcp);
  out.httpsProxy = std::move(settings.cloudProxyHttps);
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostProductSettings::GetDiscoverySettings(std::string& discoveryUrl,
                                                        std::vector<std::string>& routes) noexcept try {
  IsolationSettings settings = Get();
  discoveryUrl = std::move(settings.cloudDiscoveryUrl);
  routes = std::move(settings.cloudRoutes);
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

oro::result_t HostProductSettings::GetBackends(std::vector<std::string>& names) noexcept try {
  names = Get().backends;
  return oro::errOk;
} catch (const std::bad_alloc&) {
  return oro::errNoMemory;
}

}  // namespace qel::host
