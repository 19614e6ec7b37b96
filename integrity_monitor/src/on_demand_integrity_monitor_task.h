// The on-demand file integrity monitor task ("ODFIM").
//
// Each Start performs one complete scan on a worker thread of its own
// ("arvoIntMonTask"): for every configured scan area it builds a baseline or
// a current snapshot and compares them (area_snapshot_builder.h), then drops
// the scan scopes no longer configured and saves the settings it used
// (settings_history.h), and reports the outcome to the stop-events sink
// given to Start: "Task is completed" (0), "Task is interrupted" (1, after
// Stop) or "Task is completed with error" (a failure code).
//
// States (pax::TaskState): Stopped -> Start -> Started; Started -> Pause ->
// Pausing -> Suspended; Suspended -> Resume -> Resuming -> Started;
// Started -> Stop -> Stopped. Every other call is refused with
// errors::kInvalidState and changes nothing. The end of a run does not
// change the state: the task stays Started until the host calls Stop.
//
// Thread-safety: the task lock (recursive) guards the settings, the sink,
// the thread record and everything the run uses; the run holds it from its
// start to its end, so GetSettings, SetSettings, Start and Stop wait for a
// running scan. Stop raises the stop flag before it takes the lock, which
// ends a running walk early. Pause and Resume never take the task lock: they
// switch the atomic state word and wait at the pause gate, which the walk
// passes before each scope lookup and each directory entry. There are no
// time-outs: Pause blocks until the worker reaches a checkpoint (forever,
// if the run has already ended).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "app_core/task_manager/task/task.h"
#include "filesystem_services/sha256.h"
#include "framework/object.h"
#include "framework/service.h"
#include "integrity_database.h"
#include "on_demand_context.h"
#include "orn/file.h"
#include "orn/persistent_storage.h"
#include "orn/ref_ptr.h"
#include "orn/service_locator.h"
#include "orn/types.h"
#include "pause_gate.h"
#include "pax/fim_tasks.h"
#include "pax/integrity_monitor_publisher.h"
#include "pax/path_matcher.h"
#include "pax/product_event.h"
#include "pax/settings/fim_settings.h"
#include "pax/task_info.h"
#include "worker_thread.h"

namespace pax::fim {

class FailureActions;

class OnDemandIntegrityMonitorTask : public app_core::task_manager::task::ITask,
                                     public IOnDemandIntegrityMonitorTaskConstruct,
                                     public IOnDemandIntegrityMonitorTaskSettings,
                                     public orn::AllocatorProvider,
                                     public orn::TracerProvider,
                                     public orn::ServiceLocatorProvider,
                                     private orn::NonCopyable {
 public:
  using Interfaces =
      orn::Ifaces<app_core::task_manager::task::ITask, IOnDemandIntegrityMonitorTaskConstruct,
                  IOnDemandIntegrityMonitorTaskSettings>;

  // Takes the allocator and the tracer from `locator`; throws
  // orn::GetInterfaceException when either is missing.
  explicit OnDemandIntegrityMonitorTask(orn::IServiceLocator* locator);
  ~OnDemandIntegrityMonitorTask();

  // Opens and initialises the database, then looks up the event publisher,
  // the publisher service, the SHA-256 provider, the file factory, the
  // persistent storage, the serializer and creates the path matcher, in
  // that order; the first failure is traced and returned.
  result_t FinalConstruct();
  // Stops a running scan (raising the stop flag and opening the pause gate)
  // and joins the worker.
  void FinalRelease();

  // ITask. `stopEvents` (not owned) must outlive Stop.
  virtual result_t Start(app_core::task_manager::task::TaskSessionId sessionId,
                         app_core::task_manager::task::ITaskStopEvents* stopEvents) override;
  virtual result_t Stop() override;
  virtual result_t Pause() override;
  virtual result_t Resume() override;

  // As SetSettings.
  virtual result_t Construct(const settings::ODFIMSettings* settings) override;
  virtual result_t GetSettings(settings::ODFIMSettings* settings) override;
  // Replaces the settings and rebuilds the path matcher. A matcher failure
  // is returned with the new settings in place and the old matcher in force.
  virtual result_t SetSettings(const settings::ODFIMSettings* settings) override;

 private:
  // The worker thread's body: one scan. Its value is not observed.
  std::uint32_t Run();
  result_t RunSteps(FailureActions& actions);
  void NotifyTaskStop(result_t result, const orn::types::string16_t& reason);
  // Requires the task lock.
  result_t CreateMatcher();

  std::recursive_mutex m_mutex;  // the task lock
  // Guarded by m_mutex.
  app_core::task_manager::task::ITaskStopEvents* m_stopEvents = nullptr;
  std::atomic<app_core::task_manager::task::TaskSessionId> m_sessionId{0};
  std::atomic<std::uint32_t> m_state;
  settings::ODFIMSettings m_settings;  // guarded by m_mutex
  WorkerThread m_thread;               // guarded by m_mutex
  std::atomic<std::uint8_t> m_stopFlag{0};
  PauseGate m_pauseGate;
  TaskInfo m_taskInfo;  // filled by each run
  std::optional<IntegrityDatabase> m_database;
  orn::RefPtr<IEventPublisher> m_eventPublisher;
  orn::RefPtr<IIntegrityMonitorPublisher> m_integrityMonitorPublisher;
  orn::RefPtr<filesystem_services::ISha256HashProvider> m_sha256Provider;
  orn::RefPtr<orn::IFileFactory> m_fileFactory;
  orn::RefPtr<orn::IFileFactoryAt> m_fileFactoryAt;  // null when the host lacks it
  orn::RefPtr<orn::IPersistentStorage> m_storage;
  orn::RefPtr<orn::IStorageSerializer2> m_serializer2;
  orn::RefPtr<IPathMatcher> m_matcher;
  // What the run's components see; points into the members above.
  OnDemandContext m_context;
};

}  // namespace pax::fim
