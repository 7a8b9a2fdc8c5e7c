// One network interface handed out by the provider: its snapshot, and the
// questions that its directory in sysfs answers.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "firewall/interface_snapshot.h"
#include "firewall/network_interface_interfaces.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class NetworkInterfaceItf final : public ObjectImpl<NetworkInterfaceItf, INetworkInterface> {
 public:
  // `sysfsRoot` holds a directory per interface, as /sys/class/net does.
  NetworkInterfaceItf(tracing::Tracer tracer, std::filesystem::path sysfsRoot, InterfaceSnapshot snapshot);

  const InterfaceSnapshot& Snapshot() const noexcept { return m_snapshot; }

  // INetworkInterface
  std::uint32_t GetIndex() const noexcept override;
  const char* GetName() const noexcept override;
  bool IsEnabled() const noexcept override;
  oro::result_t IsPhysical() const noexcept override;
  oro::result_t GetLowerInterfaces(std::vector<std::string>& names) const noexcept override;
  oro::result_t GetUpperInterfaces(std::vector<std::string>& names) const noexcept override;

 private:
  oro::result_t ListLinks(const std::string& prefix, std::vector<std::string>& names) const;

  tracing::Tracer m_tracer;
  std::filesystem::path m_directory;
  InterfaceSnapshot m_snapshot;
};

}  // namespace qel::firewall
