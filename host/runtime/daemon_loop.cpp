#include "host/runtime/daemon_loop.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "host/runtime/daemon_status.h"
#include "host/runtime/inotify_usage.h"
#include "host/runtime/run_state.h"

namespace arvo::host {
namespace {

constexpr std::chrono::seconds kScanningStatusPeriod{1};
constexpr std::chrono::seconds kIdleStatusPeriod{10};

}  // namespace

DaemonLoop::DaemonLoop(DaemonParts parts, MonitorConfig config, ConfigLoader reload,
                       std::optional<std::uint32_t> intervalOverride)
    : m_parts(parts),
      m_config(std::move(config)),
      m_reload(std::move(reload)),
      m_intervalOverride(intervalOverride) {}

std::uint32_t DaemonLoop::Interval() const {
  return m_intervalOverride.value_or(m_config.daemon.intervalSeconds);
}

int DaemonLoop::Run() {
  m_parts.notifier.Ready();
  if (m_config.daemon.scanAtStart) {
    RequestScan("start");
  } else {
    Schedule();
  }
  m_nextWatchdog = Clock::now();
  for (;;) {
    if (!m_scanning) {
      if (const std::optional<std::string> reason = m_parts.requests.Take()) StartScan(*reason);
    }
    const Clock::time_point now = Clock::now();
    if (m_parts.notifier.WatchdogInterval().count() > 0 && now >= m_nextWatchdog) {
      m_parts.notifier.Watchdog();
      m_nextWatchdog = now + m_parts.notifier.WatchdogInterval();
    }
    if (now >= m_nextStatus) ShowStatus();

    // A request stays readable until taken, which waits for the end of the
    // running scan: it is not polled for meanwhile.
    pollfd fds[3] = {{m_parts.signals.Fd(), POLLIN, 0},
                     {m_scanning ? -1 : m_parts.requests.Fd(), POLLIN, 0},
                     {m_scanning ? m_parts.scanner.ReadyFd() : -1, POLLIN, 0}};
    if (::poll(fds, 3, Timeout(now)) < 0 && errno != EINTR) {
      std::perror("arvo-fim: poll");
      return SIGTERM;
    }
    if (fds[0].revents & POLLIN) {
      if (const int signal = m_parts.signals.Take(); signal == SIGINT || signal == SIGTERM) {
        m_parts.notifier.Stopping();
        if (m_scanning) FinishScan();
        return signal;
      } else if (signal == SIGHUP) {
        Reload();
      } else if (signal == SIGUSR1) {
        ReopenLog();
      }
    }
    if (m_scanning && m_parts.scanner.Ended()) FinishScan();
    if (!m_scanning && m_nextScan && Clock::now() >= *m_nextScan) {
      m_nextScan.reset();
      m_nextScanWall.reset();
      RequestScan("schedule");
    }
  }
}

// Until the next thing the loop must do by itself: a keep-alive, a status
// refresh, a scheduled scan.
int DaemonLoop::Timeout(Clock::time_point now) const {
  Clock::time_point until = m_nextStatus;
  if (m_parts.notifier.WatchdogInterval().count() > 0) until = std::min(until, m_nextWatchdog);
  if (!m_scanning && m_nextScan) until = std::min(until, *m_nextScan);
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
  return static_cast<int>(std::clamp<long long>(ms, 0, 60'000));
}

// Seconds before a scan that found the database in use by another run tries again.
constexpr int kBusyRetrySeconds = 5;

void DaemonLoop::StartScan(const std::string& reason) {
  if (m_runLock.TryTake() != RunLock::State::kTaken) {
    std::fprintf(stderr, "arvo-fim: scan (%s) postponed: %s\n", reason.c_str(),
                 m_runLock.Holder() ? ("the database is in use by the run of pid " +
                                       std::to_string(m_runLock.Holder()))
                                          .c_str()
                                    : m_runLock.Error().c_str());
    m_nextScan = Clock::now() + std::chrono::seconds(kBusyRetrySeconds);
    m_nextScanWall = std::time(nullptr) + kBusyRetrySeconds;
    return;
  }
  if (m_scannerStale) {
    std::string error;
    if (!m_parts.scanner.SetSettings(m_config.settings, error))
      std::fprintf(stderr, "arvo-fim: %s\n", error.c_str());
    m_scannerStale = false;
  }
  // The scan then covers what the roots gained while they were unwatched.
  m_parts.runtime.RewatchLostAreas();
  std::fprintf(stderr, "arvo-fim: scan started (%s)\n", reason.c_str());
  m_visitedBefore = m_parts.progress.Visited();
  RunOutcome failed;
  m_scanning = m_parts.scanner.Begin(++m_session, failed);
  m_nextStatus = Clock::now();
  if (m_scanning) return;
  m_runLock.Release();
  std::fprintf(stderr, "arvo-fim: scan failed: %s (%s)\n", failed.reason.c_str(),
               orn::ResultToTraceText(failed.result).c_str());
  RecordRun("daemon", failed);
  Schedule();
}

void DaemonLoop::FinishScan() {
  m_scanning = false;
  const RunOutcome outcome = m_parts.scanner.Finish();
  m_runLock.Release();
  if (outcome.kind == RunOutcome::Kind::kFailed) {
    std::fprintf(stderr, "arvo-fim: scan failed: %s (%s)\n", outcome.reason.c_str(),
                 orn::ResultToTraceText(outcome.result).c_str());
  } else {
    std::fprintf(stderr, "arvo-fim: scan %s, %llu integrity issue(s)\n",
                 outcome.kind == RunOutcome::Kind::kCompleted ? "completed" : "interrupted",
                 static_cast<unsigned long long>(outcome.issues));
  }
  RecordRun("daemon", outcome);
  Schedule();
  m_nextStatus = Clock::now();
}

void DaemonLoop::Schedule() {
  m_nextScan.reset();
  m_nextScanWall.reset();
  if (Interval() == 0) return;
  m_nextScan = Clock::now() + std::chrono::seconds(Interval());
  m_nextScanWall = std::time(nullptr) + static_cast<std::time_t>(Interval());
}

void DaemonLoop::ShowStatus() {
  const Clock::time_point now = Clock::now();
  if (m_scanning) {
    m_parts.notifier.Status(ScanningStatus(
        std::max<std::size_t>(AreaNumber(m_config.settings, m_parts.progress.CurrentArea()), 1),
        EnabledAreas(m_config.settings), m_parts.progress.Visited() - m_visitedBefore));
    m_nextStatus = now + kScanningStatusPeriod;
    return;
  }
  const auto watches = static_cast<std::int64_t>(InotifyWatchesInUse());
  const bool marks = m_parts.runtime.WatchesFileSystems();
  const std::size_t marked = marks ? OnAccessSettings(m_config, true).scanAreas.size() : 0;
  m_parts.notifier.Status(
      WatchingStatus({static_cast<std::size_t>(watches), marked}, m_nextScanWall));
  if (watches != m_publishedWatches) {
    RecordWatches(watches, m_parts.runtime.WatchBackendDescription());
    m_publishedWatches = watches;
  }
  m_nextStatus = now + kIdleStatusPeriod;
}

void DaemonLoop::ReopenLog() {
  std::string error;
  if (m_parts.eventsLog.Reopen(error)) {
    std::fprintf(stderr, "arvo-fim: events log reopened\n");
    return;
  }
  std::fprintf(stderr, "arvo-fim: %s\n", error.c_str());
}

void DaemonLoop::Reload() {
  m_parts.notifier.Reloading();
  MonitorConfig fresh;
  std::string error;
  if (!m_reload(fresh, error) || !ApplyConfig(fresh, error)) {
    std::fprintf(stderr, "arvo-fim: reload failed, the running configuration stays: %s\n",
                 error.c_str());
    m_parts.notifier.Status("reload failed, the running configuration stays: " + error);
  } else {
    std::fprintf(stderr, "arvo-fim: configuration reloaded: %zu area(s)\n",
                 m_config.settings.scanAreas.size());
  }
  m_parts.notifier.Ready();
  m_nextStatus = Clock::now() + kIdleStatusPeriod;  // keep the message a while
}

// Every part takes the new configuration, or none does.
bool DaemonLoop::ApplyConfig(const MonitorConfig& fresh, std::string& error) {
  const std::string oldLog = m_parts.eventsLog.Path();
  if (fresh.daemon.eventsLog != oldLog && !m_parts.eventsLog.Open(fresh.daemon.eventsLog, error))
    return false;
  const bool marks = m_parts.runtime.WatchesFileSystems();
  const pax::settings::OAFIMSettings watched = OnAccessSettings(m_config, marks);
  const pax::settings::OAFIMSettings toWatch = OnAccessSettings(fresh, marks);
  const bool rewatch = toWatch != watched;
  if (rewatch) {
    m_parts.notifier.Watchdog();  // re-subscribing walks every watched tree
    if (!m_parts.session.SetSettings(toWatch, error)) {
      std::string again;
      if (!m_parts.session.SetSettings(watched, again))
        std::fprintf(stderr, "arvo-fim: cannot restore the previous watches: %s\n", again.c_str());
      std::string ignored;
      if (fresh.daemon.eventsLog != oldLog) (void)m_parts.eventsLog.Open(oldLog, ignored);
      return false;
    }
  }
  if (fresh.taskId != m_config.taskId || fresh.taskName != m_config.taskName)
    std::fprintf(stderr, "arvo-fim: task_id and task_name changes take effect at the next start\n");
  const bool rescan = fresh.settings != m_config.settings;
  const std::uint32_t interval = Interval();
  m_config = fresh;
  if (rescan) {
    // A scan going on keeps its settings; the next one takes the new ones.
    m_scannerStale = true;
  }
  if (Interval() != interval && !m_scanning) Schedule();
  // The task re-subscribes its areas: for a moment nothing is watched, and
  // new areas have no baseline yet. A scan reports what changed meanwhile.
  if (rewatch) RequestScan("reload");
  return true;
}

}  // namespace arvo::host
