#include "host/services/stop_sink.h"

#include <sys/eventfd.h>

#include <cstdint>

namespace arvo::host {

using app_core::task_manager::task::TaskStopInfo;

StopSink::StopSink() : m_ready(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

orn::result_t StopSink::OnTaskStopped(const TaskStopInfo& info) {
  {
    std::lock_guard lock(m_mutex);
    m_report = info;
  }
  m_changed.notify_all();
  if (m_ready.Valid()) {
    const std::uint64_t one = 1;
    (void)WriteAll(m_ready.Get(), &one, sizeof one);
  }
  return orn::errors::kOk;
}

std::optional<TaskStopInfo> StopSink::Report() const {
  std::lock_guard lock(m_mutex);
  return m_report;
}

TaskStopInfo StopSink::Wait() const {
  std::unique_lock lock(m_mutex);
  m_changed.wait(lock, [&] { return m_report.has_value(); });
  return *m_report;
}

void StopSink::Reset() {
  std::lock_guard lock(m_mutex);
  m_report.reset();
  if (m_ready.Valid()) {
    std::uint64_t count = 0;
    // Drains the counter; EAGAIN when nothing was pending is fine.
    (void)!::read(m_ready.Get(), &count, sizeof count);
  }
}

}  // namespace arvo::host
