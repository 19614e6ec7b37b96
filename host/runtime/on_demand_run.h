// The on-demand monitor driven the way a host task manager drives it: one
// task object, and per run Start -> wait for the stop report -> Stop.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "app_core/task_manager/task/task.h"
#include "host/runtime/host_runtime.h"
#include "host/runtime/signal_watch.h"
#include "host/services/stop_sink.h"
#include "orn/ref_ptr.h"
#include "pax/settings/fim_settings.h"

namespace arvo::host {

struct RunOutcome {
  enum class Kind {
    kCompleted,    // the task reported success
    kFailed,       // Start failed, or the task reported a failure
    kInterrupted,  // a signal arrived and the task reported "interrupted" (result 1)
  };
  Kind kind = Kind::kFailed;
  orn::result_t result = 0;  // the task's (or Start's) result
  std::string reason;        // the task's reason text (narrow)
  std::uint64_t issues = 0;  // "SystemIntegrityIssue" events of this run
  int signal = 0;            // the signal that stopped the run, or 0
  bool stoppedByFd = false;  // RunWait::stopFd became readable
};

// How a run waits for its end.
struct RunWait {
  std::function<void()> tick;  // called every `tickMs` while waiting, when both are set
  int tickMs = -1;
  // Called for each signal; returns true when the run must stop. Unset:
  // every signal stops the run.
  std::function<bool(int)> onSignal;
  int stopFd = -1;  // readable: stop the run (its events can no longer be written)
};

// Used by one thread. The runtime must outlive the monitor.
class OnDemandMonitor {
 public:
  explicit OnDemandMonitor(const HostRuntime& runtime) : m_runtime(runtime) {}
  OnDemandMonitor(const OnDemandMonitor&) = delete;
  OnDemandMonitor& operator=(const OnDemandMonitor&) = delete;

  // Creates the task and hands it its settings.
  bool Create(const pax::settings::ODFIMSettings& settings, std::string& error);

  // Hands the task new settings for its next run. Must not be called while
  // a run is going on (the task would block until the run ends).
  bool SetSettings(const pax::settings::ODFIMSettings& settings, std::string& error);

  // One run under `sessionId`. Waits for the stop report, or for a signal of
  // `signals` or `wait.stopFd` that stops the run (then asks the task to
  // stop and waits for its report). A Start that fails is followed by Stop,
  // so that the task takes the next Start.
  RunOutcome Run(app_core::task_manager::task::TaskSessionId sessionId, SignalWatch& signals,
                 const RunWait& wait = {});

  // The same run in steps, for callers with a poll loop of their own:
  // Begin starts it (false: it did not start, `failed` says why, and the
  // task is stopped again); the run
  // has ended once Ended() is true (ReadyFd() becomes readable then);
  // Finish stops the task (interrupting a run still going on) and returns
  // the outcome.
  bool Begin(app_core::task_manager::task::TaskSessionId sessionId, RunOutcome& failed);
  int ReadyFd() const { return m_stopSink->ReadyFd(); }
  bool Ended() const { return m_stopSink->Report().has_value(); }
  RunOutcome Finish();

  // Releases the task (its last reference).
  void Release() { m_task.Reset(); }

 private:
  const HostRuntime& m_runtime;
  orn::RefPtr<app_core::task_manager::task::ITask> m_task;
  orn::RefPtr<StopSink> m_stopSink = orn::MakeSimple<StopSink>();
  std::uint64_t m_issuesBefore = 0;  // issue events counted when the run began
};

}  // namespace arvo::host
