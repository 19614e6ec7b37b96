#include "host/cli/cli.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>
#include <string_view>

#include "host/config/config.h"
#include "host/services/tracer.h"

namespace arvo::host {
namespace {

// A validator whose message is the whole error text: ValidationError adds
// "<option>: " in front, which ParseCommandLine strips again.
CLI::Validator Check(std::function<std::string(const std::string&)> check) {
  return CLI::Validator(std::move(check), "", "");
}

CLI::Validator NonEmpty(const std::string& option) {
  return Check([option](const std::string& value) {
    return value.empty() ? "option " + option + " needs a non-empty value" : std::string();
  });
}

std::string TraceLevelError(const std::string& value) {
  std::uint32_t level = 0;
  if (CLI::detail::lexical_cast(value, level) && IsValidTraceLevel(level)) return {};
  return "invalid trace level '" + value + "' (expected 0, 300, 500 or 800)";
}

std::string IntervalError(const std::string& value) {
  std::uint32_t seconds = 0;
  if (CLI::detail::lexical_cast(value, seconds) && seconds <= kMaxScanIntervalSeconds) return {};
  return "invalid interval '" + value + "' (expected 0 to " +
         std::to_string(kMaxScanIntervalSeconds) + " seconds)";
}

// Options every command takes: where trace lines go and how many.
void AddTraceOptions(CLI::App& app, CommandLine& out) {
  app.add_option("--trace-level", out.traceLevel, "0 (off), 300 (errors, default), 500, 800")
      ->check(Check(TraceLevelError))
      ->option_text("N");
  app.add_option("--trace-file", out.traceFile, "trace lines go to FILE instead of stderr")
      ->check(NonEmpty("--trace-file"))
      ->option_text("FILE");
}

void AddConfigOption(CLI::App& app, CommandLine& out, const char* description) {
  app.add_option("--config", out.configFile, description)
      ->check(NonEmpty("--config"))
      ->option_text("FILE");
}

// Options of the commands that run a monitor (watch, scan, daemon, accept).
void AddMonitorOptions(CLI::App& app, CommandLine& out) {
  AddConfigOption(app, out, "the monitors' configuration (TOML)");
  app.add_option("--exclude", out.excludes, "a global exclusion (repeatable)")
      ->allow_extra_args(false)
      ->option_text("GLOB");
  app.add_option_function<std::string>(
         "--format",
         [&out](const std::string& value) {
           out.format = value == "json" ? OutputFormat::kJson : OutputFormat::kText;
         },
         "output form (default: text on a terminal, else json)")
      ->check(Check([](const std::string& value) {
        return value == "json" || value == "text"
                   ? std::string()
                   : "invalid format '" + value + "' (expected json or text)";
      }))
      ->option_text("json|text");
  app.add_option("--output", out.outputFile, "append events to FILE instead of stdout")
      ->check(NonEmpty("--output"))
      ->option_text("FILE");
  app.add_flag("--journal", out.journal, "also send each event to the systemd journal");
  app.add_option("PATH", out.paths, "areas to monitor, besides the configured ones");
}

// Options of the commands that watch (watch, daemon).
void AddWatchOptions(CLI::App& app, CommandLine& out) {
  app.add_flag("--detections", out.detections, "also print the publisher's detections");
  app.add_option_function<std::string>(
         "--backend", [&out](const std::string& value) { out.backend = WatchBackendNamed(value); },
         "the kernel interface that watches: auto (default: fanotify where allowed, else "
         "inotify), fanotify or inotify")
      ->check(Check([](const std::string& value) {
        return WatchBackendNamed(value)
                   ? std::string()
                   : "invalid backend '" + value + "' (expected auto, fanotify or inotify)";
      }))
      ->option_text("auto|fanotify|inotify");
}

// Options of the commands that scan (scan, daemon).
void AddScanOptions(CLI::App& app, CommandLine& out) {
  app.add_flag_callback(
      "--hash", [&out] { out.hash = true; }, "record content hashes (default)");
  app.add_flag_callback(
      "--no-hash", [&out] { out.hash = false; }, "do not hash content");
  app.add_flag("--auto-update", out.autoUpdate, "fold each run into the baseline");
  app.add_flag("--report-atime", out.reportAccessTime, "report access-time changes");
}

CLI::App* AddCommand(CLI::App& app, CommandLine& out, Command command, const char* name,
                     const char* description) {
  CLI::App* sub = app.add_subcommand(name, description);
  sub->allow_extras();  // reported by ParseCommandLine in the command's own words
  sub->callback([&out, command] { out.command = command; });
  AddTraceOptions(*sub, out);
  return sub;
}

// A command that runs the on-demand monitor (scan, daemon, accept).
CLI::App* AddScanningCommand(CLI::App& app, CommandLine& out, Command command, const char* name,
                             const char* description) {
  CLI::App* sub = AddCommand(app, out, command, name, description);
  AddMonitorOptions(*sub, out);
  AddScanOptions(*sub, out);
  return sub;
}

void BuildApp(CLI::App& app, CommandLine& out) {
  app.name("arvo-fim");
  app.allow_extras();
  app.option_defaults()->disable_flag_override();
  app.add_option("--module", out.modulePath,
                 "the module to load (default: $ARVO_FIM_MODULE, then "
                 "../lib/libintegrity_monitor.so next to the binary, then the library search path)")
      ->check(NonEmpty("--module"))
      ->option_text("PATH");
  AddTraceOptions(app, out);
  app.add_flag_callback(
      "--version", [&out] { out.command = Command::kVersion; }, "version and module path");
  app.footer(
      "Environment: ARVO_FIM_MODULE, ARVO_FIM_DB (database file), ARVO_FIM_STORAGE (persistent "
      "storage file).\n'arvo-fim COMMAND --help' describes each command.");

  AddCommand(app, out, Command::kList, "list", "what the module offers")->alias("modules");
  AddCommand(app, out, Command::kVersion, "version", "version and module path");
  AddCommand(app, out, Command::kHelp, "help", "this text");

  CLI::App* watch =
      AddCommand(app, out, Command::kWatch, "watch", "on-access monitoring until SIGINT/SIGTERM");
  AddMonitorOptions(*watch, out);
  AddWatchOptions(*watch, out);

  CLI::App* scan = AddScanningCommand(app, out, Command::kScan, "scan",
                                      "one on-demand run; exit 0 no change, 1 changes found, 2 "
                                      "run failed, 3 interrupted");
  scan->add_flag("--no-wait", out.noWait, "fail at once when another run holds the database");

  CLI::App* daemon = AddScanningCommand(app, out, Command::kDaemon, "daemon",
                                        "watch, plus scans at start and on schedule");
  AddWatchOptions(*daemon, out);
  daemon
      ->add_option_function<std::uint32_t>(
          "--interval", [&out](const std::uint32_t& seconds) { out.intervalSeconds = seconds; },
          "seconds between scans, 0 = none (default: the configuration's, 3600)")
      ->check(Check(IntervalError))
      ->option_text("SECONDS");
  daemon->footer(
      "SIGHUP reloads the configuration, SIGUSR1 reopens the events log, SIGTERM/SIGINT stop.");

  CLI::App* status = AddCommand(app, out, Command::kStatus, "status",
                                "the daemon, the last scan, the watches and the baselines");
  AddConfigOption(*status, out, "the configuration (default /etc/arvo-fim/arvo-fim.toml if any)");

  AddScanningCommand(app, out, Command::kAccept, "accept",
                     "one scan whose changes become the new baseline; exit 0 accepted, 2 run "
                     "failed, 3 interrupted");

  CLI::App* check = AddCommand(app, out, Command::kCheckConfig, "check-config",
                               "validates a configuration; exit 0, or 2 with where it is wrong");
  AddConfigOption(*check, out, "the configuration (default /etc/arvo-fim/arvo-fim.toml)");
}

std::string Quoted(const std::string& arg) { return "'" + arg.substr(0, arg.find('=')) + "'"; }

// Words CLI11 could not place: unknown options, or arguments a command takes none of.
bool ReportExtras(const CLI::App& app, const CommandLine& out, std::string& error) {
  for (const CLI::App* sub : app.get_subcommands()) {
    const std::vector<std::string> extras = sub->remaining();
    if (extras.empty()) continue;
    const std::string& arg = extras.front();
    error = (arg.size() > 1 && arg[0] == '-' ? "unknown option " : "unexpected argument ") +
            Quoted(arg) + " for '" + sub->get_name() + "'";
    return false;
  }
  const std::vector<std::string> extras = app.remaining();
  if (!extras.empty()) {
    const std::string& arg = extras.front();
    if (out.command == Command::kVersion)
      error = "unexpected argument '" + arg + "'";
    else if (arg.size() > 1 && arg[0] == '-')
      error = "unknown option " + Quoted(arg);
    else
      error = "unknown command '" + arg + "'";
    return false;
  }
  return true;
}

// "<option>: <text>" from a validator, "--x: 1 required TEXT missing", "x was
// given a disallowed flag override": reworded as arvo-fim has always said them.
// `args` tells an empty "--x=" from a missing value.
std::string Reword(const CLI::ParseError& e, const std::vector<std::string>& args) {
  const std::string what = e.what();
  if (dynamic_cast<const CLI::ValidationError*>(&e)) return what.substr(what.find(": ") + 2);
  std::string option = what.substr(0, what.find_first_of(": "));
  if (option.rfind("-", 0) != 0) option = "--" + option;
  if (what.find("disallowed flag override") != std::string::npos)
    return "option " + option + " takes no value";
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&e)) {
    const bool empty = std::find(args.begin(), args.end(), option + "=") != args.end();
    return "option " + option + (empty ? " needs a non-empty value" : " needs a value");
  }
  return what;
}

