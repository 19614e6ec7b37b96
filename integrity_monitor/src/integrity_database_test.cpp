#include "integrity_database.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "snapshot_test_support.h"

namespace pax::fim::test {
namespace {

using IntegrityDatabaseTest = EngineTest;

std::vector<std::string> Column(sqlite3* db, const std::string& query) {
  std::vector<std::string> out;
  auto cb = [](void* data, int, char** values, char**) {
    static_cast<std::vector<std::string>*>(data)->push_back(values[0] ? values[0] : "NULL");
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(db, query.c_str(), cb, &out, nullptr), SQLITE_OK) << query;
  return out;
}

std::string SnapshotTableSchema(const std::string& name) {
  return "CREATE TABLE " + name +
         " (scanscopeid\tINTEGER NOT NULL,ino\t        INTEGER NOT NULL,dev\t        INTEGER NOT "
         "NULL,ctime_sec\t    INTEGER NOT NULL,ctime_nsec\t    INTEGER NOT NULL,atime_sec\t    "
         "INTEGER NOT NULL,atime_nsec\t    INTEGER NOT NULL,mtime_sec\t    INTEGER NOT "
         "NULL,mtime_nsec\t    INTEGER NOT NULL,paths\t        BLOB NOT NULL,attr    \t    "
         "INTEGER NOT NULL,nlinks\t        INTEGER NOT NULL,size\t        INTEGER NOT NULL,uid\t  "
         "      INTEGER NOT NULL,gid\t        INTEGER NOT NULL,sha256\t        BLOB NOT "
         "NULL,acl\t        BLOB NOT NULL, btime_sec INTEGER NOT NULL DEFAULT 0, btime_nsec "
         "INTEGER NOT NULL DEFAULT 0, acl_default BLOB,PRIMARY KEY(scanscopeid,ino,dev),FOREIGN "
         "KEY(scanscopeid) REFERENCES ScanScopes(id) ON DELETE CASCADE)";
}

TEST_F(IntegrityDatabaseTest, SchemaIsStoredExactlyAndReopeningKeepsIt) {
  // SQLite stores the text of CREATE TABLE without "IF NOT EXISTS" and the
  // trailing ';'; everything else, tabs and blanks included, must be ours:
  // the original statement, with the module's three columns ALTER TABLE
  // inserted after the last column.
  const std::vector<std::string> expected = {
      "CREATE TABLE ScanScopes (id\tINTEGER NOT NULL PRIMARY KEY AUTOINCREMENT,taskid\tINTEGER "
      "NOT NULL,path\tTEXT NOT NULL)",
      SnapshotTableSchema("Baseline"), SnapshotTableSchema("CurrentSnaphot")};
  const char* query =
      "SELECT sql FROM sqlite_master WHERE type = 'table' AND name != 'sqlite_sequence' "
      "ORDER BY rowid";
  EXPECT_EQ(Column(db.Handle(), query), expected);
  EXPECT_TRUE(tracer->Contains("odfim\tExec query: PRAGMA foreign_keys = ON", 800));

  IntegrityDatabase again(tracer.Get());
  ASSERT_EQ(again.Open(), 0);
  ASSERT_EQ(again.InitializeDatabase(), 0);
  EXPECT_EQ(Column(again.Handle(), query), expected);
}

TEST(EscapeSqlTextTest, DoublesEverySingleQuoteOnly) {
  EXPECT_EQ(EscapeSqlText(""), "");
  EXPECT_EQ(EscapeSqlText("/plain/path"), "/plain/path");
  EXPECT_EQ(EscapeSqlText("'a''b\"c'"), "''a''''b\"c''");
  EXPECT_EQ(EscapeSqlText(std::string("x\0'", 3)), std::string("x\0''", 4));
}

TEST_F(IntegrityDatabaseTest, ScopesAreRegisteredOncePerTaskAndPath) {
  std::uint64_t first = 0, again = 0, otherTask = 0, quoted = 0, quotedAgain = 0;
  EXPECT_EQ(db.CheckScanScopeBaseline("/srv/data", 7, first), 1);
  EXPECT_TRUE(tracer->Contains("odfim\tCreate new scanscope", 800));
  EXPECT_EQ(db.CheckScanScopeBaseline("/srv/data", 7, again), 0);
  EXPECT_EQ(again, first);
  EXPECT_EQ(db.CheckScanScopeBaseline("/srv/data", 8, otherTask), 1);
  EXPECT_NE(otherTask, first);

  EXPECT_EQ(db.CheckScanScopeBaseline("/srv/it's", 7, quoted), 1);
  EXPECT_EQ(db.CheckScanScopeBaseline("/srv/it's", 7, quotedAgain), 0);
  EXPECT_EQ(quoted, quotedAgain);
  EXPECT_TRUE(tracer->Contains("path='/srv/it''s'", 800));
  EXPECT_EQ(Column(db.Handle(), "SELECT path FROM ScanScopes WHERE id = " + std::to_string(quoted)),
            std::vector<std::string>{"/srv/it's"});
}

TEST_F(IntegrityDatabaseTest, DeletingAScopeCascadesToItsSnapshots) {
  std::uint64_t kept = 0, dropped = 0;
  ASSERT_EQ(db.CheckScanScopeBaseline("/kept", 7, kept), 1);
  ASSERT_EQ(db.CheckScanScopeBaseline("/dropped", 7, dropped), 1);
  for (const char* table : {kBaselineTable, kCurrentSnapshotTable}) {
    for (std::uint64_t scope : {kept, dropped}) {
      const std::string insert = std::string("INSERT INTO ") + table + " VALUES (" +
                                 std::to_string(scope) +
                                 ",1,2,0,0,0,0,0,0,x'00',0,1,0,0,0,x'',x'',0,0,x'')";
      ASSERT_EQ(db.QueryExec(insert, nullptr, nullptr), 0);
    }
  }
  EXPECT_EQ(db.DeleteScanScope(dropped), 0);
  for (const char* table : {kBaselineTable, kCurrentSnapshotTable}) {
    EXPECT_EQ(Column(db.Handle(), std::string("SELECT scanscopeid FROM ") + table),
              std::vector<std::string>{std::to_string(kept)})
        << table;
  }
  EXPECT_EQ(db.DeleteSnapshotRows(kCurrentSnapshotTable, kept), 0);
  EXPECT_TRUE(Column(db.Handle(), "SELECT * FROM CurrentSnaphot").empty());
  EXPECT_EQ(Column(db.Handle(), "SELECT count(*) FROM Baseline"), std::vector<std::string>{"1"});
}

TEST_F(IntegrityDatabaseTest, FailedQueryIsTracedWithItsExpressionAndSqliteText) {
  EXPECT_EQ(db.QueryExec("SELECT * FROM Missing", nullptr, nullptr), orn::errors::kUnspecified);
  const auto errors = tracer->Texts(300);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_NE(errors[0].find("(::sqlite3_exec(m_db, query.c_str(), f, data, errMsg.Assist()) == "
                           "0),(bool) failed: result = falseCannot exec query: no such table: "
                           "Missing"),
            std::string::npos)
      << errors[0];
}

TEST_F(IntegrityDatabaseTest, OpenFailsInAMissingDirectoryAndKeepsTheOpenConnection) {
  ::setenv(kDatabasePathVariable, (dir / "missing/fim.db").c_str(), 1);
  EXPECT_EQ(DatabasePath(), dir / "missing/fim.db");
  sqlite3* const before = db.Handle();
  EXPECT_EQ(db.Open(), orn::errors::kUnspecified);
  EXPECT_TRUE(tracer->Contains("odfim\tCannot open db: unable to open database file", 300));
  EXPECT_EQ(db.Handle(), before);
  ::unsetenv(kDatabasePathVariable);
  EXPECT_EQ(DatabasePath(), kDefaultDatabasePath);
}

TEST_F(IntegrityDatabaseTest, TransactionRollsBackUnlessCommitted) {
  std::uint64_t id = 0;
  {
    IntegrityDatabase::Transaction transaction(db);
    ASSERT_EQ(transaction.Status(), 0);
    ASSERT_EQ(db.CheckScanScopeBaseline("/lost", 7, id), 1);
  }
  {
    IntegrityDatabase::Transaction transaction(db);
    ASSERT_EQ(db.CheckScanScopeBaseline("/kept", 7, id), 1);
    EXPECT_EQ(transaction.Commit(), 0);
  }
  EXPECT_EQ(Column(db.Handle(), "SELECT path FROM ScanScopes"), std::vector<std::string>{"/kept"});
}

// A database written before the module's columns existed gets them, its
// rows reading 0 and NULL (unknown), and the baseline rebuild's SELECT *
// still pairs the two tables' columns.
TEST_F(IntegrityDatabaseTest, AnOlderDatabaseGainsTheModulesColumns) {
  const std::string path = dir / "old.db";
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
  const std::string scopes =
      "CREATE TABLE ScanScopes (id\tINTEGER NOT NULL PRIMARY KEY AUTOINCREMENT,taskid\tINTEGER "
      "NOT NULL,path\tTEXT NOT NULL)";
  std::string old = SnapshotTableSchema("Baseline");
  const std::string added =
      " btime_sec INTEGER NOT NULL DEFAULT 0, btime_nsec INTEGER NOT NULL DEFAULT 0, acl_default "
      "BLOB,";
  old.erase(old.find(added), added.size());
  std::string oldCurrent = old;
  oldCurrent.replace(oldCurrent.find("Baseline"), 8, "CurrentSnaphot");
  for (const std::string& q :
       {scopes, old, oldCurrent, std::string("INSERT INTO ScanScopes VALUES (1, 7, '/a')"),
        std::string("INSERT INTO CurrentSnaphot VALUES (1,5,2,0,0,0,0,0,0,x'2f6100',33188,1,0,0,"
                    "0,x'',x'')")})
    ASSERT_EQ(sqlite3_exec(raw, q.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << q;
  sqlite3_close(raw);

  IntegrityDatabase older(tracer.Get());
  ASSERT_EQ(older.OpenPath(path), 0);
  ASSERT_EQ(older.InitializeDatabase(), 0);
  EXPECT_TRUE(tracer->Contains(
      "Exec query: ALTER TABLE 'Baseline' ADD COLUMN btime_sec INTEGER NOT NULL DEFAULT 0", 800));
  const char* query =
      "SELECT sql FROM sqlite_master WHERE type = 'table' AND name != 'sqlite_sequence' "
      "ORDER BY rowid";
  EXPECT_EQ(Column(older.Handle(), query),
            (std::vector<std::string>{scopes, SnapshotTableSchema("Baseline"),
                                      SnapshotTableSchema("CurrentSnaphot")}));
  EXPECT_TRUE(tracer->Contains(
      "Exec query: ALTER TABLE 'CurrentSnaphot' ADD COLUMN acl_default BLOB", 800));
  EXPECT_EQ(Column(older.Handle(),
                   "SELECT btime_sec || '.' || btime_nsec || ' ' || typeof(acl_default) FROM "
                   "CurrentSnaphot"),
            std::vector<std::string>{"0.0 null"});
  ASSERT_EQ(older.QueryExec("INSERT INTO Baseline SELECT * FROM CurrentSnaphot", nullptr, nullptr),
            0);
  EXPECT_EQ(Column(older.Handle(), "SELECT ino FROM Baseline"), std::vector<std::string>{"5"});

  // Opening it again changes nothing.
  tracer->Clear();
  IntegrityDatabase again(tracer.Get());
  ASSERT_EQ(again.OpenPath(path), 0);
  ASSERT_EQ(again.InitializeDatabase(), 0);
  EXPECT_FALSE(tracer->Contains("ALTER TABLE"));
}

}  // namespace
}  // namespace pax::fim::test
