// B1 and B2: queries through Database::fetchone (on the reader pool) against the raw C API
// doing the same work on the same file, in autocommit. B7: twenty point queries in one
// Database::read against the C API running them in one read transaction, and against twenty
// separate fetchone calls (and the C API running them in autocommit, which bounds what one
// read transaction can save).
#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "bench_database.h"
#include "paired.h"

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
  return text == nullptr
             ? std::string()
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
    settle_log(db);
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

// Each workload does one query per call of run(), the same work on both sides: bind an id,
// step to the row, and copy its values out.
class DatabasePoint {
 public:
  void run() {
    auto row = db_.fetchone(POINT_QUERY, {ids_[next_++ % ids_.size()]});
    benchmark::DoNotOptimize(row);
  }

 private:
  storage::Database& db_ = Environment::get().db;
  const std::vector<std::int64_t>& ids_ = lookup_ids();
  std::size_t next_ = 0;
};

class RawPoint {
 public:
  RawPoint() : stmt_(prepare(Environment::get().raw, POINT_QUERY, true)) {}
  ~RawPoint() { sqlite3_finalize(stmt_); }
  RawPoint(const RawPoint&) = delete;
  RawPoint& operator=(const RawPoint&) = delete;

  void run() {
    sqlite3_bind_int64(stmt_, 1, ids_[next_++ % ids_.size()]);
    if (sqlite3_step(stmt_) == SQLITE_ROW) {
      FileRecord record{sqlite3_column_int64(stmt_, 0), text_column(stmt_, 1),
                        text_column(stmt_, 2), text_column(stmt_, 3)};
      benchmark::DoNotOptimize(record);
    }
    sqlite3_reset(stmt_);
  }

 private:
  sqlite3_stmt* stmt_;
  const std::vector<std::int64_t>& ids_ = lookup_ids();
  std::size_t next_ = 0;
};

class DatabaseRotation {
 public:
  void run() {
    auto row = db_.fetchone(queries_[next_ % queries_.size()], {ids_[next_ % ids_.size()]});
    ++next_;
    benchmark::DoNotOptimize(row);
  }

 private:
  storage::Database& db_ = Environment::get().db;
  const std::vector<std::string>& queries_ = rotation_queries();
  const std::vector<std::int64_t>& ids_ = lookup_ids();
  std::size_t next_ = 0;
};

// The twenty texts prepared once (`prepare_each` false) or prepared and finalized per call.
class RawRotation {
 public:
  explicit RawRotation(bool prepare_each) : prepare_each_(prepare_each) {
    if (!prepare_each_) {
      for (const auto& sql : queries_) statements_.push_back(prepare(db_, sql, true));
    }
  }
  ~RawRotation() {
    for (sqlite3_stmt* stmt : statements_) sqlite3_finalize(stmt);
  }
  RawRotation(const RawRotation&) = delete;
  RawRotation& operator=(const RawRotation&) = delete;

  void run() {
    const std::size_t which = next_ % queries_.size();
    sqlite3_stmt* stmt = prepare_each_ ? prepare(db_, queries_[which], false) : statements_[which];
    sqlite3_bind_int64(stmt, 1, ids_[next_ % ids_.size()]);
    ++next_;
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      auto values = read_row(stmt);
      benchmark::DoNotOptimize(values);
    }
    if (prepare_each_) {
      sqlite3_finalize(stmt);
    } else {
      sqlite3_reset(stmt);
    }
  }

 private:
  const bool prepare_each_;
  sqlite3* db_ = Environment::get().raw;
  std::vector<sqlite3_stmt*> statements_;
  const std::vector<std::string>& queries_ = rotation_queries();
  const std::vector<std::int64_t>& ids_ = lookup_ids();
  std::size_t next_ = 0;
};

// B7: one request answered by READ_QUERIES point queries on one snapshot.
constexpr int READ_QUERIES = 20;

class DatabaseSnapshot {
 public:
  void run() {
    db_.read([this](sqlite::Cursor& cursor) {
      for (int i = 0; i < READ_QUERIES; ++i) {
        auto row = cursor.execute(POINT_QUERY, {ids_[next_++ % ids_.size()]}).fetchone();
        benchmark::DoNotOptimize(row);
      }
    });
  }

 private:
  storage::Database& db_ = Environment::get().db;
  const std::vector<std::int64_t>& ids_ = lookup_ids();
  std::size_t next_ = 0;
};

// The same queries each in a read transaction of its own.
template <class Point>
class Separate {
 public:
  void run() {
    for (int i = 0; i < READ_QUERIES; ++i) point_.run();
  }

 private:
  Point point_;
};

class RawSnapshot {
 public:
  RawSnapshot()
      : begin_(prepare(Environment::get().raw, "BEGIN", true)),
        end_(prepare(Environment::get().raw, "COMMIT", true)) {}
  ~RawSnapshot() {
    sqlite3_finalize(begin_);
    sqlite3_finalize(end_);
  }
  RawSnapshot(const RawSnapshot&) = delete;
  RawSnapshot& operator=(const RawSnapshot&) = delete;

  void run() {
    sqlite3_step(begin_);
    sqlite3_reset(begin_);
    for (int i = 0; i < READ_QUERIES; ++i) point_.run();
    sqlite3_step(end_);
    sqlite3_reset(end_);
  }

 private:
  sqlite3_stmt* begin_;
  sqlite3_stmt* end_;
  RawPoint point_;
};

template <class Workload, class... Args>
void single(benchmark::State& state, Args... args) {
  Workload workload(args...);
  for (auto _ : state) workload.run();
}

void B1_PointQuery_Paired(benchmark::State& state) {
  DatabasePoint ours;
  RawPoint raw;
  paired(state, ours, {"raw"}, raw);
}

void B2_Rotation_Paired(benchmark::State& state) {
  DatabaseRotation ours;
  RawRotation prepared(false);
  RawRotation prepare_each(true);
  paired(state, ours, {"raw_prepared", "raw_prepare_each"}, prepared, prepare_each);
}

void B7_ReadSnapshot_Paired(benchmark::State& state) {
  DatabaseSnapshot ours;
  RawSnapshot raw;
  Separate<DatabasePoint> separate;
  Separate<RawPoint> raw_separate;  // what one read transaction saves at best
  paired<20>(state, ours, {"raw", "separate_fetchone", "raw_separate"}, raw, separate,
             raw_separate);
}

BENCHMARK(B1_PointQuery_Paired)->Iterations(400)->Repetitions(1);
BENCHMARK(B7_ReadSnapshot_Paired)->Iterations(300)->Repetitions(1);
BENCHMARK(B2_Rotation_Paired)->Iterations(300)->Repetitions(1);
void B1_PointQuery_Database(benchmark::State& state) { single<DatabasePoint>(state); }
void B1_PointQuery_RawC(benchmark::State& state) { single<RawPoint>(state); }
void B2_Rotation_Database(benchmark::State& state) { single<DatabaseRotation>(state); }
void B2_Rotation_RawCPrepared(benchmark::State& state) { single<RawRotation>(state, false); }
void B2_Rotation_RawCPrepareEach(benchmark::State& state) { single<RawRotation>(state, true); }

BENCHMARK(B1_PointQuery_Database);
BENCHMARK(B1_PointQuery_RawC);
BENCHMARK(B2_Rotation_Database);
BENCHMARK(B2_Rotation_RawCPrepared);
BENCHMARK(B2_Rotation_RawCPrepareEach);

}  // namespace
}  // namespace quilma::bench
