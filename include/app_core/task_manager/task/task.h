// The host task manager's view of a task, and the sink a task reports its
// end to.
#pragma once

#include <cstdint>

#include "orn/iobject.h"
#include "orn/types.h"

namespace app_core::task_manager::task {

using TaskSessionId = std::uint32_t;

struct TaskStopInfo {
  orn::result_t result = 0;
  orn::types::string16_t reason;
};

// Interface id chosen by this project. Called from any thread; must not
// call back into the task synchronously.
class ITaskStopEvents : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x64A1C0E3);
  virtual orn::result_t OnTaskStopped(const TaskStopInfo& info) = 0;

 protected:
  ~ITaskStopEvents() = default;
};

class ITask : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0xA47BF9AF);
  // `stopEvents` is not owned; it must outlive the task's Stop.
  virtual orn::result_t Start(TaskSessionId sessionId, ITaskStopEvents* stopEvents) = 0;
  virtual orn::result_t Stop() = 0;
  virtual orn::result_t Pause() = 0;
  virtual orn::result_t Resume() = 0;

 protected:
  ~ITask() = default;
};

}  // namespace app_core::task_manager::task
