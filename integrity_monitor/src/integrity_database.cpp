#include "integrity_database.h"

#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/format.hpp>

#include "framework/check.h"
#include "framework/trace.h"
#include "on_demand_context.h"

namespace pax::fim {

namespace {

constexpr const char kCreateScanScopes[] =
    "CREATE TABLE IF NOT EXISTS %s (id\tINTEGER NOT NULL PRIMARY KEY AUTOINCREMENT,taskid\tINTEGER "
    "NOT NULL,path\tTEXT NOT NULL);";
constexpr const char kCreateSnapshotTable[] =
    "CREATE TABLE IF NOT EXISTS %s (scanscopeid\tINTEGER NOT NULL,ino\t        INTEGER NOT "
    "NULL,dev\t        INTEGER NOT NULL,ctime_sec\t    INTEGER NOT NULL,ctime_nsec\t    INTEGER "
    "NOT NULL,atime_sec\t    INTEGER NOT NULL,atime_nsec\t    INTEGER NOT NULL,mtime_sec\t    "
    "INTEGER NOT NULL,mtime_nsec\t    INTEGER NOT NULL,paths\t        BLOB NOT NULL,attr    \t  "
    "  INTEGER NOT NULL,nlinks\t        INTEGER NOT NULL,size\t        INTEGER NOT NULL,uid\t    "
    "    INTEGER NOT NULL,gid\t        INTEGER NOT NULL,sha256\t        BLOB NOT NULL,acl\t     "
    "   BLOB NOT NULL,PRIMARY KEY(scanscopeid,ino,dev),FOREIGN KEY(scanscopeid) REFERENCES "
    "%s(id) ON DELETE CASCADE)";
constexpr const char kPragma[] = "PRAGMA foreign_keys = ON";
// The module's added columns of "Baseline" and "CurrentSnaphot" (the birth
// time, the default ACL), appended to the tables' original columns by ALTER
// TABLE in this order: new and existing databases end with the same columns
// in the same order, so the baseline rebuild's "INSERT INTO ... SELECT *"
// still pairs them. acl_default has no default: rows written before it
// existed read NULL, "not known", which the comparison does not report.
struct AddedColumn {
  const char* name;
  const char* definition;
};
constexpr AddedColumn kAddedColumns[] = {{"btime_sec", "INTEGER NOT NULL DEFAULT 0"},
                                         {"btime_nsec", "INTEGER NOT NULL DEFAULT 0"},
                                         {"acl_default", "BLOB"}};
constexpr const char kAddColumn[] = "ALTER TABLE '%1%' ADD COLUMN %2% %3%";
constexpr const char kSelectScanScope[] = "SELECT id from '%s' where taskId=%d and path='%s'";
constexpr const char kInsertScanScope[] = "INSERT INTO %s(taskId, path) VALUES ('%d', '%s');";
constexpr const char kDeleteScanScope[] = "DELETE from '%s' where id = %d";
constexpr const char kDeleteSnapshotRows[] = "DELETE from %s where scanscopeid = %d";

// Result of the scan-scope lookup, filled row by row.
struct ScanScopeRow {
  bool notFound = true;
  std::uint64_t id = 0;
  // A conversion failure is kept here instead of unwinding through SQLite's
  // C frames; it is rethrown once sqlite3_exec has returned.
  std::exception_ptr error;
};

int ScanScopeRowCallback(void* data, int columns, char** values, char** /*names*/) {
  auto* row = static_cast<ScanScopeRow*>(data);
  if (row->error || columns < 1) return 0;
  try {
    row->id = static_cast<std::uint64_t>(std::stoll(values[0] ? values[0] : ""));
    row->notFound = false;
  } catch (...) {
    row->error = std::current_exception();
  }
  return 0;
}

}  // namespace

std::string DatabasePath() {
  const char* path = std::getenv(kDatabasePathVariable);
  return (path && *path) ? std::string(path) : std::string(kDefaultDatabasePath);
}

std::string EscapeSqlText(const std::string& text) {
  using Replacement = std::pair<char, std::string>;
  static const std::vector<Replacement> kReplacements = {{'\'', "''"}};
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    bool replaced = false;
    for (const auto& [from, to] : kReplacements) {
      if (c == from) {
        out += to;
        replaced = true;
        break;
      }
    }
    if (!replaced) out += c;
  }
  return out;
}

