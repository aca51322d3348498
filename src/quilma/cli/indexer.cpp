// Indexing: list, tell what changed, then update the live index in place or build a staging
// database and swap it in; a damaged live index is moved aside first.
#include "quilma/cli/indexer.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <exception>
#include <fstream>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quilma/cli/file_rows.h"
#include "quilma/cli/freshness.h"
#include "quilma/cli/mixed_words.h"
#include "quilma/cli/repo_files.h"
#include "quilma/cli/source_file.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/core_schema.h"

namespace quilma::cli {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Files per transaction of the staging build. A commit writes FTS5's pending tokens as a
// segment; these many files fill its hash first, so the hash's size alone sets the segments.
constexpr std::int64_t BATCH_FILES = 4000;
// Files per transaction of an update of the live index: few, so that a writer of another
// process waits little between them.
constexpr std::size_t UPDATE_BATCH_FILES = 32;
// Segments of the staging full-text index at one level before FTS5 merges them anyway: more
// than a build ever writes.
constexpr std::int64_t STAGING_CRISIS_MERGE = 100000;
// The memory FTS5 may fill with tokens before it writes a segment. Each token is looked up in
// this hash, so it is kept near the processor's cache: 8 MiB built the 20 000-file tree a
// third faster than 64 MiB, and the one merge at the end costs less than that gains.
constexpr std::int64_t STAGING_HASH_BYTES = std::int64_t{8} << 20;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

constexpr std::array<const char*, 3> SIDE_FILES = {"-wal", "-shm", "-journal"};

void remove_with_side_files(const fs::path& path) {
  std::error_code ignored;
  fs::remove(path, ignored);
  for (const char* suffix : SIDE_FILES) fs::remove(path.string() + suffix, ignored);
}

// A staging database file with a name of its own, removed (with its log and shared memory)
// when the object goes, however the run ends. The run holds an exclusive flock() on it for its
// whole life, which the kernel drops when the process ends however it ends: a staging file
// that nobody holds is a killed run's leftover. (SQLite's own locks are fcntl() locks, which
// do not interact with flock() on Linux.)
class StagingFile {
 public:
  explicit StagingFile(const fs::path& database) {
    std::string pattern = database.string() + std::string(STAGING_INFIX) + "XXXXXX";
    fd_ = ::mkstemp(pattern.data());
    if (fd_ < 0) {
      throw std::system_error(errno, std::generic_category(),
                              "cannot create a staging database beside " + database.string());
    }
    path_ = pattern;
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      ::close(fd_);
      remove_with_side_files(path_);
      throw std::system_error(error, std::generic_category(), "cannot lock " + path_.string());
    }
    // A clean-up of another run cannot take a file this young, but should one have all the
    // same (its clock set back), this run would build into a file that has no name.
    struct stat named {};
    struct stat held {};
    if (::stat(path_.c_str(), &named) != 0 || ::fstat(fd_, &held) != 0 ||
        named.st_ino != held.st_ino || named.st_dev != held.st_dev) {
      ::close(fd_);
      throw std::system_error(std::make_error_code(std::errc::no_such_file_or_directory),
                              "the staging database " + path_.string() + " was removed");
    }
  }
  ~StagingFile() {
    remove_with_side_files(path_);
    ::close(fd_);  // the lock goes only once the files are gone
  }
  StagingFile(const StagingFile&) = delete;
  StagingFile& operator=(const StagingFile&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
  int fd_ = -1;
};

// A file that mkstemp() made moments ago, and that its run has not locked yet, is empty: an
// empty staging file is a leftover only once it is older than this.
constexpr auto FRESH_STAGING = std::chrono::minutes(1);

// Whether the staging file at `path` is a leftover of a run that did not end: a file this tool
// made (empty and old enough, or a SQLite database) that no run holds. A file that is not
// there is one (its log or shared memory are); a file this process cannot open or read is not.
bool left_over(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return errno == ENOENT;
  std::array<char, 16> header{};
  struct stat status {};
  const ssize_t got = ::read(fd, header.data(), header.size());
  const bool made_here =
      ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
      (got == 0 ? std::chrono::system_clock::now() -
                          std::chrono::system_clock::from_time_t(status.st_mtime) >
                      FRESH_STAGING
                : got == 16 && std::string_view(header.data(), 16) ==
                                   std::string_view("SQLite format 3\0", 16));
  const bool free = made_here && ::flock(fd, LOCK_EX | LOCK_NB) == 0;
  ::close(fd);  // lets go of the lock, if it was taken
  return free;
}

// Whether `name` is `prefix` and a suffix of mkstemp(): six letters or digits.
bool staging_name(std::string_view name, std::string_view prefix) {
  if (name.size() != prefix.size() + 6 || !name.starts_with(prefix)) return false;
  return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                     [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; });
}

