#include "settings_history.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/fake_host.h"
#include "tests/temp_tree.h"

namespace pax::fim {
namespace {

using settings::ODFIMSettings;
using settings::ScanArea;

ODFIMSettings Sample() {
  ODFIMSettings s;
  s.scanAreas = {ScanArea{u"etc", true, "/etc", {{u"", "*.swp", {}, true}}},
                 ScanArea{u"bin", true, "/usr/bin", {}}};
  s.globalExclusions = {{u"", "/etc/mtab", {}, true}};
  s.excludeMode = 1;
  s.excludeMasks = {"*~"};
  s.computeContentHash = true;
  return s;
}

class SettingsHistoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(db.OpenPath(dir / "fim.db"), orn::errors::kOk);
    ASSERT_EQ(db.InitializeDatabase(), orn::errors::kOk);
    context.tracer = tracer.Get();
    context.db = db.Handle();
    context.settings = &current;
  }

  std::int64_t Count(const std::string& query) {
    std::int64_t n = -1;
    auto cb = [](void* data, int, char** values, char**) {
      *static_cast<std::int64_t*>(data) = std::stoll(values[0]);
      return 0;
    };
    EXPECT_EQ(db.QueryExec(query, cb, &n), orn::errors::kOk);
    return n;
  }
  void AddRow(const char* table, std::uint64_t scope, int ino) {
    const std::string q = std::string("INSERT INTO ") + table + " VALUES (" +
                          std::to_string(scope) + "," + std::to_string(ino) +
                          ",1,0,0,0,0,0,0,x'2f6100',33188,1,0,0,0,x'',x'',0,0,x'')";
    ASSERT_EQ(db.QueryExec(q, nullptr, nullptr), orn::errors::kOk);
  }

  arvo::test::TempDir dir;
  orn::RefPtr<arvo::test::RecordingTracer> tracer = orn::MakeSimple<arvo::test::RecordingTracer>();
  IntegrityDatabase db{tracer.Get()};
  ODFIMSettings current = Sample();
  OnDemandContext context;
  // Storage and serializer are exercised through the module (tests/module).
  SettingsHistory history{context, db, nullptr, nullptr};
};

TEST_F(SettingsHistoryTest, ForcedRebuildRulesApplyInOrder) {
  struct Case {
    const char* name;
    std::function<void(ODFIMSettings&)> changePrevious;
    bool rebuild;
    const char* trace;  // null: none of the rule messages
  };
  const Case cases[] = {
      {"unchanged", [](ODFIMSettings&) {}, false, "Settings were not changed"},
      {"access-time flag only", [](ODFIMSettings& p) { p.reportAccessTime = true; }, false,
       "Settings were not changed"},
      {"auto-update flag only", [](ODFIMSettings& p) { p.autoUpdateBaseline = true; }, false,
       nullptr},
      {"hashing", [](ODFIMSettings& p) { p.computeContentHash = false; }, true,
       "Global settings were changed"},
      {"third option", [](ODFIMSettings& p) { p.globalOption3 = true; }, true,
       "Global settings were changed"},
      {"masks", [](ODFIMSettings& p) { p.excludeMasks.clear(); }, true,
       "Global excludes were changed"},
      {"mode", [](ODFIMSettings& p) { p.excludeMode = 2; }, true, "Global excludes were changed"},
      {"global exclusion entries", [](ODFIMSettings& p) { p.globalExclusions.clear(); }, false,
       nullptr},
      {"area new to the settings", [](ODFIMSettings& p) { p.scanAreas.erase(p.scanAreas.begin()); },
       false, "new area was added: /etc"},
      {"area name", [](ODFIMSettings& p) { p.scanAreas[0].areaName = u"x"; }, true,
       "scan area settings were changed"},
      {"area flag", [](ODFIMSettings& p) { p.scanAreas[0].areaFlag = false; }, true,
       "scan area settings were changed"},
      {"local exclusions", [](ODFIMSettings& p) { p.scanAreas[0].localExclusions.clear(); }, true,
       "Local area exclusions were changed"},
      {"another area only", [](ODFIMSettings& p) { p.scanAreas[1].areaName = u"x"; }, false,
       nullptr},
  };
  const char* messages[] = {
      "Settings were not changed",       "Global settings were changed",
      "Global excludes were changed",    "new area was added",
      "scan area settings were changed", "Local area exclusions were changed"};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tracer->Clear();
    ODFIMSettings previous = Sample();
    c.changePrevious(previous);
    EXPECT_EQ(history.NeedForceRebuildBaseline(current.scanAreas[0], previous), c.rebuild);
    for (const char* m : messages) {
      const bool expected = c.trace && std::string(c.trace).rfind(m, 0) == 0;
      EXPECT_EQ(tracer->Contains(m, orn::kTraceLevelDetail), expected) << m;
    }
    if (c.trace) {
      EXPECT_TRUE(tracer->Contains(std::string("odfim\t") + c.trace));
    }
  }
}

