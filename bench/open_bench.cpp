// B6: the open sequence of the service (construct, connect, create_schema, migrate_schema,
// close) on an index file already at the current schema, against the raw C API opening the
// same file and running the same pragmas.
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "bench_database.h"
#include "paired.h"

#include "quilma/storage/database.h"

namespace quilma::bench {
namespace {

// A small index at the current schema. Another connection holds it open for the whole run,
// as a daemon would: otherwise every close would be the last one, which checkpoints and
// deletes the log, and each open would find the file in another state.
class OpenEnvironment {
 public:
  OpenEnvironment() : path_(bench_dir() / "open.db") {
    // The log and its index go too: the holder below is read-only, so when it closes last
    // at the end of a run it cannot checkpoint, and the previous run's log stays behind.
    for (const char* suffix : {"", "-wal", "-shm"}) {
      std::filesystem::remove(path_.string() + suffix);
    }
    storage::Database db(path_);
    db.connect();
    db.create_schema();
    db.migrate_schema();
    db.transaction([](sqlite::Cursor& cursor) {
      for (std::int64_t file = 1; file <= 3000; ++file) {
        cursor.execute("INSERT INTO files (id, path, language, hash) VALUES (?, ?, 'cpp', 'h')",
                       {file, "src/file_" + std::to_string(file) + ".cpp"});
        for (std::int64_t symbol = 0; symbol < 4; ++symbol) {
          cursor.execute("INSERT INTO symbols (file_id, name, kind, line) VALUES (?, ?, ?, ?)",
                         {file, "name_" + std::to_string(symbol), symbol == 0 ? "file" : "function",
                          symbol * 10});
        }
      }
    });
    db.close();
    holder_ = open_raw(path_, true);
    sqlite3_exec(holder_, "SELECT COUNT(*) FROM files", nullptr, nullptr, nullptr);
    storage::Database settle(path_);
    settle.connect();
    settle.execute("INSERT INTO index_errors (file_path, error_type) VALUES ('x', 'settle')");
    settle.execute("DELETE FROM index_errors");
  }
  ~OpenEnvironment() { sqlite3_close_v2(holder_); }
  OpenEnvironment(const OpenEnvironment&) = delete;
  OpenEnvironment& operator=(const OpenEnvironment&) = delete;

  static OpenEnvironment& get() {
    static OpenEnvironment environment;
    return environment;
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  sqlite3* holder_ = nullptr;
};

class DatabaseOpen {
 public:
  void run() {
    storage::Database db(path_);
    db.connect();
    db.create_schema();
    db.migrate_schema();
    db.close();
  }

 private:
  const std::filesystem::path& path_ = OpenEnvironment::get().path();
};

// The raw open: the connection and the pragmas that connect() runs. With `reads`, also the
// statements that the rest of the open sequence runs: the table lookup in a transaction, the
// version read on a read-only connection, and the page measurement.
//
// On a file that has pages, "PRAGMA auto_vacuum=INCREMENTAL" still rewrites the vacuum flag in
// page 1: a write transaction that adds a frame to the log and, as synchronous=NORMAL comes
// later, commits with the default FULL, syncing the log and its directory. Both sides pay it.
class RawOpen {
 public:
  explicit RawOpen(bool reads) : reads_(reads) {}

  void run() {
    sqlite3* db = open_writer(path_);
    if (reads_) {
      exec(db, "BEGIN");
      exec(db, "SELECT name FROM sqlite_schema WHERE type = 'table'");
      exec(db, "COMMIT");
      sqlite3* reader = open_raw(path_, true);
      exec(reader, "SELECT value FROM schema_info WHERE key = 'version'");
      exec(db, "PRAGMA auto_vacuum");
      exec(db, "PRAGMA page_count");
      exec(db, "PRAGMA freelist_count");
      exec(db, "PRAGMA page_size");
      sqlite3_close_v2(reader);
    }
    sqlite3_close_v2(db);
  }

 private:
  const bool reads_;
  const std::filesystem::path& path_ = OpenEnvironment::get().path();
};

void B6_OpenSequence_Paired(benchmark::State& state) {
  DatabaseOpen ours;
  RawOpen pragmas(false);
  RawOpen pragmas_and_reads(true);
  paired<5>(state, ours, {"raw_pragmas", "raw_same_statements"}, pragmas, pragmas_and_reads);
}

BENCHMARK(B6_OpenSequence_Paired)->Iterations(200)->Repetitions(1);

}  // namespace
}  // namespace quilma::bench
