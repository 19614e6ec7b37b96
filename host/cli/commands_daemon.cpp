#include "host/cli/commands_daemon.h"

#include <cstdio>
#include <memory>

#include "host/cli/commands_common.h"
#include "host/runtime/catch_up_requests.h"
#include "host/runtime/on_access_session.h"
#include "host/runtime/on_demand_run.h"
#include "host/runtime/signal_watch.h"

namespace arvo::host {

int RunDaemonCommand(const CommandLine& line) {
  SignalWatch signals;  // before any thread starts
  if (!signals.Valid()) return Fail("cannot watch for signals");
  MonitorConfig config;
  std::string error;
  ModuleLoader module;
  if (!PrepareMonitorCommand(line, true, config, module, error)) return Fail(error);
  // Made before the runtime: the watch side asks for catch-up scans until
  // the runtime is gone.
  CatchUpRequests catchUp;
  RuntimeSetup setup = MonitorSetup(line, config);
  setup.onAccess = true;
  setup.onDemand = true;
  setup.requestCatchUpScan = [&catchUp](std::string reason) { catchUp.Request(reason); };
  const std::unique_ptr<HostRuntime> runtime = HostRuntime::Create(module, setup, error);
  if (!runtime) return Fail(error);

  OnDemandMonitor scanner(*runtime);
  if (!scanner.Create(config.settings, error)) return Fail(error);
  OnAccessSession session;
  if (!session.Start(*runtime, config.settings, line.detections, error)) return Fail(error);
  std::fprintf(stderr, "arvo-fim: watching %zu area(s), scanning every %u s\n",
               config.settings.scanAreas.size(), line.intervalSeconds);

  const int intervalMs = static_cast<int>(line.intervalSeconds) * 1000;
  for (app_core::task_manager::task::TaskSessionId run = 1;; ++run) {
    // Every scan, scheduled or caught up, answers the requests made before
    // it starts; one made while it runs makes one more scan right after it.
    runtime->RewatchLostAreas();
    (void)catchUp.Take();
    const RunOutcome outcome = scanner.Run(run, signals);
    if (outcome.signal) break;
    if (outcome.kind == RunOutcome::Kind::kFailed) {
      std::fprintf(stderr, "arvo-fim: scan failed: %s (%s)\n", outcome.reason.c_str(),
                   orn::ResultToTraceText(outcome.result).c_str());
    }
    if (signals.Wait(catchUp.Fd(), intervalMs)) break;
  }
  scanner.Release();
  if (!session.Stop(error)) return Fail(error);
  return kExitOk;
}

}  // namespace arvo::host
