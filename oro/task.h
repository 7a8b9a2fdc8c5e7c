// The host task manager's view of a task.
#pragma once

#include <cstdint>

#include "oro/object.h"

namespace oro {

using TaskSessionId = std::uint32_t;

namespace types {
// Only Started and Stopped are used by this module.
enum class TaskState : std::uint32_t {
  Started = 1,
  Stopped = 6,
};
}  // namespace types

// Completion record that a stopping task hands to its stop-events sink.
struct TaskCompletion {
  result_t result;
  const char* text;
};

struct ITaskStopEvents : IObject {
  static constexpr iid_t iid = iid::ITaskStopEvents;
  virtual void OnTaskCompleted(const TaskCompletion& completion) noexcept = 0;
};

struct ITask : IObject {
  static constexpr iid_t iid = iid::ITask;
  virtual result_t Start(TaskSessionId session, ITaskStopEvents* stopEvents) noexcept = 0;
  virtual result_t Stop() noexcept = 0;
  virtual result_t Pause() noexcept = 0;
  virtual result_t Resume() noexcept = 0;
};

}  // namespace oro
