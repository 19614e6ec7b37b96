#include "host/config/config.h"

#include <fcntl.h>
#include <unistd.h>

#include <toml++/toml.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <sstream>

#include "host/util/scoped_fd.h"
#include "orn/text.h"

namespace arvo::host {
namespace {

using pax::settings::ExclusionEntry;
using pax::settings::ScanArea;

std::string_view TypeName(toml::node_type type) {
  switch (type) {
    case toml::node_type::table:
      return "table";
    case toml::node_type::array:
      return "array";
    case toml::node_type::string:
      return "string";
    case toml::node_type::integer:
      return "integer";
    case toml::node_type::floating_point:
      return "float";
    case toml::node_type::boolean:
      return "boolean";
    case toml::node_type::date:
      return "date";
    case toml::node_type::time:
      return "time";
    case toml::node_type::date_time:
      return "date-time";
    default:
      return "nothing";
  }
}

std::string Indexed(const std::string& key, std::size_t index) {
  return key + '[' + std::to_string(index + 1) + ']';
}

// Reads typed values out of a parsed document. Every failure composes the
// one message the user sees and returns false.
class Reader {
 public:
  Reader(const std::string& source, std::string& error) : m_source(source), m_error(error) {}

  bool Fail(const toml::source_region& where, const std::string& key, std::string_view what) {
    std::ostringstream s;
    s << m_source << ':' << where.begin.line << ':' << where.begin.column << ": " << key << ": "
      << what;
    m_error = s.str();
    return false;
  }

  bool WrongType(const toml::node& node, const std::string& key, std::string_view expected) {
    return Fail(
        node.source(), key,
        "expected " + std::string(expected) + ", got " + std::string(TypeName(node.type())));
  }

  bool CheckKeys(const toml::table& table, const std::string& prefix,
                 std::initializer_list<std::string_view> allowed) {
    for (auto&& [key, node] : table) {
      bool known = false;
      for (std::string_view a : allowed) known = known || key.str() == a;
      if (!known) return Fail(key.source(), prefix + std::string(key.str()), "unknown key");
    }
    return true;
  }

  bool Bool(const toml::table& table, const std::string& prefix, std::string_view key, bool& out) {
    const toml::node* node = table.get(key);
    if (!node) return true;
    if (!node->is_boolean()) return WrongType(*node, prefix + std::string(key), "a boolean");
    out = node->as_boolean()->get();
    return true;
  }

  bool String(const toml::table& table, const std::string& prefix, std::string_view key,
              std::string& out) {
    const toml::node* node = table.get(key);
    if (!node) return true;
    if (!node->is_string()) return WrongType(*node, prefix + std::string(key), "a string");
    out = node->as_string()->get();
    return true;
  }

  bool Text(const toml::table& table, const std::string& prefix, std::string_view key,
            orn::types::string16_t& out) {
    std::string narrow;
    if (!table.get(key)) return true;
    if (!String(table, prefix, key, narrow)) return false;
    out = orn::text::NarrowToWide(narrow);
    return true;
  }

  bool StringList(const toml::table& table, const std::string& prefix, std::string_view key,
                  std::vector<std::string>& out) {
    const toml::node* node = table.get(key);
    if (!node) return true;
    const std::string name = prefix + std::string(key);
    const toml::array* array = node->as_array();
    if (!array) return WrongType(*node, name, "an array of strings");
    for (std::size_t i = 0; i < array->size(); ++i) {
      const toml::node& item = *array->get(i);
      if (!item.is_string()) return WrongType(item, Indexed(name, i), "a string");
      out.push_back(item.as_string()->get());
    }
    return true;
  }

  // `visit(table, itemPrefix)` for each table of an array of tables.
  template <class Visit>
  bool Tables(const toml::table& table, const std::string& prefix, std::string_view key,
              Visit&& visit) {
    const toml::node* node = table.get(key);
    if (!node) return true;
    const std::string name = prefix + std::string(key);
    const toml::array* array = node->as_array();
    if (!array) return WrongType(*node, name, "an array of tables ([[" + name + "]])");
    for (std::size_t i = 0; i < array->size(); ++i) {
      const toml::node& item = *array->get(i);
      if (!item.is_table()) return WrongType(item, Indexed(name, i), "a table");
      if (!visit(*item.as_table(), Indexed(name, i) + '.')) return false;
    }
    return true;
  }

