// Owners of SQLite's C handles. Each owner releases exactly what it holds;
// none is copyable. Thread-safety is the connection's: a handle is used by
// one thread at a time.
#pragma once

#include <sqlite3.h>

#include <utility>

namespace pax::fim {

// Owns a connection; closes it (sqlite3_close_v2, so a statement finalized
// late does not keep it open) when reset or destroyed.
class DbHandle {
 public:
  DbHandle() = default;
  explicit DbHandle(sqlite3* db) noexcept : m_db(db) {}
  DbHandle(DbHandle&& other) noexcept : m_db(std::exchange(other.m_db, nullptr)) {}
  DbHandle& operator=(DbHandle&& other) noexcept {
    Reset(std::exchange(other.m_db, nullptr));
    return *this;
  }
  DbHandle(const DbHandle&) = delete;
  DbHandle& operator=(const DbHandle&) = delete;
  ~DbHandle() { Reset(); }

  void Reset(sqlite3* db = nullptr) noexcept {
    if (sqlite3* old = std::exchange(m_db, db)) sqlite3_close_v2(old);
  }
  sqlite3* Get() const noexcept { return m_db; }

 private:
  sqlite3* m_db = nullptr;
};

// Owns a prepared statement; finalizes it when reset or destroyed.
class Statement {
 public:
  Statement() = default;
  Statement(Statement&& other) noexcept : m_stmt(std::exchange(other.m_stmt, nullptr)) {}
  Statement& operator=(Statement&& other) noexcept {
    Reset(std::exchange(other.m_stmt, nullptr));
    return *this;
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { Reset(); }

  void Reset(sqlite3_stmt* stmt = nullptr) noexcept {
    if (sqlite3_stmt* old = std::exchange(m_stmt, stmt)) sqlite3_finalize(old);
  }
  sqlite3_stmt* Get() const noexcept { return m_stmt; }
  // Out-parameter slot for sqlite3_prepare_v2 (finalizes the current one).
  sqlite3_stmt** Ref() noexcept {
    Reset();
    return &m_stmt;
  }

 private:
  sqlite3_stmt* m_stmt = nullptr;
};

// Resets a reused statement and clears its bindings at scope exit, so that
// a cached statement never stays active (holding the table's read cursor)
// nor points at a caller's bound buffers after use.
class StatementUse {
 public:
  explicit StatementUse(sqlite3_stmt* stmt) noexcept : m_stmt(stmt) {}
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;
  ~StatementUse() {
    sqlite3_reset(m_stmt);
    sqlite3_clear_bindings(m_stmt);
  }

 private:
  sqlite3_stmt* m_stmt;
};

// Owns an error text allocated by SQLite (sqlite3_exec's errmsg).
class SqliteMessage {
 public:
  SqliteMessage() = default;
  SqliteMessage(const SqliteMessage&) = delete;
  SqliteMessage& operator=(const SqliteMessage&) = delete;
  ~SqliteMessage() { sqlite3_free(m_text); }

  // The slot SQLite writes into.
  char** Assist() noexcept { return &m_text; }
  const char* Get() const noexcept { return m_text; }

 private:
  char* m_text = nullptr;
};

}  // namespace pax::fim
