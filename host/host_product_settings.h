// Where the product's servers are and which isolation backends may be
// tried, as the [isolation] section of the settings file says: the product
// services the isolation manager asks when it collects its built-in
// exclusions. A SIGHUP hands in the section anew; the manager reads it the
// next time it collects.
#pragma once

#include <mutex>

#include "firewall/isolation_interfaces.h"
#include "host/isolation_settings.h"
#include "oro/product_services.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class HostProductSettings final
    : public ObjectImpl<HostProductSettings, oro::IProductSettings, oro::IPolicyManager, oro::IVyxSettings,
                        firewall::INetworkIsolationSettings> {
 public:
  explicit HostProductSettings(IsolationSettings settings) : m_settings(std::move(settings)) {}

  void Set(IsolationSettings settings);
  IsolationSettings Get() const;

  oro::result_t GetPelmServer(std::string& out) noexcept override;
  oro::result_t GetLumraServers(std::string& viisServer, std::vector<std::string>& svmServers) noexcept override;
  oro::result_t GetRuskServers(std::vector<std::string>& out) noexcept override;
  oro::result_t GetVyxProxySettings(oro::VyxProxySettings& out) noexcept override;
  oro::result_t GetDiscoverySettings(std::string& discoveryUrl, std::vector<std::string>& routes) noexcept override;
  oro::result_t GetBackends(std::vector<std::string>& names) noexcept override;

 private:
  mutable std::mutex m_mutex;
  IsolationSettings m_settings;
};

}  // namespace qel::host
