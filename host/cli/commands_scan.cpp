#include "host/cli/commands_scan.h"

#include <unistd.h>

#include <cstdio>
#include <memory>

#include "host/cli/commands_common.h"
#include "host/cli/scan_report.h"
#include "host/runtime/on_demand_run.h"
#include "host/runtime/progress_line.h"
#include "host/runtime/run_diagnostics.h"
#include "host/runtime/run_state.h"
#include "host/runtime/scan_progress.h"
#include "host/runtime/signal_watch.h"
#include "host/util/private_directory.h"

namespace arvo::host {
namespace {

constexpr int kProgressIntervalMs = 200;
// A run that failed because an object vanished or was replaced while the
// walk passed has rolled its area back: it is run again, up to kRetries
// times, after a back-off that grows, so that a burst of activity (a package
// upgrade, a log rotation) can pass.
constexpr int kRetries = 3;
constexpr int kBackOffMs[kRetries] = {200, 500, 1000};

void Say(const std::string& message) { std::fprintf(stderr, "arvo-fim: %s\n", message.c_str()); }

// The run, retried while it fails on an object that vanished. `issues`
// sums the issues of every attempt: an attempt that failed in a later area
// has already reported (and, with automatic update, accepted) the changes
// of the areas before it.
RunOutcome RunWithRetries(OnDemandMonitor& monitor, SignalWatch& signals, const RunWait& wait,
                          RunDiagnostics& diagnostics, ProgressLine& progress,
                          std::uint64_t& issues, int& retries) {
  for (retries = 0;; ++retries) {
    diagnostics.Reset();
    RunOutcome outcome = monitor.Run(static_cast<unsigned>(retries) + 1, signals, wait);
    issues += outcome.issues;
    if (outcome.kind != RunOutcome::Kind::kFailed || retries == kRetries) return outcome;
    const std::optional<ObjectFailure> failure = diagnostics.Failure();
    if (!failure || failure->kind != ObjectFailure::Kind::kVanished) return outcome;
    progress.Clear();
    Say(DescribeVanished(*failure) + "; retrying the scan (" + std::to_string(retries + 1) +
        " of " + std::to_string(kRetries) + ")");
    const int signal = signals.Wait(wait.stopFd, kBackOffMs[retries]);
    if (signal && (!wait.onSignal || wait.onSignal(signal))) {
      outcome.kind = RunOutcome::Kind::kInterrupted;
      outcome.signal = signal;
      return outcome;
    }
  }
}

int Report(const RunOutcome& outcome, const RunDiagnostics& diagnostics, const HostRuntime& runtime,
           const CommandLine& line, bool hashing, std::uint64_t issues, int retries) {
  // Checked first: the run may have ended on its own right after the
  // write that failed, its last events unseen.
  if (const int err = runtime.Writer()->FailedErrno())
    return Fail(DescribeOutputFailure(line, err) +
                (outcome.stoppedByFd ? "; the scan was stopped" : ""));
  switch (outcome.kind) {
    case RunOutcome::Kind::kFailed:
      return Fail(DescribeFailedRun(outcome, diagnostics.Failure(), hashing, retries));
    case RunOutcome::Kind::kInterrupted:
      return Fail("scan interrupted", kExitInterrupted);
    case RunOutcome::Kind::kCompleted:
      break;
  }
  const std::vector<SkippedPart> skipped = diagnostics.Skipped();
  for (const SkippedPart& part : skipped) Say(DescribeSkipped(part));
  Say(DescribeCompletedRun(issues, skipped));
  return issues > 0 ? kExitIssues : kExitOk;
}

}  // namespace

int RunScanCommand(const CommandLine& line) {
  SignalWatch signals;  // before any thread starts
  if (!signals.Valid()) return Fail("cannot watch for signals");
  MonitorConfig config;
  std::string error;
  ModuleLoader module;
  if (!PrepareMonitorCommand(line, true, config, module, error)) return Fail(error);
  RunLock lock(RunLockPathFor(DatabaseFile()));
  if (const int code = TakeRunLock(lock, signals, !line.noWait); code != kExitOk) return code;
  const bool hashing = config.settings.computeContentHash;
  if (hashing && ::geteuid() != 0)
    Say("not running as root: a file this user cannot read fails the run (see --no-hash, "
        "--exclude)");

  RuntimeSetup setup = MonitorSetup(line, config);
  setup.onDemand = true;
  setup.progress = std::make_shared<ScanProgress>();
  const auto diagnostics = std::make_shared<RunDiagnostics>();
  setup.traceTap = diagnostics;
  const std::unique_ptr<HostRuntime> runtime = HostRuntime::Create(module, setup, error);
  if (!runtime) return Fail(error);
  OnDemandMonitor monitor(*runtime);
  if (!monitor.Create(config.settings, error)) return Fail(error);

  ProgressLine progress(STDERR_FILENO);
  RunWait wait;
  wait.stopFd = runtime->Writer()->FailedFd();
  wait.onSignal = [&](int signal) {
    if (!IsReopenSignal(signal)) return true;
    std::string why;
    if (!runtime->ReopenOutput(why)) Say(why);
    return false;
  };
  if (::isatty(STDERR_FILENO)) {
    if (line.outputFile.empty() && ::isatty(STDOUT_FILENO))
      runtime->Writer()->SetBeforeWrite([&] { progress.Clear(); });
    wait.tickMs = kProgressIntervalMs;
    wait.tick = [&] {
      progress.Show("arvo-fim: " + std::to_string(setup.progress->Visited()) +
                    " object(s) visited, area " + setup.progress->CurrentArea());
    };
  }
  std::uint64_t issues = 0;
  int retries = 0;
  const RunOutcome outcome =
      RunWithRetries(monitor, signals, wait, *diagnostics, progress, issues, retries);
  monitor.Release();
  progress.Clear();
  RecordRun("scan", outcome);
  return Report(outcome, *diagnostics, *runtime, line, hashing, issues, retries);
}

}  // namespace arvo::host
