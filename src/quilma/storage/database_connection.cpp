// Database: opening and closing, transactions, writes, and the routing of queries between
// the read connections and the writer.
#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/storage_size.h"
#include "quilma/utils/path_filter.h"

namespace quilma::storage {

namespace {

constexpr std::string_view BLANKS = " \t\n\r\f\v";

std::string_view strip(std::string_view text) {
  const std::size_t first = text.find_first_not_of(BLANKS);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool is_blank(char c) { return BLANKS.find(c) != std::string_view::npos; }

// Whether `text` equals `upper_case` (upper-case letters, blanks and punctuation) when the
// ASCII letters of `text` are upper-cased.
bool equals_upper(std::string_view text, std::string_view upper_case) {
  if (text.size() != upper_case.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if ((c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c) != upper_case[i]) return false;
  }
  return true;
}

// Whether `text` begins with `letters` (upper-case ASCII letters only), in any letter case.
bool starts_with_letters(std::string_view text, std::string_view letters) {
  if (text.size() < letters.size()) return false;
  for (std::size_t i = 0; i < letters.size(); ++i) {
    // Exact for letters: only 'X' and 'x' turn into 'x' when 0x20 is set.
    if ((text[i] | 0x20) != (letters[i] | 0x20)) return false;
  }
  return true;
}

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return result;
}

// A decimal integer with an optional sign, saturated to [-(MAX_READERS + 1), MAX_READERS + 1]
// since only its place relative to 0..MAX_READERS matters; std::nullopt when it is not one.
std::optional<int> parse_reader_count(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  int value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = std::min(value * 10 + (c - '0'), detail::MAX_READERS + 1);
  }
  return negative ? -value : value;
}

}  // namespace

int reader_count() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the process does not change its environment.
  const char* raw = std::getenv(std::string(detail::READERS_ENV).c_str());
  if (raw == nullptr) return detail::DEFAULT_READERS;
  const std::string_view text = strip(raw);
  if (text.empty()) return detail::DEFAULT_READERS;
  const std::optional<int> value = parse_reader_count(text);
  if (!value) return detail::DEFAULT_READERS;
  return std::clamp(*value, 0, detail::MAX_READERS);
}

namespace detail {

bool is_read_statement(std::string_view sql) {
  // Every query passes here: the common case looks at a few characters and allocates nothing.
  std::size_t start = 0;
  while (start < sql.size() && is_blank(sql[start])) ++start;
  const std::string_view head = sql.substr(start);
  if (starts_with_letters(head, "SELECT") || starts_with_letters(head, "WITH")) return true;

  std::string_view whole = strip(sql);
  while (!whole.empty() && whole.back() == ';') whole.remove_suffix(1);
  return equals_upper(strip(whole), "PRAGMA USER_VERSION");
}

std::string journal_mode(const std::optional<sqlite::Row>& row) {
  if (!row || row->size() == 0 || (*row)[0].is_null()) return {};
  return lower((*row)[0].as_text());
}

bool reader_cannot_serve(const sqlite::OperationalError& error) {
  const std::string message = lower(error.what());
  return message.find("readonly database") != std::string::npos ||
         message.find("unable to open database file") != std::string::npos;
}

}  // namespace detail

Database::Database(std::filesystem::path db_path) : db_path_(std::move(db_path)) {}

Database::~Database() {
  try {
    close();
  } catch (const sqlite::Error&) {  // the connections' destructors free what close() left
  }
}

void Database::connect() {
  if (const std::filesystem::path parent = db_path_.parent_path(); !parent.empty()) {
    std::filesystem::create_directories(parent);
  }
  closed_.store(false, std::memory_order_release);

  auto writer = std::make_unique<sqlite::Connection>(
      db_path_, sqlite::OpenOptions{.busy_timeout = detail::WRITER_BUSY_TIMEOUT});
  connection_.store(writer.get(), std::memory_order_release);
  writer_ = std::move(writer);  // a writer this replaces is closed here

  sqlite::Cursor cursor = writer_->cursor();
  // Page size and auto-vacuum shape only a file without pages yet; an existing file keeps
  // what it was made with.
  cursor.execute("PRAGMA page_size=" + std::to_string(storage_size::PAGE_SIZE));
  cursor.execute("PRAGMA auto_vacuum=INCREMENTAL");
  const std::optional<sqlite::Row> mode = cursor.execute("PRAGMA journal_mode=WAL").fetchone();
  cursor.execute("PRAGMA foreign_keys=ON");
  cursor.execute("PRAGMA synchronous=NORMAL");
  cursor.close();
  utils::register_path_functions(*writer_);

  const std::string journal_mode = detail::journal_mode(mode);
  // No query runs during connect(), so the pools it replaces can go now; a pool that fails
  // to open leaves the current one in place.
  std::unique_ptr<ReaderPool> opened = open_readers(journal_mode);
  std::vector<std::unique_ptr<ReaderPool>> replaced = std::move(pools_);
  pools_.clear();
  set_readers(std::move(opened));
}

ReaderPool* Database::set_readers(std::unique_ptr<ReaderPool> pool) {
  ReaderPool* readers = pool.get();
  if (pool) pools_.push_back(std::move(pool));
  readers_.store(readers, std::memory_order_release);
  return readers;
}

