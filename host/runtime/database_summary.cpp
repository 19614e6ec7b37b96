#include "host/runtime/database_summary.h"

#include <sqlite3.h>

#include <memory>

namespace arvo::host {
namespace {

constexpr int kBusyWaitMs = 2000;  // a daemon's commit holds the lock briefly

struct CloseDatabase {
  void operator()(sqlite3* db) const { ::sqlite3_close_v2(db); }
};
struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { ::sqlite3_finalize(statement); }
};

constexpr char kQuery[] =
    "SELECT s.taskid, s.path, (SELECT count(*) FROM Baseline b WHERE b.scanscopeid = s.id) "
    "FROM ScanScopes s ORDER BY s.id";

using Database = std::unique_ptr<sqlite3, CloseDatabase>;

Database Open(const std::string& file, int flags, int& rc) {
  sqlite3* raw = nullptr;
  rc = ::sqlite3_open_v2(file.c_str(), &raw, flags, nullptr);
  Database db(raw);
  if (db) {
    ::sqlite3_extended_result_codes(db.get(), 1);
    ::sqlite3_busy_timeout(db.get(), kBusyWaitMs);
  }
  return db;
}

}  // namespace

bool ReadDatabaseSummary(const std::string& file, std::vector<ScopeSummary>& out,
                         std::string& error) {
  int rc = SQLITE_OK;
  Database db = Open(file, SQLITE_OPEN_READONLY, rc);
  if (rc != SQLITE_OK) {
    error = "cannot open the database '" + file +
            "' read-only: " + (db ? ::sqlite3_errmsg(db.get()) : ::sqlite3_errstr(rc));
    return false;
  }
  sqlite3_stmt* rawStatement = nullptr;
  rc = ::sqlite3_prepare_v2(db.get(), kQuery, -1, &rawStatement, nullptr);
  if (rc == SQLITE_READONLY_ROLLBACK) {
    // A run died mid-transaction and left its journal. Any connection that
    // can write rolls it back, restoring the database as it was before that
    // run, as the next run would; SQLite does so only while no live writer
    // holds the database.
    db = Open(file, SQLITE_OPEN_READWRITE, rc);
    if (rc == SQLITE_OK) rc = ::sqlite3_prepare_v2(db.get(), kQuery, -1, &rawStatement, nullptr);
  }
  const std::unique_ptr<sqlite3_stmt, FinalizeStatement> statement(rawStatement);
  out.clear();
  while (rc == SQLITE_OK || rc == SQLITE_ROW) {
    rc = ::sqlite3_step(statement.get());
    if (rc != SQLITE_ROW) break;
    ScopeSummary scope;
    scope.taskId = static_cast<std::uint64_t>(::sqlite3_column_int64(statement.get(), 0));
    const auto* path = ::sqlite3_column_blob(statement.get(), 1);
    if (path)
      scope.path.assign(static_cast<const char*>(path),
                        static_cast<std::size_t>(::sqlite3_column_bytes(statement.get(), 1)));
    scope.baselineRows = static_cast<std::uint64_t>(::sqlite3_column_int64(statement.get(), 2));
    out.push_back(std::move(scope));
  }
  if (rc == SQLITE_DONE) return true;
  error = "cannot read the database '" + file + "': " + ::sqlite3_errmsg(db.get());
  return false;
}

}  // namespace arvo::host
