// The listening end of the host's control socket: a Unix stream socket,
// mode 0600, in a directory of mode 0700, both the host's (root's) own.
#pragma once

#include <sys/types.h>

#include <string>

#include "host/outcome.h"
#include "qel_common/unique_fd.h"

namespace qel::host {

inline constexpr const char* kDefaultControlPath = "/run/firewall-host/control.sock";

class ControlSocket {
 public:
  // Makes the directory when it is missing (one level); an existing one must
  // be a directory of the host's user that nobody else may enter. A socket
  // left at `path` by a host that was killed is replaced; one that a live
  // host listens on, or a file that is not a socket, is an error naming the
  // path.
  static Outcome<ControlSocket> Open(const std::string& path);

  ControlSocket(ControlSocket&& other) noexcept;
  ControlSocket& operator=(ControlSocket&&) = delete;
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  // Removes the socket file, unless another host has put its own there since.
  ~ControlSocket();

  int Fd() const noexcept { return m_fd.Get(); }
  const std::string& Path() const noexcept { return m_path; }

 private:
  ControlSocket(tools::UniqueFd fd, std::string path, dev_t device, ino_t inode) noexcept;

  tools::UniqueFd m_fd;  // listening, non-blocking
  std::string m_path;
  dev_t m_device = 0;
  ino_t m_inode = 0;
};

}  // namespace qel::host
