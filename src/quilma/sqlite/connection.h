// One SQLite connection: the handle, its statement cache and the cursors that run on it.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>

#include "quilma/sqlite/cursor.h"

struct sqlite3;

namespace quilma::sqlite {

struct OpenOptions {
  bool read_only = false;
  // Read the file as it stands, without locks and without its log: the only way SQLite reads
  // a WAL file in a directory it may not write. Sound only while nothing writes the file.
  // Implies read_only.
  bool immutable = false;
  std::chrono::milliseconds busy_timeout{5000};
};

// Move-only; owns one sqlite3 handle. The connection never opens a transaction by itself
// (autocommit), is not bound to the thread that opened it, and must be used by one thread
// at a time: its callers serialise their use of it.
class Connection {
 public:
  explicit Connection(const std::filesystem::path& path, OpenOptions options = {});
  Connection(Connection&&) noexcept = default;
  Connection& operator=(Connection&& other) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  Cursor cursor();
  sqlite3* handle() const noexcept;  // nullptr once closed
  // Finalizes every statement the connection prepared, then closes the handle. Idempotent.
  // When SQLite refuses (a blob or backup opened on handle() is still open), the error is
  // thrown, the connection is closed all the same, and SQLite frees the handle when that
  // object goes.
  void close();

 private:
  std::shared_ptr<detail::ConnectionState> state_;
};

}  // namespace quilma::sqlite
