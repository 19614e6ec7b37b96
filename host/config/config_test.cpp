#include "host/config/config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "host/util/test_temp_dir.h"

namespace arvo::host {
namespace {

MonitorConfig Parse(const std::string& text) {
  MonitorConfig config;
  std::string error;
  EXPECT_TRUE(ParseConfig(text, "cfg.toml", config, error)) << error;
  return config;
}

std::string ErrorOf(const std::string& text) {
  MonitorConfig config;
  std::string error;
  EXPECT_FALSE(ParseConfig(text, "cfg.toml", config, error)) << text;
  return error;
}

TEST(ConfigTest, ReadsEveryKey) {
  const MonitorConfig c = Parse(R"(
task_id = 42
task_name = "Nightly"
rule_id = "R-7"
exclude = ["*.swp"]

[[exclusion]]
pattern = "/etc/ssl/*"
exceptions = ["/etc/ssl/keep"]
enabled = false
comment = "churn"

[masks]
mode = "everything"
patterns = ["*~"]

[scan]
auto_update_baseline = true
compute_content_hash = true
rebuild_toggle = true
report_access_time = true

[watch]
backend = "inotify"

[[area]]
path = "/etc/"
name = "config"
enabled = false
exclude = ["*.bak"]
  [[area.exclusion]]
  pattern = "/etc/mtab"

[[area]]
path = "/usr/./bin"
)");
  const pax::settings::ODFIMSettings& s = c.settings;
  EXPECT_EQ(c.taskId, 42u);
  EXPECT_EQ(c.taskName, u"Nightly");
  EXPECT_EQ(s.ruleId, u"R-7");
  ASSERT_EQ(s.globalExclusions.size(), 2u);
  EXPECT_EQ(s.globalExclusions[0].pattern, "*.swp");
  EXPECT_TRUE(s.globalExclusions[0].enabled);
  EXPECT_EQ(s.globalExclusions[1],
            (pax::settings::ExclusionEntry{u"churn", "/etc/ssl/*", {"/etc/ssl/keep"}, false}));
  EXPECT_EQ(s.excludeMode, 2u);
  EXPECT_EQ(s.excludeMasks, std::vector<std::string>{"*~"});
  EXPECT_TRUE(s.autoUpdateBaseline && s.computeContentHash && s.globalOption3 &&
              s.reportAccessTime);
  ASSERT_EQ(s.scanAreas.size(), 2u);
  EXPECT_EQ(s.scanAreas[0].path, "/etc");
  EXPECT_EQ(s.scanAreas[0].areaName, u"config");
  EXPECT_FALSE(s.scanAreas[0].areaFlag);
  ASSERT_EQ(s.scanAreas[0].localExclusions.size(), 2u);
  EXPECT_EQ(s.scanAreas[0].localExclusions[1].pattern, "/etc/mtab");
  EXPECT_EQ(s.scanAreas[1].path, "/usr/bin");
  EXPECT_EQ(s.scanAreas[1].areaName, u"/usr/bin");
  EXPECT_TRUE(s.scanAreas[1].areaFlag);
  EXPECT_EQ(c.watchBackend, WatchBackend::kInotify);
}

TEST(ConfigTest, DefaultsWhenKeysAreAbsent) {
  const MonitorConfig c = Parse("[[area]]\npath = \"/srv\"\n[masks]\nmode = 1\n");
  EXPECT_EQ(c.taskId, 1u);
  EXPECT_EQ(c.taskName, u"System_Integrity_Monitoring");
  EXPECT_EQ(c.settings.excludeMode, 1u);
  EXPECT_TRUE(c.settings.computeContentHash);  // hashing is on unless turned off
  EXPECT_EQ(c.watchBackend, WatchBackend::kAuto);
}

TEST(ConfigTest, DaemonTableAndScanOnlyAreas) {
  const MonitorConfig defaults = Parse("");
  EXPECT_EQ(defaults.daemon, DaemonConfig{});
  EXPECT_EQ(defaults.daemon.intervalSeconds, 3600u);
  EXPECT_TRUE(defaults.daemon.scanAtStart);
  EXPECT_EQ(defaults.daemon.journal, JournalMode::kAuto);

  const MonitorConfig c = Parse(R"(
[daemon]
interval = 0
scan_at_start = false
events_log = "/var/log/x/events.jsonl"
journal = false
[[area]]
path = "/big"
watch = false
[[area]]
path = "/small"
[[area]]
path = "/usr"
watch = "fanotify"
)");
  EXPECT_EQ(c.daemon, (DaemonConfig{0, false, "/var/log/x/events.jsonl", JournalMode::kOff}));
  EXPECT_EQ(Parse("[daemon]\njournal = true\n").daemon.journal, JournalMode::kOn);
  EXPECT_EQ(Parse("[daemon]\njournal = \"auto\"\n").daemon.journal, JournalMode::kAuto);
  // Scanned: every area; watched: not the one with `watch = false`, and the
  // fanotify-only one only where fanotify runs.
  EXPECT_EQ(c.settings.scanAreas.size(), 3u);
  const pax::settings::OAFIMSettings withInotify = OnAccessSettings(c, false);
  ASSERT_EQ(withInotify.scanAreas.size(), 1u);
  EXPECT_EQ(withInotify.scanAreas[0].path, "/small");
  EXPECT_EQ(withInotify.ruleId, c.settings.ruleId);
  const pax::settings::OAFIMSettings withFanotify = OnAccessSettings(c, true);
  ASSERT_EQ(withFanotify.scanAreas.size(), 2u);
  EXPECT_EQ(withFanotify.scanAreas[1].path, "/usr");
  EXPECT_EQ(WatchOf(c, "/big"), AreaWatch::kScanOnly);
  EXPECT_EQ(WatchOf(c, "/usr"), AreaWatch::kFanotifyOnly);
}

TEST(ConfigTest, ErrorsNameFileLineAndKey) {
  struct Case {
    const char* text;
    const char* message;
  };
  const Case cases[] = {
      {"task_id = = 3\n", "cfg.toml:1:11: syntax error: "},
      {"rule_id = \"r\"\ncolour = 1\n", "cfg.toml:2:1: colour: unknown key"},
      {"task_id = \"7\"\n", "cfg.toml:1:11: task_id: expected an integer, got string"},
      {"task_id = -1\n", "cfg.toml:1:11: task_id: must not be negative"},
      {"[scan]\ncompute_content_hash = 1\n",
       "cfg.toml:2:24: scan.compute_content_hash: expected a boolean, got integer"},
      {"[scan]\nhash = true\n", "cfg.toml:2:1: scan.hash: unknown key"},
      {"[masks]\nmode = \"some\"\n", "cfg.toml:2:8: masks.mode: expected \"off\""},
      {"[watch]\nbackend = \"dnotify\"\n", "cfg.toml:2:11: watch.backend: expected \"auto\""},
      {"exclude = [\"a\", 3]\n", "cfg.toml:1:17: exclude[2]: expected a string, got integer"},
      {"[[exclusion]]\ncomment = \"x\"\n", "cfg.toml:1:1: exclusion[1].pattern: missing or empty"},
      {"[[area]]\npath = \"etc\"\n", "cfg.toml:2:8: area[1].path: area path must be absolute"},
      {"[[area]]\npath = \"\"\n", "cfg.toml:2:8: area[1].path: missing or empty area path"},
      {"[[area]]\nname = \"x\"\n", "cfg.toml:1:1: area[1].path: missing or empty area path"},
      {"[[area]]\npath = \"/a\"\n[[area]]\npath = \"/a/\"\n",
       "cfg.toml:4:8: area[2].path: area given twice: /a"},
      {"[[area]]\npath = \"/a\"\npth = \"/b\"\n", "cfg.toml:3:1: area[1].pth: unknown key"},
      {"[area]\npath = \"/a\"\n", "cfg.toml:1:1: area: expected an array of tables"},
      {"[[area]]\npath = \"/a\"\n[[area.exclusion]]\npattern = 5\n",
       "cfg.toml:4:11: area[1].exclusion[1].pattern: expected a string, got integer"},
      {"[[area]]\npath = \"/a\"\nwatch = \"no\"\n",
       "cfg.toml:3:9: area[1].watch: expected true, false or \"fanotify\""},
      {"[daemon]\ninterval = -5\n", "cfg.toml:2:12: daemon.interval: expected 0 to 2000000"},
      {"[daemon]\ninterval = 1.5\n", "cfg.toml:2:12: daemon.interval: expected an integer"},
      {"[daemon]\njournal = \"yes\"\n", "cfg.toml:2:11: daemon.journal: expected \"auto\""},
      {"[daemon]\nevents_log = \"x.log\"\n", "cfg.toml:2:14: daemon.events_log: must be absolute"},
      {"[daemon]\nintervall = 5\n", "cfg.toml:2:1: daemon.intervall: unknown key"},
      {"daemon = 5\n", "cfg.toml:1:10: daemon: expected a table"},
  };
  for (const Case& c : cases) {
    const std::string error = ErrorOf(c.text);
    EXPECT_EQ(error.rfind(c.message, 0), 0u) << "for:\n" << c.text << "got: " << error;
  }
}

TEST(ConfigTest, LoadFileNamesTheFileWhenItCannotBeRead) {
  arvo::test::TempDir dir;
  MonitorConfig config;
  std::string error;
  EXPECT_FALSE(LoadConfigFile(dir / "missing.toml", config, error));
  EXPECT_EQ(error, "cannot read configuration '" + (dir / "missing.toml") +
                       "': No such file or directory");
  EXPECT_FALSE(LoadConfigFile(dir.Path(), config, error));
  EXPECT_NE(error.find("Is a directory"), std::string::npos) << error;

  const std::string file = dir.Write("good.toml", "[[area]]\npath = \"/x\"\n");
  ASSERT_TRUE(LoadConfigFile(file, config, error)) << error;
  EXPECT_EQ(config.settings.scanAreas.at(0).path, "/x");
  dir.Write("bad.toml", "\n\nbogus = 1\n");
  EXPECT_FALSE(LoadConfigFile(dir / "bad.toml", config, error));
  EXPECT_EQ(error, (dir / "bad.toml") + ":3:1: bogus: unknown key");
}

TEST(ConfigTest, CommandLineAreasAreAbsoluteNormalAndUnique) {
  MonitorConfig config = Parse("[[area]]\npath = \"/srv/data\"\n");
  std::string error;
  ASSERT_TRUE(AddAreas({"/srv/data/", "rel/../dir", "/bytes/\xFF"}, config, error)) << error;
  char cwd[4096];
  ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
  const auto& areas = config.settings.scanAreas;
  ASSERT_EQ(areas.size(), 3u);
  EXPECT_EQ(areas[1].path, std::string(cwd) + "/dir");
  EXPECT_EQ(areas[2].path, "/bytes/\xFF");
  EXPECT_TRUE(areas[2].areaFlag);
  EXPECT_FALSE(AddAreas({""}, config, error));

  AddExclusions({"*.tmp"}, config);
  ASSERT_EQ(config.settings.globalExclusions.size(), 1u);
  EXPECT_EQ(config.settings.globalExclusions[0].pattern, "*.tmp");
  EXPECT_TRUE(config.settings.globalExclusions[0].enabled);
}

// Files shipped in the source tree. Build trees live inside it, so they are
// found by walking up from the working directory; empty when not found.
std::filesystem::path SourceFile(const std::string& relative) {
  for (std::filesystem::path dir = std::filesystem::current_path(); !dir.empty();
       dir = dir.parent_path()) {
    if (std::filesystem::exists(dir / relative)) return dir / relative;
    if (dir == dir.root_path()) break;
  }
  return {};
}

TEST(ConfigTest, ShippedExampleIsValid) {
  const std::filesystem::path file = SourceFile("host/config/example.toml");
  if (file.empty()) GTEST_SKIP() << "host/config/example.toml not found above the cwd";
  MonitorConfig config;
  std::string error;
  ASSERT_TRUE(LoadConfigFile(file.string(), config, error)) << error;
  EXPECT_EQ(config.settings.scanAreas.size(), 5u);
  EXPECT_EQ(config.scanOnlyAreas.size(), 1u);
  EXPECT_EQ(config.fanotifyOnlyAreas.size(), 1u);
}

// The packaged policy: every area watched under fanotify but the one that
// does not exist on every architecture; under inotify only the small ones,
// /usr/lib and /root above all left to the scans.
TEST(ConfigTest, DefaultPolicyWatchesEverythingWithFanotifyAndLittleWithInotify) {
  const std::filesystem::path file = SourceFile("packaging/arvo-fim.toml");
  if (file.empty()) GTEST_SKIP() << "packaging/arvo-fim.toml not found above the cwd";
  MonitorConfig config;
  std::string error;
  ASSERT_TRUE(LoadConfigFile(file.string(), config, error)) << error;
  const auto paths = [](const pax::settings::OAFIMSettings& s) {
    std::vector<std::string> out;
    for (const pax::settings::ScanArea& area : s.scanAreas) out.push_back(area.path);
    return out;
  };
  const std::vector<std::string> all = paths(config.settings);
  const std::vector<std::string> fanotify = paths(OnAccessSettings(config, true));
  const std::vector<std::string> inotify = paths(OnAccessSettings(config, false));
  EXPECT_EQ(fanotify.size(), all.size() - 1);
  EXPECT_EQ(std::count(fanotify.begin(), fanotify.end(), "/usr/lib64"), 0);
  EXPECT_EQ(std::count(fanotify.begin(), fanotify.end(), "/usr/lib"), 1);
  EXPECT_EQ(std::count(inotify.begin(), inotify.end(), "/usr/lib"), 0);
  EXPECT_EQ(std::count(inotify.begin(), inotify.end(), "/root"), 0);
  EXPECT_EQ(std::count(inotify.begin(), inotify.end(), "/etc"), 1);
}

}  // namespace
}  // namespace arvo::host
