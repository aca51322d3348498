// The service's processes on one index file at once, for QUILMA_STRESS_SECONDS (60 by default):
// an indexer swapping in staging builds of QUILMA_STRESS_FILES files (200, in whole fifties), a
// daemon committing small transactions into a table of its own, a server reading in loops, and
// short quilma-db read commands. Each role is a process forked from the test: it reports its
// failures on its standard error, and exits 0 when it did work and nothing failed. The test then
// checks the daemon's rows, the log's size and the file.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/index_builder.h"
#include "support/temp_dir.h"

#include "quilma/storage/database.h"
#include "quilma/storage/storage_size.h"

namespace quilma::storage {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr double BUSY_TIMEOUT_MS = 5000;  // a write that fails sooner gave up too early
constexpr std::array ROLES{"indexer", "daemon", "server", "cli"};

int env_int(const char* name, int fallback) {
  const char* raw = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing sets it
  return raw != nullptr && *raw != '\0' ? std::atoi(raw) : fallback;
}

// Whole fifties: every table then holds a fixed number of rows per build.
int files_per_build() { return std::max(1, env_int("QUILMA_STRESS_FILES", 200) / 50) * 50; }

// Per index table, what gives the build of a row (see Role::indexer(); g where a text carries
// it), and its rows per 50 files, as testing::fill_index() writes them.
// clang-format off
constexpr std::array<std::tuple<std::string_view, std::string_view, int>, 7> TABLES{{
    {"components", "(id - 1) / {}", 1}, {"files", "(id - 1) / {}", 50},
    {"symbols", "(file_id - 1) / {}", 200}, {"edges", "(source_id / 4 - 1) / {}", 150},
    {"external_imports", "(file_id - 1) / {}", 50}, {"index_errors", "CAST(message AS INTEGER)", 5},
    {"code_chunks", "(rowid / 1048576 - 1) / {}", 100}}};
// clang-format on
static_assert(core_schema::CHUNKS_PER_FILE == 1048576);

// A role, repeating its step until its time is up: what it did, and its failures by kind (the
// first few of each are reported). The indexer, the daemon and the server keep the file open
// (the server opens it anew every 200 steps).
struct Role {
  Role(fs::path dir, int seconds)
      : dir(std::move(dir)), end(Clock::now() + std::chrono::seconds(seconds)) {
    queries.emplace_back("SELECT user_version FROM pragma_user_version");
    for (const auto& [table, build_of, per_50_files] : TABLES) {  // the build it holds whole
      const std::string build = fmt::format(fmt::runtime(build_of), files);
      queries.push_back(
          fmt::format("SELECT CASE WHEN COUNT(*) = {0} AND MIN({1}) = MAX({1}) THEN MIN({1}) ELSE "
                      "-1 END FROM {2}",
                      per_50_files * files / 50, build, table));
    }
  }

  // Its count of operations and largest size go to `result`; exit status 0 when it did work and
  // nothing failed but writes that waited out the busy timeout. A role that hangs is ended.
  int run(const std::string& name, std::int64_t* result) {
    ::alarm(std::chrono::duration_cast<std::chrono::seconds>(end - Clock::now()).count() + 180);
    for (int step = 0; Clock::now() < end; ++step) {
      const bool opens = name == "server" ? step % 200 == 0 : step == 0 && name != "cli";
      if (opens && !open()) break;
      if (name == "indexer") indexer();
      if (name == "daemon") daemon();
      if (name == "server") server();
      if (name == "cli") cli(step);
    }
    fmt::print(stderr, "{:<8} {:>8} ops, largest {:.2f} MiB, failures {}\n", name, ops,
               static_cast<double>(largest) / 1048576.0, failures);
    result[0] = ops;
    result[1] = largest;
    failures.erase("write");
    return ops > 0 && failures.empty() ? 0 : 1;
  }

