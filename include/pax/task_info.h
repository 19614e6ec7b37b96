// The host's task information service.
#pragma once

#include <cstdint>

#include "app_core/task_manager/task/task.h"
#include "orn/iobject.h"
#include "orn/types.h"

namespace pax::core {
using TaskId = std::uint64_t;
}  // namespace pax::core

namespace pax {

struct TaskInfo {
  core::TaskId taskId = 0;             // names the task's rows in the database
  std::uint64_t runtimeTaskId = 0;     // the host's runtime identifier
  orn::types::string16_t displayName;  // empty when none is set
  orn::types::string16_t defaultName;
};

// Interface id chosen by this project. Thread-safe.
class ITaskInfoProvider : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x71A5C1F0);
  virtual orn::result_t GetTaskInfoByTaskSessionId(
      app_core::task_manager::task::TaskSessionId sessionId, TaskInfo& info) = 0;

 protected:
  ~ITaskInfoProvider() = default;
};

}  // namespace pax