// While it lives, interrupts the statement running on `handle` whenever a stop has been asked
// for (SQLite allows that from another thread). It asks again and again: an interrupt that
// comes while no statement runs is forgotten.
class SwapInterrupter {
 public:
  SwapInterrupter(const std::atomic<bool>* stop, sqlite3* handle) {
    if (stop == nullptr) return;
    watcher_ = std::jthread([stop, handle](const std::stop_token& done) {
      while (!done.stop_requested()) {
        if (stop->load()) sqlite3_interrupt(handle);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    });
  }

 private:
  std::jthread watcher_;
};

void check_stop(const IndexRequest& request) {
  if (request.stop != nullptr && request.stop->load()) throw Interrupted();
}

// Prepares the files on a thread of its own, in order and at most AHEAD of them before the one
// being written, so that reading and digesting the files overlap with SQLite's tokenising.
class FilePipeline {
 public:
  static constexpr std::size_t AHEAD = 64;

  FilePipeline(const fs::path& repo, const std::vector<std::string>& paths)
      : worker_([this, &repo, &paths](const std::stop_token& stop) { run(stop, repo, paths); }) {}

  // The next file; waits for it. Rethrows what preparing it threw.
  std::unique_ptr<PreparedFile> next() {
    std::unique_lock hold(mutex_);
    ready_.wait(hold, [this] { return !queue_.empty() || error_; });
    if (queue_.empty()) std::rethrow_exception(error_);
    std::unique_ptr<PreparedFile> file = std::move(queue_.front());
    queue_.pop_front();
    room_.notify_one();
    return file;
  }

