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

bool OnDemandMonitor::SetSettings(const pax::settings::ODFIMSettings& settings,
                                  std::string& error) {
  orn::RefPtr<pax::fim::IOnDemandIntegrityMonitorTaskSettings> target;
  orn::result_t r = orn::QueryInterface(m_task.Get(), target);
  if (ORN_SUCCEEDED(r)) r = target->SetSettings(&settings);
  if (ORN_FAILED(r)) {
    error = DescribeFailure("the on-demand monitor refused its new settings", r);
    return false;
  }
  return true;
}

bool OnDemandMonitor::Begin(app_core::task_manager::task::TaskSessionId sessionId,
                            RunOutcome& failed) {
  m_issuesBefore = m_runtime.Events().Count(pax::event_type::kSystemIntegrityIssue);
  m_stopSink->Reset();
  if (const orn::result_t r = m_task->Start(sessionId, m_stopSink.Get()); ORN_FAILED(r)) {
    failed = RunOutcome{};
    failed.result = r;
    failed.reason = "cannot start the on-demand monitor";
    // A failed Start may leave the task started without a run; Stop puts it
    // back to stopped (and answers "not started" when it already is).
    (void)m_task->Stop();
    return false;
  }
  return true;
}

RunOutcome OnDemandMonitor::Run(app_core::task_manager::task::TaskSessionId sessionId,
                                SignalWatch& signals, const RunWait& wait) {
  RunOutcome failed;
  if (!Begin(sessionId, failed)) return failed;
  // Without an eventfd (never expected) the report is polled for.
  const bool ticking = wait.tick && wait.tickMs >= 0;
  const int timeout = ticking ? wait.tickMs : (ReadyFd() < 0 ? 100 : -1);
  int signal = 0;
  bool stoppedByFd = false;
  while (!Ended()) {
    const int received = signals.Wait({ReadyFd(), wait.stopFd}, timeout);
    if (received && (!wait.onSignal || wait.onSignal(received))) {
      signal = received;
      break;
    }
    if (wait.stopFd >= 0 && Readable(wait.stopFd)) {
      stoppedByFd = true;
      break;
    }
    if (ticking) wait.tick();
  }
  RunOutcome outcome = Finish();
  outcome.signal = signal;
  outcome.stoppedByFd = stoppedByFd;
  return outcome;
}

RunOutcome OnDemandMonitor::Finish() {
  RunOutcome outcome;
  // Stop raises the task's stop flag and waits for a run still going on to
  // end; either way the task goes back to stopped here.
  const orn::result_t stopped = m_task->Stop();
  const auto report = m_stopSink->Report();
  outcome.issues =
      m_runtime.Events().Count(pax::event_type::kSystemIntegrityIssue) - m_issuesBefore;
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
