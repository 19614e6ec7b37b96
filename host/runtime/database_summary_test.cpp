#include "host/runtime/database_summary.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "host/util/test_temp_dir.h"

namespace arvo::host {
namespace {

void Exec(sqlite3* db, const std::string& sql) {
  char* message = nullptr;
  ASSERT_EQ(::sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK) << message;
}

// The two tables the summary reads, one scope with `rows` baseline rows.
void MakeDatabase(const std::string& file, int rows) {
  sqlite3* db = nullptr;
  ASSERT_EQ(::sqlite3_open(file.c_str(), &db), SQLITE_OK);
  Exec(db, "CREATE TABLE ScanScopes(id INTEGER PRIMARY KEY, taskid INTEGER, path BLOB)");
  Exec(db, "CREATE TABLE Baseline(scanscopeid INTEGER, data BLOB)");
  Exec(db, "INSERT INTO ScanScopes VALUES(1, 7, CAST('/etc' AS BLOB))");
  for (int i = 0; i < rows; ++i) Exec(db, "INSERT INTO Baseline VALUES(1, NULL)");
  ::sqlite3_close(db);
}

TEST(DatabaseSummaryTest, ReadsEachScopeAndRollsBackWhatADeadRunLeft) {
  const test::TempDir dir;
  const std::string file = dir / "fim.db";
  MakeDatabase(file, 3);
  std::vector<ScopeSummary> scopes;
  std::string error;
  ASSERT_TRUE(ReadDatabaseSummary(file, scopes, error)) << error;
  ASSERT_EQ(scopes.size(), 1u);
  EXPECT_EQ(scopes[0].taskId, 7u);
  EXPECT_EQ(scopes[0].path, "/etc");
  EXPECT_EQ(scopes[0].baselineRows, 3u);

  // A writer that dies mid-transaction, after its cache spilled into the
  // database file: its journal stays behind, hot.
  const pid_t child = ::fork();
  if (child == 0) {
    sqlite3* db = nullptr;
    ::sqlite3_open(file.c_str(), &db);
    ::sqlite3_exec(db, "PRAGMA cache_size = 1; BEGIN; DELETE FROM Baseline;", nullptr, nullptr,
                   nullptr);
    for (int i = 0; i < 200; ++i)
      ::sqlite3_exec(db, "INSERT INTO Baseline VALUES(1, zeroblob(4000))", nullptr, nullptr,
                     nullptr);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_EQ(::access((file + "-journal").c_str(), F_OK), 0) << "no journal left behind";

  ASSERT_TRUE(ReadDatabaseSummary(file, scopes, error)) << error;
  ASSERT_EQ(scopes.size(), 1u);
  EXPECT_EQ(scopes[0].baselineRows, 3u);

  EXPECT_FALSE(ReadDatabaseSummary(dir / "missing.db", scopes, error));
  EXPECT_NE(error.find("missing.db"), std::string::npos) << error;
}

}  // namespace
}  // namespace arvo::host