 private:
  void run(const std::stop_token& stop, const fs::path& repo,
           const std::vector<std::string>& paths) {
    try {
      for (const std::string& path : paths) {
        if (stop.stop_requested()) return;
        std::unique_ptr<PreparedFile> file = prepare_file(repo / path);
        std::unique_lock hold(mutex_);
        if (!room_.wait(hold, stop, [this] { return queue_.size() < AHEAD; })) return;
        queue_.push_back(std::move(file));
        ready_.notify_one();
      }
    } catch (...) {
      const std::lock_guard hold(mutex_);
      error_ = std::current_exception();
      ready_.notify_one();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::condition_variable_any room_;
  std::deque<std::unique_ptr<PreparedFile>> queue_;  // guarded by mutex_
  std::exception_ptr error_;                         // guarded by mutex_
  std::jthread worker_;  // last: asked to stop and joined before the members above go
};

// Reads `file` into the index on `cursor`: its rows under `id` (when it is text), its error
// record (when it has a problem), and its state.
void write_file(sqlite::Cursor& cursor, std::int64_t id, const std::string& path,
                const PreparedFile& prepared, std::int64_t run_started_ns) {
  if (const std::optional<FileProblem>& problem = prepared.file.problem) {
    cursor.execute(
        "INSERT INTO index_errors (file_path, error_type, message, line) VALUES (?, ?, ?, ?)",
        {path, problem->type, problem->message, problem->line});
  }
  if (prepared.indexed()) add_file(cursor, id, path, prepared);
  record_state(cursor, path, prepared, run_started_ns);
}

void build_staging(const fs::path& staging_path, const IndexRequest& request,
                   const std::vector<std::string>& paths, std::int64_t run_started_ns,
                   IndexReport& report, Progress& progress) {
  {
    storage::Database schema(staging_path);
    open_database(schema);
    schema.close();
  }
  // The file is this process's own until the swap, and any failure before then discards it:
  // neither a rollback journal nor a sync would ever be of use. The log's mode needs the only
  // connection, so the build has one of its own rather than the layer's writer and readers.
  sqlite::Connection staging(staging_path);
  sqlite::Cursor cursor = staging.cursor();
  cursor.execute("PRAGMA journal_mode=OFF").fetchall();
  cursor.execute("PRAGMA synchronous=OFF");
  cursor.execute("PRAGMA foreign_keys=ON");
  // The swap copies the staging build's full-text index as it is. Merging its segments while
  // building costs about a third of the build; instead FTS5 writes a segment whenever its
  // in-memory hash is full, and one merge at the end leaves a single segment.
  cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('automerge', 0)");
  cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('crisismerge', ?)",
                 {STAGING_CRISIS_MERGE});
  cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('hashsize', ?)",
                 {STAGING_HASH_BYTES});
  cursor.execute(FILE_STATES_DDL);
  cursor.execute(MIXED_WORDS_DDL);
  const auto total = static_cast<std::int64_t>(paths.size());
  std::int64_t id = 0;
  FilePipeline files(request.repo, paths);
  progress.start();
  for (std::int64_t next = 0; next < total;) {
    cursor.execute("BEGIN");
    for (const std::int64_t end = std::min(total, next + BATCH_FILES); next < end; ++next) {
      check_stop(request);
      const std::string& path = paths[static_cast<std::size_t>(next)];
      const std::unique_ptr<PreparedFile> prepared = files.next();
      report.bytes += prepared->file.content.size();
      ++report.read;
      write_file(cursor, prepared->indexed() ? ++id : 0, path, *prepared, run_started_ns);
      progress.advance(next + 1, total, report.bytes);
    }
    cursor.execute("COMMIT");
  }
  // One segment: the live index's automatic merging then only ever works on the small
  // segments that updates add. Left in several, the first update's write merges them whole.
  cursor.execute("INSERT INTO code_chunks (code_chunks) VALUES ('optimize')");
  cursor.close();
  staging.close();
}

// Whether `prepared` is left out of the index for the reason recorded for it already.
bool left_out_as_before(sqlite::Cursor& cursor, const std::string& path,
                        const PreparedFile& prepared) {
  const std::optional<FileProblem>& problem = prepared.file.problem;
  return !prepared.indexed() && cursor
                                    .execute(
                                        "SELECT 1 FROM index_errors WHERE file_path = ? AND "
                                        "error_type = ? AND message = ?",
                                        {path, problem->type, problem->message})
                                    .fetchone()
                                    .has_value();
}

// Brings the live index up to date file by file: the files `changes` names are read again and
// written over their old rows, and those removed are taken out. A file's rows, error records
// and state change in one transaction; a few files share one, so that a reader sees each file
// whole, old or new. The index generation stays: no file id changes its path.
void update_index(storage::Database& live, const IndexRequest& request, const Recorded& recorded,
                  const Changes& changes, std::int64_t run_started_ns, IndexReport& report,
                  Progress& progress) {
  std::vector<std::string> paths = changes.added;
  paths.insert(paths.end(), changes.modified.begin(), changes.modified.end());
  std::sort(paths.begin(), paths.end());
  report.unchanged = changes.unchanged;
  const auto total = static_cast<std::int64_t>(paths.size() + changes.removed.size());
  std::int64_t done = 0;
  std::int64_t next_id = recorded.max_id;
  const auto stop_asked = [&] { return request.stop != nullptr && request.stop->load(); };
  const auto interrupted = [&] {
    return Interrupted(fmt::format(
        "interrupted after {} of {} changed files; each is in the index as it was or as it is "
        "now, and the next run does the rest",
        done, total));
  };
  FilePipeline files(request.repo, paths);
  progress.start();
  for (std::size_t next = 0; next < paths.size();) {
    if (stop_asked()) throw interrupted();
    live.transaction([&](sqlite::Cursor& cursor) {
      for (const std::size_t end = std::min(paths.size(), next + UPDATE_BATCH_FILES); next < end;
           ++next) {
        const std::string& path = paths[next];
        const std::unique_ptr<PreparedFile> prepared = files.next();
        report.bytes += prepared->file.content.size();
        ++report.read;
        const auto old = recorded.files.find(path);
        const bool known = old != recorded.files.end() || recorded.knows(path);
        if (old != recorded.files.end() ? prepared->indexed() && old->second.hash == prepared->hash
                                        : known && left_out_as_before(cursor, path, *prepared)) {
          record_state(cursor, path, *prepared, run_started_ns);  // touched, not changed
          ++report.unchanged;
        } else {
          if (old != recorded.files.end()) {
            // Its symbols go with it, and a trigger takes its chunks.
            cursor.execute("DELETE FROM files WHERE id = ?", {old->second.id});
          }
          cursor.execute("DELETE FROM index_errors WHERE file_path = ?", {path});
          const std::int64_t id = old != recorded.files.end() ? old->second.id : ++next_id;
          write_file(cursor, id, path, *prepared, run_started_ns);
          ++(known ? report.updated : report.added);
        }
        progress.advance(++done, total, report.bytes);
      }
    });
  }
  for (std::size_t next = 0; next < changes.removed.size();) {
    if (stop_asked()) throw interrupted();
    live.transaction([&](sqlite::Cursor& cursor) {
      for (const std::size_t end = std::min(changes.removed.size(), next + UPDATE_BATCH_FILES * 8);
           next < end; ++next) {
        const std::string& path = changes.removed[next];
        cursor.execute("DELETE FROM files WHERE path = ?", {path});
        cursor.execute("DELETE FROM index_errors WHERE file_path = ?", {path});
        cursor.execute("DELETE FROM file_states WHERE path = ?", {path});
        ++report.removed;
        progress.advance(++done, total, report.bytes);
      }
    });
  }
}

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", utc.tm_year + 1900, utc.tm_mon + 1,
                     utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

// Beside the index: a command found it damaged (note_damage).
constexpr std::string_view DAMAGE_NOTE_SUFFIX = ".damaged-seen";

// Whether the index file at `path` is damaged: it does not open, its schema cannot be read,
// or SQLite's integrity check finds problems. A file that is only busy is not damaged.
bool damaged(const fs::path& path) {
  std::error_code missing;
  if (!fs::exists(path, missing)) return false;
  try {
    storage::Database db(path);
    open_database(db);
    const bool sound = db.check_integrity();
    db.close();
    return !sound;
  } catch (const sqlite::Error& error) {
    return is_damage(error);
  }
}

// Moves the damaged index at `path` and its log aside, to "<path>.damaged-<time>"; returns
// where. Its shared memory is of no use to anyone and goes.
fs::path move_aside(const fs::path& path) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  fs::path aside =
      fmt::format("{}.damaged-{:04}{:02}{:02}T{:02}{:02}{:02}Z", path.string(), utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  std::error_code absent;
  fs::rename(path.string() + "-wal", aside.string() + "-wal", absent);
  fs::rename(path, aside);
  fs::remove(path.string() + "-shm", absent);
  return aside;
}

// Swaps the staging build at `staging` into `live`. The file states go first, in a
// transaction of their own: a state row vouches only for the digest it holds, so should the
// swap not happen the files that changed are still read again by the next run.
void swap_in(storage::Database& live, const fs::path& staging, const IndexRequest& request) {
  live.execute("ATTACH DATABASE ? AS built", {staging.string()});
  const auto detach = [&live] { live.execute("DETACH DATABASE built"); };
  try {
    live.transaction([](sqlite::Cursor& cursor) {
      cursor.execute("DELETE FROM main.file_states");
      cursor.execute("INSERT INTO main.file_states SELECT * FROM built.file_states");
      // Added to, not replaced: should the swap not happen, the live texts' words stay listed.
      cursor.execute("INSERT OR IGNORE INTO main.mixed_words SELECT word FROM built.mixed_words");
    });
  } catch (...) {
    try {
      detach();
    } catch (const sqlite::Error&) {  // the first error is the one to report
    }
    throw;
  }
  detach();
  // The swap is one transaction, whole or not at all: a stop asked for while it runs
  // interrupts it, and SQLite rolls it back.
  try {
    const SwapInterrupter interrupter(request.stop, live.connection().handle());
    live.swap_index_from(staging);
  } catch (const sqlite::OperationalError& error) {
    if (error.code() == SQLITE_INTERRUPT) throw Interrupted();
    throw;
  }
}

}  // namespace

