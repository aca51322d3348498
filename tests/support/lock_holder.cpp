// Another process holding the write lock of a database file: `lock_holder DB [MS]` takes the
// lock (BEGIN IMMEDIATE), says "locked", and commits a row into its own table after MS
// milliseconds, or, without MS, once its standard input is closed. It then says "released".
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <sqlite3.h>
#include <unistd.h>

namespace {

int fail(sqlite3* db, const char* what) {
  std::fprintf(stderr, "lock_holder: %s: %s\n", what, sqlite3_errmsg(db));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  sqlite3* db = nullptr;
  if (sqlite3_open(argv[1], &db) != SQLITE_OK) return fail(db, "open");
  sqlite3_busy_timeout(db, 5000);
  if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return fail(db, "BEGIN IMMEDIATE");
  }
  std::puts("locked");
  std::fflush(stdout);
  if (argc > 2) {
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(argv[2])));
  } else {
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
  }
  // A commit in between: a snapshot taken before it cannot be written from afterwards.
  if (sqlite3_exec(db,
                   "CREATE TABLE IF NOT EXISTS holder (n); INSERT INTO holder VALUES (1); COMMIT",
                   nullptr, nullptr, nullptr) != SQLITE_OK) {
    return fail(db, "COMMIT");
  }
  std::puts("released");
  std::fflush(stdout);
  return sqlite3_close(db) == SQLITE_OK ? 0 : fail(db, "close");
}
