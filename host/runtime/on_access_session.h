// The on-access monitor driven the way a host task manager drives it:
// factory -> CreateInstance(ITask) -> Construct(settings) -> Start ... Stop.
#pragma once

#include <cstddef>
#include <string>

#include "app_core/task_manager/task/task.h"
#include "host/output/detection_printer.h"
#include "host/runtime/host_runtime.h"
#include "host/services/stop_sink.h"
#include "orn/ref_ptr.h"
#include "pax/integrity_monitor_publisher.h"
#include "pax/settings/fim_settings.h"

namespace arvo::host {

// Used by one thread. The runtime must outlive the session.
class OnAccessSession {
 public:
  OnAccessSession() = default;
  OnAccessSession(const OnAccessSession&) = delete;
  OnAccessSession& operator=(const OnAccessSession&) = delete;
  // Stops a started task (errors are reported on stderr) and releases it.
  ~OnAccessSession();

  // Creates, constructs and starts the task with the enabled areas of
  // `settings` (a disabled area is not watched and need not exist). With
  // `detections`, a printer subscribed to the publisher service prints each
  // detect event. On failure returns false, describes it in `error` and
  // leaves nothing running.
  bool Start(const HostRuntime& runtime, const pax::settings::OAFIMSettings& settings,
             bool detections, std::string& error);
  // Hands the started task new settings; it watches the new set of areas
  // from then on (the task re-subscribes its areas). On failure the task
  // keeps running and `error` says why.
  bool SetSettings(const pax::settings::OAFIMSettings& settings, std::string& error);
  // Stops the task, drops the detection printer and releases the task.
  bool Stop(std::string& error);
  // Areas the started task watches: the enabled ones of its settings.
  std::size_t WatchedAreas() const { return m_watchedAreas; }

 private:
  void DropPrinter();

  orn::RefPtr<app_core::task_manager::task::ITask> m_task;
  orn::RefPtr<StopSink> m_stopSink;
  orn::RefPtr<mdr::agent::IFileIntegrityMonitorDetectEventSubscription> m_subscription;
  orn::RefPtr<DetectionPrinter> m_printer;
  bool m_started = false;
  std::size_t m_watchedAreas = 0;
};

}  // namespace arvo::host
