// Database: the one object through which the service reaches a repository's index file.
//
// One read-write connection (the writer) is shared by every thread of the process under one
// reentrant lock, in autocommit and WAL mode; queries run on a pool of read-only connections
// so that they never wait for a write in progress. Transactions nest: only the outermost
// level sends BEGIN and COMMIT or ROLLBACK.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <spdlog/common.h>

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/cursor.h"
#include "quilma/sqlite/row.h"
#include "quilma/sqlite/value.h"
#include "quilma/storage/connection_lock.h"
#include "quilma/storage/migrations.h"
#include "quilma/storage/reader_pool.h"

namespace spdlog {
class logger;
}
struct sqlite3;

namespace quilma::storage {

// Compaction. The most pages released per step, and so per holding of the connection lock.
inline constexpr std::int64_t COMPACT_STEP_PAGES = 1024;
// Fewer free pages than this, or a smaller share of the file's pages: nothing is done.
inline constexpr std::int64_t COMPACT_MIN_FREE_PAGES = 2048;
inline constexpr double COMPACT_MIN_FREE_RATIO = 0.1;
// Headroom added, once per place, to the bytes that a VACUUM needs on disk.
inline constexpr std::int64_t COMPACT_DISK_MARGIN_BYTES = 64LL * 1024 * 1024;
// The most data, in bytes, that a file made without auto-vacuum is rewritten with in place.
inline constexpr std::int64_t COMPACT_CONVERT_MAX_BYTES = 1024LL * 1024 * 1024;

// Keys of schema_info: the extractor stamp, and a row kept by the rest of the service.
inline constexpr std::string_view EXTRACTOR_VERSIONS_KEY = "extractor_versions";
inline constexpr std::string_view LAST_INDEX_KEY = "last_index";
// error_type values of index_errors rows that the rest of the service records.
inline constexpr std::string_view FQN_COLLISION_ERROR = "fqn_collision";
inline constexpr std::string_view PARTIAL_PARSE_ERROR = "partial_parse";
using migrations::REINDEX_SENTINEL_HASH;

// An ordered mapping from table or statistic name to a count, in the order the operation
// defines.
using Counts = std::vector<std::pair<std::string, std::int64_t>>;

// What a compaction did, or why it did nothing.
struct Compaction {
  bool converted = false;  // the file was rewritten into incremental auto-vacuum mode
  std::int64_t pages_released = 0;
  // Why nothing was done, when a refusal or an error stopped it; std::nullopt when the
  // compaction ran, and when it found too little to gain.
  std::optional<std::string> skipped;
  bool operator==(const Compaction&) const = default;
};

// A database file's pages: all of them, and those on the free list (held, but used by no table
// or index: what a compaction would give back).
struct PageUse {
  std::int64_t pages = 0;
  std::int64_t free_pages = 0;
  std::int64_t page_size = 0;
};

// How many read connections to keep, from QUILMA_DB_READERS: 6 when it is unset, empty or
// not an integer; otherwise the value clamped to 0..32. 0 means no pool. Read on every call.
int reader_count();

// The logger "quilma.storage.database", registered with spdlog's registry on first call.
// Until the application attaches sinks of its own, warnings go to stderr.
std::shared_ptr<spdlog::logger> database_logger();

// Notes that the staging database at `staging_path` was built by this process, which has
// closed it: a swap from it skips FTS5's check of the chunks (the longest of its checks) while
// the file stays as it is now (the same device, inode, size and modification time). Any other
// file, or this one changed since, is checked whole.
void note_built_here(const std::filesystem::path& staging_path);

namespace detail {
struct Space;
// How long a statement on the writer waits for another process's lock on the file.
inline constexpr std::chrono::milliseconds WRITER_BUSY_TIMEOUT{5000};
// A log of this many pages is checkpointed after a commit (SQLite's automatic threshold).
inline constexpr int CHECKPOINT_FRAMES = 1000;
// A log larger than this that readers keep from being copied whole is restarted by the next
// writer that commits: it waits up to LOG_RESTART_PATIENCE for the readers of older snapshots
// (holding the file's write lock, so other writers wait as long, plus the copy), and after a
// wait in vain no writer tries again for LOG_RESTART_RETRY, unless the log is twice as large.
inline constexpr std::int64_t LOG_RESTART_BYTES = 16LL * 1024 * 1024;
inline constexpr std::chrono::milliseconds LOG_RESTART_PATIENCE{500};
inline constexpr std::chrono::milliseconds LOG_RESTART_RETRY{1000};
}  // namespace detail

class Database {
 public:
  explicit Database(std::filesystem::path db_path);  // touches nothing
  ~Database();                                       // closes; never throws
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  const std::filesystem::path& db_path() const noexcept { return db_path_; }

