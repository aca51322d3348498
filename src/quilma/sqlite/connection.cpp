#include "quilma/sqlite/connection.h"

#include <algorithm>
#include <climits>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <sqlite3.h>

#include "quilma/sqlite/error.h"
#include "quilma/sqlite/statement.h"

namespace quilma::sqlite {

namespace {

// `path` as a file: URI, with the bytes that a URI gives a meaning to percent-encoded.
std::string file_uri(std::string_view path) {
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      uri += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    } else {
      uri += c;
    }
  }
  return uri;
}

}  // namespace

Connection::Connection(const std::filesystem::path& path, OpenOptions options) {
  // Every use of a connection is serialised by its owner (a lock or a lease), so SQLite's
  // own per-connection mutex would only add cost: open in multi-thread mode.
  int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  flags |= options.read_only || options.immutable ? SQLITE_OPEN_READONLY
                                                  : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  std::string name = path.string();
  if (options.immutable) {
    flags |= SQLITE_OPEN_URI;
    name = file_uri(name) + "?immutable=1";
  }
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(name.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    const int code = db != nullptr ? sqlite3_extended_errcode(db) : rc;
    std::string message = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close_v2(db);
    raise_error(code, std::move(message));
  }
  state_ = std::make_shared<detail::ConnectionState>(db);
  const auto timeout =
      std::min<std::chrono::milliseconds::rep>(options.busy_timeout.count(), INT_MAX);
  sqlite3_busy_timeout(db, static_cast<int>(std::max<std::chrono::milliseconds::rep>(timeout, 0)));
}

Connection& Connection::operator=(Connection&& other) noexcept {
  if (this != &other) {
    try {
      close();
    } catch (const Error&) {  // the state's destructor closes what close() could not
    }
    state_ = std::move(other.state_);
  }
  return *this;
}

Connection::~Connection() {
  try {
    close();
  } catch (const Error&) {  // the state's destructor closes what close() could not
  }
}

Cursor Connection::cursor() {
  if (!state_) raise_error(SQLITE_MISUSE, "Cannot operate on a closed database.");
  state_->check_open();
  return Cursor(state_);
}

sqlite3* Connection::handle() const noexcept { return state_ ? state_->db() : nullptr; }

void Connection::close() {
  if (state_) state_->close();
}

}  // namespace quilma::sqlite