  void fail(const std::string& kind, const std::string& text) {
    if (++failures[kind] <= 3) fmt::print(stderr, "{}: {}\n", kind, text);
  }
  // Runs `body`; a failure counts as `kind`, or as "early write" when a write gave up before
  // the busy timeout ran out.
  bool timed(const std::string& kind, const auto& body) {
    const Clock::time_point began = Clock::now();
    try {
      body();
      return true;
    } catch (const std::exception& e) {
      const double ms = std::chrono::duration<double, std::milli>(Clock::now() - began).count();
      fail(kind == "write" && ms < BUSY_TIMEOUT_MS ? "early write" : kind,
           fmt::format("after {:.0f} ms: {}", ms, e.what()));
      return false;
    }
  }

  // Opens the file (again) until that works; false when the time ran out first.
  bool open() {
    db.emplace(dir / "index.db");
    while (Clock::now() < end)
      if (timed("open", [&] { testing::open_fully(*db); })) return true;
    return false;
  }

  // Builds the next index in a staging file beside the live one and swaps it in: build g holds
  // the files from g * files + 1 on.
  void indexer() {
    const fs::path staging = dir / "staging" / "index.db";
    fs::remove_all(staging.parent_path());
    fs::create_directory(staging.parent_path());
    std::int64_t next = 0;
    if (!timed("read", [&] { next = db->index_generation() + 1; }) || !timed("build", [&] {
          Database build(staging);
          testing::open_fully(build);
          build.transaction([&](sqlite::Cursor& cursor) {
            testing::fill_index(cursor, std::to_string(next), next * files + 1, files);
          });
        })) {
      return;
    }
    largest = std::max(largest, static_cast<std::int64_t>(fs::file_size(staging)));
    if (timed("write", [&] { db->swap_index_from(staging); })) ++ops;
  }

  // Small transactions into a table that swaps leave alone; every other one reads first and
  // must see every row committed before it. Between them, the log's size against the file's.
  void daemon() {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::error_code no_wal, no_db;
    const auto wal = static_cast<std::int64_t>(fs::file_size(dir / "index.db-wal", no_wal));
    const auto file = static_cast<std::int64_t>(fs::file_size(dir / "index.db", no_db));
    if (!no_wal && !no_db) largest = std::max(largest, wal - file);
    const std::int64_t seq = ops + 1;
    std::int64_t seen = ops;
    const bool wrote = timed("write", [&] {
      db->transaction([&](sqlite::Cursor& cursor) {
        cursor.execute("CREATE TABLE IF NOT EXISTS memories (seq INTEGER PRIMARY KEY, note)");
        if (seq % 2 == 0) {
          seen = (*cursor.execute("SELECT COUNT(*) FROM memories").fetchone())[0].as_int();
          cursor.execute("UPDATE memories SET note = note || '.' WHERE seq = ?", {seq - 1});
        }
        cursor.execute("INSERT INTO memories (seq, note) VALUES (?, 'memory')", {seq});
      });
    });
    if (wrote && ++ops != seen + 1)
      fail("lost", fmt::format("{} rows before commit {}", seen, seq));
  }

  // Reads three ways: one statement, one at a time, one read transaction. Every table holds one
  // whole build: the generation's in one snapshot, and never an older one in the next.
  void server() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (const int way : {0, 1, 2}) {
      std::vector<std::int64_t> builds;
      const auto add = [&](const std::optional<sqlite::Row>& row) {
        for (const sqlite::Value& value : row.value().values()) builds.push_back(value.as_int());
        return 0;
      };
      const bool read = timed("read", [&] {
        if (way == 0) add(db->fetchone(fmt::format("SELECT ({})", fmt::join(queries, "), ("))));
        if (way == 1)
          for (const std::string& sql : queries) add(db->fetchone(sql));
        if (way == 2)
          db->read([&](sqlite::Cursor& cursor) {
            for (const std::string& sql : queries) add(cursor.execute(sql).fetchone());
            return 0;
          });
      });
      if (read && (builds.size() != queries.size() || std::ranges::min(builds) < 1 ||
                   (way == 1 ? !std::ranges::is_sorted(builds)
                             : std::ranges::count(builds, builds[0]) != std::ssize(builds)))) {
        fail("torn", fmt::format("way {}: generation and builds {}", way, builds));
      }
    }
    ++ops;
  }