  // Creates the file's directory, opens the writer with its pragmas and, when the journal is
  // in WAL mode, a pool of read connections. Callers connect before they share the object;
  // should another thread be using it all the same, the new connections are put in place
  // under the lock, and the replaced ones closed after the statements running on them.
  // Writes nothing to a file that has pages already.
  void connect();
  // Closes the pool (waiting for queries in progress on it), then the writer under the lock
  // (waiting for a statement or transaction in progress on it).
  void close();
  bool closed() const noexcept { return closed_.load(std::memory_order_acquire); }
  // The writer connection; std::runtime_error "Database is closed." after close(),
  // "Database not connected. Call connect() first." before connect().
  sqlite::Connection& connection() const;

  // Runs body(cursor) as one transaction level and returns what body returns. The outermost
  // level sends BEGIN IMMEDIATE, which waits (up to the busy timeout) for another process's
  // write to end, so that no statement inside has to; then COMMIT when body returns; when body
  // throws, or the COMMIT fails, it sends ROLLBACK and the error goes on unchanged. An inner level
  // (the same thread, inside an open level) joins the outer transaction and sends nothing. The lock
  // is held throughout.
  template <class Body>
  std::invoke_result_t<Body, sqlite::Cursor&> transaction(Body&& body);

  // One statement on the writer under the lock; its result is read completely before the
  // lock is released, so the returned cursor needs neither.
  sqlite::Cursor execute(std::string_view sql, const sqlite::Params& params = {});
  sqlite::Cursor executemany(std::string_view sql, const std::vector<sqlite::Params>& params_list);

  // Queries: on a read connection when the statement only reads and the calling thread has no
  // transaction open; otherwise, or when no read connection can serve, on the writer.
  std::optional<sqlite::Row> fetchone(std::string_view sql, const sqlite::Params& params = {});
  std::vector<sqlite::Row> fetchall(std::string_view sql, const sqlite::Params& params = {});
  // Runs body(cursor) with every query in it reading one state of the file, and returns what
  // body returns: one read connection and one read transaction, so that a commit of another
  // thread or process in between is seen by none of them or by all. Never waits for a write.
  // Falls back to the writer as queries do (no pool, no read connection to be had, or the
  // calling thread inside its own transaction, whose state it then sees). The cursor only
  // reads: a write through it fails with "attempt to write a readonly database".
  template <class Body>
  std::invoke_result_t<Body, sqlite::Cursor&> read(Body&& body);

  // The open sequence, after connect(): create_schema() creates the tables the file lacks,
  // in one transaction, and takes no write lock when it lacks none; migrate_schema() runs the
  // migration steps after the version the file records (each in a transaction of its own, errors as
  // migrations::SchemaMigrationError) and, once the file is at this release's version, rewrites a
  // file made with smaller pages, closing the read connections around the rewrite.
  void create_schema();
  void migrate_schema();
  // Whether the file passes SQLite's integrity check.
  bool check_integrity();
  // The messages of SQLite's integrity check, in its order; none when the file passes.
  std::vector<std::string> integrity_problems();
  // How many pages the file has and how many of them are free.
  PageUse page_use();

  // The index generation, in the file header's user version: it goes up by one each time
  // the index is replaced wholesale, so every process with the file open can tell that its
  // id-keyed caches are stale. Read from the file at every call.
  std::int64_t index_generation();

