// The small state file the host keeps beside the database, so that
// `arvo-fim status` can tell what happened last without disturbing a running
// daemon: the time and outcome of the last on-demand run and, while a daemon
// runs, its watch backend and how many directories it watches with inotify.
// Also where the daemon's pid file is.
#pragma once

#include <cstdint>
#include <string>

#include "host/runtime/on_demand_run.h"

namespace arvo::host {

struct RunState {
  std::int64_t finishedAt = 0;  // Unix time of the end of the last run; 0: none recorded
  std::string command;          // the command that ran it: scan, daemon, accept
  std::string result;           // completed, failed or interrupted
  std::uint64_t issues = 0;     // SystemIntegrityIssue events of that run
  std::string reason;           // the task's reason text
  std::int64_t watches = -1;    // directories the daemon watches; -1: not known
  std::string backend;          // the daemon's watch backend, as it describes it
  bool operator==(const RunState&) const = default;
};

// "<directory of the database>/arvo-fim.state".
std::string RunStateFile();
// "<directory of the database>/arvo-fim.daemon.pid".
std::string DaemonPidFile();

// Lines "key=value"; values are single lines (line breaks in the reason are
// replaced by spaces). The file is replaced atomically, so a reader sees
// either the old or the new state.
std::string FormatRunState(const RunState& state);
// Unknown keys and malformed lines are skipped (the file is advisory).
RunState ParseRunState(const std::string& text);

// Replaces `file`. On failure returns false and describes it in `error`.
bool WriteRunState(const std::string& file, const RunState& state, std::string& error);
// False when the file does not exist or cannot be read.
bool ReadRunState(const std::string& file, RunState& state);

// Updates RunStateFile() with the end of a run by `command`, or with the
// daemon's watch backend and inotify watch count, keeping the rest of what it holds. A failure is
// reported on stderr (the file is advisory; the run's result stands).
void RecordRun(const std::string& command, const RunOutcome& outcome);
void RecordWatches(std::int64_t watches, const std::string& backend);

}  // namespace arvo::host
