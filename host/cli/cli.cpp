#include "host/cli/cli.h"

#include <charconv>
#include <string_view>

#include "host/services/tracer.h"

namespace arvo::host {
namespace {

// Bits of the commands an option is valid for.
enum : unsigned { kGlobal = 1, kWatch = 2, kScan = 4, kDaemon = 8, kOthers = 16 };
constexpr unsigned kMonitors = kWatch | kScan | kDaemon;
constexpr unsigned kAnywhere = kGlobal | kMonitors | kOthers;

struct OptionInfo {
  std::string_view name;
  bool takesValue;
  unsigned where;
};

constexpr OptionInfo kOptions[] = {
    {"--module", true, kGlobal},
    {"--trace-level", true, kAnywhere},
    {"--trace-file", true, kAnywhere},
    {"--config", true, kMonitors},
    {"--exclude", true, kMonitors},
    {"--format", true, kMonitors},
    {"--output", true, kMonitors},
    {"--journal", false, kMonitors},
    {"--detections", false, kWatch | kDaemon},
    {"--hash", false, kScan | kDaemon},
    {"--no-hash", false, kScan | kDaemon},
    {"--auto-update", false, kScan | kDaemon},
    {"--report-atime", false, kScan | kDaemon},
    {"--interval", true, kDaemon},
};

constexpr std::uint32_t kMaxIntervalSeconds = 2'000'000;  // poll() takes int milliseconds

unsigned ScopeOf(Command command) {
  switch (command) {
    case Command::kWatch:
      return kWatch;
    case Command::kScan:
      return kScan;
    case Command::kDaemon:
      return kDaemon;
    default:
      return kOthers;
  }
}

std::optional<Command> CommandNamed(std::string_view word) {
  if (word == "list" || word == "modules") return Command::kList;
  if (word == "watch") return Command::kWatch;
  if (word == "scan") return Command::kScan;
  if (word == "daemon") return Command::kDaemon;
  if (word == "version") return Command::kVersion;
  if (word == "help") return Command::kHelp;
  return std::nullopt;
}

bool ParseNumber(std::string_view text, std::uint32_t& out) {
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

bool Apply(std::string_view name, const std::string& value, CommandLine& out, std::string& error) {
  if (name == "--module") {
    out.modulePath = value;
  } else if (name == "--trace-level") {
    if (!ParseNumber(value, out.traceLevel) || !IsValidTraceLevel(out.traceLevel)) {
      error = "invalid trace level '" + value + "' (expected 0, 300, 500 or 800)";
      return false;
    }
  } else if (name == "--trace-file") {
    out.traceFile = value;
  } else if (name == "--config") {
    out.configFile = value;
  } else if (name == "--exclude") {
    out.excludes.push_back(value);
  } else if (name == "--format") {
    if (value == "json") {
      out.format = OutputFormat::kJson;
    } else if (value == "text") {
      out.format = OutputFormat::kText;
    } else {
      error = "invalid format '" + value + "' (expected json or text)";
      return false;
    }
  } else if (name == "--output") {
    out.outputFile = value;
  } else if (name == "--journal") {
    out.journal = true;
  } else if (name == "--detections") {
    out.detections = true;
  } else if (name == "--hash" || name == "--no-hash") {
    out.hash = name == "--hash";
  } else if (name == "--auto-update") {
    out.autoUpdate = true;
  } else if (name == "--report-atime") {
    out.reportAccessTime = true;
  } else if (name == "--interval") {
    if (!ParseNumber(value, out.intervalSeconds) || out.intervalSeconds == 0 ||
        out.intervalSeconds > kMaxIntervalSeconds) {
      error = "invalid interval '" + value + "' (expected 1 to " +
              std::to_string(kMaxIntervalSeconds) + " seconds)";
      return false;
    }
  }
  if ((name == "--module" || name == "--trace-file" || name == "--config" || name == "--output") &&
      value.empty()) {
    error = "option " + std::string(name) + " needs a non-empty value";
    return false;
  }
  return true;
}

// Parses the option at argv[i] (advancing i past its value). `where` is the
// scope the option appears in.
bool ParseOption(int argc, const char* const* argv, int& i, unsigned where, const char* commandName,
                 CommandLine& out, std::string& error) {
  const std::string_view arg = argv[i];
  const std::size_t eq = arg.find('=');
  const std::string_view name = arg.substr(0, eq);
  for (const OptionInfo& option : kOptions) {
    if (option.name != name) continue;
    if (!(option.where & where)) break;
    std::string value;
    if (option.takesValue) {
      if (eq != std::string_view::npos) {
        value = std::string(arg.substr(eq + 1));
      } else if (i + 1 < argc) {
        value = argv[++i];
      } else {
        error = "option " + std::string(name) + " needs a value";
        return false;
      }
    } else if (eq != std::string_view::npos) {
      error = "option " + std::string(name) + " takes no value";
      return false;
    }
    return Apply(name, value, out, error);
  }
  error = "unknown option '" + std::string(name) + "'";
  if (commandName) error += std::string(" for '") + commandName + "'";
  return false;
}

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out, std::string& error) {
  int i = 1;
  for (; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--version") {
      out.command = Command::kVersion;
      if (i + 1 == argc) return true;
      error = "unexpected argument '" + std::string(argv[i + 1]) + "'";
      return false;
    }
    if (arg == "--help" || arg == "-h") {
      out.command = Command::kHelp;
      return true;
    }
    if (arg.size() < 2 || arg[0] != '-') break;
    if (!ParseOption(argc, argv, i, kGlobal, nullptr, out, error)) return false;
  }
  if (i == argc) {
    error = "no command given";
    return false;
  }
  const char* commandName = argv[i];
  const std::optional<Command> command = CommandNamed(commandName);
  if (!command) {
    error = std::string("unknown command '") + commandName + "'";
    return false;
  }
  out.command = *command;
  const unsigned scope = ScopeOf(*command);
  bool optionsEnded = false;
  for (++i; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (!optionsEnded && arg == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && arg.size() >= 2 && arg[0] == '-') {
      if (!ParseOption(argc, argv, i, scope, commandName, out, error)) return false;
    } else if (scope & kMonitors) {
      out.paths.emplace_back(arg);
    } else {
      error = "unexpected argument '" + std::string(arg) + "' for '" + commandName + "'";
      return false;
    }
  }
  return true;
}

const char* UsageLine() {
  return "usage: arvo-fim [--module PATH] [--trace-level 0|300|500|800] [--trace-file FILE] "
         "{--version | list | watch | scan | daemon} [OPTIONS] [PATH...]";
}

const char* HelpText() {
  return R"(arvo-fim: runs the file integrity monitors of libintegrity_monitor.so.

usage: arvo-fim [GLOBAL OPTIONS] COMMAND [OPTIONS] [PATH...]

Global options:
  --module PATH          the module to load (default: $ARVO_FIM_MODULE, then
                         ../lib/libintegrity_monitor.so next to the binary,
                         then the library search path)
  --trace-level N        0 (off), 300 (errors, default), 500 (warnings), 800 (detail)
  --trace-file FILE      trace lines go to FILE instead of stderr
  --version              version and module path
  --help                 this text

Commands:
  list (or modules)      what the module offers
  watch [OPTIONS] [PATH...]
                         on-access monitoring until SIGINT/SIGTERM
      --config FILE      monitors' configuration (TOML)
      --exclude GLOB     global exclusion (repeatable)
      --format json|text output form (default: text on a terminal, else json)
      --output FILE      append events to FILE instead of stdout
      --journal          also send each event to the systemd journal
      --detections       also print the publisher service's detections
  scan [OPTIONS] [PATH...]
                         one on-demand run; exit 0 no change, 1 changes found,
                         2 run failed, 3 interrupted
      --config, --exclude, --format, --output, --journal as for watch
      --hash | --no-hash record content hashes or not (default: on, or as configured)
      --auto-update      fold each run into the baseline
      --report-atime     report access-time changes
  daemon [OPTIONS] [PATH...]
                         watch, plus a scan every --interval SECONDS (default 3600)

Environment: ARVO_FIM_MODULE, ARVO_FIM_DB (database file), ARVO_FIM_STORAGE
(persistent storage file).
)";
}

}  // namespace arvo::host
