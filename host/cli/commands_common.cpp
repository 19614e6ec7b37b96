#include "host/cli/commands_common.h"

#include "host/util/private_directory.h"

#include <cstdio>
#include <cstring>

namespace arvo::host {

int Fail(const std::string& message, int code) {
  std::fprintf(stderr, "arvo-fim: %s\n", message.c_str());
  return code;
}

bool BuildMonitorConfig(const CommandLine& line, MonitorConfig& config, std::string& error) {
  if (!line.configFile.empty() && !LoadConfigFile(line.configFile, config, error)) return false;
  if (!AddAreas(line.paths, config, error)) return false;
  AddExclusions(line.excludes, config);
  pax::settings::ODFIMSettings& s = config.settings;
  if (line.hash) s.computeContentHash = *line.hash;
  s.autoUpdateBaseline = s.autoUpdateBaseline || line.autoUpdate;
  s.reportAccessTime = s.reportAccessTime || line.reportAccessTime;
  if (line.backend) config.watchBackend = *line.backend;
  if (s.scanAreas.empty()) {
    error = "nothing to monitor: give PATH arguments or [[area]] entries in a --config file";
    return false;
  }
  return true;
}

bool LoadModule(const CommandLine& line, ModuleLoader& module, std::string& error) {
  return module.Load(ResolveModulePath(line.modulePath), error);
}

bool PrepareMonitorCommand(const CommandLine& line, bool onDemand, MonitorConfig& config,
                           ModuleLoader& module, std::string& error) {
  return BuildMonitorConfig(line, config, error) &&
         (!onDemand || EnsureParentDirectory(DatabaseFile(), error)) &&
         LoadModule(line, module, error);
}

int TakeRunLock(RunLock& lock, SignalWatch& signals, bool wait) {
  constexpr int kRetryMs = 200;
  bool announced = false;
  for (;;) {
    switch (lock.TryTake()) {
      case RunLock::State::kTaken:
        return kExitOk;
      case RunLock::State::kError:
        return Fail(lock.Error());
      case RunLock::State::kBusy:
        break;
    }
    const std::string holder =
        lock.Holder() > 0 ? "the run of pid " + std::to_string(lock.Holder()) : "another run";
    if (!wait) return Fail("the database is in use by " + holder + " (lock '" + lock.Path() + "')");
    if (!announced) {
      std::fprintf(stderr, "arvo-fim: waiting for %s to finish\n", holder.c_str());
      announced = true;
    }
    const int signal = signals.Wait(-1, kRetryMs);
    if (signal && !IsReopenSignal(signal))
      return Fail("interrupted while waiting", kExitInterrupted);
  }
}

std::string DescribeOutputFailure(const CommandLine& line, int err) {
  const std::string where =
      line.outputFile.empty() ? "standard output" : "'" + line.outputFile + "'";
  return "events could not be written to " + where + ": " + std::strerror(err);
}

RuntimeSetup MonitorSetup(const CommandLine& line, const MonitorConfig& config) {
  RuntimeSetup setup;
  setup.traceLevel = line.traceLevel;
  setup.traceFile = line.traceFile;
  setup.outputFile = line.outputFile;
  setup.journal = line.journal;
  setup.format = line.format;
  setup.config = &config;
  setup.backend = config.watchBackend;
  return setup;
}

}  // namespace arvo::host
