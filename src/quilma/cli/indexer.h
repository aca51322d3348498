// Indexing a repository: an update of the live index with the files that changed, or a full
// rebuild into a staging database beside it that is then swapped in.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "quilma/cli/progress.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"

namespace quilma::cli {

// The run was asked to stop (Ctrl-C). A full build stops before its swap and leaves the live
// index as it was; an update keeps the files it had written, and the next run does the rest.
class Interrupted : public std::runtime_error {
 public:
  Interrupted() : std::runtime_error("interrupted; the index was left as it was") {}
  using std::runtime_error::runtime_error;
};

struct IndexReport {
  bool full = true;         // rebuilt through a staging database and a swap
  std::string full_reason;  // why, for a full build: "no index yet", "--full", ...
  // Files read (a full build reads them all), and the bytes of text read.
  std::int64_t read = 0;
  std::uint64_t bytes = 0;
  // An update: files new to the index, indexed again, taken out, and left alone (their size
  // and time vouched for them, or they were read and found as they were).
  std::int64_t added = 0;
  std::int64_t updated = 0;
  std::int64_t removed = 0;
  std::int64_t unchanged = 0;
  // The index afterwards: files it holds, files left out (binary, too large, unreadable), and
  // files it holds with bytes that are not UTF-8 replaced.
  std::int64_t files = 0;
  std::int64_t left_out = 0;
  std::int64_t not_utf8 = 0;
  // Where a damaged live index was moved before this run built a new one.
  std::optional<std::filesystem::path> moved_aside;
  std::string damage;  // what was found wrong with it
  bool from_git = false;
  std::int64_t generation = 0;  // the live index's generation at the end
  double list_seconds = 0;
  double build_seconds = 0;  // reading the files into the staging database, or into the index
  double swap_seconds = 0;   // opening the live database and the swap, its compaction included
  double total_seconds = 0;
};

struct IndexRequest {
  std::filesystem::path repo;      // an existing directory
  std::filesystem::path database;  // the live database; created when missing
  // Checked between files; once set, the run stops and throws Interrupted.
  const std::atomic<bool>* stop = nullptr;
  bool full = false;  // rebuild through a staging database even when an update would do
};

// More changed files than this share of the listed ones (and than FULL_REBUILD_MIN_FILES), and
// a full rebuild costs less than updating them one by one: on the 20 000-file benchmark tree an
// update costs about 13 ms a file (the old rows' text is tokenised again to take it out, and
// each batch commits), a full build about 2.3 ms a file, so they meet near 18%.
inline constexpr double FULL_REBUILD_SHARE = 0.15;
inline constexpr std::size_t FULL_REBUILD_MIN_FILES = 200;

// Brings the index at `database` up to date with the files of `repo`. With an index that
// records its files' states, only the files added, changed and removed since are written, in
// transactions on the live index (a file's rows are replaced whole in one of them); otherwise,
// or when asked, or when many files changed, it builds a staging database beside `database`,
// swaps it in and removes it. A live index that is damaged is moved aside first. On any
// failure, and on Interrupted, every file is in the index as it was or as it is now, and the
// staging files are gone.
IndexReport index_repository(const IndexRequest& request, Progress& progress);

// Records that a command found the index at `database` damaged, so that the next index run
// checks it whole (which an update otherwise does not do) and rebuilds it. Best effort.
void note_damage(const std::filesystem::path& database);
// Whether `error` says the database file is damaged rather than busy or misused.
bool is_damage(const sqlite::Error& error);

// The staging databases of `database`: "<database>.staging-" and a suffix unique to one run.
inline constexpr std::string_view STAGING_INFIX = ".staging-";

// Removes the staging databases of `database` (with their logs) that no running index holds:
// those of runs that were killed or hung up. Returns what it removed.
struct LeftOver {
  std::filesystem::path path;
  std::uintmax_t bytes = 0;  // the database and its log
};
std::vector<LeftOver> remove_leftover_staging(const std::filesystem::path& database);

// Opens `db` with the service's full open sequence: connect, create and migrate the schema.
void open_database(storage::Database& db);

}  // namespace quilma::cli
