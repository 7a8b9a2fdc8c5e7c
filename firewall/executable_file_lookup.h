// Executables of application exclusions as the file system knows them: the
// canonical path, and the inode and device that the kernel records for a
// task's executable.
#pragma once

#include "firewall/ebpf/isolation_policy.h"

namespace qel::firewall {

class ExecutableFileLookup final : public ebpf::IExecutableLookup {
 public:
  std::optional<std::string> Canonical(const std::string& path) const override;
  std::optional<ebpf::IsolationAppKey> Identity(const std::string& canonicalPath) const override;
};

}  // namespace qel::firewall
