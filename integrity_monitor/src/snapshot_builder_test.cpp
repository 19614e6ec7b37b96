#include "snapshot_builder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// Writes `content` to a new file and renames it over `path` (an editor's
// save, a package upgrade); returns the new inode number.
std::uint64_t ReplaceAtomically(const std::string& path, const std::string& content) {
  const std::string temporary = path + ".new";
  WriteFile(temporary, content);
  struct stat st {};
  EXPECT_EQ(::stat(temporary.c_str(), &st), 0);
  EXPECT_EQ(::rename(temporary.c_str(), path.c_str()), 0);
  return st.st_ino;
}

// The object recorded for `path`: its ino, size and digest.
struct Recorded {
  std::uint64_t ino = 0;
  std::int64_t size = -1;
  std::string sha;
};

// The first row of "SELECT ino, size, sha256 ..." run on `stmt`, which it finalizes.
Recorded StepRecorded(sqlite3_stmt* stmt) {
  Recorded row;
  if (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
    row.ino = static_cast<std::uint64_t>(sqlite3_column_int64(stmt, 0));
    row.size = sqlite3_column_int64(stmt, 1);
    const char* p = static_cast<const char*>(sqlite3_column_blob(stmt, 2));
    row.sha.assign(p ? p : "", sqlite3_column_bytes(stmt, 2));
  }
  sqlite3_finalize(stmt);
  return row;
}

Recorded RecordedRow(sqlite3* db, const char* table, const std::string& path) {
  sqlite3_stmt* stmt = nullptr;
  const std::string query =
      std::string("SELECT ino, size, sha256 FROM ") + table + " WHERE paths = ?1";
  EXPECT_EQ(sqlite3_prepare_v2(db, query.c_str(), -1, &stmt, nullptr), SQLITE_OK);
  const std::string blob = path + '\0';
  sqlite3_bind_blob(stmt, 1, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
  return StepRecorded(stmt);
}

std::string Digest(FakeSha256& sha, const std::string& content) {
  filesystem_services::Sha256Hash hash{};
  EXPECT_EQ(sha.GetHashByBuffer(content.data(), content.size(), hash), 0);
  return std::string(hash.begin(), hash.end());
}

TEST_F(SnapshotBuilderTest, FileReplacedBeforeItsOpenIsRecordedAsTheOpenedObject) {
  settings.computeContentHash = true;
  WriteFile(area / "racy", "old content");
  std::uint64_t newIno = 0;
  files->beforeOpen = [&](const std::string& path) {
    files->beforeOpen = nullptr;
    newIno = ReplaceAtomically(path, "the new, longer content");
  };
  EXPECT_EQ(builder.BuildSnapshot(area / "racy", scope), 0);
  EXPECT_TRUE(tracer->Contains(
      "odfim	'" + area / "racy" + "' was replaced before it could be read: recording", 800));
  // Status and digest are the new object's, under its own identity.
  const Recorded row = RecordedRow(db.Handle(), kBaselineTable, area / "racy");
  EXPECT_EQ(row.ino, newIno);
  EXPECT_EQ(row.size, 23);
  EXPECT_EQ(row.sha, Digest(*sha, "the new, longer content"));
}

TEST_F(SnapshotBuilderTest, FileReplacedAgainWhileBeingReadIsTreatedAsVanished) {
  settings.computeContentHash = true;
  files->SimulateReplacement();  // the opened object never matches a status
  WriteFile(area / "racy", "content");
  EXPECT_EQ(builder.BuildSnapshot(area / "racy", scope), orn::errors::kUnspecified);
  EXPECT_TRUE(
      tracer->Contains("(tools::LStatFile(path, &st) != -1),(bool) failed: result = "
                       "falseCannot stat for '" +
                           area / "racy" + "': replaced again while being read",
                       300));
  EXPECT_TRUE(Rows(kBaselineTable).empty());
}

// A replace loop racing the snapshots: every snapshot is taken, and every
// recorded digest is the content of the inode it is recorded under.
TEST_F(SnapshotBuilderTest, AReplaceLoopRacingTheSnapshotsNeverMixesTwoObjects) {
  settings.computeContentHash = true;
  const std::string target = area / "racy";
  std::mutex mutex;
  std::map<std::uint64_t, std::string> contentOf;  // ino -> what was written to it
  // Every version keeps a second link, so that no inode number is freed and
  // reused (ext4 would hand it to the next version).
  ASSERT_EQ(::mkdir((dir / "keep").c_str(), 0755), 0);
  auto replace = [&](int version) {
    const std::string content = "version " + std::to_string(version) +
                                std::string(static_cast<std::size_t>(version % 97), 'x');
    const std::string temporary = target + ".new";
    WriteFile(temporary, content);
    (void)::link(temporary.c_str(), (dir / ("keep/" + std::to_string(version))).c_str());
    struct stat st {};
    if (::stat(temporary.c_str(), &st) != 0) return;
    {
      std::lock_guard lock(mutex);
      contentOf[st.st_ino] = content;
    }
    (void)::rename(temporary.c_str(), target.c_str());
  };
  replace(0);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int version = 1; !done; ++version) {
      replace(version);
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  });
  int taken = 0, replacedAgain = 0;
  IntegrityDatabase::Transaction transaction(db);  // no sync per row
  for (int i = 0; i < 400; ++i) {
    ASSERT_EQ(db.QueryExec("DELETE FROM Baseline", nullptr, nullptr), 0);
    const result_t r = builder.BuildSnapshot(target, scope);
    if (r == 0) {
      ++taken;
      ASSERT_EQ(Rows(kBaselineTable).size(), 1u);
      sqlite3_stmt* stmt = nullptr;
      ASSERT_EQ(sqlite3_prepare_v2(db.Handle(), "SELECT ino, size, sha256 FROM Baseline", -1, &stmt,
                                   nullptr),
                SQLITE_OK);
      const Recorded row = StepRecorded(stmt);
      std::lock_guard lock(mutex);
      ASSERT_TRUE(contentOf.count(row.ino)) << row.ino;
      EXPECT_EQ(row.sha, Digest(*sha, contentOf[row.ino])) << "ino " << row.ino;
      EXPECT_EQ(row.size, static_cast<std::int64_t>(contentOf[row.ino].size()));
    } else {
      // Only a second replacement within one snapshot may fail it.
      ++replacedAgain;
      EXPECT_EQ(r, orn::errors::kUnspecified);
    }
  }
  done = true;
  writer.join();
  EXPECT_GT(taken, 300);
  EXPECT_TRUE(tracer->Contains("replaced again while being read") || replacedAgain == 0);
  std::size_t replaced = 0;
  for (const auto& line : tracer->Lines())
    replaced += line.text.find("was replaced before it could be read") != std::string::npos;
  std::printf("%d snapshots taken, %zu of a replacing file, %d failed\n", taken, replaced,
              replacedAgain);
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

