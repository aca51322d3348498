#include "quilma/sqlite/statement.h"

#include <algorithm>
#include <climits>
#include <string>
#include <utility>

#include "quilma/sqlite/error.h"

namespace quilma::sqlite::detail {

namespace {

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// Position of the first character of `sql` at or after `at` that is neither a blank nor
// part of a comment, or sql.size().
std::size_t skip_blanks_and_comments(std::string_view sql, std::size_t at) {
  while (at < sql.size()) {
    if (is_blank(sql[at])) {
      ++at;
    } else if (sql.compare(at, 2, "--") == 0) {
      const std::size_t end = sql.find('\n', at);
      at = end == std::string_view::npos ? sql.size() : end + 1;
    } else if (sql.compare(at, 2, "/*") == 0) {
      const std::size_t end = sql.find("*/", at + 2);
      at = end == std::string_view::npos ? sql.size() : end + 2;
    } else {
      break;
    }
  }
  return at;
}

// Whether `sql` at `at` holds `keyword` (upper case) as a whole word, in any letter case.
bool starts_with_keyword(std::string_view sql, std::size_t at, std::string_view keyword) {
  if (sql.size() - at < keyword.size()) return false;
  for (std::size_t i = 0; i < keyword.size(); ++i) {
    char c = sql[at + i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    if (c != keyword[i]) return false;
  }
  const std::size_t after = at + keyword.size();
  if (after == sql.size()) return true;
  const char next = sql[after];
  const bool word_char = (next >= 'a' && next <= 'z') || (next >= 'A' && next <= 'Z') ||
                         (next >= '0' && next <= '9') || next == '_';
  return !word_char;
}

}  // namespace

Statement::Statement(sqlite3* db, std::string_view sql, bool persistent) : sql_(sql) {
  if (sql_.size() > static_cast<std::size_t>(INT_MAX)) {
    raise_error(SQLITE_TOOBIG, "SQL text is too long");
  }
  const char* tail = nullptr;
  const int rc = sqlite3_prepare_v3(db, sql_.data(), static_cast<int>(sql_.size()),
                                    persistent ? SQLITE_PREPARE_PERSISTENT : 0, &stmt_, &tail);
  if (rc != SQLITE_OK) raise_error(sqlite3_extended_errcode(db), sqlite3_errmsg(db));

  std::size_t rest = tail == nullptr ? sql_.size() : static_cast<std::size_t>(tail - sql_.data());
  while ((rest = skip_blanks_and_comments(sql_, rest)) < sql_.size() && sql_[rest] == ';') ++rest;
  if (rest < sql_.size()) {
    finalize();
    raise_error(SQLITE_MISUSE, "You can only execute one statement at a time.");
  }

  const std::size_t start = skip_blanks_and_comments(sql_, 0);
  changes_rows_ =
      starts_with_keyword(sql_, start, "INSERT") || starts_with_keyword(sql_, start, "UPDATE") ||
      starts_with_keyword(sql_, start, "DELETE") || starts_with_keyword(sql_, start, "REPLACE") ||
      (starts_with_keyword(sql_, start, "WITH") && stmt_ != nullptr &&
       sqlite3_stmt_readonly(stmt_) == 0);
}

void Statement::read_columns() {
  const int count = sqlite3_column_count(stmt_);
  auto names = std::make_shared<Row::Columns>();
  names->reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const char* name = sqlite3_column_name(stmt_, i);
    names->emplace_back(name != nullptr ? name : "");
  }
  columns_ = std::move(names);
  columns_prepare_count_ = sqlite3_stmt_status(stmt_, SQLITE_STMTSTATUS_REPREPARE, 0);
}

void Statement::finalize() noexcept {
  // sqlite3_finalize repeats the error of the last step, if any; the statement is freed
  // whatever it returns.
  sqlite3_finalize(stmt_);
  stmt_ = nullptr;
}

ConnectionState::~ConnectionState() {
  if (db_ != nullptr) {
    finalize_all();
    sqlite3_close_v2(db_);
  }
}

void ConnectionState::raise_closed() {
  raise_error(SQLITE_MISUSE, "Cannot operate on a closed database.");
}

Statement* ConnectionState::acquire_slow(std::string_view sql) {
  check_open();
  if (auto found = index_.find(sql); found != index_.end()) {
    Statement* statement = found->second->get();
    if (!statement->in_use) {
      lru_.splice(lru_.begin(), lru_, found->second);
      statement->in_use = true;
      return statement;
    }
    // The cached statement is busy under another cursor: this cursor gets its own.
    auto& own = loose_.emplace_back(std::make_unique<Statement>(db_, sql, false));
    own->in_use = true;
    return own.get();
  }

  auto fresh = std::make_unique<Statement>(db_, sql, true);
  fresh->in_use = true;
  Statement* statement = fresh.get();
  if (fresh->handle() == nullptr) {  // only blanks or comments: nothing worth caching
    loose_.push_back(std::move(fresh));
    return statement;
  }
  fresh->cached = true;
  lru_.push_front(std::move(fresh));
  index_.emplace(statement->sql(), lru_.begin());
  while (lru_.size() > CACHE_SIZE) {
    auto victim = std::prev(lru_.end());
    index_.erase((*victim)->sql());
    if ((*victim)->in_use) {  // its cursor finalizes it when done
      (*victim)->cached = false;
      loose_.push_back(std::move(*victim));
    }
    lru_.erase(victim);
  }
  return statement;
}

void ConnectionState::drop_loose(Statement* statement) noexcept {
  auto owned = std::find_if(loose_.begin(), loose_.end(),
                            [statement](const auto& entry) { return entry.get() == statement; });
  if (owned != loose_.end()) loose_.erase(owned);
}

void ConnectionState::finalize_all() noexcept {
  for (auto& statement : lru_) {
    statement->finalize();
    if (statement->in_use) {  // a cursor still points at it; it lets go in release()
      statement->cached = false;
      loose_.push_back(std::move(statement));
    }
  }
  lru_.clear();
  index_.clear();
  for (auto& statement : loose_) statement->finalize();
}

void ConnectionState::close() {
  if (db_ == nullptr) return;
  finalize_all();
  if (sqlite3_close(db_) == SQLITE_OK) {
    db_ = nullptr;
    return;
  }
  // Something outside the binding still holds the handle (a blob or backup opened through
  // handle()). Report it, but leave no half-closed connection behind: SQLite frees the handle
  // as soon as that object goes, and this connection counts as closed from now on.
  const int code = sqlite3_extended_errcode(db_);
  std::string message = sqlite3_errmsg(db_);
  sqlite3_close_v2(std::exchange(db_, nullptr));
  raise_error(code, std::move(message));
}

void ConnectionState::raise_last_error() const {
  raise_error(sqlite3_extended_errcode(db_), sqlite3_errmsg(db_));
}

}  // namespace quilma::sqlite::detail
