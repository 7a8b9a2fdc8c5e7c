// An event that a thread waiting in poll can see: its descriptor becomes
// readable once notified, and stays so until drained. It lets one thread
// tell another, blocked on other descriptors too, to stop.
#pragma once

#include "oro/result.h"
#include "qel_common/unique_fd.h"

namespace qel::tools {

class DescriptorNotifier {
 public:
  // The eventfd, opened close-on-exec; errno's code when it cannot be.
  static oro::result_t Create(DescriptorNotifier& out) noexcept;

  // Makes the descriptor readable.
  oro::result_t Notify() noexcept;
  // Takes the pending notifications (an 8-byte read); errno's code when
  // there were none (EAGAIN) or the read failed.
  oro::result_t Drain() noexcept;

  // For poll, POLLIN.
  int Fd() const noexcept { return m_fd.Get(); }

 private:
  UniqueFd m_fd;
};

}  // namespace qel::tools