  // Compares the extractor versions that built the index (its stamp) with `versions`; marks
  // the files of every language whose version changed, or that the stamp does not mention,
  // for re-parsing, and records `versions` as the new stamp, in one transaction. Returns how
  // many files were marked. std::invalid_argument, before anything is read, for a language
  // name that is not UTF-8.
  std::int64_t refresh_extractor_stamp(const std::map<std::string, std::int64_t>& versions);

  // Empties the index tables (edges, external_imports, symbols, files, components,
  // index_errors) and code_chunks in one transaction, and logs how many rows each held.
  // schema_info, pending_references and the other features' tables keep their rows.
  void clear_all();
  // Replaces the index tables' rows, and code_chunks' when both files have it, with those of
  // the staging database at `staging_path`, in one transaction that also bumps the index
  // generation; then compacts. The staging file is only read. Returns the rows inserted per
  // table. FileNotFoundError when nothing exists at the path; sqlite::OperationalError when
  // the calling thread has a transaction open. A failure leaves the live index as it was.
  Counts swap_index_from(const std::filesystem::path& staging_path);

  // "files", "symbols" (those a user sees), "edges", "components" and "errors" (rows), in
  // that order; five separate queries, not one snapshot.
  Counts get_stats();
  void record_error(std::string_view file_path, std::string_view error_type,
                    std::optional<std::string> message = std::nullopt,
                    std::optional<std::int64_t> line = std::nullopt);
  // Deletes the file's error records: all of them, or those of `error_type` only.
  void clear_file_errors(std::string_view file_path,
                         std::optional<std::string> error_type = std::nullopt);
  // How many distinct files have at least one error record.
  std::int64_t get_error_count();

  // Gives the file system back the free pages that a swap or a delete left, when there are
  // enough of them: in steps that leave the lock free between them, or, for a file made
  // without auto-vacuum, by rewriting it once. Blocks on the disk; on a thread running the
  // service's event loop it declines at once. Never throws for SQLite or operating-system
  // errors: a refusal or failure comes back in `skipped`, logged once per kind at its own
  // level and at DEBUG afterwards.
  Compaction compact();

 private:
  friend class DatabaseTestPeer;

  // One level of a transaction, from taking the lock to giving it back.
  class TransactionLevel {
   public:
    explicit TransactionLevel(Database& db);  // takes the lock; BEGIN on the outermost level
    ~TransactionLevel();  // closes the cursor, ends the level and releases the lock
    TransactionLevel(const TransactionLevel&) = delete;
    TransactionLevel& operator=(const TransactionLevel&) = delete;

    sqlite::Cursor& cursor() { return *cursor_; }
    void commit();    // COMMIT on the outermost level; throws its error
    void rollback();  // ROLLBACK on the outermost level; SQLite's errors are ignored

   private:
    Database& db_;
    std::unique_lock<ConnectionLock> hold_;
    std::optional<sqlite::Cursor> cursor_;  // the body's; destroyed before hold_ lets go
    // The outermost level's own cursor for BEGIN, COMMIT and ROLLBACK, so that a body that
    // closes or moves away its cursor cannot leave the transaction open behind the lock.
    std::optional<sqlite::Cursor> control_;
    bool outermost_ = false;
  };

  // The state that read() runs its body in: a read transaction on a leased read connection,
  // or on the writer under the lock.
  class Snapshot {
   public:
    explicit Snapshot(Database& db);  // leases or locks, then begins the read transaction
    ~Snapshot();                      // ends it, then gives back what it took
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    sqlite::Cursor& cursor() { return *cursor_; }

   private:
    bool begin_on_reader();  // false when no read connection can serve
    void begin_on_writer();
    void begin();
    void end() noexcept;

