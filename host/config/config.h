// The monitors' configuration: one TOML file (host/config/example.toml shows every
// key), optionally extended from the command line.
//
// Top level:   task_id (integer >= 0, default 1), task_name (text, default
//              "System_Integrity_Monitoring"), rule_id (text), exclude (list
//              of globs: global exclusions, short form)
// [[exclusion]] global exclusion, full form: pattern (glob, required),
//              exceptions (list of globs), enabled (bool, default true),
//              comment (text)
// [masks]      mode ("off" | "files" | "everything", or 0 | 1 | 2; default
//              "off"), patterns (list of file-name globs)
// [scan]       options of the on-demand monitor, all bool, default false:
//              auto_update_baseline, compute_content_hash, report_access_time,
//              rebuild_toggle (no effect of its own: changing it, either way,
//              between two scans makes the next scan rebuild every baseline)
// [watch]      backend ("auto" | "fanotify" | "inotify", default "auto"):
//              the kernel interface that watches the areas
// [[area]]     path (absolute, required), name (text, default: the path),
//              enabled (bool, default true), watch (true | false |
//              "fanotify", default true: false = scanned only, left out of
//              the on-access settings; "fanotify" = watched where the
//              fanotify backend runs, scanned only under inotify, for areas
//              too large for one inotify watch per directory),
//              exclude (list of globs: local exclusions, short form),
//              [[area.exclusion]] (full form)
// [daemon]     what `arvo-fim daemon` does besides watching:
//              interval (integer seconds >= 0, default 3600; 0 = no
//              scheduled scans; --interval overrides), scan_at_start (bool,
//              default true: changes made while the daemon was down are
//              reported at its start), events_log (path of a JSON Lines file
//              every event is appended to, default "" = none; created mode
//              0640 with its directory), journal ("auto" | true | false,
//              default "auto" = on when started by systemd)
//
// Any other key, a value of the wrong type, an empty or relative area path or
// an area given twice is an error naming the file, the line and the key.
// Area paths are kept as written except that "." and ".." components and
// trailing "/" are removed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/config/watch_backend.h"
#include "orn/types.h"
#include "pax/settings/fim_settings.h"
#include "pax/task_info.h"

namespace arvo::host {

inline constexpr char16_t kDefaultTaskName[] = u"System_Integrity_Monitoring";

// The [daemon] table.
enum class JournalMode { kAuto, kOn, kOff };

inline constexpr std::uint32_t kDefaultScanIntervalSeconds = 3600;
// poll() takes int milliseconds: about 23 days is the longest interval.
inline constexpr std::uint32_t kMaxScanIntervalSeconds = 2'000'000;

struct DaemonConfig {
  std::uint32_t intervalSeconds = kDefaultScanIntervalSeconds;  // 0: no scheduled scans
  bool scanAtStart = true;
  std::string eventsLog;  // empty: none
  JournalMode journal = JournalMode::kAuto;
  bool operator==(const DaemonConfig&) const = default;
};

struct MonitorConfig {
  // Content hashing is on unless the configuration or --no-hash turns it
  // off: without it a rewrite that keeps the size reads as a mere
  // attribute change.
  MonitorConfig() { settings.computeContentHash = true; }
  // Both monitors' settings; the on-access monitor uses its OAFIMSettings part.
  pax::settings::ODFIMSettings settings;
  pax::core::TaskId taskId = 1;
  orn::types::string16_t taskName = kDefaultTaskName;
  WatchBackend watchBackend = WatchBackend::kAuto;
  // Paths of the areas with `watch = false`: scanned, never watched.
  std::vector<std::string> scanOnlyAreas;
  // Paths of the areas with `watch = "fanotify"`: watched only by fanotify.
  std::vector<std::string> fanotifyOnlyAreas;
  DaemonConfig daemon;
};

// How an area is watched.
enum class AreaWatch { kWatched, kScanOnly, kFanotifyOnly };
AreaWatch WatchOf(const MonitorConfig& config, const std::string& areaPath);

// The on-access monitor's settings: `config`'s, without its scan-only areas,
// and without its fanotify-only areas unless `fileSystemMarks` (fanotify runs).
pax::settings::OAFIMSettings OnAccessSettings(const MonitorConfig& config, bool fileSystemMarks);

// Parses TOML `text`; `sourceName` names it in messages. On failure returns
// false and sets `error` to "<source>:<line>:<column>: <key>: <what>".
bool ParseConfig(std::string_view text, const std::string& sourceName, MonitorConfig& config,
                 std::string& error);

// Reads and parses `file` (a missing or unreadable file is an error naming it).
bool LoadConfigFile(const std::string& file, MonitorConfig& config, std::string& error);

// Adds one enabled area per path (relative paths are made absolute against the
// working directory; a path already configured is not added twice). An empty
// path is an error.
bool AddAreas(const std::vector<std::string>& paths, MonitorConfig& config, std::string& error);

// Adds one enabled global exclusion per glob.
void AddExclusions(const std::vector<std::string>& globs, MonitorConfig& config);

// "." / ".." resolved lexically, trailing "/" removed ("/" stays "/").
std::string NormalizeAreaPath(const std::string& path);

}  // namespace arvo::host
