// The forced full re-index: list, build a staging database, swap it in, clean up.
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

#include "quilma/cli/repo_files.h"
#include "quilma/cli/source_file.h"
#include "quilma/models/symbol.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/core_schema.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Files per transaction of the staging build: large enough that commits cost little, small
// enough that the staging log is checkpointed as it goes rather than growing to the index's
// size.
constexpr std::int64_t BATCH_FILES = 500;
// Segments of the staging full-text index at one level before FTS5 merges them anyway: more
// than a build ever writes.
constexpr std::int64_t STAGING_CRISIS_MERGE = 100000;
// The memory FTS5 may fill with a transaction's tokens before it writes a segment.
constexpr std::int64_t STAGING_HASH_BYTES = std::int64_t{64} << 20;

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

// A file read, digested and cut into chunks, ready to be written. Its chunks view `file`'s
// content or `replaced`, so it stays where it was made: it is handed on by pointer.
struct PreparedFile {
  SourceFile file;
  std::string hash;
  std::int64_t lines = 0;
  std::string replaced;  // the text with U+FFFD for each stray byte, for a file that has them
  std::vector<Chunk> chunks;
};

std::unique_ptr<PreparedFile> prepare_file(const fs::path& path) {
  auto prepared = std::make_unique<PreparedFile>();
  prepared->file = read_source_file(path);
  const SourceFile& file = prepared->file;
  if (file.problem && !file.problem->indexed) return prepared;
  prepared->hash = content_hash(file.content);
  prepared->lines = line_count(file.content);
  if (file.problem) prepared->replaced = utils::replace_invalid_utf8(file.content);
  prepared->chunks = chunk_lines(file.problem ? std::string_view(prepared->replaced)
                                              : std::string_view(file.content));
  return prepared;
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

// Writes one readable file: its row, its anchor symbol and its chunks. The digest is of the
// bytes on disk; the chunks of a file with stray bytes hold U+FFFD for each and are marked
// inexact.
void add_file(sqlite::Cursor& cursor, std::int64_t id, const std::string& path,
              const PreparedFile& prepared) {
  const std::optional<std::string_view> language = language_of(path);
  cursor.execute(
      "INSERT INTO files (id, path, language, hash, size) VALUES (?, ?, ?, ?, ?)",
      {id, path, language, prepared.hash, static_cast<std::int64_t>(prepared.file.size)});
  const std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
  cursor.execute(
      "INSERT INTO symbols (file_id, name, kind, line, end_line, qualified_name) "
      "VALUES (?, ?, ?, ?, ?, ?)",
      {id, name, models::FILE_SYMBOL_KIND, 1, prepared.lines, path});
  const bool exact = !prepared.file.problem;
  std::int64_t index = 0;
  for (const Chunk& chunk : prepared.chunks) {
    cursor.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, ?)",
        {storage::core_schema::chunk_rowid(id, index++), chunk.text, chunk.start_line,
         chunk.end_line, exact ? 1 : 0});
  }
}

void build_staging(storage::Database& staging, const IndexRequest& request,
                   const std::vector<std::string>& paths, IndexReport& report, Progress& progress) {
  // The swap copies the staging build's full-text index as it is. Merging its segments while
  // building costs about a third of the build; a large in-memory hash instead leaves one
  // segment per transaction, few enough that a lookup in the live index stays well under a
  // millisecond, and the live index merges them as it is written afterwards.
  staging.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('automerge', 0)");
  staging.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('crisismerge', ?)",
                  {STAGING_CRISIS_MERGE});
  staging.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('hashsize', ?)",
                  {STAGING_HASH_BYTES});
  const auto total = static_cast<std::int64_t>(paths.size());
  std::int64_t next = 0;
  FilePipeline files(request.repo, paths);
  progress.start();
  while (next < total) {
    staging.transaction([&](sqlite::Cursor& cursor) {
      for (const std::int64_t end = std::min(total, next + BATCH_FILES); next < end; ++next) {
        check_stop(request);
        const std::string& path = paths[static_cast<std::size_t>(next)];
        const std::unique_ptr<PreparedFile> prepared = files.next();
        const SourceFile& file = prepared->file;
        report.bytes += file.content.size();
        if (file.problem) {
          staging.record_error(path, file.problem->type, file.problem->message, file.problem->line);
          ++report.errors;
        }
        if (!file.problem || file.problem->indexed)
          add_file(cursor, ++report.files, path, *prepared);
        progress.advance(next + 1, total, report.bytes);
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

}  // namespace

std::vector<LeftOver> remove_leftover_staging(const fs::path& database) {
  const std::string prefix = database.filename().string() + std::string(STAGING_INFIX);
  std::vector<LeftOver> removed;
  std::error_code failure;
  for (const fs::directory_entry& entry : fs::directory_iterator(database.parent_path(), failure)) {
    std::string name = entry.path().filename().string();
    if (!name.starts_with(prefix)) continue;
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

IndexReport index_repository(const IndexRequest& request, Progress& progress) {
  const Clock::time_point started = Clock::now();
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
  const StagingFile staging_file(request.database);
  const Clock::time_point build_started = Clock::now();
  {
    storage::Database staging(staging_file.path());
    open_database(staging);
    build_staging(staging, request, listed.paths, report, progress);
    staging.close();
  }
  report.build_seconds = seconds_since(build_started);
  check_stop(request);

  // The swap is one transaction, whole or not at all: a stop asked for while it runs
  // interrupts it, and SQLite rolls it back.
  const Clock::time_point swap_started = Clock::now();
  storage::Database live(request.database);
  open_database(live);
  try {
    const SwapInterrupter interrupter(request.stop, live.connection().handle());
    live.swap_index_from(staging_file.path());
  } catch (const sqlite::OperationalError& error) {
    if (error.code() == SQLITE_INTERRUPT) throw Interrupted();
    throw;
  }
  if (request.stop != nullptr && request.stop->load()) {
    progress.note("the stop came after the swap had committed: the new index is in place");
  }
  report.swap_seconds = seconds_since(swap_started);
  live.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
               {storage::LAST_INDEX_KEY, utc_now()});
  report.generation = live.index_generation();
  live.close();
  report.total_seconds = seconds_since(started);
  return report;
}

}  // namespace quilma::cli