  // The exclusion entries of `table`: short form `exclude`, full form `exclusion`.
  bool Exclusions(const toml::table& table, const std::string& prefix,
                  std::vector<ExclusionEntry>& out) {
    std::vector<std::string> globs;
    if (!StringList(table, prefix, "exclude", globs)) return false;
    for (std::string& glob : globs) out.push_back(ExclusionEntry{{}, std::move(glob), {}, true});
    return Tables(table, prefix, "exclusion", [&](const toml::table& t, const std::string& p) {
      ExclusionEntry entry;
      if (!CheckKeys(t, p, {"pattern", "exceptions", "enabled", "comment"}) ||
          !String(t, p, "pattern", entry.pattern) ||
          !StringList(t, p, "exceptions", entry.exceptions) ||
          !Bool(t, p, "enabled", entry.enabled) || !Text(t, p, "comment", entry.comment))
        return false;
      if (entry.pattern.empty()) return Fail(t.source(), p + "pattern", "missing or empty");
      out.push_back(std::move(entry));
      return true;
    });
  }

  bool Area(const toml::table& t, const std::string& p, MonitorConfig& config) {
    std::vector<ScanArea>& areas = config.settings.scanAreas;
    ScanArea area;
    area.areaFlag = true;
    AreaWatch watch = AreaWatch::kWatched;
    std::string path;
    if (!CheckKeys(t, p, {"path", "name", "enabled", "watch", "exclude", "exclusion"}) ||
        !String(t, p, "path", path) || !Text(t, p, "name", area.areaName) ||
        !Bool(t, p, "enabled", area.areaFlag) || !WatchChoice(t, p, watch) ||
        !Exclusions(t, p, area.localExclusions))
      return false;
    const toml::node* node = t.get("path");
    const toml::source_region& where = node ? node->source() : t.source();
    if (path.empty()) return Fail(where, p + "path", "missing or empty area path");
    if (path.front() != '/') return Fail(where, p + "path", "area path must be absolute: " + path);
    area.path = NormalizeAreaPath(path);
    for (const ScanArea& other : areas)
      if (other.path == area.path) return Fail(where, p + "path", "area given twice: " + area.path);
    if (area.areaName.empty()) area.areaName = orn::text::NarrowToWide(area.path);
    if (watch == AreaWatch::kScanOnly) config.scanOnlyAreas.push_back(area.path);
    if (watch == AreaWatch::kFanotifyOnly) config.fanotifyOnlyAreas.push_back(area.path);
    areas.push_back(std::move(area));
    return true;
  }

  // An area's `watch`: true, false or "fanotify".
  bool WatchChoice(const toml::table& t, const std::string& p, AreaWatch& out) {
    const toml::node* node = t.get("watch");
    if (!node) return true;
    if (const auto* flag = node->as_boolean()) {
      out = flag->get() ? AreaWatch::kWatched : AreaWatch::kScanOnly;
      return true;
    }
    if (const auto* text = node->as_string(); text && text->get() == "fanotify") {
      out = AreaWatch::kFanotifyOnly;
      return true;
    }
    return Fail(node->source(), p + "watch", "expected true, false or \"fanotify\"");
  }

  bool Masks(const toml::table& root, pax::settings::ExclusionSettings& out) {
    const toml::node* node = root.get("masks");
    if (!node) return true;
    const toml::table* t = node->as_table();
    if (!t) return WrongType(*node, "masks", "a table ([masks])");
    if (!CheckKeys(*t, "masks.", {"mode", "patterns"}) ||
        !StringList(*t, "masks.", "patterns", out.excludeMasks))
      return false;
    const toml::node* mode = t->get("mode");
    if (!mode) return true;
    if (const auto* text = mode->as_string()) {
      static constexpr std::string_view kModes[] = {"off", "files", "everything"};
      for (std::uint32_t i = 0; i < 3; ++i) {
        if (text->get() == kModes[i]) {
          out.excludeMode = i;
          return true;
        }
      }
    } else if (const auto* number = mode->as_integer();
               number && number->get() >= 0 && number->get() <= 2) {
      out.excludeMode = static_cast<std::uint32_t>(number->get());
      return true;
    }
    return Fail(mode->source(), "masks.mode", "expected \"off\", \"files\" or \"everything\"");
  }

