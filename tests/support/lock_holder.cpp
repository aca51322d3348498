// Another process holding the write lock of a database file: `lock_holder DB RELEASE` takes the
// lock (BEGIN IMMEDIATE), says "locked", and commits a row into its own table after RELEASE
// milliseconds, or, when RELEASE is a path, once a file is there (30 s at most). It then says
// "released".
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
  if (argc < 3) return 2;
  sqlite3* db = nullptr;
  if (sqlite3_open(argv[1], &db) != SQLITE_OK) return fail(db, "open");
  sqlite3_busy_timeout(db, 5000);
  if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return fail(db, "BEGIN IMMEDIATE");
  }
  std::puts("locked");
  std::fflush(stdout);
  const std::string release = argv[2];
  if (release.find_first_not_of("0123456789") == std::string::npos) {
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(release)));
  } else {
    for (int waited = 0; waited < 3000 && ::access(release.c_str(), F_OK) != 0; ++waited) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
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