IntegrityDatabase::IntegrityDatabase(orn::ITracer* tracer) : m_tracer(tracer) {}

IntegrityDatabase::~IntegrityDatabase() { DropStatements(); }

void IntegrityDatabase::DropStatements() noexcept { m_statements.clear(); }

result_t IntegrityDatabase::Open() { return OpenPath(DatabasePath()); }

result_t IntegrityDatabase::OpenPath(const std::string& path) {
  sqlite3* handle = nullptr;
  try {
    if (::sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                          nullptr) != SQLITE_OK)
      throw std::runtime_error(::sqlite3_errmsg(handle));
  } catch (const std::exception& e) {
    ORN_TRACE(m_tracer, orn::kTraceLevelError) << kOdfimPrefix << "Cannot open db: " << e.what();
    m_failedOpen.Reset(handle);
    return orn::errors::kUnspecified;
  }
  DropStatements();
  m_db.Reset(handle);
  return orn::errors::kOk;
}

result_t IntegrityDatabase::InitializeDatabase() {
  std::string query = (boost::format(kCreateScanScopes) % kScanScopesTable).str();
  if (const result_t r = ORN_CHECK(m_tracer, QueryExec(query, nullptr, nullptr),
                                   "Cannot create '" << kScanScopesTable << "' table");
      ORN_FAILED(r))
    return r;
  for (const char* table : {kBaselineTable, kCurrentSnapshotTable}) {
    query = (boost::format(kCreateSnapshotTable) % table % kScanScopesTable).str();
    if (const result_t r = ORN_CHECK(m_tracer, QueryExec(query, nullptr, nullptr),
                                     "Cannot create " << table << " table");
        ORN_FAILED(r))
      return r;
  }
  for (const char* table : {kBaselineTable, kCurrentSnapshotTable}) {
    if (const result_t r = AddMissingColumns(table); ORN_FAILED(r)) return r;
  }
  const std::string Pragma = kPragma;
  return ORN_CHECK(m_tracer, QueryExec(Pragma, nullptr, nullptr), "Cannot enable foreign key");
}

result_t IntegrityDatabase::AddMissingColumns(const char* table) {
  for (const AddedColumn& added : kAddedColumns) {
    const char* column = added.name;
    const std::string probe = std::string("SELECT ") + column + " FROM '" + table + "' LIMIT 0";
    Statement stmt;
    if (::sqlite3_prepare_v2(m_db.Get(), probe.c_str(), -1, stmt.Ref(), nullptr) == SQLITE_OK)
      continue;  // present
    const std::string query = (boost::format(kAddColumn) % table % column % added.definition).str();
    if (ORN_SUCCEEDED(QueryExec(query, nullptr, nullptr))) continue;
    // Another connection may have added it meanwhile.
    Statement again;
    if (!ORN_CHECK_BOOL_AS(
            m_tracer,
            ::sqlite3_prepare_v2(m_db.Get(), probe.c_str(), -1, again.Ref(), nullptr) == SQLITE_OK,
            "AddMissingColumns(table)",
            "Cannot add column " << column << " to " << table << " table"))
      return orn::errors::kUnspecified;
  }
  return orn::errors::kOk;
}

