// B4: a full swap of a realistic index from a staging file (the checks of the staging file, the
// swap, its commit and the compaction after it), against the raw C API copying row by row; with
// the time of SQLite's transfer-optimised copy as a floor, the chunks tokenised again or their
// FTS5 tables copied whole. B5: compaction of that index after 90% of it
// was deleted, against the raw C API running the same steps, and the longest single holding
// of the connection lock.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "bench_database.h"
#include "paired.h"

#include "quilma/storage/core_schema.h"
#include "quilma/storage/database.h"
#include "quilma/storage/migrations.h"

namespace quilma::bench {
namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point started) {
  return std::chrono::duration<double, std::milli>(Clock::now() - started).count();
}

// A prepared statement for the raw side, stepped to its end.
class Raw {
 public:
  Raw(sqlite3* db, const std::string& sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sql + ": " + sqlite3_errmsg(db));
    }
  }
  ~Raw() { sqlite3_finalize(stmt_); }
  Raw(const Raw&) = delete;
  Raw& operator=(const Raw&) = delete;

  Raw& bind(int index, std::int64_t value) {
    sqlite3_bind_int64(stmt_, index, value);
    return *this;
  }
  Raw& bind(int index, const std::string& text) {
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    return *this;
  }
  // Steps to the end; returns the first column of the first row, or -1.
  std::int64_t run() {
    std::int64_t first = -1;
    int rc = 0;
    bool seen = false;
    while ((rc = sqlite3_step(stmt_)) == SQLITE_ROW) {
      if (!seen) first = sqlite3_column_int64(stmt_, 0);
      seen = true;
    }
    if (rc != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db_));
    sqlite3_reset(stmt_);
    return first;
  }
  std::vector<std::string> texts(int column) {
    std::vector<std::string> values;
    while (sqlite3_step(stmt_) == SQLITE_ROW) {
      values.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column)));
    }
    sqlite3_reset(stmt_);
    return values;
  }

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

// The sizes of the index, scaled by QUILMA_BENCH_SCALE (1 by default) for quick trials.
struct Sizes {
  std::int64_t files = 50000;
  std::int64_t symbols_per_file = 10;  // 500 k symbols
  std::int64_t edges_per_symbol = 2;   // 1 M edges
  std::int64_t chunks_per_file = 4;    // 200 k chunks
  std::int64_t lines_per_chunk = 20;
};

Sizes sizes() {
  Sizes sizes;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read once, before any thread starts.
  if (const char* scale = std::getenv("QUILMA_BENCH_SCALE")) {
    sizes.files = std::max<std::int64_t>(
        100, static_cast<std::int64_t>(static_cast<double>(sizes.files) * std::atof(scale)));
  }
  return sizes;
}

constexpr const char* WORDS[] = {
    "index",  "symbol", "parse",  "value",  "buffer", "result", "config", "handle", "reader",
    "writer", "token",  "offset", "length", "module", "import", "record", "status", "cursor",
    "page",   "commit", "entry",  "search", "filter", "stream", "path",   "count",  "table"};

