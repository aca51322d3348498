// A full re-index of a repository: a staging database built beside the live one from the
// repository's files, then swapped in, as the service's indexer does it.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "quilma/cli/progress.h"
#include "quilma/storage/database.h"

namespace quilma::cli {

// The run was asked to stop (Ctrl-C) before the swap began; the live index is as it was.
class Interrupted : public std::runtime_error {
 public:
  Interrupted() : std::runtime_error("interrupted; the index was left as it was") {}
};

struct IndexReport {
  std::int64_t files = 0;   // files indexed
  std::int64_t errors = 0;  // files recorded in index_errors instead
  std::uint64_t bytes = 0;  // bytes of text indexed
  bool from_git = false;
  std::int64_t generation = 0;  // the live index's generation after the swap
  double list_seconds = 0;
  double build_seconds = 0;  // reading the files into the staging database
  double swap_seconds = 0;   // opening the live database and the swap, its compaction included
  double total_seconds = 0;
};

struct IndexRequest {
  std::filesystem::path repo;      // an existing directory
  std::filesystem::path database;  // the live database; created when missing
  // Checked between files; once set, the run stops before the swap and throws Interrupted.
  const std::atomic<bool>* stop = nullptr;
};

// Builds a staging database beside `database` from the files of `repo`, swaps it into the live
// database and removes it. On any failure, and on Interrupted, the live index is as it was and
// the staging files are gone.
IndexReport index_repository(const IndexRequest& request, Progress& progress);

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
