#include "quilma/sqlite/cursor.h"

#include <string>
#include <utility>
#include <variant>

#include <sqlite3.h>

#include "quilma/sqlite/error.h"
#include "quilma/sqlite/statement.h"

namespace quilma::sqlite {

Cursor::Cursor(std::shared_ptr<detail::ConnectionState> state) : state_(std::move(state)) {}

Cursor::Cursor(Cursor&& other) noexcept
    : state_(std::move(other.state_)),
      statement_(std::exchange(other.statement_, nullptr)),
      on_row_(std::exchange(other.on_row_, false)),
      rowcount_(other.rowcount_),
      lastrowid_(other.lastrowid_),
      columns_(std::move(other.columns_)),
      closed_(std::exchange(other.closed_, true)),
      detached_(other.detached_),
      buffered_(std::move(other.buffered_)),
      next_buffered_(other.next_buffered_) {}

Cursor& Cursor::operator=(Cursor&& other) noexcept {
  if (this != &other) {
    close();
    state_ = std::move(other.state_);
    statement_ = std::exchange(other.statement_, nullptr);
    on_row_ = std::exchange(other.on_row_, false);
    rowcount_ = other.rowcount_;
    lastrowid_ = other.lastrowid_;
    columns_ = std::move(other.columns_);
    closed_ = std::exchange(other.closed_, true);
    detached_ = other.detached_;
    buffered_ = std::move(other.buffered_);
    next_buffered_ = other.next_buffered_;
  }
  return *this;
}

detail::ConnectionState& Cursor::usable_state() const {
  if (closed_) raise_error(SQLITE_MISUSE, "Cannot operate on a closed cursor.");
  if (detached_) {
    raise_error(SQLITE_MISUSE,
                "Cannot execute on a cursor whose result was read ahead; "
                "open a new cursor on the connection.");
  }
  state_->check_open();
  return *state_;
}

void Cursor::begin(std::string_view sql) {
  detail::ConnectionState& state = usable_state();
  release_statement();
  rowcount_ = -1;
  columns_.reset();
  statement_ = state.acquire(sql);
  if (statement_->handle() != nullptr && !statement_->columns()->empty()) {
    columns_ = statement_->columns();
  }
}

void Cursor::bind(const Params& params) {
  sqlite3_stmt* stmt = statement_->handle();
  const int expected = sqlite3_bind_parameter_count(stmt);
  if (static_cast<std::size_t>(expected) != params.size()) {
    raise_error(SQLITE_RANGE,
                "Incorrect number of bindings supplied. The current "
                "statement uses " +
                    std::to_string(expected) + ", and there are " + std::to_string(params.size()) +
                    " supplied.");
  }
  for (int i = 0; i < expected; ++i) {
    const Value& value = params[static_cast<std::size_t>(i)];
    int rc = SQLITE_OK;
    switch (value.type()) {
      case Value::Type::Null:
        rc = sqlite3_bind_null(stmt, i + 1);
        break;
      case Value::Type::Integer:
        rc = sqlite3_bind_int64(stmt, i + 1, value.as_int());
        break;
      case Value::Type::Real:
        rc = sqlite3_bind_double(stmt, i + 1, value.as_double());
        break;
      case Value::Type::Text: {
        const std::string_view text = value.text_view();
        rc = sqlite3_bind_text64(stmt, i + 1, text.data(), text.size(), SQLITE_TRANSIENT,
                                 SQLITE_UTF8);
        break;
      }
      case Value::Type::Blob: {
        const Blob& blob = value.as_blob();
        rc = blob.empty()
                 ? sqlite3_bind_zeroblob(stmt, i + 1, 0)
                 : sqlite3_bind_blob64(stmt, i + 1, blob.data(), blob.size(), SQLITE_TRANSIENT);
        break;
      }
    }
    if (rc != SQLITE_OK) state_->raise_last_error();
  }
}

bool Cursor::step() {
  sqlite3_stmt* stmt = statement_->handle();
  const int rc = sqlite3_step(stmt);
  if (rc == SQLITE_ROW) {
    on_row_ = true;
    return true;
  }
  on_row_ = false;
  if (rc == SQLITE_DONE) {
    if (statement_->changes_rows()) {
      rowcount_ = (rowcount_ < 0 ? 0 : rowcount_) + sqlite3_changes64(state_->db());
    }
    release_statement();
    return false;
  }
  // Read the error before the reset in release_statement() can touch it.
  const int code = sqlite3_extended_errcode(state_->db());
  std::string message = sqlite3_errmsg(state_->db());
  release_statement();
  raise_error(code, std::move(message));
}

Row Cursor::current_row() {
  sqlite3_stmt* stmt = statement_->handle();
  const auto& columns = statement_->columns();
  const int count = static_cast<int>(columns->size());
  std::vector<Value> values;
  values.reserve(columns->size());
  for (int i = 0; i < count; ++i) {
    switch (sqlite3_column_type(stmt, i)) {
      case SQLITE_INTEGER:
        values.emplace_back(static_cast<std::int64_t>(sqlite3_column_int64(stmt, i)));
        break;
      case SQLITE_FLOAT:
        values.emplace_back(sqlite3_column_double(stmt, i));
        break;
      case SQLITE_TEXT: {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(stmt, i));
        values.emplace_back(std::string_view(text == nullptr ? "" : text, size));
        break;
      }
      case SQLITE_BLOB: {
        const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt, i));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(stmt, i));
        values.emplace_back(bytes == nullptr ? Blob{} : Blob(bytes, bytes + size));
        break;
      }
      default:
        values.emplace_back();
        break;
    }
  }
  on_row_ = false;
  return {columns, std::move(values)};
}

