#include "snapshot_builder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "snapshot_test_support.h"

namespace pax::fim::test {
namespace {

struct Row {
  std::string paths;
  int shaBytes = -1;
  std::string sha;
  std::uint32_t attr = 0;
  int aclBytes = -1;
};

class SnapshotBuilderTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    ASSERT_EQ(db.CheckScanScopeBaseline(area.Path(), taskInfo.taskId, scope), 1);
    context.buildingBaseline = true;
  }

  std::vector<Row> Rows(const char* table) {
    std::vector<Row> rows;
    sqlite3_stmt* stmt = nullptr;
    const std::string query =
        std::string("SELECT paths, sha256, attr, acl FROM ") + table + " ORDER BY ino";
    EXPECT_EQ(sqlite3_prepare_v2(db.Handle(), query.c_str(), -1, &stmt, nullptr), SQLITE_OK);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      Row row;
      const auto text = [&](int column) {
        const char* p = static_cast<const char*>(sqlite3_column_blob(stmt, column));
        return std::string(p ? p : "", sqlite3_column_bytes(stmt, column));
      };
      row.paths = text(0);
      row.sha = text(1);
      row.shaBytes = sqlite3_column_bytes(stmt, 1);
      row.attr = static_cast<std::uint32_t>(sqlite3_column_int64(stmt, 2));
      row.aclBytes = sqlite3_column_bytes(stmt, 3);
      rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    return rows;
  }

  std::uint64_t scope = 0;
  SnapshotBuilder builder{context, db};
};

TEST_F(SnapshotBuilderTest, HardLinksMergeIntoOneRowNewestFirst) {
  WriteFile(area / "first", "data");
  ASSERT_EQ(::link((area / "first").c_str(), (area / "second").c_str()), 0);
  EXPECT_EQ(builder.BuildSnapshot(area / "first", scope), 0);
  EXPECT_EQ(builder.BuildSnapshot(area / "second", scope), 0);
  const auto rows = Rows(kBaselineTable);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].paths, area / "second" + '\0' + area / "first" + '\0');
  EXPECT_TRUE(Rows(kCurrentSnapshotTable).empty());

  // The same walk into the current snapshot starts from that table alone.
  context.buildingBaseline = false;
  EXPECT_EQ(builder.BuildSnapshot(area / "first", scope), 0);
  ASSERT_EQ(Rows(kCurrentSnapshotTable).size(), 1u);
  EXPECT_EQ(Rows(kCurrentSnapshotTable)[0].paths, area / "first" + '\0');
}

TEST_F(SnapshotBuilderTest, ASingleLinkFileSeenTwiceKeepsItsLastVisit) {
  // Renamed while the walk runs: seen under both names, one link each time.
  WriteFile(area / "before", "data");
  EXPECT_EQ(builder.BuildSnapshot(area / "before", scope), 0);
  ASSERT_EQ(::rename((area / "before").c_str(), (area / "after").c_str()), 0);
  EXPECT_EQ(builder.BuildSnapshot(area / "after", scope), 0);
  const auto rows = Rows(kBaselineTable);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].paths, area / "after" + '\0');
}

TEST_F(SnapshotBuilderTest, OnlyNonEmptyRegularFilesAreHashedWhenHashingIsOn) {
  settings.computeContentHash = true;
  ASSERT_EQ(::mkdir((area / "dir").c_str(), 0755), 0);
  WriteFile(area / "empty", "");
  WriteFile(area / "full", "content");
  ASSERT_EQ(::symlink("full", (area / "link").c_str()), 0);
  for (const char* name : {"dir", "empty", "full", "link"})
    EXPECT_EQ(builder.BuildSnapshot(area / name, scope), 0) << name;
  EXPECT_EQ(files->Opens(), 1);

  filesystem_services::Sha256Hash expected{};
  ASSERT_EQ(sha->GetHashByBuffer("content", 7, expected), 0);
  int hashed = 0;
  for (const Row& row : Rows(kBaselineTable)) {
    if (row.paths == area / "full" + '\0') {
      EXPECT_EQ(row.sha, std::string(expected.begin(), expected.end()));
      ++hashed;
    } else {
      EXPECT_EQ(row.shaBytes, 0) << row.paths;
    }
    if ((row.attr & S_IFMT) == S_IFDIR) {
      EXPECT_EQ(row.paths, area / "dir" + '\0');
    }
  }
  EXPECT_EQ(hashed, 1);

  settings.computeContentHash = false;
  WriteFile(area / "other", "content");
  EXPECT_EQ(builder.BuildSnapshot(area / "other", scope), 0);
  EXPECT_EQ(files->Opens(), 1);
}

TEST_F(SnapshotBuilderTest, FileReplacedBeforeItsOpenIsNotRecorded) {
  settings.computeContentHash = true;
  files->SimulateReplacement();
  WriteFile(area / "racy", "content");
  EXPECT_EQ(builder.BuildSnapshot(area / "racy", scope), orn::errors::kNotMatched);
  EXPECT_TRUE(tracer->Contains("was replaced before it could be read", 300));
  EXPECT_TRUE(
      tracer->Contains("(GetFileHash(path, hash)),(ORN_SUCCEEDED(_result)) failed: "
                       "result = 0x8000004a (Not matched)Cannot calc sha256 hash for '" +
                           area / "racy" + "'",
                       300));
  EXPECT_TRUE(Rows(kBaselineTable).empty());
}

TEST_F(SnapshotBuilderTest, MissingAndOutOfScopeObjectsAreNotRecorded) {
  EXPECT_EQ(builder.BuildSnapshot(area / "gone", scope), orn::errors::kUnspecified);
  EXPECT_TRUE(
      tracer->Contains("(tools::LStatFile(path, &st) != -1),(bool) failed: result = "
                       "falseCannot stat for '" +
                           area / "gone" + "': No such file or directory",
                       300));

  auto matcher = orn::MakeSimple<arvo::test::ScriptedPathMatcher>();
  matcher->Answer(area / "skip", 1);
  context.matcher = matcher.Get();
  ASSERT_EQ(::mkdir((area / "skip").c_str(), 0755), 0);
  EXPECT_EQ(builder.BuildSnapshot(area / "skip", scope), 1);
  EXPECT_TRUE(tracer->Contains("odfim\t" + area / "skip" + " is not in scan scope", 800));
  ASSERT_EQ(matcher->Questions().size(), 1u);
  EXPECT_TRUE(matcher->Questions()[0].second);  // asked as a directory
  EXPECT_TRUE(Rows(kBaselineTable).empty());
}

TEST_F(SnapshotBuilderTest, AclIsStoredRawAndItsAbsenceIsNoFailure) {
  WriteFile(area / "plain", "x");
  orn::types::blob_t acl;
  EXPECT_EQ(builder.GetAcl(area / "plain", acl), 1);
  EXPECT_TRUE(acl.empty());

  WriteFile(area / "shared", "x");
  const std::string command = "setfacl -m u:12345:r '" + area / "shared" + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) GTEST_SKIP() << "no ACL support here";
  EXPECT_EQ(builder.GetAcl(area / "shared", acl), 0);
  EXPECT_GT(acl.size(), 4u);
  EXPECT_EQ(builder.BuildSnapshot(area / "shared", scope), 0);
  ASSERT_EQ(Rows(kBaselineTable).size(), 1u);
  EXPECT_EQ(Rows(kBaselineTable)[0].aclBytes, static_cast<int>(acl.size()));
}

}  // namespace
}  // namespace pax::fim::test
