// Notifications the host sends to its long-lived services.
#pragma once

#include "oro/object.h"

namespace oro {

struct IServiceShutdown : IObject {
  static constexpr iid_t iid = iid::IServiceShutdown;
  // The host is shutting down: from now on the service changes nothing; it
  // cleans up when its last reference goes.
  virtual result_t OnShutdown() noexcept = 0;
};

}  // namespace oro