Cursor& Cursor::execute(std::string_view sql, const Params& params) {
  begin(sql);
  if (statement_->handle() == nullptr) {  // nothing but blanks and comments
    release_statement();
    return *this;
  }
  try {
    bind(params);
  } catch (...) {
    release_statement();
    throw;
  }
  step();
  lastrowid_ = sqlite3_last_insert_rowid(state_->db());
  return *this;
}

Cursor& Cursor::executemany(std::string_view sql, const std::vector<Params>& params_list) {
  begin(sql);
  if (statement_->handle() == nullptr) {
    release_statement();
    return *this;
  }
  detail::Statement* statement = statement_;
  const bool changes_rows = statement->changes_rows();  // the statement may go with release
  std::int64_t total = 0;
  try {
    for (const Params& params : params_list) {
      sqlite3_reset(statement->handle());
      bind(params);
      const int rc = sqlite3_step(statement->handle());
      if (rc == SQLITE_ROW) {
        raise_error(SQLITE_MISUSE, "executemany() can only execute DML statements.");
      }
      if (rc != SQLITE_DONE) state_->raise_last_error();
      total += sqlite3_changes64(state_->db());
    }
  } catch (...) {
    release_statement();
    throw;
  }
  release_statement();
  rowcount_ = changes_rows ? total : -1;
  return *this;
}

std::optional<Row> Cursor::fetchone() {
  if (closed_) raise_error(SQLITE_MISUSE, "Cannot operate on a closed cursor.");
  if (detached_) {
    if (next_buffered_ == buffered_.size()) return std::nullopt;
    return std::move(buffered_[next_buffered_++]);
  }
  if (statement_ == nullptr) return std::nullopt;
  state_->check_open();
  if (statement_->handle() == nullptr) {  // finalized under the cursor by a close
    raise_error(SQLITE_MISUSE, "Cannot operate on a closed database.");
  }
  if (!on_row_ && !step()) return std::nullopt;
  Row row = current_row();
  return row;
}

std::vector<Row> Cursor::fetchall() {
  std::vector<Row> rows;
  while (auto row = fetchone()) rows.push_back(std::move(*row));
  return rows;
}

Cursor& Cursor::detach() {
  if (!detached_) {
    buffered_ = fetchall();
    next_buffered_ = 0;
    detached_ = true;
    state_.reset();
  }
  return *this;
}

void Cursor::release_statement() noexcept {
  if (statement_ != nullptr) {
    state_->release(std::exchange(statement_, nullptr));
    on_row_ = false;
  }
}

void Cursor::close() noexcept {
  if (!closed_) {
    release_statement();
    buffered_.clear();
    closed_ = true;
  }
}

}  // namespace quilma::sqlite