TEST_F(SettingsHistoryTest, CollectDeletesTheScopesOfRemovedAreasOnly) {
  std::uint64_t keep = 0, gone = 0, quoted = 0, otherTask = 0;
  ASSERT_EQ(db.CheckScanScopeBaseline("/etc", 5, keep), 1);
  ASSERT_EQ(db.CheckScanScopeBaseline("/old", 5, gone), 1);
  ASSERT_EQ(db.CheckScanScopeBaseline("/it's", 5, quoted), 1);
  ASSERT_EQ(db.CheckScanScopeBaseline("/old", 6, otherTask), 1);
  AddRow(kBaselineTable, gone, 1);
  AddRow(kCurrentSnapshotTable, gone, 1);
  AddRow(kBaselineTable, keep, 1);

  ODFIMSettings previous = current;
  previous.scanAreas.push_back(ScanArea{u"", true, "/old", {}});
  previous.scanAreas.push_back(ScanArea{u"", true, "/it's", {}});
  EXPECT_EQ(history.Collect(5, previous), orn::errors::kOk);
  EXPECT_TRUE(tracer->Contains("odfim\tscan scope '/old' was deleted", orn::kTraceLevelDetail));
  EXPECT_TRUE(tracer->Contains("scan scope '/it's' was deleted"));
  EXPECT_EQ(Count("SELECT count(*) FROM ScanScopes"), 2);
  EXPECT_EQ(Count("SELECT count(*) FROM ScanScopes WHERE id = " + std::to_string(otherTask)), 1);
  // Their snapshot rows go with them.
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline"), 1);
  EXPECT_EQ(Count("SELECT count(*) FROM CurrentSnaphot"), 0);
}

TEST_F(SettingsHistoryTest, RebuildBaselineReplacesTheScopeBaselineInOneTransaction) {
  std::uint64_t id = 0;
  ASSERT_EQ(db.CheckScanScopeBaseline("/a", 5, id), 1);
  ASSERT_EQ(db.CheckScanScopeBaseline("/b", 5, id), 1);
  ASSERT_EQ(id, 2u);
  AddRow(kBaselineTable, 1, 1);
  AddRow(kBaselineTable, 1, 2);
  AddRow(kCurrentSnapshotTable, 1, 3);
  AddRow(kBaselineTable, 2, 9);
  AddRow(kCurrentSnapshotTable, 2, 9);
  ASSERT_EQ(history.RebuildBaseline(1), orn::errors::kOk);
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline WHERE scanscopeid = 1 AND ino = 3"), 1);
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline WHERE scanscopeid = 1"), 1);
  EXPECT_EQ(Count("SELECT count(*) FROM CurrentSnaphot WHERE scanscopeid = 1"), 0);
  EXPECT_EQ(Count("SELECT count(*) FROM CurrentSnaphot"), 1);  // other scopes untouched

  // A statement failing midway leaves the baseline as it was and no
  // transaction open behind it.
  ASSERT_EQ(db.QueryExec("DROP TABLE CurrentSnaphot", nullptr, nullptr), orn::errors::kOk);
  EXPECT_EQ(history.RebuildBaseline(1), orn::errors::kUnspecified);
  EXPECT_TRUE(tracer->Contains("Cannot rebuild Baseline", orn::kTraceLevelError));
  EXPECT_NE(sqlite3_get_autocommit(db.Handle()), 0);
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline WHERE scanscopeid = 1"), 1);
}

}  // namespace
}  // namespace pax::fim
