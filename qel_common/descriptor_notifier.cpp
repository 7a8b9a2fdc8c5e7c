#include "qel_common/descriptor_notifier.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace qel::tools {

oro::result_t DescriptorNotifier::Create(DescriptorNotifier& out) noexcept {
  // Non-blocking: a drain with nothing pending must not hang the waiter.
  UniqueFd fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!fd) return oro::ResultFromErrno(errno);
  out.m_fd = std::move(fd);
  return oro::errOk;
}

oro::result_t DescriptorNotifier::Notify() noexcept {
  const std::uint64_t one = 1;
  ssize_t written;
  do {
    written = ::write(m_fd.Get(), &one, sizeof one);
  } while (written < 0 && errno == EINTR);
  return written == sizeof one ? oro::errOk : oro::ResultFromErrno(written < 0 ? errno : EIO);
}

oro::result_t DescriptorNotifier::Drain() noexcept {
  std::uint64_t count = 0;
  ssize_t got;
  do {
    got = ::read(m_fd.Get(), &count, sizeof count);
  } while (got < 0 && errno == EINTR);
  return got == sizeof count ? oro::errOk : oro::ResultFromErrno(got < 0 ? errno : EIO);
}

}  // namespace qel::tools
