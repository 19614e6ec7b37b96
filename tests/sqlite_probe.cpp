#include "tests/sqlite_probe.h"

#include <sqlite3.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace arvo::test {
namespace {

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct StmtFinalizer {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Db = std::unique_ptr<sqlite3, DbCloser>;
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

// Read-write without creating: a journal left by a killed run is rolled
// back first, as the next run would, instead of failing the read.
Db Open(const std::string& path, std::string& why) {
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  Db db(raw);
  if (rc != SQLITE_OK) {
    why = "cannot open: " + std::string(raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
    db.reset();
  }
  return db;
}

// Each result row as its columns' texts joined by '|'.
std::vector<std::string> Rows(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* raw = nullptr;
  std::vector<std::string> rows;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
    rows.push_back("error: " + std::string(sqlite3_errmsg(db)));
    return rows;
  }
  Stmt stmt(raw);
  while (sqlite3_step(raw) == SQLITE_ROW) {
    std::string row;
    for (int i = 0; i < sqlite3_column_count(raw); ++i) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_blob(raw, i));
      row.append(text ? text : "<null>", text ? sqlite3_column_bytes(raw, i) : 6).append("|");
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace

std::string IntegrityCheck(const std::string& database) {
  std::string why;
  const Db db = Open(database, why);
  if (!db) return why;
  std::string answer;
  for (const std::string& row : Rows(db.get(), "PRAGMA integrity_check")) answer += row;
  if (!answer.empty()) answer.pop_back();  // the column separator
  return answer;
}

std::string DumpDatabase(const std::string& database) {
  std::string why;
  const Db db = Open(database, why);
  if (!db) return why;
  std::string dump;
  for (const std::string& table :
       Rows(db.get(), "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")) {
    const std::string name = table.substr(0, table.size() - 1);
    std::vector<std::string> rows = Rows(db.get(), "SELECT * FROM \"" + name + "\"");
    std::sort(rows.begin(), rows.end());
    dump += "table " + name + "\n";
    for (const std::string& row : rows) dump += row + "\n";
  }
  return dump;
}

}  // namespace arvo::test
