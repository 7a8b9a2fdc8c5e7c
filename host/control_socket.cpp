#include "host/control_socket.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "host/private_directory.h"

namespace qel::host {
namespace {

constexpr int kBacklog = 16;

std::string ErrnoText(int error) { return std::strerror(error); }

std::string DirectoryOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// Empty when nothing is left at `path` that would stop a bind, else why not.
std::string RemoveStaleSocket(const std::string& path) {
  struct stat st{};
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT ? "" : path + ": " + ErrnoText(errno);
  if (!S_ISSOCK(st.st_mode)) return path + " exists and is not a socket; not replacing it";
  tools::UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!probe) return "socket: " + ErrnoText(errno);
  const sockaddr_un address = AddressOf(path);
  if (::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return path + ": another host is already listening there";
  }
  // Nobody accepts on it: its host is gone without removing it.
  if (errno != ECONNREFUSED) return path + ": " + ErrnoText(errno);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return "cannot remove the stale " + path + ": " + ErrnoText(errno);
  return "";
}

}  // namespace

Outcome<ControlSocket> ControlSocket::Open(const std::string& path) {
  using Failed = Outcome<ControlSocket>;
  if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path)) {
    return Failed::Error("control socket path '" + path + "': empty or longer than " +
                         std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes");
  }
  const std::string requirement =
      "lets others in; the control socket needs one of mode 0700 owned by user " + std::to_string(::geteuid());
  if (auto problem = PreparePrivateDirectory(DirectoryOf(path), "the directory", 077, requirement); !problem.empty()) {
    return Failed::Error(problem);
  }
  if (auto problem = RemoveStaleSocket(path); !problem.empty()) return Failed::Error(problem);

  tools::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return Failed::Error("socket: " + ErrnoText(errno));
  const sockaddr_un address = AddressOf(path);
  if (::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return Failed::Error("cannot bind " + path + ": " + ErrnoText(errno));
  }
  // Bound with the umask's mode; the directory keeps others out until this.
  struct stat st{};
  if (::chmod(path.c_str(), 0600) != 0 || ::stat(path.c_str(), &st) != 0 || ::listen(fd.Get(), kBacklog) != 0) {
    const int error = errno;
    ::unlink(path.c_str());
    return Failed::Error(path + ": " + ErrnoText(error));
  }
  return ControlSocket(std::move(fd), path, st.st_dev, st.st_ino);
}

ControlSocket::ControlSocket(tools::UniqueFd fd, std::string path, dev_t device, ino_t inode) noexcept
    : m_fd(std::move(fd)), m_path(std::move(path)), m_device(device), m_inode(inode) {}

ControlSocket::ControlSocket(ControlSocket&& other) noexcept
    : m_fd(std::move(other.m_fd)),
      m_path(std::move(other.m_path)),
      m_device(std::exchange(other.m_device, 0)),
      m_inode(std::exchange(other.m_inode, 0)) {
  other.m_path.clear();
}

ControlSocket::~ControlSocket() {
  if (!m_fd) return;
  struct stat st{};
  if (::lstat(m_path.c_str(), &st) == 0 && st.st_dev == m_device && st.st_ino == m_inode) ::unlink(m_path.c_str());
}

}  // namespace qel::host
