#include "firewall/executable_file_lookup.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <climits>
#include <cstdlib>

namespace qel::firewall {

std::optional<std::string> ExecutableFileLookup::Canonical(const std::string& path) const {
  char resolved[PATH_MAX];
  if (!::realpath(path.c_str(), resolved)) return std::nullopt;
  return std::string(resolved);
}

std::optional<ebpf::IsolationAppKey> ExecutableFileLookup::Identity(const std::string& canonicalPath) const {
  struct stat status {};
  if (::stat(canonicalPath.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  ebpf::IsolationAppKey key{};
  key.inode = status.st_ino;
  // The kernel's own dev_t layout, which is what a task's executable carries
  // (user space's st_dev encodes major and minor differently).
  key.device = (major(status.st_dev) << 20) | minor(status.st_dev);
  return key;
}

}  // namespace qel::firewall
