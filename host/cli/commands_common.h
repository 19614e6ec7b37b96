// What the commands share: exit codes, messages, the configuration from the
// command line, loading the module.
#pragma once

#include <string>

#include "host/cli/cli.h"
#include "host/config/config.h"
#include "host/runtime/host_runtime.h"
#include "host/runtime/module_loader.h"
#include "host/runtime/signal_watch.h"
#include "host/util/run_lock.h"

namespace arvo::host {

inline constexpr int kExitOk = 0;
inline constexpr int kExitIssues = 1;       // scan: integrity issues were found
inline constexpr int kExitFailure = 2;      // usage, configuration, module or run failure
inline constexpr int kExitInterrupted = 3;  // scan: stopped by SIGINT/SIGTERM

// Prints "arvo-fim: <message>" on stderr and returns `code`.
int Fail(const std::string& message, int code = kExitFailure);

// The configuration file (if any), then PATH arguments, --exclude globs and
// the scan flags of the command line. At least one area is required.
bool BuildMonitorConfig(const CommandLine& line, MonitorConfig& config, std::string& error);

// Loads the module named by the command line (see ResolveModulePath).
bool LoadModule(const CommandLine& line, ModuleLoader& module, std::string& error);

// The steps every monitor command starts with: the configuration, the
// database's directory (created when missing) when `onDemand`, the module.
bool PrepareMonitorCommand(const CommandLine& line, bool onDemand, MonitorConfig& config,
                           ModuleLoader& module, std::string& error);

// Takes the database's run lock: at once, or when `wait` after the run that
// holds it, saying on stderr whom it waits for. Returns kExitOk once taken;
// otherwise prints why and returns kExitFailure (cannot lock, or busy
// without `wait`) or kExitInterrupted (a stopping signal while waiting).
int TakeRunLock(RunLock& lock, SignalWatch& signals, bool wait);

// "events could not be written to standard output: Broken pipe"
std::string DescribeOutputFailure(const CommandLine& line, int err);

// The runtime setup for a monitor command.
RuntimeSetup MonitorSetup(const CommandLine& line, const MonitorConfig& config);

}  // namespace arvo::host