    Database& db_;
    ReaderPool* pool_ = nullptr;
    std::optional<ReaderPool::Lease> lease_;
    std::unique_lock<ConnectionLock> hold_;  // the writer's path
    sqlite::Connection* connection_ = nullptr;
    bool began_ = false;       // this object opened the read transaction and must end it
    bool query_only_ = false;  // this object made the writer refuse writes
    bool on_writer_ = false;   // counted in writer_reads_
    std::optional<sqlite::Cursor> cursor_;
  };

 public:
  // A transaction level, or a read snapshot, held by an object instead of run around a body:
  // for callers whose body is not a C++ callable (a language binding's `with` block). The
  // object is made and destroyed on one thread, and its rules are those of transaction() and
  // read(). A transaction scope destroyed without commit() rolls back.
  class TransactionScope {
   public:
    explicit TransactionScope(Database& db) : level_(db) {}
    ~TransactionScope() {
      if (!ended_) rollback();
    }
    TransactionScope(const TransactionScope&) = delete;
    TransactionScope& operator=(const TransactionScope&) = delete;

    sqlite::Cursor& cursor() { return level_.cursor(); }
    // COMMIT on the outermost level; when it fails, ROLLBACK, and its error goes on.
    void commit() {
      ended_ = true;
      try {
        level_.commit();
      } catch (...) {
        level_.rollback();
        throw;
      }
    }
    void rollback() noexcept {
      ended_ = true;
      try {
        level_.rollback();
      } catch (...) {  // SQLite's own errors are ignored inside; nothing else can be reported
      }
    }

   private:
    TransactionLevel level_;
    bool ended_ = false;
  };
  class ReadScope {
   public:
    explicit ReadScope(Database& db) : snapshot_(db) {}
    sqlite::Cursor& cursor() { return snapshot_.cursor(); }

   private:
    Snapshot snapshot_;
  };

 private:
  std::shared_ptr<ReaderPool> open_readers(std::string_view journal_mode) const;
  ReaderPool* readers_for(std::string_view sql) const;
  template <class Fetch>
  std::invoke_result_t<Fetch&, sqlite::Cursor&> query(std::string_view sql,
                                                      const sqlite::Params& params, Fetch fetch);
  std::int64_t count(std::string_view sql);
  static detail::Space space(sqlite::Connection& connection);
  // Rewrites a file whose pages are smaller than storage_size::PAGE_SIZE, with the read
  // connections closed, and opens them again for the journal mode it ends in.
  void rewrite_pages();
  // compact() without its error handling.
  Compaction compact_unguarded();
  // Takes pages off the free list in steps of at most COMPACT_STEP_PAGES, each sized to hold
  // the lock about detail::COMPACT_STEP_TARGET and taking it anew: the caller must not hold it.
  // Returns how many went back to the file system.
  std::int64_t release_free_pages();
  // Writes the log into the file and empties it, which is what shortens a file in WAL mode, on
  // a connection of its own and without waiting for anyone; logs at INFO when a reader on an
  // older snapshot (or another process's write) keeps the log. The caller must not hold the
  // lock. Returns whether the log was emptied; SQLite's errors propagate.
  bool shrink_file();
  // The writer's hook after each commit (SQLite's WAL hook), in place of its automatic
  // checkpoint: a passive checkpoint once the log holds detail::CHECKPOINT_FRAMES pages, and a
  // restart of a log that readers keep growing (see the definition).
  static int on_commit(void* self, sqlite3* handle, const char* schema, int frames);
  // While one exists, commits on the writer leave the log to a later checkpoint: the page
  // release and the VACUUM, which write much and hold the lock, copy it afterwards without it.
  class DeferCheckpoints {
   public:
    explicit DeferCheckpoints(Database& db) : db_(db) {
      db_.checkpoints_deferred_.fetch_add(1, std::memory_order_acq_rel);
    }
    ~DeferCheckpoints() { db_.checkpoints_deferred_.fetch_sub(1, std::memory_order_acq_rel); }
    DeferCheckpoints(const DeferCheckpoints&) = delete;
    DeferCheckpoints& operator=(const DeferCheckpoints&) = delete;