std::vector<LeftOver> remove_leftover_staging(const fs::path& database) {
  const std::string prefix = database.filename().string() + std::string(STAGING_INFIX);
  std::vector<LeftOver> removed;
  std::error_code failure;
  for (const fs::directory_entry& entry : fs::directory_iterator(database.parent_path(), failure)) {
    std::string name = entry.path().filename().string();
    // A log or shared memory left without its database counts as the database's leftover.
    for (const std::string_view suffix : SIDE_FILES) {
      if (name.ends_with(suffix)) name.resize(name.size() - suffix.size());
    }
    const fs::path staging = entry.path().parent_path() / name;
    if (!staging_name(name, prefix) ||
        std::any_of(removed.begin(), removed.end(),
                    [&](const LeftOver& done) { return done.path == staging; }) ||
        !left_over(staging)) {
      continue;
    }
    LeftOver leftover{.path = staging, .bytes = 0};
    for (const std::string& path : {staging.string(), staging.string() + "-wal"}) {
      std::error_code ignored;
      const std::uintmax_t size = fs::file_size(path, ignored);
      if (!ignored) leftover.bytes += size;
    }
    remove_with_side_files(staging);
    removed.push_back(std::move(leftover));
  }
  return removed;
}

void open_database(storage::Database& db) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

