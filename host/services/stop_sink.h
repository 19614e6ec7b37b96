// The host's receiver of a task's stop report.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>

#include "app_core/task_manager/task/task.h"
#include "host/util/scoped_fd.h"
#include "orn/ref_ptr.h"
#include "orn/simple_object.h"

namespace arvo::host {

// Records the result and reason of the latest report and wakes whoever
// waits: threads through Wait(), poll loops through ReadyFd(). Thread-safe.
// OnTaskStopped never calls back into the task.
class StopSink final : public orn::SimpleObject<app_core::task_manager::task::ITaskStopEvents> {
 public:
  StopSink();

  orn::result_t OnTaskStopped(const app_core::task_manager::task::TaskStopInfo& info) override;

  // The latest report, if one arrived since construction or Reset.
  std::optional<app_core::task_manager::task::TaskStopInfo> Report() const;
  // Blocks until a report arrives; returns it.
  app_core::task_manager::task::TaskStopInfo Wait() const;
  // Readable (an eventfd) once a report arrived; -1 if it could not be made,
  // in which case pollers fall back to Report() on their own schedule.
  int ReadyFd() const { return m_ready.Get(); }
  // Forgets the report (before the next Start of the same task).
  void Reset();

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  std::optional<app_core::task_manager::task::TaskStopInfo> m_report;  // guarded by m_mutex
  ScopedFd m_ready;
};

}  // namespace arvo::host
