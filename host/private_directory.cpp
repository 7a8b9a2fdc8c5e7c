#include "host/private_directory.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace qel::host {
namespace {

std::string ErrnoText(int error) { return std::strerror(error); }

std::string Octal(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

}  // namespace

std::string PreparePrivateDirectory(const std::string& directory, const std::string& name, mode_t forbidden,
                                    const std::string& requirement) {
  const std::string named = name + " " + directory;
  if (::mkdir(directory.c_str(), 0700) == 0) {
    // mkdir's mode passes through the umask; say it once more.
    if (::chmod(directory.c_str(), 0700) != 0) return directory + ": " + ErrnoText(errno);
  } else if (errno != EEXIST) {
    return "cannot create " + named + ": " + ErrnoText(errno);
  }
  struct stat st{};
  if (::stat(directory.c_str(), &st) != 0) return directory + ": " + ErrnoText(errno);
  if (!S_ISDIR(st.st_mode)) return named + " is not a directory";
  if (st.st_uid != ::geteuid() || (st.st_mode & forbidden) != 0) {
    return named + " (mode " + Octal(st.st_mode) + ", owner " + std::to_string(st.st_uid) + ") " + requirement;
  }
  return "";
}

}  // namespace qel::host