  bool ScanOptions(const toml::table& root, pax::settings::ODFIMSettings& out) {
    const toml::node* node = root.get("scan");
    if (!node) return true;
    const toml::table* t = node->as_table();
    if (!t) return WrongType(*node, "scan", "a table ([scan])");
    return CheckKeys(*t, "scan.",
                     {"auto_update_baseline", "compute_content_hash", "rebuild_toggle",
                      "report_access_time"}) &&
           Bool(*t, "scan.", "auto_update_baseline", out.autoUpdateBaseline) &&
           Bool(*t, "scan.", "compute_content_hash", out.computeContentHash) &&
           Bool(*t, "scan.", "rebuild_toggle", out.globalOption3) &&
           Bool(*t, "scan.", "report_access_time", out.reportAccessTime);
  }

  bool Watch(const toml::table& root, WatchBackend& out) {
    const toml::node* node = root.get("watch");
    if (!node) return true;
    const toml::table* t = node->as_table();
    if (!t) return WrongType(*node, "watch", "a table ([watch])");
    if (!CheckKeys(*t, "watch.", {"backend"})) return false;
    const toml::node* backend = t->get("backend");
    if (!backend) return true;
    const auto* text = backend->as_string();
    const std::optional<WatchBackend> named = text ? WatchBackendNamed(text->get()) : std::nullopt;
    if (!named)
      return Fail(backend->source(), "watch.backend",
                  "expected \"auto\", \"fanotify\" or \"inotify\"");
    out = *named;
    return true;
  }

  bool Interval(const toml::table& t, std::uint32_t& out) {
    const toml::node* node = t.get("interval");
    if (!node) return true;
    const auto* number = node->as_integer();
    if (!number) return WrongType(*node, "daemon.interval", "an integer");
    if (number->get() < 0 || number->get() > kMaxScanIntervalSeconds)
      return Fail(node->source(), "daemon.interval",
                  "expected 0 to " + std::to_string(kMaxScanIntervalSeconds) + " seconds");
    out = static_cast<std::uint32_t>(number->get());
    return true;
  }

  bool Journal(const toml::table& t, JournalMode& out) {
    const toml::node* node = t.get("journal");
    if (!node) return true;
    if (const auto* flag = node->as_boolean()) {
      out = flag->get() ? JournalMode::kOn : JournalMode::kOff;
      return true;
    }
    if (const auto* text = node->as_string(); text && text->get() == "auto") {
      out = JournalMode::kAuto;
      return true;
    }
    return Fail(node->source(), "daemon.journal", "expected \"auto\", true or false");
  }

  bool Daemon(const toml::table& root, DaemonConfig& out) {
    const toml::node* node = root.get("daemon");
    if (!node) return true;
    const toml::table* t = node->as_table();
    if (!t) return WrongType(*node, "daemon", "a table ([daemon])");
    return CheckKeys(*t, "daemon.", {"interval", "scan_at_start", "events_log", "journal"}) &&
           Interval(*t, out.intervalSeconds) &&
           Bool(*t, "daemon.", "scan_at_start", out.scanAtStart) && EventsLog(*t, out.eventsLog) &&
           Journal(*t, out.journal);
  }

  bool EventsLog(const toml::table& t, std::string& out) {
    if (!String(t, "daemon.", "events_log", out)) return false;
    if (out.empty() || out.front() == '/') return true;
    return Fail(t.get("events_log")->source(), "daemon.events_log", "must be absolute: " + out);
  }

  bool TaskId(const toml::table& root, pax::core::TaskId& out) {
    const toml::node* node = root.get("task_id");
    if (!node) return true;
    const auto* number = node->as_integer();
    if (!number) return WrongType(*node, "task_id", "an integer");
    if (number->get() < 0) return Fail(node->source(), "task_id", "must not be negative");
    out = static_cast<pax::core::TaskId>(number->get());
    return true;
  }

