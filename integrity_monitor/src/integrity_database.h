// The on-demand monitor's integrity database: one SQLite file with the
// tables "ScanScopes", "Baseline" and "CurrentSnaphot" (the last name is
// spelled so on purpose: existing databases use it).
//
// Location: the file named by the environment variable ARVO_FIM_DB when it
// is set and not empty (tests and unprivileged runs), otherwise
// "/var/opt/aldervane/arvo/private/fim.db". The directory must exist; the
// file is created when missing. The schema statements are idempotent and an
// existing database is reused as it is, with one addition: "Baseline" and
// "CurrentSnaphot" carry three columns beyond their original ones, btime_sec
// and btime_nsec (the object's birth time, 0 when unknown) and acl_default
// (a directory's raw default ACL, a zero-length blob when it has none),
// appended in this order with ALTER TABLE to new and older databases alike.
// Rows written before they existed read 0 (unknown) and NULL (unknown).
//
// Ownership and threads: IntegrityDatabase owns the connection and every
// statement it caches; it is used by one thread at a time (the on-demand
// task's worker thread, or FinalConstruct/FinalRelease). Failures are traced
// once here, in the check-and-trace form, and returned as result_t;
// statement failures yield errors::kUnspecified.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "orn/result.h"
#include "orn/tracer.h"
#include "orn/types.h"
#include "pax/task_info.h"
#include "sqlite_handles.h"

namespace pax::fim {

inline constexpr const char kScanScopesTable[] = "ScanScopes";
inline constexpr const char kBaselineTable[] = "Baseline";
inline constexpr const char kCurrentSnapshotTable[] = "CurrentSnaphot";
// In this order.
inline constexpr const char* kTableNames[3] = {kScanScopesTable, kBaselineTable,
                                               kCurrentSnapshotTable};

// The fixed location of the database.
inline constexpr const char kDefaultDatabasePath[] = "/var/opt/aldervane/arvo/private/fim.db";
// Environment variable naming another database file.
inline constexpr const char kDatabasePathVariable[] = "ARVO_FIM_DB";

// $ARVO_FIM_DB when set and not empty, else kDefaultDatabasePath.
std::string DatabasePath();

// A copy of `text` with every single quote doubled, for splicing path text
// into a statement between single quotes.
std::string EscapeSqlText(const std::string& text);

class IntegrityDatabase {
 public:
  // `tracer` may be null (silent); it must outlive this object.
  explicit IntegrityDatabase(orn::ITracer* tracer);
  ~IntegrityDatabase();
  IntegrityDatabase(const IntegrityDatabase&) = delete;
  IntegrityDatabase& operator=(const IntegrityDatabase&) = delete;

  // Opens DatabasePath() read-write, creating the file. On failure traces
  // "Cannot open db: " + SQLite's message and returns errors::kUnspecified;
  // the previous connection (if any) stays. On success the previous
  // connection is closed and replaced. Does not create the schema.
  [[nodiscard]] result_t Open();
  // Opens `path` (as Open does).
  [[nodiscard]] result_t OpenPath(const std::string& path);

  // Creates the three tables (if missing), adds the module's columns to the
  // snapshot tables (if missing) and switches foreign keys on for this
  // connection; stops at the first failure.
  [[nodiscard]] result_t InitializeDatabase();

  // The connection (null until opened). Stays owned by this object.
  sqlite3* Handle() const { return m_db.Get(); }

  // Runs `query` (one or more statements) with sqlite3_exec, passing
  // `callback` (may be null) and `data` through. Traces "Exec query: " at
  // the detail level and, on failure, "Cannot exec query: " + SQLite's
  // message. Returns 0 or errors::kUnspecified.
  [[nodiscard]] result_t QueryExec(const std::string& query,
                                   int (*callback)(void*, int, char**, char**), void* data);

  // Finds or creates the scan scope of (taskId, path). 0: it existed (a
  // baseline exists); 1: created just now (no baseline yet); in both cases
  // `scanScopeId` receives its id. On failure `scanScopeId` is unchanged.
  // Throws std::invalid_argument / std::out_of_range when a stored id is
  // not a decimal integer (a corrupt database), for the run's handler.
  [[nodiscard]] result_t CheckScanScopeBaseline(const NativePath& path, core::TaskId taskId,
                                                std::uint64_t& scanScopeId);

  // Deletes the scope; its Baseline and CurrentSnaphot rows go with it
  // (foreign-key cascade, on since InitializeDatabase).
  [[nodiscard]] result_t DeleteScanScope(std::uint64_t scanScopeId);

  // Runs "DELETE from <table> where scanscopeid = <id>". Traces only what
  // QueryExec traces: the caller adds its own message.
  [[nodiscard]] result_t DeleteSnapshotRows(const char* table, std::uint64_t scanScopeId);

  // A statement prepared once for this connection and kept until the
  // connection closes, keyed by its text. Returns SQLite's result code
  // (SQLITE_OK = 0) and traces nothing: the caller knows what to say. The
  // caller binds and steps and must hold a StatementUse around the use so
  // that the statement is reset afterwards.
  [[nodiscard]] int Prepared(const std::string& text, sqlite3_stmt*& stmt);

  // An explicit transaction: BEGIN on construction, Commit(), ROLLBACK on
  // destruction when not committed (a stop, a failure or an exception
  // mid-walk thus leaves nothing of the area behind). Transactions do not
  // nest: statements that open their own (the baseline rebuild) must run
  // after Commit.
  class Transaction {
   public:
    explicit Transaction(IntegrityDatabase& db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // The result of BEGIN; a failed transaction does nothing more.
    result_t Status() const { return m_status; }
    // COMMIT. After a failure the destructor still rolls back.
    [[nodiscard]] result_t Commit();

   private:
    IntegrityDatabase& m_db;
    result_t m_status;
    bool m_open = false;
  };

 private:
  void DropStatements() noexcept;
  result_t AddMissingColumns(const char* table);

  orn::ITracer* m_tracer;
  // Cached statements are declared after the connection so that they are
  // finalized first.
  DbHandle m_db;
  std::unordered_map<std::string, Statement> m_statements;
  // The connection of a failed open: not closed on that path (its error
  // text stays readable), released with this object or the next open.
  DbHandle m_failedOpen;
};

}  // namespace pax::fim
