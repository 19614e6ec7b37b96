// The daemon's loop: keeps the on-access monitor running, runs on-demand
// scans (at start, on schedule, on request), reloads the configuration on
// SIGHUP, reopens the events log on SIGUSR1 and keeps the service manager
// informed, until SIGINT or SIGTERM.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/config/config.h"
#include "host/output/events_log.h"
#include "host/runtime/host_runtime.h"
#include "host/runtime/on_access_session.h"
#include "host/runtime/on_demand_run.h"
#include "host/runtime/scan_progress.h"
#include "host/runtime/scan_requests.h"
#include "host/runtime/service_notifier.h"
#include "host/runtime/signal_watch.h"
#include "host/util/private_directory.h"
#include "host/util/run_lock.h"

namespace arvo::host {

// Reads the configuration again, the way it was read at start (file and
// command line). False with `error` set when it is not valid.
using ConfigLoader = std::function<bool(MonitorConfig& config, std::string& error)>;

// What the loop drives; the owner keeps each alive for the loop's life.
struct DaemonParts {
  const HostRuntime& runtime;  // with the on-access services: lost roots are rewatched
  OnDemandMonitor& scanner;    // created with `config`'s settings
  OnAccessSession& session;    // started with OnAccessSettings(config)
  SignalWatch& signals;        // made with SIGINT, SIGTERM, SIGHUP and SIGUSR1
  ServiceNotifier& notifier;
  EventsLog& eventsLog;  // opened at config.daemon.eventsLog
  const ScanProgress& progress;
  // Where scans are asked for. Made by the owner before the monitors start,
  // so that what watches for coverage gaps can hold it from the beginning.
  ScanRequests& requests;
};

class DaemonLoop {
 public:
  // `intervalOverride` (--interval) wins over the configuration's interval.
  DaemonLoop(DaemonParts parts, MonitorConfig config, ConfigLoader reload,
             std::optional<std::uint32_t> intervalOverride);

  // Thread-safe; callable from any thread while Run runs. Asks for a scan
  // of every area as soon as no scan is running: requests that arrive while
  // one is pending are folded into it, so one catch-up scan runs at a time
  // however many requests arrive. A request made during a scan gets a scan
  // of its own after that one (the running scan may have passed the change
  // already). `reason` is shown on stderr and in the status.
  void RequestScan(const std::string& reason) { m_parts.requests.Request(reason); }

  // Sends READY=1 and runs until SIGINT or SIGTERM (a scan going on is
  // interrupted). Returns the signal that ended it.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  void StartScan(const std::string& reason);
  void FinishScan();
  void Reload();
  bool ApplyConfig(const MonitorConfig& fresh, std::string& error);
  void ReopenLog();
  void Schedule();
  void ShowStatus();
  int Timeout(Clock::time_point now) const;
  std::uint32_t Interval() const;

  DaemonParts m_parts;
  MonitorConfig m_config;
  const ConfigLoader m_reload;
  const std::optional<std::uint32_t> m_intervalOverride;

  // Held for each scan, as a manual scan holds it: one run at a time.
  RunLock m_runLock{RunLockPathFor(DatabaseFile())};
  bool m_scanning = false;
  bool m_scannerStale = false;  // new settings wait for the end of the running scan
  std::uint32_t m_session = 0;
  std::uint64_t m_visitedBefore = 0;  // progress count when the running scan began
  std::optional<Clock::time_point> m_nextScan;
  std::optional<std::time_t> m_nextScanWall;
  Clock::time_point m_nextWatchdog{};
  Clock::time_point m_nextStatus{};
  std::int64_t m_publishedWatches = -1;
};

}  // namespace arvo::host