  bool Document(const toml::table& root, MonitorConfig& config) {
    pax::settings::ODFIMSettings& s = config.settings;
    return CheckKeys(root, "",
                     {"task_id", "task_name", "rule_id", "exclude", "exclusion", "masks", "scan",
                      "watch", "area", "daemon"}) &&
           TaskId(root, config.taskId) && Text(root, "", "task_name", config.taskName) &&
           Text(root, "", "rule_id", s.ruleId) && Exclusions(root, "", s.globalExclusions) &&
           Masks(root, s) && ScanOptions(root, s) && Watch(root, config.watchBackend) &&
           Daemon(root, config.daemon) &&
           Tables(root, "", "area",
                  [&](const toml::table& t, const std::string& p) { return Area(t, p, config); });
  }

 private:
  const std::string& m_source;
  std::string& m_error;
};

}  // namespace

std::string NormalizeAreaPath(const std::string& path) {
  std::string normal = std::filesystem::path(path).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

bool ParseConfig(std::string_view text, const std::string& sourceName, MonitorConfig& config,
                 std::string& error) {
  toml::table root;
  try {
    root = toml::parse(text, sourceName);
  } catch (const toml::parse_error& e) {
    std::ostringstream s;
    s << sourceName << ':' << e.source().begin.line << ':' << e.source().begin.column
      << ": syntax error: " << e.description();
    error = s.str();
    return false;
  }
  MonitorConfig parsed;
  Reader reader(sourceName, error);
  if (!reader.Document(root, parsed)) return false;
  config = std::move(parsed);
  return true;
}

bool LoadConfigFile(const std::string& file, MonitorConfig& config, std::string& error) {
  std::string content;
  ScopedFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  int err = fd.Valid() ? 0 : errno;
  while (!err) {
    char buffer[16384];
    const ssize_t n = ::read(fd.Get(), buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno != EINTR) err = errno;
      continue;
    }
    content.append(buffer, static_cast<std::size_t>(n));
  }
  if (err) {
    error = "cannot read configuration '" + file + "': " + std::strerror(err);
    return false;
  }
  return ParseConfig(content, file, config, error);
}

bool AddAreas(const std::vector<std::string>& paths, MonitorConfig& config, std::string& error) {
  for (const std::string& given : paths) {
    if (given.empty()) {
      error = "empty area path on the command line";
      return false;
    }
    std::error_code ec;
    const std::string absolute =
        given.front() == '/' ? given : std::filesystem::absolute(given, ec).string();
    if (ec) {
      error = "cannot make '" + given + "' absolute: " + ec.message();
      return false;
    }
    ScanArea area;
    area.path = NormalizeAreaPath(absolute);
    area.areaName = orn::text::NarrowToWide(area.path);
    area.areaFlag = true;
    bool known = false;
    for (const ScanArea& other : config.settings.scanAreas)
      known = known || other.path == area.path;
    if (!known) config.settings.scanAreas.push_back(std::move(area));
  }
  return true;
}

AreaWatch WatchOf(const MonitorConfig& config, const std::string& areaPath) {
  const auto listed = [&areaPath](const std::vector<std::string>& paths) {
    return std::find(paths.begin(), paths.end(), areaPath) != paths.end();
  };
  if (listed(config.scanOnlyAreas)) return AreaWatch::kScanOnly;
  if (listed(config.fanotifyOnlyAreas)) return AreaWatch::kFanotifyOnly;
  return AreaWatch::kWatched;
}

pax::settings::OAFIMSettings OnAccessSettings(const MonitorConfig& config, bool fileSystemMarks) {
  pax::settings::OAFIMSettings settings = config.settings;
  std::erase_if(settings.scanAreas, [&](const ScanArea& area) {
    const AreaWatch watch = WatchOf(config, area.path);
    return watch == AreaWatch::kScanOnly || (watch == AreaWatch::kFanotifyOnly && !fileSystemMarks);
  });
  return settings;
}

void AddExclusions(const std::vector<std::string>& globs, MonitorConfig& config) {
  for (const std::string& glob : globs)
    config.settings.globalExclusions.push_back(ExclusionEntry{{}, glob, {}, true});
}

}  // namespace arvo::host
