// Database: opening and closing, transactions, writes, and the routing of queries between
// the read connections and the writer.
#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <sqlite3.h>
#include <sys/statvfs.h>

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

bool read_only(sqlite::Connection& connection) {
  return sqlite3_db_readonly(connection.handle(), "main") == 1;
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

namespace {

// Whether the file system that holds `path` is mounted read-only: nothing can write it there.
bool on_read_only_mount(const std::filesystem::path& path) {
  struct statvfs status {};
  return ::statvfs(path.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

// The writer's connection. A file this process may not write (another user's index, a copy on
// a read-only mount) comes out read-only and reads through SQLite's locks, sharing the log and
// its index with the processes that write it. Where that cannot be done (the file is in WAL
// mode, no process has it open, and this one may not create the log's index beside it), the
// file is read as it stands only on a read-only mount; anywhere else its owner could rewrite
// it under the reader, so the open is refused.
std::unique_ptr<sqlite::Connection> open_writer(const std::filesystem::path& path) {
  sqlite::OpenOptions options{.busy_timeout = detail::WRITER_BUSY_TIMEOUT};
  auto writer = std::make_unique<sqlite::Connection>(path, options);
  if (!detail::read_only(*writer)) return writer;
  try {
    writer->cursor().execute("PRAGMA schema_version").fetchone();
    return writer;
  } catch (const sqlite::Error& error) {
    if (error.code() != SQLITE_READONLY && error.code() != SQLITE_CANTOPEN) throw;
    if (!on_read_only_mount(path)) {
      sqlite::raise_error(error.extended_code(),
                          "Cannot read " + path.string() +
                              " safely: this process may not write it or its directory, and no "
                              "process that may has it open to share its log (" +
                              error.what() + ")");
    }
  }
  writer->close();
  options.immutable = true;
  return std::make_unique<sqlite::Connection>(path, options);
}

}  // namespace

void Database::connect() {
  if (const std::filesystem::path parent = db_path_.parent_path(); !parent.empty()) {
    std::filesystem::create_directories(parent);
  }
  // The new writer is made ready before anyone can reach it: a thread that finds it in
  // connection_ must not run a statement beside one of the pragmas.
  std::unique_ptr<sqlite::Connection> writer = open_writer(db_path_);
  const bool read_only = detail::read_only(*writer);
  sqlite::Cursor cursor = writer->cursor();
  // Page size and auto-vacuum shape a file without pages yet. On a file with tables the
  // auto-vacuum pragma would take the write lock (and wait for another process's write) only
  // to change nothing: such a file keeps what it was made with, and the rewrites that change
  // it ask for incremental mode themselves.
  if (!read_only && cursor.execute("PRAGMA page_count").fetchone().value()[0].as_int() == 0) {
    cursor.execute("PRAGMA page_size=" + std::to_string(storage_size::PAGE_SIZE));
    cursor.execute("PRAGMA auto_vacuum=INCREMENTAL");
  }
  const std::optional<sqlite::Row> mode =
      cursor.execute(read_only ? "PRAGMA journal_mode" : "PRAGMA journal_mode=WAL").fetchone();
  cursor.execute("PRAGMA foreign_keys=ON");
  cursor.execute("PRAGMA synchronous=NORMAL");
  // Debian's SQLite zeroes every page it frees, which made dropping a large full-text table
  // 20 times slower. The file holds the text of the repository it lives in, under the same
  // permissions, and the compaction after a swap hands freed pages back to the file system
  // unzeroed anyway; FAST still clears deleted rows in the pages that are written anyway.
  cursor.execute("PRAGMA secure_delete=FAST");
  // A log that a long read kept from restarting shrinks back to this at the next checkpoint
  // that completes, instead of keeping its largest size on disk.
  cursor.execute("PRAGMA journal_size_limit=" + std::to_string(detail::JOURNAL_SIZE_LIMIT));
  cursor.close();
  utils::register_path_functions(*writer);
  if (!read_only) sqlite3_wal_hook(writer->handle(), &Database::on_commit, this);

  // A pool that fails to open leaves everything as it was.
  std::shared_ptr<ReaderPool> opened = open_readers(detail::journal_mode(mode));
  std::unique_ptr<sqlite::Connection> replaced_writer;
  ReaderPool* replaced_readers = nullptr;
  {
    // Every use of the writer holds the lock, so none is using the replaced one past here.
    const std::lock_guard hold(lock_);
    replaced_writer = std::exchange(writer_, std::move(writer));
    connection_.store(writer_.get(), std::memory_order_release);
    closed_.store(false, std::memory_order_release);
    replaced_readers = readers_.exchange(std::move(opened));
  }
  // A query that loaded the replaced pool finds it closed at its lease (or finishes first:
  // close() waits for it) and takes the writer's path.
  if (replaced_readers != nullptr) replaced_readers->close();
}

std::shared_ptr<ReaderPool> Database::open_readers(std::string_view journal_mode) const {
  const int count = reader_count();
  // Only in WAL mode does a read connection escape the writer's lock; an in-memory database
  // reports "memory" and could not be opened a second time anyway.
  if (count == 0 || journal_mode != "wal") return nullptr;
  return std::make_shared<ReaderPool>(db_path_, count, &utils::register_path_functions);
}

void Database::close() {
  if (ReaderPool* pool = readers_.load()) {
    pool->close();
  }
  ReaderPool* opened_meanwhile = nullptr;
  {
    // Closing the writer under a statement that another thread runs on it would crash that
    // thread: wait for it.
    const std::lock_guard hold(lock_);
    if (connection_.load(std::memory_order_acquire) != nullptr) {
      // The writer is closed even when SQLite reports an error from it. closed_ goes first: a
      // thread that sees no connection must also see why.
      closed_.store(true, std::memory_order_release);
      connection_.store(nullptr, std::memory_order_release);
      writer_->close();
    }
    // A page rewrite or a connect() that held the lock meanwhile may have opened a new pool.
    opened_meanwhile = readers_.load();
  }
  // Its leases are waited for without the lock: a read() body may be waiting for the lock to
  // write, and gets "Database is closed." once it has it.
  if (opened_meanwhile != nullptr) opened_meanwhile->close();
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
    // The file's write lock is taken here, where the busy timeout covers the wait for another
    // process's write. A deferred BEGIN would take it at the first write instead, and a
    // transaction that has read by then gets SQLITE_BUSY at once, without waiting, when
    // another process holds it (waiting could deadlock), or SQLITE_BUSY_SNAPSHOT when
    // another process committed since its first read.
    control_->execute("BEGIN IMMEDIATE");
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
  return readers_.load();
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
  // A pool closed or replaced meanwhile stays alive (see readers_) and refuses the lease.
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

Database::Snapshot::Snapshot(Database& db) : db_(db) {
  if (db_.tx_owner_.load(std::memory_order_acquire) != std::this_thread::get_id()) {
    pool_ = db_.readers_.load();
    if (pool_ != nullptr && begin_on_reader()) return;
    pool_ = nullptr;
  }
  begin_on_writer();
}

Database::Snapshot::~Snapshot() { end(); }

bool Database::Snapshot::begin_on_reader() {
  try {
    lease_.emplace(pool_->lease());
  } catch (const ReaderUnavailable&) {
    return false;
  }
  connection_ = &lease_->connection();
  try {
    begin();
    return true;
  } catch (const sqlite::OperationalError& error) {
    end();
    if (!detail::reader_cannot_serve(error)) throw;
  } catch (...) {
    end();
    throw;
  }
  return false;
}

namespace {

// While a read() runs on the writer, a statement of its body may not lift query_only.
int keep_query_only(void* /*unused*/, int action, const char* name, const char* value,
                    const char* /*database*/, const char* /*trigger*/) {
  if (action == SQLITE_PRAGMA && value != nullptr && sqlite3_stricmp(name, "query_only") == 0) {
    return SQLITE_DENY;
  }
  return SQLITE_OK;
}

}  // namespace

void Database::Snapshot::begin_on_writer() {
  hold_ = std::unique_lock(db_.lock_);
  connection_ = &db_.connection();
  on_writer_ = true;
  try {
    // A read() inside this thread's read() on the writer joins it: the outer one's read
    // transaction and query_only hold for both, and only the outer one ends them.
    if (db_.writer_reads_++ > 0) {
      cursor_.emplace(connection_->cursor());
      return;
    }
    sqlite::Cursor(connection_->cursor()).execute("PRAGMA query_only=ON");
    query_only_ = true;
    sqlite3_set_authorizer(connection_->handle(), &keep_query_only, nullptr);
    // Holding the lock, an open transaction can only be this thread's own: the body reads
    // the state it has written so far, which no other thread changes meanwhile.
    if (db_.tx_depth_ > 0) {
      cursor_.emplace(connection_->cursor());
    } else {
      begin();
    }
  } catch (...) {
    end();
    throw;
  }
}

void Database::Snapshot::begin() {
  cursor_.emplace(connection_->cursor());
  cursor_->execute("BEGIN");  // deferred: a read transaction, no write lock
  began_ = true;
  // The snapshot is taken at the first read. Taking it here, a read connection that cannot
  // serve says so before the body runs, and the body runs whole on the writer instead.
  cursor_->execute("PRAGMA schema_version");
}

void Database::Snapshot::end() noexcept {
  // A statement that the body left unfinished would keep the read transaction open.
  if (cursor_) cursor_->close();
  cursor_.reset();
  if (connection_ == nullptr) return;
  // The body may have moved its cursor away: the ending statements run on one of their own.
  const auto run = [this](const char* sql) {
    try {
      connection_->cursor().execute(sql);
    } catch (const sqlite::Error&) {  // nothing was written that could be lost
    }
  };
  if (began_) run("ROLLBACK");
  if (query_only_) {
    sqlite3_set_authorizer(connection_->handle(), nullptr, nullptr);
    run("PRAGMA query_only=OFF");
  }
  if (on_writer_) --db_.writer_reads_;
  began_ = query_only_ = on_writer_ = false;
  connection_ = nullptr;
  lease_.reset();
}

std::int64_t Database::count(std::string_view sql) {
  const std::optional<sqlite::Row> row = fetchone(sql);
  return row ? (*row)[0].as_int() : 0;
}

}  // namespace quilma::storage