namespace {

IndexReport index_once(const IndexRequest& request, Progress& progress) {
  const Clock::time_point started = Clock::now();
  const std::int64_t run_started_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count();
  IndexReport report;
  const RepoFiles listed = list_repo_files(request.repo, request.database);
  report.from_git = listed.from_git;
  report.list_seconds = seconds_since(started);
  progress.note(fmt::format("listed {} files in {}{}", listed.paths.size(), request.repo.string(),
                            listed.from_git ? " (git)" : ""));
  check_stop(request);

  // An index directory this run makes is kept out of the repository's commits: a
  // `git add -A` would otherwise take the index with it.
  if (const fs::path directory = request.database.parent_path(); !fs::exists(directory)) {
    fs::create_directories(directory);
    std::ofstream(directory / ".gitignore") << "# The code index: rebuilt by quilma-db index.\n*\n";
  }
  for (const LeftOver& leftover : remove_leftover_staging(request.database)) {
    progress.note(fmt::format("removed {} ({:.1f} MiB), left by an indexing run that did not end",
                              leftover.path.string(),
                              static_cast<double>(leftover.bytes) / (1024.0 * 1024.0)));
  }

  // The live index, as it is: what it records of the files decides between an update and a
  // full build. One that is damaged is moved aside, and a new one built.
  std::optional<storage::Database> live;
  std::optional<Recorded> recorded;
  bool lists_mixed_words = false;  // the index has the tool's list of mixed words
  const auto open_live = [&] {
    live.emplace(request.database);
    open_database(*live);
    lists_mixed_words =
        live->read([](sqlite::Cursor& cursor) { return has_table(cursor, MIXED_WORDS_TABLE); });
    live->execute(FILE_STATES_DDL);
    live->execute(MIXED_WORDS_DDL);
    recorded = read_recorded(*live);
  };
  const auto rebuild_if_damaged = [&](const sqlite::Error& error) {
    if (live) live->close();
    live.reset();
    if (!damaged(request.database)) return false;
    report.moved_aside = move_aside(request.database);
    report.damage = error.what();
    return true;
  };
  const fs::path damage_note = request.database.string() + std::string(DAMAGE_NOTE_SUFFIX);
  bool noted = fs::exists(damage_note);
  if (noted && damaged(request.database)) {
    report.moved_aside = move_aside(request.database);
    report.damage = "it failed as it was read, and its integrity check failed";
  }
  try {
    open_live();
  } catch (const sqlite::Error& error) {
    if (!rebuild_if_damaged(error)) throw;
    open_live();
  }
  if (noted) {
    std::error_code ignored;
    fs::remove(damage_note, ignored);
  }

  std::optional<Changes> changes;
  if (request.full) {
    report.full_reason = "asked for with --full";
  } else if (recorded->known.empty()) {
    report.full_reason = report.moved_aside ? "the index was damaged" : "no index yet";
  } else if (!lists_mixed_words) {
    // Its texts' words would be missing from the list, and -w searches miss them.
    report.full_reason = "the index does not list its mixed-script words yet";
  } else {
    changes = find_changes(recorded->known, request.repo, listed.paths);
    const double limit = std::max(FULL_REBUILD_SHARE * static_cast<double>(listed.paths.size()),
                                  static_cast<double>(FULL_REBUILD_MIN_FILES));
    // Files written about when the last run read them are read again, but mostly found as
    // they were: they do not count towards a full build.
    if (static_cast<double>(changes->count() - changes->unsure) > limit) {
      const auto marked = std::count_if(
          recorded->files.begin(), recorded->files.end(),
          [](const auto& file) { return file.second.hash == storage::REINDEX_SENTINEL_HASH; });
      report.full_reason =
          !recorded->has_state_rows()
              ? std::string("the index records no file states yet")
              : fmt::format("{} files added, changed or removed of {}{}", changes->count(),
                            listed.paths.size(),
                            marked == 0 ? std::string()
                                        : fmt::format(", {} of them marked by a changed "
                                                      "extractor stamp",
                                                      marked));
      changes.reset();
    }
  }
  check_stop(request);

  const Clock::time_point build_started = Clock::now();
  if (changes) {
    report.full = false;
    try {
      update_index(*live, request, *recorded, *changes, run_started_ns, report, progress);
    } catch (const sqlite::Error& error) {
      if (!is_damage(error) || !rebuild_if_damaged(error)) throw;
      // What the update wrote went aside with the damaged file: a full build starts over.
      report = IndexReport{.full_reason = "the index was damaged",
                           .moved_aside = report.moved_aside,
                           .damage = report.damage,
                           .from_git = report.from_git,
                           .list_seconds = report.list_seconds};
      open_live();
      changes.reset();
    }
    report.build_seconds = seconds_since(build_started);
  }
  if (!changes) {
    const StagingFile staging_file(request.database);
    build_staging(staging_file.path(), request, listed.paths, run_started_ns, report, progress);
    storage::note_built_here(staging_file.path());
    report.build_seconds = seconds_since(build_started);
    check_stop(request);
    const Clock::time_point swap_started = Clock::now();
    try {
      swap_in(*live, staging_file.path(), request);
    } catch (const sqlite::Error& error) {
      if (error.code() == SQLITE_INTERRUPT || !rebuild_if_damaged(error)) throw;
      open_live();
      swap_in(*live, staging_file.path(), request);
    }
    if (request.stop != nullptr && request.stop->load()) {
      progress.note("the stop came after the swap had committed: the new index is in place");
    }
    report.swap_seconds = seconds_since(swap_started);
  }

  live->transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                   {storage::LAST_INDEX_KEY, utc_now()});
    cursor.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                   {REPOSITORY_KEY, request.repo.string()});
  });
  live->read([&](sqlite::Cursor& cursor) {
    const auto count = [&](std::string_view sql) {
      return cursor.execute(sql).fetchone().value()[0].as_int();
    };
    report.files = count("SELECT COUNT(*) FROM files");
    report.left_out = count(
        "SELECT COUNT(DISTINCT file_path) FROM index_errors "
        "WHERE file_path NOT IN (SELECT path FROM files)");
    report.not_utf8 = count(
        "SELECT COUNT(DISTINCT file_path) FROM index_errors "
        "WHERE file_path IN (SELECT path FROM files)");
  });
  report.generation = live->index_generation();
  live->close();
  report.total_seconds = seconds_since(started);
  return report;
}

}  // namespace

IndexReport index_repository(const IndexRequest& request, Progress& progress) {
  try {
    return index_once(request, progress);
  } catch (const sqlite::Error& error) {
    if (!is_damage(error)) throw;
    // The run's own reads found damage where the steps above do not look for it: the next
    // run checks the file whole, and moves it aside when it is damaged.
    note_damage(request.database);
    return index_once(request, progress);
  }
}

bool is_damage(const sqlite::Error& error) {
  // SQLite reports an FTS5 table whose shadow tables it cannot read as the vtable failing to
  // construct: the ERROR code, with a message of its own.
  return error.code() == SQLITE_CORRUPT || error.code() == SQLITE_NOTADB ||
         std::string_view(error.what()).starts_with("vtable constructor failed");
}

void note_damage(const fs::path& database) {
  std::ofstream(database.string() + std::string(DAMAGE_NOTE_SUFFIX));
}

}  // namespace quilma::cli
