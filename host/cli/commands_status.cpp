#include "host/cli/commands_status.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <vector>

#include "host/cli/commands_common.h"
#include "host/config/config.h"
#include "host/runtime/database_summary.h"
#include "host/runtime/pid_file.h"
#include "host/runtime/run_state.h"
#include "host/util/private_directory.h"
#include "host/watch/inotify_limits.h"
#include "orn/text.h"
#include "settings/fim_settings_equality.h"

namespace arvo::host {
namespace {

std::string LocalTime(std::int64_t unixTime) {
  const auto t = static_cast<std::time_t>(unixTime);
  std::tm local{};
  char text[32] = "?";
  if (::localtime_r(&t, &local)) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

void PrintLastRun(std::FILE* out, const RunState& state, bool known) {
  if (!known || state.finishedAt == 0) {
    std::fprintf(out, "last scan:  none recorded\n");
    return;
  }
  std::fprintf(out, "last scan:  %s (%s), %s, %llu integrity issue(s)%s%s\n",
               LocalTime(state.finishedAt).c_str(), state.command.c_str(), state.result.c_str(),
               static_cast<unsigned long long>(state.issues), state.reason.empty() ? "" : ": ",
               state.reason.c_str());
}

void PrintWatches(std::FILE* out, bool running, const RunState& state) {
  if (running && !state.backend.empty())
    std::fprintf(out, "backend:    %s\n", state.backend.c_str());
  const std::optional<long> limit = ReadInotifyLimit(kMaxUserWatchesFile);
  const std::string limitText = limit ? std::to_string(*limit) : "unknown";
  if (running && state.watches >= 0) {
    std::fprintf(out, "watches:    %lld in use, limit %s (%s)\n",
                 static_cast<long long>(state.watches), limitText.c_str(), kMaxUserWatchesFile);
  } else {
    std::fprintf(out, "watches:    none in use, limit %s (%s)\n", limitText.c_str(),
                 kMaxUserWatchesFile);
  }
}

const ScopeSummary* FindScope(const std::vector<ScopeSummary>& scopes, std::uint64_t taskId,
                              const std::string& path) {
  for (const ScopeSummary& scope : scopes)
    if (scope.taskId == taskId && scope.path == path) return &scope;
  return nullptr;
}

void PrintAreas(std::FILE* out, const MonitorConfig* config,
                const std::vector<ScopeSummary>& scopes) {
  std::fprintf(out, "areas:\n");
  if (config) {
    for (const pax::settings::ScanArea& area : config->settings.scanAreas) {
      const ScopeSummary* scope = FindScope(scopes, config->taskId, area.path);
      const AreaWatch watch = WatchOf(*config, area.path);
      const char* const how = watch == AreaWatch::kScanOnly       ? " [scan only]"
                              : watch == AreaWatch::kFanotifyOnly ? " [watched with fanotify only]"
                                                                  : "";
      const std::string name = orn::text::WideToNarrow(area.areaName);
      const std::string rows =
          scope ? std::to_string(scope->baselineRows) + " baseline rows" : "no baseline";
      std::fprintf(out, "  %s  %s%s%s%s%s\n", area.path.c_str(), rows.c_str(),
                   name == area.path ? "" : "  ", name == area.path ? "" : name.c_str(),
                   area.areaFlag ? "" : " [disabled]", how);
    }
  }
  for (const ScopeSummary& scope : scopes) {
    const bool configured = config && scope.taskId == config->taskId &&
                            pax::settings::FindArea(config->settings, scope.path) != nullptr;
    if (configured) continue;
    std::fprintf(out, "  %s  %llu baseline rows  (task %llu%s)\n", scope.path.c_str(),
                 static_cast<unsigned long long>(scope.baselineRows),
                 static_cast<unsigned long long>(scope.taskId),
                 config ? ", not in the configuration" : "");
  }
}

}  // namespace

int RunStatusCommand(const StatusOptions& options, std::FILE* out) {
  std::string configFile = options.configFile;
  if (configFile.empty() && ::access(kDefaultConfigFile, F_OK) == 0)
    configFile = kDefaultConfigFile;
  MonitorConfig config;
  std::string error;
  if (!configFile.empty() && !LoadConfigFile(configFile, config, error)) return Fail(error);

  const std::optional<pid_t> pid = LockedPid(DaemonPidFile());
  if (pid) {
    std::fprintf(out, "daemon:     running (pid %ld)\n", static_cast<long>(*pid));
  } else {
    std::fprintf(out, "daemon:     not running\n");
  }
  const std::string database = DatabaseFile();
  struct stat st {};
  if (::stat(database.c_str(), &st) == 0) {
    std::fprintf(out, "database:   %s, %lld bytes\n", database.c_str(),
                 static_cast<long long>(st.st_size));
  } else {
    std::fprintf(out, "database:   %s, not created yet\n", database.c_str());
  }
  RunState state;
  const bool known = ReadRunState(RunStateFile(), state);
  PrintLastRun(out, state, known);
  PrintWatches(out, pid.has_value(), state);

  std::vector<ScopeSummary> scopes;
  if (::access(database.c_str(), F_OK) == 0 && !ReadDatabaseSummary(database, scopes, error))
    std::fprintf(out, "baselines:  %s\n", error.c_str());
  PrintAreas(out, configFile.empty() ? nullptr : &config, scopes);
  return kExitOk;
}

}  // namespace arvo::host
