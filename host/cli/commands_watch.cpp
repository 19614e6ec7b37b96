#include "host/cli/commands_watch.h"

#include <cstdio>
#include <memory>

#include "host/cli/commands_common.h"
#include "host/runtime/on_access_session.h"
#include "host/runtime/signal_watch.h"

namespace arvo::host {

int RunWatchCommand(const CommandLine& line) {
  SignalWatch signals;  // before any thread starts
  if (!signals.Valid()) return Fail("cannot watch for signals");
  MonitorConfig config;
  std::string error;
  ModuleLoader module;
  if (!PrepareMonitorCommand(line, false, config, module, error)) return Fail(error);
  RuntimeSetup setup = MonitorSetup(line, config);
  setup.onAccess = true;
  const std::unique_ptr<HostRuntime> runtime = HostRuntime::Create(module, setup, error);
  if (!runtime) return Fail(error);

  OnAccessSession session;
  if (!session.Start(*runtime, config.settings, line.detections, error)) return Fail(error);
  std::fprintf(stderr, "arvo-fim: watching %zu area(s) with %s\n", session.WatchedAreas(),
               runtime->WatchBackendDescription().c_str());

  // SIGUSR1 reopens the output file; every other watched signal stops.
  const std::shared_ptr<LineWriter>& writer = runtime->Writer();
  for (;;) {
    const int signal = signals.Wait(writer->FailedFd(), -1);
    if (signal && !IsReopenSignal(signal)) break;
    if (signal && !runtime->ReopenOutput(error)) Fail(error);
    if (writer->FailedErrno()) break;
  }
  if (!session.Stop(error)) return Fail(error);
  if (const int err = writer->FailedErrno())
    return Fail(DescribeOutputFailure(line, err) + "; stopped watching");
  return kExitOk;
}

}  // namespace arvo::host
