// Telling the files changed since the index was brought up to date, and searching them as they
// are now when there are few.
#include "quilma/cli/freshness.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <future>
#include <system_error>
#include <thread>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quilma/cli/file_rows.h"
#include "quilma/cli/indexer.h"
#include "quilma/cli/mixed_words.h"
#include "quilma/cli/repo_files.h"
#include "quilma/cli/watcher.h"
#include "quilma/sqlite/error.h"

namespace quilma::cli {

namespace {

namespace fs = std::filesystem;

// Below this many files one thread stats them all; above, two share the work.
constexpr std::size_t PARALLEL_STATS = 4096;

std::optional<FileStat> stat_regular(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return FileStat{
      .size = status.st_size,
      .mtime_ns = std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec};
}

// The state of each of `count` paths of `repo`, `path(i)` the i-th, looked at on two threads
// when there are many.
template <typename PathOf>
std::vector<std::optional<FileStat>> stat_all(const fs::path& repo, std::size_t count,
                                              const PathOf& path_of) {
  std::vector<std::optional<FileStat>> stats(count);
  const std::string root = repo.string() + "/";
  const auto stat_range = [&](std::size_t begin, std::size_t end) {
    std::string path = root;
    for (std::size_t i = begin; i < end; ++i) {
      path.resize(root.size());
      path += path_of(i);
      stats[i] = stat_regular(path);
    }
  };
  if (count < PARALLEL_STATS) {
    stat_range(0, count);
  } else {
    const std::size_t half = count / 2;
    std::jthread other(stat_range, half, count);
    stat_range(0, half);
  }
  return stats;
}

std::vector<std::optional<FileStat>> stat_known(const fs::path& repo,
                                                const std::vector<Known>& known) {
  return stat_all(repo, known.size(),
                  [&](std::size_t i) -> const std::string& { return known[i].path; });
}

// Compares `listed` with `known`, given each known file's state now (`now`, as stat_known()
// tells it).
Changes compare(const std::vector<Known>& known, const std::vector<std::optional<FileStat>>& now,
                const fs::path& repo, const std::vector<std::string>& listed) {
  Changes changes;
  std::vector<std::string> unknown;  // listed, and not known
  std::size_t k = 0;
  for (const std::string& path : listed) {
    for (; k < known.size() && known[k].path < path; ++k) changes.removed.push_back(known[k].path);
    if (k == known.size() || known[k].path != path) {
      unknown.push_back(path);
      continue;
    }
    const Known& file = known[k];
    const std::optional<FileStat>& stat = now[k++];
    if (!stat) {
      changes.removed.push_back(path);  // not a regular file any more
    } else if (file.stat == stat && file.same_hash) {
      ++changes.unchanged;
    } else {
      changes.modified.push_back(path);
      changes.unsure +=
          file.stat && file.stat->mtime_ns == UNTRUSTED_MTIME && file.stat->size == stat->size;
    }
  }
  for (; k < known.size(); ++k) changes.removed.push_back(known[k].path);
  const std::vector<std::optional<FileStat>> stats = stat_all(
      repo, unknown.size(), [&](std::size_t i) -> const std::string& { return unknown[i]; });
  for (std::size_t i = 0; i < unknown.size(); ++i) {
    if (stats[i]) changes.added.push_back(std::move(unknown[i]));
  }
  return changes;
}

std::optional<std::string> optional_text(const sqlite::Value& value) {
  return value.is_null() ? std::nullopt : std::optional(value.as_text());
}

// A database file of its own, removed with its log when the object goes.
class TemporaryDatabase {
 public:
  TemporaryDatabase() {
    std::string pattern = (fs::temp_directory_path() / "quilma-db-search-XXXXXX").string();
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot create " + pattern);
    }
    ::close(fd);
    path_ = pattern;
  }
  ~TemporaryDatabase() {
    std::error_code ignored;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"})
      fs::remove(path_.string() + suffix, ignored);
  }
  TemporaryDatabase(const TemporaryDatabase&) = delete;
  TemporaryDatabase& operator=(const TemporaryDatabase&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// What `request` finds in `paths` of `repo` as they are now.
SearchResult search_directly(const fs::path& repo, const std::vector<std::string>& paths,
                             const SearchRequest& request) {
  const TemporaryDatabase file;
  storage::Database db(file.path());  // closed as it goes, before the file is removed
  open_database(db);
  db.execute(MIXED_WORDS_DDL);  // add_file() lists the files' mixed words
  db.transaction([&](sqlite::Cursor& cursor) {
    std::int64_t id = 0;
    for (const std::string& path : paths) {
      const std::unique_ptr<PreparedFile> prepared = prepare_file(repo / path);
      if (prepared->indexed()) add_file(cursor, ++id, path, *prepared);
    }
  });
  return search(db, request);
}

// The index's answer without the lines of `stale` files (paths relative to the repository), as
// many lines as `request` asks for when the index has them.
SearchResult search_index_without(storage::Database& db, SearchRequest request,
                                  const std::unordered_set<std::string>& stale) {
  const std::optional<std::int64_t> wanted = request.limit;
  while (true) {
    SearchResult result = search(db, request);
    const std::size_t before = result.hits.size();
    std::erase_if(result.hits,
                  [&](const SearchHit& hit) { return stale.contains(request.scope + hit.path); });
    const std::size_t dropped = before - result.hits.size();
    if (!result.cut || dropped == 0 || !wanted ||
        std::cmp_greater_equal(result.hits.size(), *wanted)) {
      return result;
    }
    request.limit = *request.limit + static_cast<std::int64_t>(dropped);
  }
}

}  // namespace

bool Recorded::knows(const std::string& path) const {
  const auto at =
      std::lower_bound(known.begin(), known.end(), path,
                       [](const Known& file, const std::string& p) { return file.path < p; });
  return at != known.end() && at->path == path;
}

bool Recorded::has_state_rows() const {
  return std::any_of(known.begin(), known.end(),
                     [](const Known& file) { return file.stat.has_value(); });
}

std::vector<Known> read_known(sqlite::Cursor& cursor) {
  // Both tables in path order, walked side by side: cheaper than a join, which looks up every
  // path in the other table.
  std::vector<Known> known;
  std::vector<std::optional<std::string>> state_hashes;
  cursor.execute("SELECT path, size, mtime_ns, hash FROM file_states ORDER BY path");
  while (const std::optional<sqlite::Row> row = cursor.fetchone()) {
    state_hashes.push_back(optional_text((*row)[3]));
    // A state without a digest is that of a file left out, which `files` does not hold.
    known.push_back(Known{.path = (*row)[0].as_text(),
                          .stat = FileStat{(*row)[1].as_int(), (*row)[2].as_int()},
                          .same_hash = !state_hashes.back()});
  }
  // Indexed files without a state row: none, unless an older release or another program wrote
  // the index.
  const std::size_t with_states = known.size();
  std::size_t k = 0;
  cursor.execute("SELECT path, hash FROM files ORDER BY path");
  while (const std::optional<sqlite::Row> row = cursor.fetchone()) {
    const std::string& path = (*row)[0].as_text();
    while (k < with_states && known[k].path < path) ++k;
    if (k < with_states && known[k].path == path) {
      known[k].same_hash = state_hashes[k] == optional_text((*row)[1]);
    } else {
      known.push_back(Known{.path = path, .stat = std::nullopt, .same_hash = false});
    }
  }
  const auto by_path = [](const Known& a, const Known& b) { return a.path < b.path; };
  std::inplace_merge(known.begin(), known.begin() + static_cast<std::ptrdiff_t>(with_states),
                     known.end(), by_path);
  return known;
}

Recorded read_recorded(storage::Database& db) {
  return db.read([](sqlite::Cursor& cursor) {
    Recorded recorded;
    for (const sqlite::Row& row : cursor.execute("SELECT id, path, hash FROM files").fetchall()) {
      const std::int64_t id = row[0].as_int();
      recorded.max_id = std::max(recorded.max_id, id);
      recorded.files.emplace(row[1].as_text(), Recorded::File{id, optional_text(row[2])});
    }
    recorded.has_states = has_table(cursor, "file_states");
    if (recorded.has_states) recorded.known = read_known(cursor);
    return recorded;
  });
}

Changes find_changes(const std::vector<Known>& known, const fs::path& repo,
                     const std::vector<std::string>& listed) {
  return compare(known, stat_known(repo, known), repo, listed);
}

std::optional<Changes> changed_since_index(storage::Database& db,
                                           const std::function<void()>& decided) {
  if (watcher_vouches(db.db_path())) {
    if (decided) decided();
    return Changes{};
  }
  const std::optional<sqlite::Row> row =
      db.fetchone("SELECT value FROM schema_info WHERE key = ?", {REPOSITORY_KEY});
  if (!row || (*row)[0].is_null()) return std::nullopt;
  const fs::path repo = (*row)[0].as_text();
  std::error_code missing;
  if (!fs::is_directory(repo, missing)) return std::nullopt;
  // The listing (git's, most often: a process of its own) goes on while the files the index
  // knows are looked at. Its own check of each path's type would stat every file twice.
  std::future<RepoFiles> listing = std::async(
      std::launch::async, [repo, own = db.db_path()] { return list_repo_files(repo, own, false); });
  const std::optional<std::vector<Known>> known = db.read([&](sqlite::Cursor& cursor) {
    const bool has_states = has_table(cursor, "file_states");  // the snapshot starts here
    if (decided) decided();
    return has_states ? std::optional(read_known(cursor)) : std::nullopt;
  });
  const std::vector<std::optional<FileStat>> now =
      known ? stat_known(repo, *known) : std::vector<std::optional<FileStat>>();
  const RepoFiles listed = listing.get();
  if (!known) return std::nullopt;
  return compare(*known, now, repo, listed.paths);
}

void tell_changes_unknown(const storage::Database& db, std::ostream& err) {
  fmt::print(err,
             "quilma-db: cannot tell which files changed since {} was built (an index from "
             "an older quilma-db, or its repository moved); run 'quilma-db index'\n",
             db.db_path().string());
}

std::optional<Changes> changed_since_index(storage::Database& db, std::ostream& err, bool quiet) {
  std::optional<Changes> changes = changed_since_index(db);
  if (!changes && !quiet) tell_changes_unknown(db, err);
  return changes;
}

SearchResult search_current(storage::Database& db, const SearchRequest& request, std::ostream& err,
                            bool quiet) {
  const std::optional<Changes> changes = changed_since_index(db, err, quiet);
  if (!changes) return search(db, request);
  if (changes->count() == 0) return search(db, request);
  const std::size_t current = changes->added.size() + changes->modified.size();
  if (current > MAX_SEARCHED_DIRECTLY) {
    if (!quiet) {
      fmt::print(err,
                 "quilma-db: {} files changed since the index was built ({} added, {} changed, "
                 "{} removed): lines may be missing or out of date; run 'quilma-db index'\n",
                 changes->count(), changes->added.size(), changes->modified.size(),
                 changes->removed.size());
    }
    return search(db, request);
  }
  std::unordered_set<std::string> stale = changes->stale();
  SearchResult indexed = search_index_without(db, request, stale);
  if (current == 0) return indexed;

  std::vector<std::string> paths = changes->added;
  paths.insert(paths.end(), changes->modified.begin(), changes->modified.end());
  std::sort(paths.begin(), paths.end());
  const std::optional<sqlite::Row> row =
      db.fetchone("SELECT value FROM schema_info WHERE key = ?", {REPOSITORY_KEY});
  SearchResult direct = search_directly((*row)[0].as_text(), paths, request);

  SearchResult result;
  result.cut = indexed.cut || direct.cut;
  if (request.by_path) {
    std::merge(std::make_move_iterator(direct.hits.begin()),
               std::make_move_iterator(direct.hits.end()),
               std::make_move_iterator(indexed.hits.begin()),
               std::make_move_iterator(indexed.hits.end()), std::back_inserter(result.hits),
               [](const SearchHit& a, const SearchHit& b) { return a.path < b.path; });
  } else {
    result.hits = std::move(direct.hits);
    std::move(indexed.hits.begin(), indexed.hits.end(), std::back_inserter(result.hits));
  }
  if (request.limit && std::cmp_greater(result.hits.size(), *request.limit)) {
    result.hits.resize(static_cast<std::size_t>(*request.limit));
    result.cut = true;
  }
  return result;
}

}  // namespace quilma::cli
