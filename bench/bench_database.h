// The database file the benchmarks share: a `files` table of BENCH_FILES rows, made once
// per directory and reused, so that this program and the Python comparison read one file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

struct sqlite3;

namespace quilma::storage {
class Database;
}

namespace quilma::bench {

inline constexpr std::int64_t BENCH_FILES = 50000;

// The directory from QUILMA_BENCH_DIR, or build/bench-data under the working directory.
std::filesystem::path bench_dir();
// The shared file, created (through the storage layer's own open) when missing.
std::filesystem::path bench_database();

// Commits a write so that the log holds frames, the state of an index that is being written
// to. SQLite reads differ by state: while the log is empty, every read transaction also asks
// the file system for the database file's size, which on this class of machine costs more
// than the whole lookup otherwise does. Every comparison runs in this state.
void settle_log(storage::Database& db);

// Ids to look up, spread over the table in a fixed pseudo-random order.
const std::vector<std::int64_t>& lookup_ids();

// The point query of B1 and the twenty texts that B2 rotates through.
inline constexpr const char* POINT_QUERY =
    "SELECT id, path, language, hash FROM files WHERE id = ?";
const std::vector<std::string>& rotation_queries();

// Opens the raw C connection that the comparisons use, with the flags the binding uses.
sqlite3* open_raw(const std::filesystem::path& path, bool read_only);
// A read-write raw connection with the pragmas that Database::connect() runs, in its order.
sqlite3* open_writer(const std::filesystem::path& path);

// Runs `sql` on the raw connection to its end; std::runtime_error with the SQL and SQLite's
// message when it fails.
void exec(sqlite3* db, const char* sql);
inline void exec(sqlite3* db, const std::string& sql) { exec(db, sql.c_str()); }

}  // namespace quilma::bench