result_t IntegrityDatabase::QueryExec(const std::string& query,
                                      int (*callback)(void*, int, char**, char**), void* data) {
  ORN_TRACE(m_tracer, orn::kTraceLevelDetail) << kOdfimPrefix << "Exec query: " << query;
  SqliteMessage errMsg;
  const auto f = callback;
  const bool ok = ORN_CHECK_BOOL_AS(
      m_tracer, ::sqlite3_exec(m_db.Get(), query.c_str(), f, data, errMsg.Assist()) == 0,
      "::sqlite3_exec(m_db, query.c_str(), f, data, errMsg.Assist()) == 0",
      "Cannot exec query: " << errMsg.Get());
  return ok ? orn::errors::kOk : orn::errors::kUnspecified;
}

result_t IntegrityDatabase::CheckScanScopeBaseline(const NativePath& path, core::TaskId taskId,
                                                   std::uint64_t& scanScopeId) {
  ORN_TRACE(m_tracer, orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  const std::string escaped = EscapeSqlText(path);
  std::string query = (boost::format(kSelectScanScope) % kScanScopesTable % taskId % escaped).str();
  ScanScopeRow res;
  const auto cb = &ScanScopeRowCallback;
  if (const result_t r = ORN_CHECK(m_tracer, QueryExec(query, cb, &res),
                                   "Cannot query from '" << kScanScopesTable << "' table");
      ORN_FAILED(r))
    return r;
  if (res.error) std::rethrow_exception(res.error);
  if (!res.notFound) {
    scanScopeId = res.id;
    return orn::errors::kOk;
  }
  ORN_TRACE(m_tracer, orn::kTraceLevelDetail) << kOdfimPrefix << "Create new scanscope";
  query = (boost::format(kInsertScanScope) % kScanScopesTable % taskId % escaped).str();
  if (const result_t r = ORN_CHECK(m_tracer, QueryExec(query, nullptr, nullptr),
                                   "Cannot insert to '" << kScanScopesTable << "' table");
      ORN_FAILED(r))
    return r;
  scanScopeId = static_cast<std::uint64_t>(::sqlite3_last_insert_rowid(m_db.Get()));
  return orn::errors::kFalse;
}

result_t IntegrityDatabase::DeleteScanScope(std::uint64_t scanScopeId) {
  ORN_TRACE(m_tracer, orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  const std::string query =
      (boost::format(kDeleteScanScope) % kScanScopesTable % scanScopeId).str();
  return ORN_CHECK(m_tracer, QueryExec(query, nullptr, nullptr),
                   "Cannot delete scanscope " << scanScopeId);
}

result_t IntegrityDatabase::DeleteSnapshotRows(const char* table, std::uint64_t scanScopeId) {
  const std::string query = (boost::format(kDeleteSnapshotRows) % table % scanScopeId).str();
  return QueryExec(query, nullptr, nullptr);
}

int IntegrityDatabase::Prepared(const std::string& text, sqlite3_stmt*& stmt) {
  if (const auto it = m_statements.find(text); it != m_statements.end()) {
    stmt = it->second.Get();
    return SQLITE_OK;
  }
  Statement prepared;
  const int rc = ::sqlite3_prepare_v2(m_db.Get(), text.c_str(), -1, prepared.Ref(), nullptr);
  if (rc != SQLITE_OK) return rc;
  stmt = prepared.Get();
  m_statements.emplace(text, std::move(prepared));
  return SQLITE_OK;
}

IntegrityDatabase::Transaction::Transaction(IntegrityDatabase& db)
    : m_db(db), m_status(db.QueryExec("BEGIN", nullptr, nullptr)) {
  m_open = ORN_SUCCEEDED(m_status);
}

IntegrityDatabase::Transaction::~Transaction() {
  if (m_open) (void)m_db.QueryExec("ROLLBACK", nullptr, nullptr);
}

result_t IntegrityDatabase::Transaction::Commit() {
  if (!m_open) return ORN_FAILED(m_status) ? m_status : orn::errors::kInvalidState;
  const result_t r = m_db.QueryExec("COMMIT", nullptr, nullptr);
  // A failed COMMIT leaves the transaction open: the destructor rolls back.
  if (ORN_SUCCEEDED(r)) m_open = false;
  return r;
}

}  // namespace pax::fim
