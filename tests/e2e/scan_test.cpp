// arvo-fim scan on real temporary trees: baselines, unchanged reruns, each
// kind of change, exclusions, exit codes.
#include <sys/stat.h>

#include <cstdio>
#include <ostream>

#include "pax/enumerations.h"
#include "tests/e2e/e2e_util.h"

namespace arvo::e2e {
namespace {

namespace mod = pax::modification;

class ScanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_area = m_tree / "area";
    for (const char* dir : {"", "/d1", "/d2"}) ASSERT_EQ(::mkdir((m_area + dir).c_str(), 0755), 0);
    WriteFile(m_area + "/f", "one");
    WriteFile(m_area + "/g", "gee");
    WriteFile(m_area + "/d1/h", "aitch");
  }

  RunResult Scan(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"scan", "--format", "json", "--hash"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(m_area);
    return RunFim(args, Env());
  }

  std::map<std::string, std::string> Env() const {
    return {{"ARVO_FIM_DB", m_tree / "private/db/fim.db"},
            {"ARVO_FIM_STORAGE", m_tree / "private/storage/fim_storage.dat"}};
  }

  TempTree m_tree;
  std::string m_area;
};

TEST_F(ScanTest, FirstRunBuildsTheBaselineAndAnUnchangedRerunIsOk) {
  const RunResult first = Scan();
  ASSERT_EQ(first.exitCode, 0) << first.stderrText;
  const auto built = OfType(first.events, "BaselineBuilt");
  ASSERT_EQ(built.size(), 1u);
  EXPECT_EQ(built[0].Path(), m_area);
  EXPECT_EQ(built[0].Text("TaskType"), "ODFIM");
  EXPECT_TRUE(OfType(first.events, "SystemIntegrityIssue").empty());

  // The host made the private directories, readable by the owner only.
  struct stat st {};
  ASSERT_EQ(::stat((m_tree / "private/db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_EQ(::stat((m_tree / "private/storage").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  const RunResult second = Scan();
  ASSERT_EQ(second.exitCode, 0) << second.stderrText;
  EXPECT_EQ(OfType(second.events, "SystemIntegrityOk").size(), 1u);
  EXPECT_TRUE(OfType(second.events, "SystemIntegrityIssue").empty());
  EXPECT_TRUE(OfType(second.events, "BaselineBuilt").empty());
}

struct ChangeCase {
  const char* name;
  std::function<void(const std::string& area)> change;
  std::int64_t type;
  const char* path;          // relative to the area
  const char* originalPath;  // relative to the area, or null
};

// Shown by the test runner instead of the case's raw bytes.
void PrintTo(const ChangeCase& c, std::ostream* os) { *os << c.name; }

class ScanChangeTest : public ScanTest, public ::testing::WithParamInterface<ChangeCase> {};

// A change also touches what surrounds it (a parent directory's times, a
// written file's size and times): those attribute changes may be reported
// beside it. The change itself is reported exactly once, and nothing is
// reported as created or deleted that was not.
TEST_P(ScanChangeTest, EachChangeIsReportedOnceAndExitCodeIsOne) {
  ASSERT_EQ(Scan().exitCode, 0);
  GetParam().change(m_area);
  const RunResult run = Scan();
  EXPECT_EQ(run.exitCode, 1) << run.stderrText;
  const std::string path = m_area + "/" + GetParam().path;
  std::vector<Event> found;
  for (const Event& e : OfType(run.events, "SystemIntegrityIssue")) {
    const std::int64_t type = e.Number("FileModificationType");
    if (e.Path() == path && type == GetParam().type) {
      found.push_back(e);
    } else {
      EXPECT_EQ(type, mod::kObjectAttributesChanged) << e.Path() << " type " << type;
    }
  }
  ASSERT_EQ(found.size(), 1u) << run.stderrText;
  const Event& e = found[0];
  EXPECT_EQ(e.json["severityName"].Bytes(), "Critical");
  EXPECT_EQ(e.Text("TaskType"), "ODFIM");
  EXPECT_EQ(e.Text("TaskName"), "System_Integrity_Monitoring");
  EXPECT_EQ(e.Number("TaskId"), 1);
  if (GetParam().originalPath) {
    EXPECT_EQ(e.Text("OriginalPath"), m_area + "/" + GetParam().originalPath);
  } else {
    EXPECT_EQ(e.Field("OriginalPath"), nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ScanChangeTest,
    ::testing::Values(
        ChangeCase{"Create", [](const std::string& a) { WriteFile(a + "/new", "x"); },
                   mod::kObjectCreated, "new", nullptr},
        ChangeCase{"Delete", [](const std::string& a) { ::unlink((a + "/g").c_str()); },
                   mod::kObjectDeleted, "g", nullptr},
        ChangeCase{"Content",
                   [](const std::string& a) { WriteFile(a + "/f", "two", /*truncate=*/true); },
                   mod::kObjectContentChanged, "f", nullptr},
        ChangeCase{"Chmod", [](const std::string& a) { ::chmod((a + "/g").c_str(), 0600); },
                   mod::kObjectAttributesChanged, "g", nullptr},
        ChangeCase{
            "RenameInPlace",
            [](const std::string& a) { std::rename((a + "/g").c_str(), (a + "/g2").c_str()); },
            mod::kObjectRenamed, "g2", "g"},
        ChangeCase{
            "MoveToAnotherDirectory",
            [](const std::string& a) { std::rename((a + "/d1/h").c_str(), (a + "/d2/h").c_str()); },
            mod::kObjectMoved, "d2/h", "d1/h"}),
    [](const ::testing::TestParamInfo<ChangeCase>& info) { return std::string(info.param.name); });

TEST_F(ScanTest, ExcludedObjectsAreNotReported) {
  ASSERT_EQ(Scan({"--exclude", "*.tmp"}).exitCode, 0);
  WriteFile(m_area + "/scratch.tmp", "x");
  WriteFile(m_area + "/d1/more.tmp", "y");
  const RunResult run = Scan({"--exclude", "*.tmp"});
  // Only the times of d1 and of the area's own directory changed (a file
  // appeared in each).
  for (const Event& e : OfType(run.events, "SystemIntegrityIssue")) {
    EXPECT_TRUE(e.Path() == m_area + "/d1" || e.Path() == m_area) << e.Path();
    EXPECT_EQ(e.Number("FileModificationType"), mod::kObjectAttributesChanged);
  }
}

TEST_F(ScanTest, ConfigurationFileDescribesTheAreaAndTaskIdentity) {
  const std::string config = m_tree / "fim.toml";
  WriteFile(config,
            "task_id = 9\ntask_name = \"Nightly\"\nrule_id = \"R1\"\n"
            "[scan]\ncompute_content_hash = true\n"
            "[[area]]\npath = \"" +
                m_area + "\"\nexclude = [\"g\"]\n");
  ASSERT_EQ(RunFim({"scan", "--config", config}, Env()).exitCode, 0);
  WriteFile(m_area + "/g", "changed", true);
  WriteFile(m_area + "/f", "changed", true);
  const RunResult run = RunFim({"scan", "--config", config}, Env());
  EXPECT_EQ(run.exitCode, 1) << run.stderrText;
  const auto issues = OfType(run.events, "SystemIntegrityIssue");
  ASSERT_FALSE(issues.empty());
  for (const Event& e : issues) {
    EXPECT_EQ(e.Path(), m_area + "/f");
    EXPECT_EQ(e.Number("TaskId"), 9);
    EXPECT_EQ(e.Text("TaskName"), "Nightly");
    EXPECT_EQ(e.Text("FimRuleId"), "R1");
  }
}

TEST_F(ScanTest, SignalInterruptsARunningScan) {
  for (int d = 0; d < 15; ++d) {
    const std::string dir = m_area + "/bulk" + std::to_string(d);
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    for (int f = 0; f < 100; ++f) WriteFile(dir + "/" + std::to_string(f), "z");
  }
  // The walk traces every file at level 800 on stderr (about 200 KB here). Once the area's
  // "Path: " line is read, this test stops reading: the pipe fills and the
  // walk stalls in its next trace line, still inside the area, whatever the
  // machine's speed. The signal then lands in the middle of the walk.
  Process scan({"--trace-level", "800", "scan", "--format", "json", m_area}, Env());
  ASSERT_TRUE(scan.WaitForStderr("odfim\tPath: " + m_area)) << scan.Stderr();
  scan.Signal(SIGINT);
  EXPECT_EQ(scan.Finish(), 3);
  const std::string err = scan.Stderr();
  EXPECT_NE(err.find("reason: Task is interrupted"), std::string::npos);
  EXPECT_NE(err.find("arvo-fim: scan interrupted"), std::string::npos);
  EXPECT_TRUE(OfType(scan.Events(), "BaselineBuilt").empty());
}

TEST_F(ScanTest, FailedRunExitsTwo) {
  // The database path is a directory: the task cannot be created. (Inside
  // the tree, so that the run lock beside it goes with the tree.)
  ASSERT_EQ(::mkdir((m_tree / "db").c_str(), 0700), 0);
  const auto env = std::map<std::string, std::string>{{"ARVO_FIM_DB", m_tree / "db"},
                                                      {"ARVO_FIM_STORAGE", m_tree / "st/s"}};
  const RunResult run = RunFim({"scan", m_area}, env);
  EXPECT_EQ(run.exitCode, 2) << run.stderrText;
  EXPECT_NE(run.stderrText.find("arvo-fim: "), std::string::npos);
}

}  // namespace
}  // namespace arvo::e2e
