// The command line of arvo-fim:
//   arvo-fim [--module PATH] [--trace-level 0|300|500|800] [--trace-file FILE] COMMAND ...
// Options take their value as the next argument or after "=". "--" ends the
// options of a command; later arguments are paths.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/output/event_format.h"

namespace arvo::host {

enum class Command { kHelp, kVersion, kList, kWatch, kScan, kDaemon };

struct CommandLine {
  Command command = Command::kHelp;
  // Global.
  std::string modulePath;
  std::uint32_t traceLevel = 300;  // 0 = off
  std::string traceFile;
  // watch, scan, daemon.
  std::string configFile;
  std::vector<std::string> excludes;
  std::vector<std::string> paths;
  std::optional<OutputFormat> format;
  std::string outputFile;
  bool journal = false;     // events also go to the systemd journal
  bool detections = false;  // watch, daemon
  // scan, daemon.
  std::optional<bool> hash;  // --hash / --no-hash
  bool autoUpdate = false;
  bool reportAccessTime = false;
  // daemon.
  std::uint32_t intervalSeconds = 3600;
};

// On failure returns false and sets `error` (without the "arvo-fim: " prefix).
bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out, std::string& error);

// One line: "usage: arvo-fim ...".
const char* UsageLine();
// The full help text.
const char* HelpText();

}  // namespace arvo::host
