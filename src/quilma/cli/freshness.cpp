// Telling the files changed since the index was brought up to date, and searching them as they
// are now when there are few.
#include "quilma/cli/freshness.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <set>
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

std::vector<std::optional<FileStat>> stat_all(const fs::path& repo,
                                              const std::vector<std::string>& paths) {
  std::vector<std::optional<FileStat>> stats(paths.size());
  const std::string root = repo.string() + "/";
  const auto stat_range = [&](std::size_t begin, std::size_t end) {
    std::string path = root;
    for (std::size_t i = begin; i < end; ++i) {
      path.resize(root.size());
      path += paths[i];
      stats[i] = stat_regular(path);
    }
  };
  if (paths.size() < PARALLEL_STATS) {
    stat_range(0, paths.size());
  } else {
    const std::size_t half = paths.size() / 2;
    std::jthread other(stat_range, half, paths.size());
    stat_range(0, half);
  }
  return stats;
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
  storage::Database db(file.path());
  open_database(db);
  db.execute(MIXED_WORDS_DDL);  // add_file() lists the files' mixed words
  db.transaction([&](sqlite::Cursor& cursor) {
    std::int64_t id = 0;
    for (const std::string& path : paths) {
      const std::unique_ptr<PreparedFile> prepared = prepare_file(repo / path);
      if (prepared->indexed()) add_file(cursor, ++id, path, *prepared);
    }
  });
  SearchResult result = search(db, request);
  db.close();
  return result;
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

Recorded read_recorded(storage::Database& db) {
  return db.read([](sqlite::Cursor& cursor) {
    Recorded recorded;
    for (const sqlite::Row& row : cursor.execute("SELECT id, path, hash FROM files").fetchall()) {
      const std::int64_t id = row[0].as_int();
      recorded.max_id = std::max(recorded.max_id, id);
      recorded.files.emplace(row[1].as_text(), Recorded::File{id, optional_text(row[2])});
    }
    recorded.has_states = has_table(cursor, "file_states");
    if (!recorded.has_states) return recorded;
    for (const sqlite::Row& row :
         cursor.execute("SELECT path, size, mtime_ns, hash FROM file_states").fetchall()) {
      recorded.states.emplace(row[0].as_text(), Recorded::State{{row[1].as_int(), row[2].as_int()},
                                                                optional_text(row[3])});
    }
    return recorded;
  });
}

Changes find_changes(const Recorded& recorded, const fs::path& repo,
                     std::vector<std::string> listed) {
  Changes changes;
  std::vector<std::optional<FileStat>> stats = stat_all(repo, listed);
  if (std::find(stats.begin(), stats.end(), std::nullopt) != stats.end()) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < listed.size(); ++i) {
      if (!stats[i]) continue;
      if (kept != i) {
        listed[kept] = std::move(listed[i]);
        stats[kept] = stats[i];
      }
      ++kept;
    }
    listed.resize(kept);
    stats.resize(kept);
  }
  std::size_t met_files = 0;
  std::size_t met_states = 0;
  for (std::size_t i = 0; i < listed.size(); ++i) {
    const std::string& path = listed[i];
    const auto state = recorded.states.find(path);
    const auto file = recorded.files.find(path);
    met_states += state != recorded.states.end();
    met_files += file != recorded.files.end();
    if (state == recorded.states.end() && file == recorded.files.end()) {
      changes.added.push_back(path);
      continue;
    }
    const bool vouched =
        state != recorded.states.end() && stats[i] && state->second.stat == *stats[i] &&
        state->second.hash == (file == recorded.files.end() ? std::nullopt : file->second.hash);
    if (vouched) {
      ++changes.unchanged;
    } else {
      changes.modified.push_back(path);
      changes.unsure += state != recorded.states.end() && stats[i] &&
                        state->second.stat.mtime_ns == UNTRUSTED_MTIME &&
                        state->second.stat.size == stats[i]->size;
    }
  }
  // Every known path that is still listed was met above: only when fewer were met than are
  // known is any of them gone.
  if (met_files == recorded.files.size() && met_states == recorded.states.size()) return changes;
  const auto unlisted = [&](const std::string& path) {
    return !std::binary_search(listed.begin(), listed.end(), path);
  };
  std::set<std::string> removed;
  for (const auto& [path, file] : recorded.files)
    if (unlisted(path)) removed.insert(path);
  for (const auto& [path, state] : recorded.states)
    if (unlisted(path)) removed.insert(path);
  changes.removed.assign(removed.begin(), removed.end());
  return changes;
}

std::optional<Changes> changed_since_index(storage::Database& db) {
  const std::optional<sqlite::Row> row =
      db.fetchone("SELECT value FROM schema_info WHERE key = ?", {REPOSITORY_KEY});
  if (!row || (*row)[0].is_null()) return std::nullopt;
  const fs::path repo = (*row)[0].as_text();
  std::error_code missing;
  if (!fs::is_directory(repo, missing)) return std::nullopt;
  const Recorded recorded = read_recorded(db);
  if (!recorded.has_states) return std::nullopt;
  // The listing's own check of each path's type would stat every file twice.
  return find_changes(recorded, repo, std::move(list_repo_files(repo, db.db_path(), false).paths));
}

std::optional<Changes> changed_since_index(storage::Database& db, std::ostream& err, bool quiet) {
  std::optional<Changes> changes = changed_since_index(db);
  if (!changes && !quiet) {
    fmt::print(err,
               "quilma-db: cannot tell which files changed since {} was built (an index from "
               "an older quilma-db, or its repository moved); run 'quilma-db index'\n",
               db.db_path().string());
  }
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
  std::unordered_set<std::string> stale(changes->modified.begin(), changes->modified.end());
  stale.insert(changes->removed.begin(), changes->removed.end());
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
