// B1 and B2: queries through Database::fetchone (on the reader pool) against the raw C API
// doing the same work on the same file, in autocommit.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench_database.h"
#include "quilma/sqlite/value.h"
#include "quilma/storage/database.h"

namespace quilma::bench {
namespace {

struct FileRecord {
  std::int64_t id = 0;
  std::string path;
  std::string language;
  std::string hash;
};

std::string text_column(sqlite3_stmt* stmt, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
  return text == nullptr ? std::string()
                         : std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(stmt, column)));
}

// What a caller of the C API does with a row it does not know the shape of.
std::vector<sqlite::Value> read_row(sqlite3_stmt* stmt) {
  const int count = sqlite3_column_count(stmt);
  std::vector<sqlite::Value> values;
  values.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    switch (sqlite3_column_type(stmt, i)) {
      case SQLITE_INTEGER:
        values.emplace_back(static_cast<std::int64_t>(sqlite3_column_int64(stmt, i)));
        break;
      case SQLITE_TEXT:
        values.emplace_back(text_column(stmt, i));
        break;
      default:
        values.emplace_back();
        break;
    }
  }
  return values;
}

// One Database and one raw read-only connection beside it, opened once for every benchmark
// of this file: SQLite's per-transaction work on a WAL file depends on what the connections
// to it have done (an emptied log, a checkpoint at the last close), so both sides must read
// the same file in the same state.
struct Environment {
  Environment() : db(bench_database()) {
    db.connect();
    raw = open_raw(bench_database(), true);
  }
  ~Environment() { sqlite3_close_v2(raw); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  static Environment& get() {
    static Environment environment;
    return environment;
  }

  storage::Database db;
  sqlite3* raw = nullptr;
};

sqlite3_stmt* prepare(sqlite3* db, const std::string& sql, bool persistent) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()),
                         persistent ? SQLITE_PREPARE_PERSISTENT : 0, &stmt, nullptr) != SQLITE_OK) {
    throw std::runtime_error(sqlite3_errmsg(db));
  }
  return stmt;
}

void B1_PointQuery_Database(benchmark::State& state) {
  storage::Database& db = Environment::get().db;
  const auto& ids = lookup_ids();
  std::size_t next = 0;
  for (auto _ : state) {
    auto row = db.fetchone(POINT_QUERY, {ids[next++ % ids.size()]});
    benchmark::DoNotOptimize(row);
  }
}

void B1_PointQuery_RawC(benchmark::State& state) {
  sqlite3* db = Environment::get().raw;
  sqlite3_stmt* stmt = prepare(db, POINT_QUERY, true);
  const auto& ids = lookup_ids();
  std::size_t next = 0;
  for (auto _ : state) {
    sqlite3_bind_int64(stmt, 1, ids[next++ % ids.size()]);
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      FileRecord record{sqlite3_column_int64(stmt, 0), text_column(stmt, 1), text_column(stmt, 2),
                        text_column(stmt, 3)};
      benchmark::DoNotOptimize(record);
    }
    sqlite3_reset(stmt);
  }
  sqlite3_finalize(stmt);
}

void B2_Rotation_Database(benchmark::State& state) {
  storage::Database& db = Environment::get().db;
  const auto& queries = rotation_queries();
  const auto& ids = lookup_ids();
  std::size_t next = 0;
  for (auto _ : state) {
    auto row = db.fetchone(queries[next % queries.size()], {ids[next % ids.size()]});
    ++next;
    benchmark::DoNotOptimize(row);
  }
}

void B2_Rotation_RawCPrepared(benchmark::State& state) {
  sqlite3* db = Environment::get().raw;
  std::vector<sqlite3_stmt*> statements;
  for (const auto& sql : rotation_queries()) statements.push_back(prepare(db, sql, true));
  const auto& ids = lookup_ids();
  std::size_t next = 0;
  for (auto _ : state) {
    sqlite3_stmt* stmt = statements[next % statements.size()];
    sqlite3_bind_int64(stmt, 1, ids[next % ids.size()]);
    ++next;
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      auto values = read_row(stmt);
      benchmark::DoNotOptimize(values);
    }
    sqlite3_reset(stmt);
  }
  for (sqlite3_stmt* stmt : statements) sqlite3_finalize(stmt);
}

void B2_Rotation_RawCPrepareEach(benchmark::State& state) {
  sqlite3* db = Environment::get().raw;
  const auto& queries = rotation_queries();
  const auto& ids = lookup_ids();
  std::size_t next = 0;
  for (auto _ : state) {
    sqlite3_stmt* stmt = prepare(db, queries[next % queries.size()], false);
    sqlite3_bind_int64(stmt, 1, ids[next % ids.size()]);
    ++next;
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      auto values = read_row(stmt);
      benchmark::DoNotOptimize(values);
    }
    sqlite3_finalize(stmt);
  }
}

BENCHMARK(B1_PointQuery_Database);
BENCHMARK(B1_PointQuery_RawC);
BENCHMARK(B2_Rotation_Database);
BENCHMARK(B2_Rotation_RawCPrepared);
BENCHMARK(B2_Rotation_RawCPrepareEach);

}  // namespace
}  // namespace quilma::bench
