#include "host/runtime/on_demand_run.h"

#include <poll.h>

#include "orn/text.h"
#include "pax/enumerations.h"
#include "pax/fim_tasks.h"

namespace arvo::host {
namespace {

bool Readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) > 0 && (p.revents & POLLIN);
}

}  // namespace

bool OnDemandMonitor::Create(const pax::settings::ODFIMSettings& settings, std::string& error) {
  if (ORN_FAILED(m_runtime.CreateTask(pax::fim::kOnDemandIntegrityMonitorTaskClsid, m_task, error)))
    return false;
  orn::RefPtr<pax::fim::IOnDemandIntegrityMonitorTaskConstruct> construct;
  orn::result_t r = orn::QueryInterface(m_task.Get(), construct);
  if (ORN_SUCCEEDED(r)) r = construct->Construct(&settings);
  if (ORN_FAILED(r)) {
    error = DescribeFailure("the on-demand monitor refused its settings", r);
    m_task.Reset();
    return false;
  }
  return true;
}

RunOutcome OnDemandMonitor::Run(app_core::task_manager::task::TaskSessionId sessionId,
                                SignalWatch& signals, const RunWait& wait) {
  RunOutcome outcome;
  const std::uint64_t issuesBefore =
      m_runtime.Events().Count(pax::event_type::kSystemIntegrityIssue);
  m_stopSink->Reset();
  if (const orn::result_t r = m_task->Start(sessionId, m_stopSink.Get()); ORN_FAILED(r)) {
    outcome.result = r;
    outcome.reason = "cannot start the on-demand monitor";
    // A failed Start may leave the task started without a run; Stop puts it
    // back to stopped (and answers "not started" when it already is).
    (void)m_task->Stop();
    return outcome;
  }
  // Without an eventfd (never expected) the report is polled for.
  const bool ticking = wait.tick && wait.tickMs >= 0;
  const int timeout = ticking ? wait.tickMs : (m_stopSink->ReadyFd() < 0 ? 100 : -1);
  while (!m_stopSink->Report()) {
    const int signal = signals.Wait({m_stopSink->ReadyFd(), wait.stopFd}, timeout);
    if (signal && (!wait.onSignal || wait.onSignal(signal))) {
      outcome.signal = signal;
      break;
    }
    if (wait.stopFd >= 0 && Readable(wait.stopFd)) {
      outcome.stoppedByFd = true;
      break;
    }
    if (ticking) wait.tick();
  }
  // After a signal Stop raises the task's stop flag and waits for the run to
  // end; either way the task goes back to stopped here.
  const orn::result_t stopped = m_task->Stop();
  const auto report = m_stopSink->Report();
  outcome.issues = m_runtime.Events().Count(pax::event_type::kSystemIntegrityIssue) - issuesBefore;
  if (!report) {
    outcome.result = ORN_FAILED(stopped) ? stopped : orn::errors::kUnexpected;
    outcome.reason = "the task ended without a stop report";
    return outcome;
  }
  outcome.result = report->result;
  outcome.reason = orn::text::WideToNarrow(report->reason);
  if (ORN_FAILED(report->result)) {
    outcome.kind = RunOutcome::Kind::kFailed;
  } else if (report->result == orn::errors::kFalse) {
    outcome.kind = RunOutcome::Kind::kInterrupted;
  } else {
    outcome.kind = RunOutcome::Kind::kCompleted;
  }
  return outcome;
}

}  // namespace arvo::host