// Fills the index tables of the open file `db` (at the current schema) with a generated
// repository's index: files, their symbols, calls between symbols, imports and code chunks.
void fill(sqlite3* db, const Sizes& sizes) {
  std::mt19937_64 random(42);
  const auto pick = [&random](std::int64_t bound) {
    return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(bound));
  };
  exec(db, "PRAGMA foreign_keys=OFF");  // edges point at symbols of files still to come
  exec(db, "BEGIN");
  Raw component(db, "INSERT INTO components (id, name, layer) VALUES (?, ?, 'core')");
  for (std::int64_t c = 1; c <= 20; ++c)
    component.bind(1, c).bind(2, "component_" + std::to_string(c)).run();
  Raw file(db,
           "INSERT INTO files (id, path, language, hash, component_id, size) VALUES (?, ?, 'cpp', "
           "?, ?, ?)");
  Raw symbol(db,
             "INSERT INTO symbols (id, file_id, name, kind, line, end_line, qualified_name) VALUES "
             "(?, ?, ?, ?, ?, ?, ?)");
  Raw edge(db, "INSERT INTO edges (source_id, target_id, kind, line) VALUES (?, ?, 'calls', ?)");
  Raw import(db, "INSERT INTO external_imports (file_id, module, line) VALUES (?, ?, 1)");
  Raw chunk(db, "INSERT INTO code_chunks (rowid, text, start_line, end_line) VALUES (?, ?, ?, ?)");
  const std::int64_t symbols = sizes.files * sizes.symbols_per_file;
  for (std::int64_t f = 1; f <= sizes.files; ++f) {
    const std::string path =
        "src/module_" + std::to_string(f % 97) + "/file_" + std::to_string(f) + ".cpp";
    file.bind(1, f)
        .bind(2, path)
        .bind(3, std::to_string(random()))
        .bind(4, 1 + (f % 20))
        .bind(5, 4096)
        .run();
    for (std::int64_t s = 0; s < sizes.symbols_per_file; ++s) {
      const std::int64_t id = ((f - 1) * sizes.symbols_per_file) + s + 1;
      const std::string name =
          s == 0 ? path : std::string(WORDS[pick(27)]) + "_" + std::to_string(id);
      symbol.bind(1, id)
          .bind(2, f)
          .bind(3, name)
          .bind(4, s == 0 ? "file" : "function")
          .bind(5, s * 10)
          .bind(6, (s * 10) + 9)
          .bind(7, "ns::" + name)
          .run();
      for (std::int64_t e = 0; e < sizes.edges_per_symbol; ++e) {
        edge.bind(1, id).bind(2, 1 + pick(symbols)).bind(3, s * 10).run();
      }
    }
    import.bind(1, f).bind(2, std::string("std/") + WORDS[pick(27)]).run();
    for (std::int64_t c = 0; c < sizes.chunks_per_file; ++c) {
      std::string text;
      for (std::int64_t line = 0; line < sizes.lines_per_chunk; ++line) {
        text += "  auto " + std::string(WORDS[pick(27)]) + "_" + std::to_string(pick(1000)) +
                " = " + WORDS[pick(27)] + "(" + WORDS[pick(27)] + ");\n";
      }
      chunk.bind(1, storage::core_schema::chunk_rowid(f, c))
          .bind(2, text)
          .bind(3, (c * sizes.lines_per_chunk) + 1)
          .bind(4, (c + 1) * sizes.lines_per_chunk)
          .run();
    }
  }
  exec(db, "COMMIT");
}

void remove_file(const std::filesystem::path& path) {
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path.string() + suffix);
}

void replace_file(const std::filesystem::path& from, const std::filesystem::path& to) {
  remove_file(to);
  std::filesystem::copy_file(from, to);
}

// The files of the runs, built once per benchmark directory: the staging index, and the same
// index with 90% of its files deleted.
class SwapEnvironment {
 public:
  SwapEnvironment()
      : sizes_(sizes()),
        tag_(std::to_string(sizes_.files)),
        staging_(bench_dir() / ("swap-staging-" + tag_ + ".db")),
        thinned_(bench_dir() / ("swap-thinned-" + tag_ + ".db")) {
    if (!std::filesystem::exists(staging_)) build_staging();
    if (!std::filesystem::exists(thinned_)) build_thinned();
  }

  static SwapEnvironment& get() {
    static SwapEnvironment environment;
    return environment;
  }
  const std::filesystem::path& staging() const { return staging_; }
  const std::filesystem::path& thinned() const { return thinned_; }
  std::filesystem::path scratch(const char* name) const { return bench_dir() / name; }

 private:
  void build_staging() {
    const std::filesystem::path building = staging_.string() + ".building";
    remove_file(building);
    {
      storage::Database db(building);
      db.connect();
      db.create_schema();
      db.migrate_schema();
    }
    sqlite3* db = open_writer(building);
    fill(db, sizes_);
    exec(db, "PRAGMA wal_checkpoint(TRUNCATE)");
    exec(db, "PRAGMA journal_mode=DELETE");  // a single file, copied as it is
    sqlite3_close_v2(db);
    std::filesystem::rename(building, staging_);
  }

