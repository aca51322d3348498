// A statement handle on one connection: runs statements and hands out their rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "quilma/sqlite/row.h"
#include "quilma/sqlite/value.h"

namespace quilma::sqlite {

namespace detail {
class ConnectionState;
class Statement;
}  // namespace detail

// Move-only. A cursor holds its statement from execute() until its rows are all fetched, the
// next execute(), close() or destruction; then the statement goes back to the connection's
// cache, reset and with its bindings cleared. Used by one thread at a time.
class Cursor {
 public:
  Cursor(Cursor&& other) noexcept;
  Cursor& operator=(Cursor&& other) noexcept;
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;
  ~Cursor() { close(); }

  // Runs one statement with its values and steps it to its first row, so that a statement
  // without rows has done its work (and raised its error) when this returns.
  Cursor& execute(std::string_view sql, const Params& params = {});
  // Runs one statement that yields no rows once for each set of values, in order.
  Cursor& executemany(std::string_view sql, const std::vector<Params>& params_list);

  std::optional<Row> fetchone();  // the next row, or std::nullopt at the end
  std::vector<Row> fetchall();    // the remaining rows; steps the statement until it is done

  // Rows changed by the last INSERT, UPDATE, DELETE or REPLACE (summed over executemany);
  // -1 after any other statement and before the first.
  std::int64_t rowcount() const noexcept { return rowcount_; }
  // The connection's last inserted rowid as it stood after the last execute(); std::nullopt
  // before the first.
  std::optional<std::int64_t> lastrowid() const noexcept { return lastrowid_; }
  // The result columns of the last statement, rows or none; null before the first, and after
  // a statement without result columns.
  const std::shared_ptr<const Row::Columns>& columns() const noexcept { return columns_; }

  void close() noexcept;  // idempotent

  // Reads the rest of the result into the cursor and lets go of the connection: later fetches
  // read from memory, and execute() on it raises ProgrammingError. A cursor detached this way
  // can be handed to a thread that may not use the connection.
  Cursor& detach();

 private:
  friend class Connection;
  explicit Cursor(std::shared_ptr<detail::ConnectionState> state);

  detail::ConnectionState& usable_state() const;
  void begin(std::string_view sql);
  void bind(const Params& params);
  bool step();  // true when the statement stands on a row
  Row current_row();
  void release_statement() noexcept;

  std::shared_ptr<detail::ConnectionState> state_;
  detail::Statement* statement_ = nullptr;
  bool on_row_ = false;  // statement_ stands on a row that no fetch has returned yet
  std::int64_t rowcount_ = -1;
  std::optional<std::int64_t> lastrowid_;
  std::shared_ptr<const Row::Columns> columns_;
  bool closed_ = false;
  bool detached_ = false;
  std::vector<Row> buffered_;  // rows read ahead by detach()
  std::size_t next_buffered_ = 0;
};

}  // namespace quilma::sqlite
