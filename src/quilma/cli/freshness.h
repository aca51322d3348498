// Which files of a repository changed since the index last recorded them, told cheaply from
// each file's size and modification time against the state the index recorded; and a search
// that takes those files into account, so that its answer is never silently out of date.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "quilma/cli/search.h"
#include "quilma/storage/database.h"

namespace quilma::cli {

// schema_info key: the repository directory that the index was last brought up to date from.
inline constexpr std::string_view REPOSITORY_KEY = "repository";

// A file's size and modification time (nanoseconds since the epoch).
struct FileStat {
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  bool operator==(const FileStat&) const = default;
};

// A path the index knows, as `files` and `file_states` record it.
struct Known {
  std::string path;
  std::optional<FileStat> stat;  // as its state row recorded it; none without one
  bool same_hash = false;        // the state's digest is the one `files` holds (none for none)
};

// What the index records of the repository's files.
struct Recorded {
  struct File {
    std::int64_t id = 0;
    std::optional<std::string> hash;
  };
  std::unordered_map<std::string, File> files;  // `files`, by path
  std::vector<Known> known;                     // every path of `files` and `file_states`, sorted
  bool has_states = false;                      // the index has `file_states` at all
  std::int64_t max_id = 0;                      // the largest file id

  bool knows(const std::string& path) const;  // `known` holds `path`
  bool has_state_rows() const;                // any file state is recorded
};

// Reads `files` and `file_states` in one snapshot.
Recorded read_recorded(storage::Database& db);

// Every path of `files` and `file_states` in path order, read on `cursor`, which must be able to
// read `file_states`.
std::vector<Known> read_known(sqlite::Cursor& cursor);

struct Changes {
  std::vector<std::string> added;     // listed, and unknown to the index
  std::vector<std::string> modified;  // known, and their recorded state does not vouch for them
  std::vector<std::string> removed;   // known to the index, and no longer listed
  std::int64_t unchanged = 0;
  // Of `modified`, those of the same size whose time was recorded as not vouching (they were
  // written about when the index read them): most often the same content.
  std::size_t unsure = 0;
  std::size_t count() const { return added.size() + modified.size() + removed.size(); }
  // The paths whose lines a search takes from the files, not the index: the added too, which
  // an update running beside the search may have indexed since they were found.
  std::unordered_set<std::string> stale() const {
    std::unordered_set<std::string> paths(added.begin(), added.end());
    paths.insert(modified.begin(), modified.end());
    paths.insert(removed.begin(), removed.end());
    return paths;
  }
};

// Compares the files `listed` (sorted) in `repo` with what the index knows (sorted). A known
// file is unchanged when its state row shows the size and time the file system shows now and
// the digest `files` holds; any other is `modified` (its content may still be the same: only
// reading it tells). A listed path that is not a regular file now counts as not listed.
Changes find_changes(const std::vector<Known>& known, const std::filesystem::path& repo,
                     const std::vector<std::string>& listed);

// The files changed since the index of `db` was brought up to date; std::nullopt when the
// index records no repository or no file states (an index built by an older release), or
// when its repository is gone. Nothing changed when the index's watcher vouches for it.
// `decided`, when given, is called as soon as what the answer rests on is fixed: the watcher's
// word, or the snapshot of the index that the files are compared with. Reads of the index that
// begin after it see an index at least as new, so that none of its text goes unchecked.
std::optional<Changes> changed_since_index(storage::Database& db,
                                           const std::function<void()>& decided = {});

// The same, saying on `err` (unless `quiet`) when the changes cannot be told.
std::optional<Changes> changed_since_index(storage::Database& db, std::ostream& err, bool quiet);
// Says on `err` that the files changed since the index of `db` was built cannot be told.
void tell_changes_unknown(const storage::Database& db, std::ostream& err);

// At most this many changed files are searched directly; with more, a search says how many
// changed and that `quilma-db index` brings the index up to date.
inline constexpr std::size_t MAX_SEARCHED_DIRECTLY = 200;

// search(db, request), with the files changed since the index was brought up to date taken
// into account: the index's lines of changed and removed files are left out and, when few
// files changed, those files are searched as they are now (their lines first when ranked,
// in path order when sorted by path). When many changed, or they cannot be told, one line on
// `err` says so, unless `quiet`.
SearchResult search_current(storage::Database& db, const SearchRequest& request, std::ostream& err,
                            bool quiet);

}  // namespace quilma::cli