  void build_thinned() {
    const std::filesystem::path building = thinned_.string() + ".building";
    replace_file(staging_, building);
    sqlite3* db = open_writer(building);
    // The files' symbols, edges, imports and chunks go with them.
    exec(db, "DELETE FROM files WHERE id % 10 <> 0");
    exec(db, "DELETE FROM edges WHERE target_id NOT IN (SELECT id FROM symbols)");
    exec(db, "PRAGMA wal_checkpoint(TRUNCATE)");
    exec(db, "PRAGMA journal_mode=DELETE");
    sqlite3_close_v2(db);
    std::filesystem::rename(building, thinned_);
  }

  Sizes sizes_;
  std::string tag_;
  std::filesystem::path staging_;
  std::filesystem::path thinned_;
};

constexpr const char* INSERT_ORDER[] = {"components",       "files",       "symbols", "edges",
                                        "external_imports", "index_errors"};
constexpr const char* CLEAR_ORDER[] = {"edges", "external_imports", "symbols",
                                       "files", "components",       "index_errors"};

// What the raw side spends in each phase, in milliseconds.
struct Phases {
  double clear = 0;  // dropping code_chunks and deleting the old rows
  double copy = 0;   // the six INSERT ... SELECT and the chunks
  double commit = 0;
  double compact = 0;
  double longest_hold = 0;  // the longest single step or checkpoint of the compaction
  std::int64_t released = 0;
};

// Compaction as the storage layer runs it, with the raw C API: measure, release in steps of
// 1024 pages, checkpoint.
void raw_compact(sqlite3* db, Phases& phases) {
  Raw mode(db, "PRAGMA auto_vacuum");
  Raw pages(db, "PRAGMA page_count");
  Raw free(db, "PRAGMA freelist_count");
  Raw size(db, "PRAGMA page_size");
  mode.run();
  const std::int64_t total = pages.run();
  const std::int64_t free_pages = free.run();
  size.run();
  if (free_pages < storage::COMPACT_MIN_FREE_PAGES ||
      static_cast<double>(free_pages) <
          static_cast<double>(total) * storage::COMPACT_MIN_FREE_RATIO) {
    return;
  }
  Raw step(db, "PRAGMA incremental_vacuum(1024)");
  for (;;) {
    const auto started = Clock::now();
    const std::int64_t before = free.run();
    if (before == 0) break;
    step.run();
    const std::int64_t after = free.run();
    phases.longest_hold = std::max(phases.longest_hold, ms_since(started));
    if (after >= before) break;
    phases.released += before - after;
  }
  const auto started = Clock::now();
  sqlite3_busy_timeout(db, 0);
  Raw(db, "PRAGMA wal_checkpoint(TRUNCATE)").run();
  sqlite3_busy_timeout(db, 5000);
  phases.longest_hold = std::max(phases.longest_hold, ms_since(started));
}

// The swap row by row, with the raw C API: column lists, foreign keys on and the chunks
// tokenised again, as the storage layer ran it before it copied tables whole.
Phases raw_swap(sqlite3* db, const std::filesystem::path& staging) {
  Phases phases;
  Raw(db, "ATTACH DATABASE ? AS stg").bind(1, staging.string()).run();
  std::vector<std::string> columns;
  for (const char* table : INSERT_ORDER) {
    std::string list;
    for (const std::string& name :
         Raw(db, std::string("PRAGMA table_info(") + table + ")").texts(1)) {
      list += (list.empty() ? "" : ", ") + name;
    }
    columns.push_back(list);
  }
  exec(db, "BEGIN");
  auto started = Clock::now();
  const bool live_chunks =
      Raw(db, "SELECT 1 FROM main.sqlite_master WHERE type = 'table' AND name = 'code_chunks'")
          .run() == 1;
  bool copy_chunks = false;
  if (live_chunks) {
    exec(db, "DROP TABLE code_chunks");
    exec(db, std::string(storage::migrations::CODE_CHUNKS_DDL));
    copy_chunks =
        Raw(db, "SELECT 1 FROM stg.sqlite_master WHERE type = 'table' AND name = 'code_chunks'")
            .run() == 1;
  }
  for (const char* table : CLEAR_ORDER) exec(db, std::string("DELETE FROM ") + table);
  phases.clear = ms_since(started);
  started = Clock::now();
  for (std::size_t i = 0; i < columns.size(); ++i) {
    exec(db, std::string("INSERT INTO ") + INSERT_ORDER[i] + " (" + columns[i] + ") SELECT " +
                 columns[i] + " FROM stg." + INSERT_ORDER[i]);
  }
  if (copy_chunks) {
    exec(db,
         "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
         "SELECT rowid, text, start_line, end_line, exact FROM stg.code_chunks");
  }
  const std::int64_t generation = Raw(db, "PRAGMA user_version").run();
  exec(db, "PRAGMA user_version = " + std::to_string(generation + 1));
  phases.copy = ms_since(started);
  started = Clock::now();
  exec(db, "COMMIT");
  phases.commit = ms_since(started);
  exec(db, "DETACH DATABASE stg");
  started = Clock::now();
  raw_compact(db, phases);
  phases.compact = ms_since(started);
  return phases;
}

