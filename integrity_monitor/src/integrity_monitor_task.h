// The on-access file integrity monitor task ("OAFIM").
//
// While started it holds one inotify subscription per scan area at the
// host's IInotifyEventsProvider; the notifications arrive at its companion
// receiver (IntegrityMonitorCallbacks) on the provider's thread, which
// filters them through a path matcher built from the settings and reports
// each change in scope.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "app_core/task_manager/task/task.h"
#include "framework/object.h"
#include "framework/service.h"
#include "integrity_monitor_callbacks.h"
#include "orn/ref_ptr.h"
#include "orn/service_locator.h"
#include "pax/enumerations.h"
#include "pax/fim_tasks.h"
#include "pax/inotify.h"
#include "pax/path_matcher.h"
#include "pax/settings/fim_settings.h"

namespace pax::fim {

// Thread-safety: every host-facing operation except Pause, Resume,
// FinalConstruct and FinalRelease holds m_mutex for its whole body.
// Notifications reach the callbacks object on the provider's thread without
// m_mutex. Lock order: m_mutex, then the callbacks' mutex (taken inside
// UpdateSettings); the callbacks never call into the task.
class IntegrityMonitorTask : public app_core::task_manager::task::ITask,
                             public IIntegrityMonitorTaskConstruct,
                             public IIntegrityMonitorTaskSettings,
                             public orn::AllocatorProvider,
                             public orn::TracerProvider,
                             public orn::ServiceLocatorProvider,
                             private orn::NonCopyable {
 public:
  using Interfaces = orn::Ifaces<app_core::task_manager::task::ITask,
                                 IIntegrityMonitorTaskConstruct, IIntegrityMonitorTaskSettings>;

  // Takes the allocator and the tracer from `locator`; throws when either is
  // missing (no tracer, no task).
  explicit IntegrityMonitorTask(orn::IServiceLocator* locator);

  // Looks up the inotify provider and both publishers and creates the
  // callbacks object; the failing lookup's result otherwise.
  result_t FinalConstruct();
  // Leaves subscriptions alone: the host calls Stop first.
  void FinalRelease();

  // ITask. The session identifier is not used. `stopEvents` is told when a
  // started task stops.
  result_t Start(app_core::task_manager::task::TaskSessionId sessionId,
                 app_core::task_manager::task::ITaskStopEvents* stopEvents) override;
  result_t Stop() override;
  // Not supported by this task: errors::kNotImplemented in every state.
  result_t Pause() override;
  result_t Resume() override;

  // As SetSettings.
  result_t Construct(const settings::OAFIMSettings* settings) override;
  result_t GetSettings(settings::OAFIMSettings* settings) override;
  // Stores the settings, rebuilds the matcher, refreshes the callbacks and,
  // when started, resubscribes. A matcher failure keeps the new settings
  // with the old matcher in force.
  result_t SetSettings(const settings::OAFIMSettings* settings) override;

  // Tells the stop sink, if one is set, how the task stopped.
  void NotifyTaskStop(result_t result, const std::string& reason);

  // Each requires m_mutex.
  result_t CreateMatcher();
  // One subscription per scan area; on any failure drops those made so far
  // and returns errors::kUnspecified.
  result_t Subscribe();
  // Drops every subscription of the callbacks object.
  result_t Unsubscribe();

 private:
  std::uint32_t m_eventMask = kOnAccessEventMask;
  orn::RefPtr<IInotifyEventsProvider> m_eventsProvider;
  // Reserved reference slot; never set by this class.
  orn::RefPtr<orn::IObject> m_reserved;
  orn::RefPtr<IntegrityMonitorCallbacks> m_callbacks;
  std::recursive_mutex m_mutex;
  // Guarded by m_mutex.
  TaskState m_state = TaskState::kStopped;
  settings::OAFIMSettings m_settings;
  app_core::task_manager::task::ITaskStopEvents* m_stopEvents = nullptr;  // not owned
  orn::RefPtr<IPathMatcher> m_matcher;
};

}  // namespace pax::fim
