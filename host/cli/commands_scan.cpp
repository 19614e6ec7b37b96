#include "host/cli/commands_scan.h"

#include <unistd.h>

#include <cstdio>
#include <memory>

#include "host/cli/commands_common.h"
#include "host/runtime/on_demand_run.h"
#include "host/runtime/run_state.h"
#include "host/runtime/scan_progress.h"
#include "host/runtime/signal_watch.h"

namespace arvo::host {
namespace {

constexpr int kProgressIntervalMs = 200;

void ShowProgress(const ScanProgress& progress) {
  std::fprintf(stderr, "\rarvo-fim: %llu object(s) visited, area %s\033[K",
               static_cast<unsigned long long>(progress.Visited()), progress.CurrentArea().c_str());
}

}  // namespace

int RunScanCommand(const CommandLine& line) {
  SignalWatch signals;  // before any thread starts
  if (!signals.Valid()) return Fail("cannot watch for signals");
  MonitorConfig config;
  std::string error;
  ModuleLoader module;
  if (!PrepareMonitorCommand(line, true, config, module, error)) return Fail(error);
  const bool showProgress = ::isatty(STDERR_FILENO);
  RuntimeSetup setup = MonitorSetup(line, config);
  setup.onDemand = true;
  setup.progress = std::make_shared<ScanProgress>();
  const std::unique_ptr<HostRuntime> runtime = HostRuntime::Create(module, setup, error);
  if (!runtime) return Fail(error);

  OnDemandMonitor monitor(*runtime);
  if (!monitor.Create(config.settings, error)) return Fail(error);
  std::function<void()> tick;
  if (showProgress) tick = [&] { ShowProgress(*setup.progress); };
  const RunOutcome outcome = monitor.Run(1, signals, tick, kProgressIntervalMs);
  monitor.Release();
  RecordRun("scan", outcome);
  if (showProgress) std::fputs("\r\033[K", stderr);

  switch (outcome.kind) {
    case RunOutcome::Kind::kFailed:
      return Fail("scan failed: " + outcome.reason + " (" + orn::ResultToTraceText(outcome.result) +
                  ")");
    case RunOutcome::Kind::kInterrupted:
      return Fail("scan interrupted", kExitInterrupted);
    case RunOutcome::Kind::kCompleted:
      break;
  }
  std::fprintf(stderr, "arvo-fim: scan completed, %llu integrity issue(s)\n",
               static_cast<unsigned long long>(outcome.issues));
  return outcome.issues > 0 ? kExitIssues : kExitOk;
}

}  // namespace arvo::host