// SQLite's transfer-optimised copy of the same rows into empty tables of the same schema:
// what a swap could cost at best. The chunks go through FTS5 (tokenised again) or, with
// `copy_store`, as FTS5's own tables, copied whole.
double transfer_floor(const std::filesystem::path& live, const std::filesystem::path& staging,
                      bool copy_store) {
  sqlite3* db = open_writer(live);
  exec(db, "PRAGMA foreign_keys=OFF");  // the transfer is not used for tables with foreign keys
  Raw(db, "ATTACH DATABASE ? AS stg").bind(1, staging.string()).run();
  exec(db, "BEGIN");
  exec(db, "DROP TABLE code_chunks");
  exec(db, std::string(storage::migrations::CODE_CHUNKS_DDL));
  for (const char* table : CLEAR_ORDER) exec(db, std::string("DELETE FROM ") + table);
  const auto started = Clock::now();
  for (const char* table : INSERT_ORDER) {
    exec(db, std::string("INSERT INTO ") + table + " SELECT * FROM stg." + table);
  }
  if (copy_store) {
    for (const char* table :
         {"code_chunks_data", "code_chunks_idx", "code_chunks_content", "code_chunks_docsize"}) {
      exec(db, std::string("DELETE FROM ") + table);
      exec(db, std::string("INSERT INTO ") + table + " SELECT * FROM stg." + table);
    }
  } else {
    exec(db,
         "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
         "SELECT rowid, text, start_line, end_line, exact FROM stg.code_chunks");
  }
  exec(db, "COMMIT");
  const double floor = ms_since(started);
  exec(db, "DETACH DATABASE stg");
  sqlite3_close_v2(db);
  return floor;
}

// The live file before each run: an index of the same size as the staging one.
std::filesystem::path fresh_live(const char* name, const std::filesystem::path& from) {
  std::filesystem::path live = SwapEnvironment::get().scratch(name);
  replace_file(from, live);
  return live;
}

void open_fully(storage::Database& db) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

void B4_Swap(benchmark::State& state) {
  const SwapEnvironment& environment = SwapEnvironment::get();
  std::vector<double> ours_ms, raw_ms, ratios, floors, copy_floors, clear_share, compact_ms;
  bool ours_first = true;
  for (auto _ : state) {
    double ours = 0;
    double raw = 0;
    Phases phases;
    for (int side = 0; side < 2; ++side) {
      if ((side == 0) == ours_first) {
        storage::Database db(fresh_live("swap-live.db", environment.staging()));
        open_fully(db);
        const auto started = Clock::now();
        db.swap_index_from(environment.staging());
        ours = ms_since(started);
      } else {
        sqlite3* db = open_writer(fresh_live("swap-live.db", environment.staging()));
        const auto started = Clock::now();
        phases = raw_swap(db, environment.staging());
        raw = ms_since(started);
        sqlite3_close_v2(db);
      }
    }
    ours_first = !ours_first;
    ours_ms.push_back(ours);
    raw_ms.push_back(raw);
    ratios.push_back(ours / raw);
    clear_share.push_back(phases.clear / raw);
    compact_ms.push_back(phases.compact);
    floors.push_back(transfer_floor(fresh_live("swap-live.db", environment.staging()),
                                    environment.staging(), false));
    copy_floors.push_back(transfer_floor(fresh_live("swap-live.db", environment.staging()),
                                         environment.staging(), true));
  }
  state.counters["database_ms"] = median(ours_ms);
  state.counters["raw_ms"] = median(raw_ms);
  state.counters["database_per_raw"] = median(ratios);
  state.counters["medians_ratio"] = median(ours_ms) / median(raw_ms);
  state.counters["transfer_floor_ms"] = median(floors);
  state.counters["copy_floor_ms"] = median(copy_floors);
  state.counters["database_per_floor"] = median(ours_ms) / median(floors);
  state.counters["database_per_copy_floor"] = median(ours_ms) / median(copy_floors);
  state.counters["clear_share"] = median(clear_share);
  state.counters["raw_compact_ms"] = median(compact_ms);
  remove_file(environment.scratch("swap-live.db"));
}

