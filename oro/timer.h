// The framework's timer: runs jobs on its own thread.
#pragma once

#include <cstdint>

#include "oro/object.h"

namespace oro {

struct IRunnable : IObject {
  static constexpr iid_t iid = iid::IRunnable;
  virtual result_t Run() noexcept = 0;
};

struct ITimer : IObject {
  static constexpr iid_t iid = iid::ITimer;
  // Runs `job` every `intervalMs` milliseconds, first after one interval.
  // The timer holds a reference to the job while it is armed.
  virtual result_t SetRepeated(IRunnable* job, std::uint32_t intervalMs) noexcept = 0;
  // Disarms `job` and waits for a run in progress to finish. A job that is
  // not armed is no error.
  virtual result_t CancelAndWait(IRunnable* job) noexcept = 0;
};

}  // namespace oro
