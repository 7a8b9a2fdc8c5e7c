// The host's answer to which kind of virtualisation-mode host it is, from
// the settings file's optional [lumra] section.
#pragma once

#include <string>

#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class LumraHostType final : public ObjectImpl<LumraHostType, firewall::ILumraHostType> {
 public:
  explicit LumraHostType(std::string hostType) : m_hostType(std::move(hostType)) {}

  oro::result_t GetHostType(std::string& out) noexcept override {
    try {
      out = m_hostType;
      return oro::errOk;
    } catch (...) {
      return oro::errNoMemory;
    }
  }

 private:
  const std::string m_hostType;
};

}  // namespace qel::host
