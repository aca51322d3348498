// Internal to the binding: prepared statements and the per-connection state that cursors
// share with their connection. Includes <sqlite3.h>, so it is never installed.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <sqlite3.h>

#include "quilma/sqlite/row.h"

namespace quilma::sqlite::detail {

// One prepared statement and what the binding keeps beside it.
class Statement {
 public:
  // Prepares the first statement of `sql`. Text after it other than blanks, comments and
  // semicolons is refused. SQL that holds no statement gives an empty Statement.
  Statement(sqlite3* db, std::string_view sql, bool persistent);
  ~Statement() { finalize(); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  sqlite3_stmt* handle() const noexcept { return stmt_; }
  const std::string& sql() const noexcept { return sql_; }
  // INSERT, UPDATE, DELETE or REPLACE, also behind a WITH clause: its change count is the
  // cursor's rowcount.
  bool changes_rows() const noexcept { return changes_rows_; }
  // Result column names, shared by every row; rebuilt when SQLite has re-prepared the
  // statement after a schema change.
  const std::shared_ptr<const Row::Columns>& columns() {
    if (!columns_ ||
        sqlite3_stmt_status(stmt_, SQLITE_STMTSTATUS_REPREPARE, 0) != columns_prepare_count_) {
      read_columns();
    }
    return columns_;
  }
  void finalize() noexcept;

  bool in_use = false;  // a cursor holds it; never handed to a second cursor meanwhile
  bool cached = false;  // owned by the cache's LRU list rather than its loose list

 private:
  sqlite3_stmt* stmt_ = nullptr;
  std::string sql_;
  bool changes_rows_ = false;
  void read_columns();

  std::shared_ptr<const Row::Columns> columns_;
  int columns_prepare_count_ = -1;
};

// The state that a Connection shares with its cursors: the handle and the statement cache.
// Used by one thread at a time, like the connection itself.
class ConnectionState {
 public:
  static constexpr std::size_t CACHE_SIZE = 48;

  explicit ConnectionState(sqlite3* db) : db_(db) {}
  ~ConnectionState();
  ConnectionState(const ConnectionState&) = delete;
  ConnectionState& operator=(const ConnectionState&) = delete;

  sqlite3* db() const noexcept { return db_; }
  // Throws ProgrammingError once the connection is closed.
  void check_open() const {
    if (db_ == nullptr) raise_closed();
  }

  // A statement for `sql` that no other cursor holds: the cached one when it is free,
  // otherwise a new one. Marked in use until release().
  Statement* acquire(std::string_view sql) {
    // Fast path: the same text as last time (a loop, or one hot query) needs no hashing.
    if (db_ != nullptr && !lru_.empty() && !lru_.front()->in_use && lru_.front()->sql() == sql) {
      lru_.front()->in_use = true;
      return lru_.front().get();
    }
    return acquire_slow(sql);
  }
  // Resets the statement, clears its bindings and returns it to the cache (or finalizes
  // one that is not cached).
  void release(Statement* statement) noexcept {
    statement->in_use = false;
    if (statement->handle() != nullptr) {
      sqlite3_reset(statement->handle());
      sqlite3_clear_bindings(statement->handle());
    }
    if (!statement->cached) drop_loose(statement);
  }

  // Finalizes every statement, cached or held by a cursor, then closes the handle. When SQLite
  // refuses (an object opened on the handle outside the binding is still open), the handle is
  // left to close itself once that object goes, the connection counts as closed, and the
  // refusal is thrown.
  void close();

  [[noreturn]] void raise_last_error() const;

 private:
  using Lru = std::list<std::unique_ptr<Statement>>;

  [[noreturn]] static void raise_closed();
  Statement* acquire_slow(std::string_view sql);
  void drop_loose(Statement* statement) noexcept;

  void finalize_all() noexcept;

  sqlite3* db_;
  Lru lru_;                                                    // most recently used first
  std::unordered_map<std::string_view, Lru::iterator> index_;  // keys point into Statement::sql
  std::vector<std::unique_ptr<Statement>> loose_;              // held by cursors, not in the cache
};

}  // namespace quilma::sqlite::detail
