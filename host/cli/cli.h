// The command line of arvo-fim, parsed with CLI11:
//   arvo-fim [--module PATH] [--trace-level 0|300|500|800] [--trace-file FILE] COMMAND ...
// Options take their value as the next argument or after "="; the trace
// options may also follow the command. "--" ends the options of a command;
// later arguments are paths. "--help" after any command describes it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/config/watch_backend.h"
#include "host/output/event_format.h"

namespace arvo::host {

enum class Command {
  kNone,
  kHelp,
  kVersion,
  kList,
  kWatch,
  kScan,
  kDaemon,
  kStatus,
  kAccept,
  kCheckConfig
};

struct CommandLine {
  Command command = Command::kHelp;
  std::string helpText;  // kHelp: the help of the command asked about
  // Global.
  std::string modulePath;
  std::uint32_t traceLevel = 300;  // 0 = off
  std::string traceFile;
  // watch, scan, daemon, accept; status and check-config take only --config.
  std::string configFile;
  std::vector<std::string> excludes;
  std::vector<std::string> paths;
  std::optional<OutputFormat> format;
  std::string outputFile;
  bool journal = false;                 // events also go to the systemd journal
  bool detections = false;              // watch, daemon
  std::optional<WatchBackend> backend;  // watch, daemon: --backend
  // scan, daemon, accept.
  std::optional<bool> hash;  // --hash / --no-hash
  bool autoUpdate = false;
  bool reportAccessTime = false;
  bool noWait = false;  // scan: fail at once when another run holds the database
  // daemon.
  std::optional<std::uint32_t> intervalSeconds;  // set: overrides [daemon] interval
};

// On failure returns false and sets `error` (without the "arvo-fim: " prefix).
bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out, std::string& error);

// One line: "usage: arvo-fim ...".
const char* UsageLine();

}  // namespace arvo::host