// A directory's default ACL has its own column; the acl column keeps the
// access ACL alone. Every other object records "none" (a zero-length blob,
// not NULL: NULL is left to rows that predate the column).
TEST_F(SnapshotBuilderTest, ADirectorysDefaultAclIsStoredApartFromItsAccessAcl) {
  ASSERT_EQ(::mkdir((area / "dir").c_str(), 0755), 0);
  WriteFile(area / "file", "x");
  const std::string command = "setfacl -d -m u:7:rwx '" + area / "dir" + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) GTEST_SKIP() << "no ACL support here";
  orn::types::blob_t acl;
  EXPECT_EQ(builder.GetAcl(area / "dir", acl), 1);
  EXPECT_EQ(builder.GetDefaultAcl(area / "dir", acl), 0);
  EXPECT_GT(acl.size(), 4u);
  EXPECT_EQ(builder.BuildSnapshot(area / "dir", scope), 0);
  EXPECT_EQ(builder.BuildSnapshot(area / "file", scope), 0);

  std::vector<std::string> rows;
  const auto cb = [](void* data, int, char** values, char**) {
    static_cast<std::vector<std::string>*>(data)->push_back(values[0]);
    return 0;
  };
  ASSERT_EQ(sqlite3_exec(db.Handle(),
                         "SELECT CASE WHEN (attr & 61440) = 16384 THEN 'dir' ELSE 'file' END || ' "
                         "' || length(acl) || ' ' || typeof(acl_default) || ' ' || "
                         "length(acl_default) FROM Baseline ORDER BY 1",
                         cb, &rows, nullptr),
            SQLITE_OK);
  EXPECT_EQ(rows, (std::vector<std::string>{"dir 0 blob " + std::to_string(acl.size()),
                                            "file 0 blob 0"}));
}

}  // namespace
}  // namespace pax::fim::test