bool TakesPaths(Command command) {
  return command == Command::kWatch || command == Command::kScan || command == Command::kDaemon ||
         command == Command::kAccept;
}

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out, std::string& error) {
  // Everything after "--" is a path, whatever it looks like.
  std::vector<std::string> args(argv + 1, argv + argc);
  std::vector<std::string> literalPaths;
  if (const auto dashes = std::find(args.begin(), args.end(), "--"); dashes != args.end()) {
    literalPaths.assign(dashes + 1, args.end());
    args.erase(dashes, args.end());
  }
  CLI::App app;
  out.command = Command::kNone;
  BuildApp(app, out);
  try {
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    out.command = Command::kHelp;
    out.helpText = app.help();
    return true;
  } catch (const CLI::CallForAllHelp&) {
    out.command = Command::kHelp;
    out.helpText = app.help("", CLI::AppFormatMode::All);
    return true;
  } catch (const CLI::ParseError& e) {
    error = Reword(e, args);
    return false;
  }
  if (!ReportExtras(app, out, error)) return false;
  if (out.command == Command::kNone) {
    error = "no command given";
    return false;
  }
  if (!literalPaths.empty() && !TakesPaths(out.command)) {
    error = "unexpected argument '" + literalPaths.front() + "'";
    return false;
  }
  out.paths.insert(out.paths.end(), literalPaths.begin(), literalPaths.end());
  if (out.command == Command::kHelp) {
    // "help" describes the program, not the help command.
    CommandLine unused;
    CLI::App top;
    BuildApp(top, unused);
    out.helpText = top.help();
  }
  return true;
}

const char* UsageLine() {
  return "usage: arvo-fim [--module PATH] [--trace-level 0|300|500|800] [--trace-file FILE] "
         "{--version | list | watch | scan | daemon | status | accept | check-config} [OPTIONS] "
         "[PATH...]";
}

}  // namespace arvo::host