// The longest statement of the compaction steps on the writer, as SQLite times them: a step
// holds the lock for its two freelist reads and its release, the checkpoint for itself.
class HoldProbe {
 public:
  explicit HoldProbe(sqlite3* db) {
    sqlite3_trace_v2(db, SQLITE_TRACE_PROFILE, &HoldProbe::on_profile, this);
  }
  double longest_ms() const { return longest_ms_; }

 private:
  static int on_profile(unsigned /*type*/, void* self, void* statement, void* elapsed) {
    auto* probe = static_cast<HoldProbe*>(self);
    const std::string sql = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
    const double ms = static_cast<double>(*static_cast<sqlite3_int64*>(elapsed)) / 1e6;
    if (sql == "PRAGMA freelist_count" || sql.starts_with("PRAGMA incremental_vacuum")) {
      probe->step_ms_ += ms;
      if (sql == "PRAGMA freelist_count" && probe->in_step_) {  // the read that ends a step
        probe->longest_ms_ = std::max(probe->longest_ms_, probe->step_ms_);
        probe->step_ms_ = 0;
      }
      probe->in_step_ = sql.starts_with("PRAGMA incremental_vacuum");
    } else if (sql.starts_with("PRAGMA wal_checkpoint")) {
      probe->longest_ms_ = std::max(probe->longest_ms_, ms);
    }
    return 0;
  }
  double step_ms_ = 0;
  bool in_step_ = false;
  double longest_ms_ = 0;
};

void B5_Compaction(benchmark::State& state) {
  const SwapEnvironment& environment = SwapEnvironment::get();
  std::vector<double> ours_ms, raw_ms, ratios, ours_hold, raw_hold;
  double released = 0;
  bool ours_first = true;
  for (auto _ : state) {
    double ours = 0;
    double raw = 0;
    for (int side = 0; side < 2; ++side) {
      if ((side == 0) == ours_first) {
        storage::Database db(fresh_live("compact-live.db", environment.thinned()));
        open_fully(db);
        const HoldProbe probe(db.connection().handle());
        const auto started = Clock::now();
        const storage::Compaction result = db.compact();
        ours = ms_since(started);
        ours_hold.push_back(probe.longest_ms());
        released = static_cast<double>(result.pages_released);
      } else {
        sqlite3* db = open_writer(fresh_live("compact-live.db", environment.thinned()));
        Phases phases;
        const auto started = Clock::now();
        raw_compact(db, phases);
        raw = ms_since(started);
        raw_hold.push_back(phases.longest_hold);
        sqlite3_close_v2(db);
      }
    }
    ours_first = !ours_first;
    ours_ms.push_back(ours);
    raw_ms.push_back(raw);
    ratios.push_back(ours / raw);
  }
  state.counters["database_ms"] = median(ours_ms);
  state.counters["raw_ms"] = median(raw_ms);
  state.counters["database_per_raw"] = median(ratios);
  state.counters["longest_hold_ms"] = *std::max_element(ours_hold.begin(), ours_hold.end());
  state.counters["raw_longest_step_ms"] = *std::max_element(raw_hold.begin(), raw_hold.end());
  state.counters["pages_released"] = released;
  remove_file(environment.scratch("compact-live.db"));
}

BENCHMARK(B4_Swap)->Iterations(5)->Repetitions(1)->Unit(benchmark::kMillisecond);
BENCHMARK(B5_Compaction)->Iterations(5)->Repetitions(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quilma::bench