   private:
    Database& db_;
  };
  // Rewrites a file made without auto-vacuum once, in incremental mode; `measured` is the
  // caller's measurement of it. Called without the lock.
  Compaction convert_to_incremental(const detail::Space& measured);
  static void vacuum(sqlite::Connection& connection);
  // Logs a refusal (at `level` the first time for its kind, then at DEBUG, with the error
  // being handled appended when `with_error`) and returns it as a Compaction.
  Compaction skip_compaction(const std::string& kind, const std::string& reason,
                             spdlog::level::level_enum level, bool with_error = false);
  Compaction skip_compaction(const std::string& kind, const std::string& reason);

  // Sets the generation one higher: on `cursor`, in the caller's transaction, when given
  // (exact, since the read runs under the same lock); otherwise as a statement of its own.
  void bump_index_generation(sqlite::Cursor* cursor = nullptr);

  std::filesystem::path db_path_;
  std::unique_ptr<sqlite::Connection> writer_;  // owns what connection_ points at
  std::atomic<sqlite::Connection*> connection_{nullptr};
  // Guards every use of the writer connection and the fields written under it.
  mutable ConnectionLock lock_;
  int tx_depth_ = 0;      // open transaction levels; written only under lock_
  int writer_reads_ = 0;  // read() levels open on the writer; used only under lock_
  std::atomic<bool> closed_{false};
  // The pool that queries lease from, or none; read without the lock. Every pool it has held
  // is kept until the object goes (a closed one costs a few hundred bytes), so a query may
  // finish with the pool it loaded even after the pool was closed or replaced, and no query
  // pays for a reference count.
  class PoolSlot {
   public:
    ReaderPool* load() const { return current_.load(std::memory_order_acquire); }
    // Makes `pool` (or none) the current pool; returns the one it replaces.
    ReaderPool* exchange(std::shared_ptr<ReaderPool> pool) {
      ReaderPool* raw = pool.get();
      const std::lock_guard hold(mutex_);
      if (pool) kept_.push_back(std::move(pool));
      return current_.exchange(raw, std::memory_order_acq_rel);
    }

   private:
    std::atomic<ReaderPool*> current_{nullptr};
    std::mutex mutex_;
    std::vector<std::shared_ptr<ReaderPool>> kept_;
  };
  PoolSlot readers_;
  // The thread whose outermost transaction is open. Written under lock_; read without it,
  // and it holds a thread's own id only while that thread's transaction is open.
  std::atomic<std::thread::id> tx_owner_{};
  // Checkpoints: how many DeferCheckpoints exist (a count, so that overlapping compactions
  // cannot leave it set); whether a swap's commit is under way (used under lock_); and, after
  // a restart of the log that readers kept from finishing, when the next may be tried
  // (steady_clock ticks).
  std::atomic<int> checkpoints_deferred_{0};
  bool swapping_ = false;
  std::atomic<std::int64_t> next_log_restart_{0};
  // Refusal kinds of compaction already logged at their own level; used without lock_.
  std::mutex compaction_noted_mutex_;
  std::set<std::string> compaction_noted_;
  // Set once a conversion to incremental auto-vacuum failed: it is not tried again by this
  // object. Read without lock_.
  std::atomic<bool> conversion_failed_{false};
};

template <class Body>
std::invoke_result_t<Body, sqlite::Cursor&> Database::transaction(Body&& body) {
  using Result = std::invoke_result_t<Body, sqlite::Cursor&>;
  TransactionLevel level(*this);
  try {
    if constexpr (std::is_void_v<Result>) {
      std::invoke(std::forward<Body>(body), level.cursor());
      level.commit();
    } else {
      Result result = std::invoke(std::forward<Body>(body), level.cursor());
      level.commit();
      return result;
    }
  } catch (...) {  // whatever leaves the body, or the COMMIT's own error
    level.rollback();
    throw;
  }
}

template <class Body>
std::invoke_result_t<Body, sqlite::Cursor&> Database::read(Body&& body) {
  Snapshot snapshot(*this);
  return std::invoke(std::forward<Body>(body), snapshot.cursor());
}

}  // namespace quilma::storage
