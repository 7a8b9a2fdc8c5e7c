// The host's side of the virtualisation mode: the host type it names and,
// for tests, the exclusion data file to read instead of the shipped one.
#pragma once

#include <optional>
#include <string>

#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeLumraHost final : public ObjectImpl<FakeLumraHost, firewall::ILumraHostType, firewall::ILumraPortsFile> {
 public:
  // nullopt: the host is in no virtualisation mode, or reads the shipped file.
  FakeLumraHost(std::optional<std::string> hostType, std::optional<std::string> portsFile)
      : m_hostType(std::move(hostType)), m_portsFile(std::move(portsFile)) {}

  oro::result_t GetHostType(std::string& out) noexcept override { return Answer(m_hostType, out); }
  oro::result_t GetPortsFile(std::string& out) noexcept override { return Answer(m_portsFile, out); }

 private:
  static oro::result_t Answer(const std::optional<std::string>& value, std::string& out) {
    if (!value) return oro::errFalse;
    out = *value;
    return oro::errOk;
  }

  std::optional<std::string> m_hostType;
  std::optional<std::string> m_portsFile;
};

}  // namespace qel::test