std::unique_ptr<ReaderPool> Database::open_readers(std::string_view journal_mode) const {
  const int count = reader_count();
  // Only in WAL mode does a read connection escape the writer's lock; an in-memory database
  // reports "memory" and could not be opened a second time anyway.
  if (count == 0 || journal_mode != "wal") return nullptr;
  return std::make_unique<ReaderPool>(db_path_, count, &utils::register_path_functions);
}

void Database::close() {
  if (ReaderPool* pool = readers_.load(std::memory_order_acquire)) pool->close();
  // Closing the writer under a statement that another thread runs on it would crash that
  // thread: wait for it.
  const std::lock_guard hold(lock_);
  // A page rewrite that held the lock meanwhile may have opened a new pool.
  if (ReaderPool* pool = readers_.load(std::memory_order_acquire)) pool->close();
  if (connection_.load(std::memory_order_acquire) != nullptr) {
    // The writer is closed even when SQLite reports an error from it. closed_ goes first: a
    // thread that sees no connection must also see why.
    closed_.store(true, std::memory_order_release);
    connection_.store(nullptr, std::memory_order_release);
    writer_->close();
  }
}

sqlite::Connection& Database::connection() const {
  sqlite::Connection* connection = connection_.load(std::memory_order_acquire);
  if (connection == nullptr) {
    if (closed()) throw std::runtime_error("Database is closed.");
    throw std::runtime_error("Database not connected. Call connect() first.");
  }
  return *connection;
}

Database::TransactionLevel::TransactionLevel(Database& db) : db_(db), hold_(db.lock_) {
  if (db_.tx_depth_ > 0) {  // inside this thread's own transaction: join it
    ++db_.tx_depth_;
    try {
      cursor_.emplace(db_.connection().cursor());
    } catch (...) {
      --db_.tx_depth_;
      throw;
    }
    return;
  }
  cursor_.emplace(db_.connection().cursor());
  control_.emplace(db_.connection().cursor());
  outermost_ = true;
  db_.tx_depth_ = 1;
  db_.tx_owner_.store(std::this_thread::get_id(), std::memory_order_release);
  try {
    // Deferred: the file's write lock is taken at the first write.
    control_->execute("BEGIN");
  } catch (...) {
    rollback();
    db_.tx_depth_ = 0;
    db_.tx_owner_.store(std::thread::id(), std::memory_order_release);
    throw;
  }
}

Database::TransactionLevel::~TransactionLevel() {
  cursor_.reset();
  control_.reset();
  if (outermost_) {
    db_.tx_depth_ = 0;
    db_.tx_owner_.store(std::thread::id(), std::memory_order_release);
  } else {
    --db_.tx_depth_;
  }
}

void Database::TransactionLevel::commit() {
  if (outermost_) control_->execute("COMMIT");
}

void Database::TransactionLevel::rollback() {
  if (!outermost_) return;
  try {
    control_->execute("ROLLBACK");
  } catch (const sqlite::Error&) {  // the error that caused the rollback is what matters
  }
}

sqlite::Cursor Database::execute(std::string_view sql, const sqlite::Params& params) {
  const std::lock_guard hold(lock_);
  sqlite::Cursor cursor = connection().cursor();
  cursor.execute(sql, params);
  cursor.detach();
  return cursor;
}

sqlite::Cursor Database::executemany(std::string_view sql,
                                     const std::vector<sqlite::Params>& params_list) {
  const std::lock_guard hold(lock_);
  sqlite::Cursor cursor = connection().cursor();
  cursor.executemany(sql, params_list);
  cursor.detach();
  return cursor;
}

ReaderPool* Database::readers_for(std::string_view sql) const {
  // A thread inside its own transaction must see what it has written so far.
  if (tx_owner_.load(std::memory_order_acquire) == std::this_thread::get_id()) return nullptr;
  if (!detail::is_read_statement(sql)) return nullptr;
  return readers_.load(std::memory_order_acquire);
}

template <class Fetch>
std::invoke_result_t<Fetch&, sqlite::Cursor&> Database::query(std::string_view sql,
                                                              const sqlite::Params& params,
                                                              Fetch fetch) {
  auto run = [&](sqlite::Connection& connection) {
    sqlite::Cursor cursor = connection.cursor();
    cursor.execute(sql, params);
    return fetch(cursor);
  };
  // A pool closed or replaced meanwhile stays alive (see pools_) and refuses the lease.
  if (ReaderPool* readers = readers_for(sql)) {
    try {
      ReaderPool::Lease lease = readers->lease();
      return run(lease.connection());
    } catch (const ReaderUnavailable&) {
    } catch (const sqlite::OperationalError& error) {
      if (!detail::reader_cannot_serve(error)) throw;
    }
  }
  const std::lock_guard hold(lock_);
  return run(connection());
}

std::optional<sqlite::Row> Database::fetchone(std::string_view sql, const sqlite::Params& params) {
  return query(sql, params, [](sqlite::Cursor& cursor) { return cursor.fetchone(); });
}

std::vector<sqlite::Row> Database::fetchall(std::string_view sql, const sqlite::Params& params) {
  return query(sql, params, [](sqlite::Cursor& cursor) { return cursor.fetchall(); });
}

std::int64_t Database::count(std::string_view sql) {
  const std::optional<sqlite::Row> row = fetchone(sql);
  return row ? (*row)[0].as_int() : 0;
}

}  // namespace quilma::storage
