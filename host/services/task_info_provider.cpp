#include "host/services/task_info_provider.h"

#include <new>

#include "framework/exceptions.h"
#include "orn/simple_object.h"

namespace arvo::host {
namespace {

class TaskInfoProvider final : public orn::SimpleObject<pax::ITaskInfoProvider> {
 public:
  explicit TaskInfoProvider(pax::TaskInfo info) : m_info(std::move(info)) {}

  orn::result_t GetTaskInfoByTaskSessionId(app_core::task_manager::task::TaskSessionId,
                                           pax::TaskInfo& info) override {
    try {
      info = m_info;
      return orn::errors::kOk;
    } catch (...) {
      return orn::ExceptionToResult(nullptr, "task_info\t");
    }
  }

 private:
  const pax::TaskInfo m_info;
};

}  // namespace

orn::result_t CreateTaskInfoProvider(const pax::TaskInfo& info,
                                     orn::RefPtr<pax::ITaskInfoProvider>& out) {
  try {
    out = orn::MakeSimple<TaskInfoProvider>(info);
    return orn::errors::kOk;
  } catch (...) {
    return orn::ExceptionToResult(nullptr, "task_info\t");
  }
}

}  // namespace arvo::host
