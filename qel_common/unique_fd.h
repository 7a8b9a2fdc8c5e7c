// Sole owner of a file descriptor: closes it when it goes out of scope.
#pragma once

#include <unistd.h>

#include <utility>

namespace qel::tools {

class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  // Takes over `fd`; -1 means none. Open it with O_CLOEXEC (SOCK_CLOEXEC):
  // the module spawns tools and must not leak descriptors into them.
  explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }

  int Get() const noexcept { return m_fd; }
  bool Valid() const noexcept { return m_fd >= 0; }
  explicit operator bool() const noexcept { return Valid(); }

  // Gives up ownership without closing.
  int Release() noexcept { return std::exchange(m_fd, -1); }
  void Reset(int fd = -1) noexcept {
    if (const int old = std::exchange(m_fd, fd); old >= 0) ::close(old);
  }

 private:
  int m_fd = -1;
};

}  // namespace qel::tools
