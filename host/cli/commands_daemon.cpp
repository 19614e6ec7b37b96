#include "host/cli/commands_daemon.h"

#include <cstdio>
#include <memory>

#include "host/cli/commands_common.h"
#include "host/output/events_log.h"
#include "host/runtime/daemon_loop.h"
#include "host/runtime/on_access_session.h"
#include "host/runtime/on_demand_run.h"
#include "host/runtime/pid_file.h"
#include "host/runtime/run_state.h"
#include "host/runtime/service_notifier.h"
#include "host/runtime/signal_watch.h"
#include "host/util/private_directory.h"

namespace arvo::host {

int RunDaemonCommand(const CommandLine& line) {
  // Before any thread starts, so that every thread blocks them.
  SignalWatch signals({SIGINT, SIGTERM, SIGHUP, SIGUSR1});
  if (!signals.Valid()) return Fail("cannot watch for signals");
  MonitorConfig config;
  std::string error;
  ModuleLoader module;
  if (!PrepareMonitorCommand(line, true, config, module, error)) return Fail(error);
  PidFileLock pidFile;
  if (!pidFile.Acquire(DaemonPidFile(), error)) return Fail(error);
  const orn::RefPtr<EventsLog> eventsLog = orn::MakeSimple<EventsLog>();
  if (!eventsLog->Open(config.daemon.eventsLog, error)) return Fail(error);

  // Made before the runtime: the watch side asks here for catch-up scans
  // (thread-safe) until the runtime is gone.
  ScanRequests scanRequests;
  RuntimeSetup setup = MonitorSetup(line, config);
  setup.onAccess = true;
  setup.onDemand = true;
  setup.progress = std::make_shared<ScanProgress>();
  setup.extraOutputs.emplace_back(eventsLog);
  setup.journal = line.journal || config.daemon.journal == JournalMode::kOn ||
                  (config.daemon.journal == JournalMode::kAuto && StartedBySystemd());
  setup.requestCatchUpScan = [&scanRequests](const std::string& reason) {
    scanRequests.Request(reason);
  };
  const std::unique_ptr<HostRuntime> runtime = HostRuntime::Create(module, setup, error);
  if (!runtime) return Fail(error);

  OnDemandMonitor scanner(*runtime);
  if (!scanner.Create(config.settings, error)) return Fail(error);
  OnAccessSession session;
  const pax::settings::OAFIMSettings watched =
      OnAccessSettings(config, runtime->WatchesFileSystems());
  if (!session.Start(*runtime, watched, line.detections, error)) return Fail(error);
  std::fprintf(stderr, "arvo-fim: watch backend: %s\n", runtime->WatchBackendDescription().c_str());
  const std::uint32_t interval = line.intervalSeconds.value_or(config.daemon.intervalSeconds);
  std::fprintf(stderr, "arvo-fim: watching %zu area(s), scanning every %u s\n",
               watched.scanAreas.size(), interval);

  ServiceNotifier notifier;
  const ConfigLoader reload = [&line](MonitorConfig& fresh, std::string& why) {
    return BuildMonitorConfig(line, fresh, why);
  };
  DaemonLoop loop(
      {*runtime, scanner, session, signals, notifier, *eventsLog, *setup.progress, scanRequests},
      config, reload, line.intervalSeconds);
  loop.Run();
  scanner.Release();
  if (!session.Stop(error)) return Fail(error);
  return kExitOk;
}

}  // namespace arvo::host
