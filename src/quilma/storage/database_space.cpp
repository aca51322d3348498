// Database: how much of the file is in use, whether the disks can hold a rewrite of it, and
// compaction: releasing free pages in steps, converting an old file once, and reporting why
// nothing was done.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quilma/runtime/event_loop.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/log.h"

namespace quilma::storage {

namespace {

// The first column of the first row of `sql`, a pragma that always answers with one.
std::int64_t read_int(sqlite::Cursor& cursor, const std::string& sql) {
  const std::optional<sqlite::Row> row = cursor.execute(sql).fetchone();
  // Never on an open file; a 0 read as "no auto-vacuum" would send compaction astray.
  if (!row) sqlite::raise_error(SQLITE_ERROR, sql + " returned no row");
  return (*row)[0].as_int();
}

std::int64_t file_mib(const std::filesystem::path& path) {
  return static_cast<std::int64_t>(std::filesystem::file_size(path)) / detail::MIB;
}

double seconds_since(std::chrono::steady_clock::time_point started) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

}  // namespace

namespace detail {

namespace {

std::mutex free_space_mutex;
FreeSpaceQuery free_space_query;  // empty: ask the file system

bool is_writable_directory(const char* path) {
  struct stat status {};
  return path != nullptr && ::stat(path, &status) == 0 && S_ISDIR(status.st_mode) &&
         ::access(path, W_OK | X_OK) == 0;
}

}  // namespace

bool same_volume(const std::filesystem::path& first, const std::filesystem::path& second) {
  struct stat first_status {};
  struct stat second_status {};
  if (::stat(first.c_str(), &first_status) != 0 || ::stat(second.c_str(), &second_status) != 0) {
    return true;
  }
  return first_status.st_dev == second_status.st_dev;
}

std::filesystem::path temp_directory() {
  // NOLINTBEGIN(concurrency-mt-unsafe): the process does not change its environment.
  if (const char* configured = std::getenv("SQLITE_TMPDIR");
      configured != nullptr && *configured != '\0') {
    return configured;
  }
  const char* candidates[] = {std::getenv("TMPDIR"), "/var/tmp", "/usr/tmp", "/tmp", "."};
  // NOLINTEND(concurrency-mt-unsafe)
  for (const char* candidate : candidates) {
    if (is_writable_directory(candidate)) return candidate;
  }
  return ".";
}

std::uintmax_t available_bytes(const std::filesystem::path& directory) {
  FreeSpaceQuery query;
  {
    const std::lock_guard hold(free_space_mutex);
    query = free_space_query;
  }
  return query ? query(directory) : std::filesystem::space(directory).available;
}

FreeSpaceQuery replace_free_space_query(FreeSpaceQuery query) {
  const std::lock_guard hold(free_space_mutex);
  return std::exchange(free_space_query, std::move(query));
}

std::optional<std::string> disk_shortfall(const std::filesystem::path& db_dir,
                                          std::int64_t used_bytes) {
  const std::filesystem::path temp = temp_directory();
  const std::int64_t each = used_bytes + COMPACT_DISK_MARGIN_BYTES;
  // The VACUUM copies the data into the temporary directory and back through the log beside
  // the database: on one volume both copies need room at once.
  std::vector<std::pair<std::filesystem::path, std::int64_t>> places;
  if (same_volume(db_dir, temp)) {
    places.emplace_back(db_dir, each + used_bytes);
  } else {
    places.emplace_back(db_dir, each);
    places.emplace_back(temp, each);
  }
  for (const auto& [place, needed] : places) {
    const auto available = static_cast<std::int64_t>(
        std::min<std::uintmax_t>(available_bytes(place), std::numeric_limits<std::int64_t>::max()));
    if (available < needed) {
      return "not enough disk space: " + std::to_string(available / MIB) + " MiB free in " +
             place.string() + ", " + std::to_string(needed / MIB) + " MiB needed";
    }
  }
  return std::nullopt;
}

std::filesystem::path directory_of(const std::filesystem::path& db_path) {
  std::filesystem::path parent = db_path.parent_path();
  return parent.empty() ? std::filesystem::path(".") : parent;
}

bool worth_compacting(const Space& space) {
  return space.free >= COMPACT_MIN_FREE_PAGES &&
         static_cast<double>(space.free) >=
             static_cast<double>(space.pages) * COMPACT_MIN_FREE_RATIO;
}

bool on_event_loop() { return runtime::on_event_loop(); }

}  // namespace detail

detail::Space Database::space(sqlite::Connection& connection) {
  sqlite::Cursor cursor = connection.cursor();
  detail::Space space;
  space.mode = read_int(cursor, "PRAGMA auto_vacuum");
  space.pages = read_int(cursor, "PRAGMA page_count");
  space.free = read_int(cursor, "PRAGMA freelist_count");
  space.page_size = read_int(cursor, "PRAGMA page_size");
  return space;
}

Compaction Database::compact() {
  // Maintenance must not fail the work it follows: what the database or the disk does is
  // reported, and anything else (a bug) goes on.
  try {
    return compact_unguarded();
  } catch (const sqlite::Error& error) {
    return skip_compaction("failed", std::string("failed: ") + error.what(), spdlog::level::warn,
                           true);
  } catch (const std::system_error& error) {
    return skip_compaction("failed", std::string("failed: ") + error.what(), spdlog::level::warn,
                           true);
  }
}

Compaction Database::compact_unguarded() {
  if (detail::on_event_loop()) {
    return skip_compaction("loop", "called on the event loop: a pool thread compacts");
  }
  detail::Space measured;
  {
    const std::lock_guard hold(lock_);
    sqlite::Connection* writer = connection_.load(std::memory_order_acquire);
    if (writer == nullptr) return skip_compaction("closed", "the database is closed");
    // Holding the lock, a transaction still open can only be this thread's own.
    if (tx_depth_ > 0) return skip_compaction("transaction", "called inside a transaction");
    measured = space(*writer);
  }
  if (!detail::worth_compacting(measured)) return {};
  if (measured.mode == detail::AUTO_VACUUM_NONE) return convert_to_incremental(measured);

  const auto started = std::chrono::steady_clock::now();
  const std::int64_t mib_before = file_mib(db_path_);
  const std::int64_t released = release_free_pages();
  shrink_file();
  detail::log(*database_logger(), spdlog::level::info,
              "Compacted %s: %d free pages released (%d -> %d MiB) in %.1fs", db_path_.string(),
              released, mib_before, file_mib(db_path_), seconds_since(started));
  return Compaction{.converted = false, .pages_released = released, .skipped = std::nullopt};
}

std::int64_t Database::release_free_pages() {
  // A step's commit would checkpoint under the lock whenever the log has passed its threshold,
  // copying a thousand pages or more while the writer waits. The steps leave their pages in
  // the log instead, and shrink_file() copies them afterwards, without the lock.
  const DeferCheckpoints deferred(*this);
  std::int64_t released = 0;
  std::int64_t step = detail::COMPACT_FIRST_STEP_PAGES;
  for (;;) {
    std::int64_t free = 0;
    std::int64_t remaining = 0;
    std::chrono::steady_clock::duration took{};
    {
      const std::lock_guard hold(lock_);
      const auto started = std::chrono::steady_clock::now();
      sqlite::Connection* writer = connection_.load(std::memory_order_acquire);
      if (writer == nullptr) break;  // closed between two steps
      sqlite::Cursor cursor = writer->cursor();
      free = read_int(cursor, "PRAGMA freelist_count");
      if (free == 0) break;
      // One page goes back per result row: the statement runs to its end.
      cursor.execute("PRAGMA incremental_vacuum(" + std::to_string(step) + ")").fetchall();
      remaining = read_int(cursor, "PRAGMA freelist_count");
      took = std::chrono::steady_clock::now() - started;
    }
    // Other threads may write between steps: only what a step itself took off counts.
    if (remaining >= free) break;
    released += free - remaining;
    // The next step releases as many pages as this one's pace fits into the target.
    const double per_page =
        std::chrono::duration<double>(took).count() / static_cast<double>(free - remaining);
    const double fits =
        std::chrono::duration<double>(detail::COMPACT_STEP_TARGET).count() / per_page;
    step = std::clamp(static_cast<std::int64_t>(fits), detail::COMPACT_MIN_STEP_PAGES,
                      COMPACT_STEP_PAGES);
    lock_.let_waiters_in();
  }
  return released;
}

bool Database::shrink_file() {
  // On a connection of its own, without the lock, and without waiting: not for another
  // process's write, nor for readers of older snapshots. A log that they keep is restarted by
  // the next writer that finds it large (on_commit()), never by compaction, which follows a
  // swap on its caller's thread.
  sqlite::Connection own(db_path_,
                         sqlite::OpenOptions{.busy_timeout = std::chrono::milliseconds(0)});
  sqlite::Cursor cursor = own.cursor();
  if (read_int(cursor, "PRAGMA wal_checkpoint(TRUNCATE)") == 0) return true;
  detail::log(*database_logger(), spdlog::level::info,
              "Compaction of %s: a reader still uses an older snapshot, so the file shrinks at a "
              "later checkpoint",
              db_path_.string());
  return false;
}

namespace {

// The page size of the connection's main database, or 0 when it cannot be read.
std::int64_t page_size_of(sqlite3* handle) {
  sqlite3_stmt* statement = nullptr;
  std::int64_t size = 0;
  if (sqlite3_prepare_v2(handle, "PRAGMA page_size", -1, &statement, nullptr) == SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW) {
    size = sqlite3_column_int64(statement, 0);
  }
  sqlite3_finalize(statement);
  return size;
}

}  // namespace

int Database::on_commit(void* self, sqlite3* handle, const char* schema, int frames) {
  // Runs after each commit on the writer, under the lock, with SQLite's locks on the file
  // given back. It returns SQLITE_OK whatever happens: the commit has been made.
  Database& db = *static_cast<Database*>(self);
  if (frames < detail::CHECKPOINT_FRAMES ||
      db.checkpoints_deferred_.load(std::memory_order_acquire) > 0) {
    return SQLITE_OK;
  }
  // SQLite's own automatic checkpoint: it copies what the readers let it, without waiting.
  int log = 0;
  int copied = 0;
  if (sqlite3_wal_checkpoint_v2(handle, schema, SQLITE_CHECKPOINT_PASSIVE, &log, &copied) !=
          SQLITE_OK ||
      copied >= log || db.swapping_) {
    return SQLITE_OK;
  }
  // Readers that overlap without a gap never let that one finish, and the log can then never
  // start again from its beginning. Past LOG_RESTART_BYTES the committing writer waits for
  // them, a little: holding the write lock, no new frames come, readers of older snapshots
  // end their statements, and new ones read from the file. The swap's caller never does this
  // (its commit leaves it to the next writer), and after a wait in vain the writers leave the
  // log alone for a while rather than each waiting in turn.
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  const std::int64_t bytes = static_cast<std::int64_t>(log) * page_size_of(handle);
  if (bytes < detail::LOG_RESTART_BYTES ||
      (bytes < 2 * detail::LOG_RESTART_BYTES &&
       now < db.next_log_restart_.load(std::memory_order_acquire))) {
    return SQLITE_OK;
  }
  sqlite3_busy_timeout(handle, static_cast<int>(detail::LOG_RESTART_PATIENCE.count()));
  const int rc =
      sqlite3_wal_checkpoint_v2(handle, schema, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
  sqlite3_busy_timeout(handle, static_cast<int>(detail::WRITER_BUSY_TIMEOUT.count()));
  if (rc != SQLITE_OK) {
    db.next_log_restart_.store(
        now + std::chrono::steady_clock::duration(detail::LOG_RESTART_RETRY).count(),
        std::memory_order_release);
  }
  return SQLITE_OK;
}

void Database::vacuum(sqlite::Connection& connection) {
  sqlite::Cursor cursor = connection.cursor();
  // The mode takes effect through the VACUUM that follows.
  cursor.execute("PRAGMA auto_vacuum=INCREMENTAL");
  cursor.execute("VACUUM");
}

Compaction Database::convert_to_incremental(const detail::Space& measured) {
  if (conversion_failed_.load(std::memory_order_acquire)) {
    return skip_compaction("failed",
                           "an earlier conversion failed or changed nothing: not retried");
  }
  const std::int64_t used = (measured.pages - measured.free) * measured.page_size;
  if (used > COMPACT_CONVERT_MAX_BYTES) {
    return skip_compaction("large",
                           "too large to convert in place: " + std::to_string(used / detail::MIB) +
                               " MiB of data, the limit is " +
                               std::to_string(COMPACT_CONVERT_MAX_BYTES / detail::MIB) +
                               " MiB; its free pages stay until the index file is rebuilt");
  }
  // The VACUUM holds the lock throughout; only read connections keep queries going meanwhile.
  if (!readers_.load()) {
    return skip_compaction(
        "readers", "no read connections: a query would wait for the lock the conversion holds");
  }
  if (std::optional<std::string> shortfall =
          detail::disk_shortfall(detail::directory_of(db_path_), used)) {
    return skip_compaction("disk", *shortfall);
  }

  const auto started = std::chrono::steady_clock::now();
  const std::int64_t mib_before = file_mib(db_path_);
  detail::Space after;
  try {
    const std::lock_guard hold(lock_);
    const DeferCheckpoints deferred(*this);
    sqlite::Connection* writer = connection_.load(std::memory_order_acquire);
    if (writer == nullptr) return skip_compaction("closed", "the database is closed");
    // Another thread may have converted the file since the caller measured it.
    if (space(*writer).mode != detail::AUTO_VACUUM_NONE) return {};
    vacuum(*writer);
    after = space(*writer);
  } catch (const sqlite::Error&) {
    conversion_failed_.store(true, std::memory_order_release);
    throw;
  } catch (const std::system_error&) {
    conversion_failed_.store(true, std::memory_order_release);
    throw;
  }
  try {
    shrink_file();  // the VACUUM wrote the whole file into the log
  } catch (const sqlite::Error&) {
    conversion_failed_.store(true, std::memory_order_release);
    throw;
  }
  if (after.mode != detail::AUTO_VACUUM_INCREMENTAL) {
    conversion_failed_.store(true, std::memory_order_release);
    return skip_compaction("failed",
                           "the file was rewritten but is not in incremental "
                           "auto-vacuum mode");
  }
  const std::int64_t released = measured.pages - after.pages;
  detail::log(*database_logger(), spdlog::level::info,
              "Converted %s to incremental auto-vacuum: %d free pages released (%d -> %d MiB) in "
              "%.1fs",
              db_path_.string(), released, mib_before, file_mib(db_path_), seconds_since(started));
  return Compaction{.converted = true, .pages_released = released, .skipped = std::nullopt};
}

Compaction Database::skip_compaction(const std::string& kind, const std::string& reason) {
  return skip_compaction(kind, reason, spdlog::level::info);
}

Compaction Database::skip_compaction(const std::string& kind, const std::string& reason,
                                     spdlog::level::level_enum level, bool with_error) {
  const bool first = [&] {
    const std::lock_guard hold(compaction_noted_mutex_);
    return compaction_noted_.insert(kind).second;
  }();
  // A reason that holds pass after pass is reported once at its own level.
  const spdlog::level::level_enum at = first ? level : spdlog::level::debug;
  if (with_error) {
    detail::log(*database_logger(), at, "Compaction of %s skipped: %s\n%s", db_path_.string(),
                reason, detail::describe_current_error());
  } else {
    detail::log(*database_logger(), at, "Compaction of %s skipped: %s", db_path_.string(), reason);
  }
  return Compaction{.converted = false, .pages_released = 0, .skipped = reason};
}

}  // namespace quilma::storage
