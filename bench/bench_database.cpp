#include "bench_database.h"

#include <cstdlib>
#include <random>
#include <stdexcept>

#include <sqlite3.h>

#include "quilma/storage/database.h"

namespace quilma::bench {

std::filesystem::path bench_dir() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read before any benchmark thread starts.
  const char* configured = std::getenv("QUILMA_BENCH_DIR");
  return configured != nullptr && *configured != '\0' ? configured : "build/bench-data";
}

std::filesystem::path bench_database() {
  std::filesystem::path path = bench_dir() / "bench.db";
  if (std::filesystem::exists(path)) return path;
  storage::Database db(path);
  db.connect();
  db.transaction([](sqlite::Cursor& cursor) {
    cursor.execute(
        "CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT, "
        "hash TEXT)");
    cursor.execute("CREATE TABLE writes (id INTEGER PRIMARY KEY, payload TEXT)");
    const char* languages[] = {"python", "cpp", "typescript", "go", "rust"};
    std::vector<sqlite::Params> rows;
    rows.reserve(BENCH_FILES);
    for (std::int64_t i = 1; i <= BENCH_FILES; ++i) {
      rows.push_back({i,
                      "src/module_" + std::to_string(i % 97) + "/file_" + std::to_string(i) + ".py",
                      languages[i % 5], "sha256:" + std::to_string(i * 7919)});
    }
    cursor.executemany("INSERT INTO files (id, path, language, hash) VALUES (?, ?, ?, ?)", rows);
  });
  db.close();
  return path;
}

void settle_log(storage::Database& db) {
  db.execute("INSERT INTO writes (payload) VALUES ('settle')");
  db.execute("DELETE FROM writes");
}

const std::vector<std::int64_t>& lookup_ids() {
  static const std::vector<std::int64_t> ids = [] {
    std::mt19937_64 random(42);
    std::uniform_int_distribution<std::int64_t> pick(1, BENCH_FILES);
    std::vector<std::int64_t> result(4096);
    for (auto& id : result) id = pick(random);
    return result;
  }();
  return ids;
}

const std::vector<std::string>& rotation_queries() {
  static const std::vector<std::string> queries = [] {
    const char* columns[] = {"id", "path", "language", "hash"};
    std::vector<std::string> result;
    for (int mask = 1; mask < 16; ++mask) {  // the 15 non-empty column subsets
      std::string list;
      for (int c = 0; c < 4; ++c) {
        if ((mask & (1 << c)) == 0) continue;
        if (!list.empty()) list += ", ";
        list += columns[c];
      }
      result.push_back("SELECT " + list + " FROM files WHERE id = ?");
    }
    result.emplace_back("SELECT hash, path FROM files WHERE id = ?");
    result.emplace_back("SELECT length(path) FROM files WHERE id = ?");
    result.emplace_back("SELECT COUNT(*) FROM files WHERE id = ?");
    result.emplace_back("SELECT path FROM files WHERE id = ? AND language IS NOT NULL");
    result.emplace_back("SELECT id, language FROM files WHERE id >= ? ORDER BY id LIMIT 1");
    return result;
  }();
  return queries;
}

sqlite3* open_raw(const std::filesystem::path& path, bool read_only) {
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE |
                    (read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    throw std::runtime_error("cannot open " + path.string());
  }
  sqlite3_busy_timeout(db, 5000);
  return db;
}

sqlite3* open_writer(const std::filesystem::path& path) {
  sqlite3* db = open_raw(path, false);
  for (const char* pragma :
       {"PRAGMA page_size=8192", "PRAGMA auto_vacuum=INCREMENTAL", "PRAGMA journal_mode=WAL",
        "PRAGMA foreign_keys=ON", "PRAGMA synchronous=NORMAL"}) {
    exec(db, pragma);
  }
  return db;
}

void exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message != nullptr ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    throw std::runtime_error(std::string(sql) + ": " + text);
  }
}

}  // namespace quilma::bench