  // quilma-db read commands in turn; each must exit 0 and print a whole index.
  void cli(int step) {
    const std::string command = std::array{"stats", "generation", "search", "errors"}[step % 4];
    std::string line = fmt::format("{} --db {} --json {}", QUILMA_DB_EXECUTABLE,
                                   (dir / "index.db").string(), command);
    if (command == "search") line += " -l --all --as-indexed helper";
    FILE* child = ::popen(line.c_str(), "r");
    std::string printed;
    for (int c = 0; (c = std::fgetc(child)) != EOF;) printed += static_cast<char>(c);
    if (const int status = ::pclose(child); status != 0)
      return fail("command", fmt::format("{}: wait status {}", command, status));
    ++ops;
    const auto out = nlohmann::json::parse(printed, nullptr, false);  // but search's: by lines
    const bool whole = command == "stats"        ? out.value("files", -1) == files
                       : command == "generation" ? out.value("generation", 0) >= last_generation
                       : command == "search"     ? std::ranges::count(printed, '\n') == files &&
                                                   printed.starts_with(R"({"path":)")
                                             : out.is_array() && out.size() == files / 10u;
    if (command == "generation") last_generation = out.value("generation", 0);
    if (!whole) fail("torn", command + " printed " + printed.substr(0, 200));
  }

  const fs::path dir;
  const Clock::time_point end;
  const int files = files_per_build();
  std::vector<std::string> queries;  // the generation, then each index table's build, or -1
  std::optional<Database> db;
  int ops = 0;
  std::int64_t largest = 0;  // the indexer's transaction, the daemon's log excess: bytes
  std::map<std::string, int> failures;
  std::int64_t last_generation = 0;
};

TEST(StressRun, ServiceProcessesShareOneIndexFile) {
  const int seconds = env_int("QUILMA_STRESS_SECONDS", 60);
  const testing::TempDir dir;
  {
    Role seed(dir.path(), seconds);
    ASSERT_TRUE(seed.open());
    seed.indexer();
    ASSERT_EQ(seed.ops, 1);
  }
  // Each role's count of operations and largest size, as its process leaves them.
  auto* results = static_cast<std::int64_t*>(
      ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  std::array<pid_t, ROLES.size()> pids{};
  for (std::size_t i = 0; i < ROLES.size(); ++i) {
    if ((pids[i] = ::fork()) == 0)
      std::_Exit(Role(dir.path(), seconds).run(ROLES[i], results + 2 * i));
    ASSERT_GT(pids[i], 0);
  }
  for (std::size_t i = 0; i < ROLES.size(); ++i) {
    int status = -1;
    ::waitpid(pids[i], &status, 0);
    EXPECT_EQ(status, 0) << ROLES[i] << " did nothing, failed (see above) or crashed";
  }
  Database db(dir / "index.db");
  testing::open_fully(db);
  EXPECT_TRUE(db.check_integrity());
  // Every commit the daemon counted is there: its rows are exactly 1 up to that count.
  EXPECT_EQ(testing::number(db, "SELECT COUNT(*) FROM memories"), results[2]);
  EXPECT_EQ(testing::number(db, "SELECT COALESCE(MAX(seq), 0) FROM memories"), results[2]);
  // Between the checkpoints that empty it, the log holds at most the largest transaction and
  // what small ones add before SQLite's automatic checkpoint (1000 pages) starts it over.
  EXPECT_LE(results[3], results[1] + 1000 * static_cast<std::int64_t>(storage_size::PAGE_SIZE));
  ::munmap(results, 4096);
}

}  // namespace
}  // namespace quilma::storage
