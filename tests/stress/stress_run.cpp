// The service's processes on one index file at once, for QUILMA_STRESS_SECONDS (60 by default):
// an indexer swapping in staging builds of QUILMA_STRESS_FILES files (200, in whole fifties), a
// daemon committing small transactions into a table of its own, three servers reading without a
// pause, and short quilma-db read commands. Before them, for a quarter of that time, the
// indexer and the daemon beside processes that only spin: the swaps' pace without readers. Each
// role is a process forked from the test: it reports its failures on its standard error, and exits
// 0 when it did work and nothing failed. The test then checks the daemon's rows, the log's largest
// size against the file's, the swaps' median against the one without readers, and the file.
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
// The run with readers, and the one without: there four processes take as much of the
// processors as the readers do, so that only what the readers do to the file tells them apart.
constexpr std::array ROLES{"indexer", "daemon", "server", "server", "server", "cli"};
constexpr std::array QUIET_ROLES{"indexer", "daemon", "spinner", "spinner", "spinner", "spinner"};
constexpr std::int64_t MIB = 1048576;
// What the roles leave in shared memory: per role its count of operations, its largest log and
// its longest write (ms), then the indexer's swap latencies (ms).
constexpr std::size_t SLOTS = 3;
constexpr std::size_t MAX_SWAPS = 2000;

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
  int run(const std::string& name, std::int64_t* result, std::int64_t* swaps) {
    swap_ms = swaps;
    ::alarm(std::chrono::duration_cast<std::chrono::seconds>(end - Clock::now()).count() + 180);
    for (int step = 0; Clock::now() < end; ++step) {
      const bool opens = name == "server" ? step % 200 == 0 : step == 0 && name != "cli";
      if (name != "cli" && name != "spinner") sample_log();
      if (opens && !open()) break;
      if (name == "indexer") indexer();
      if (name == "daemon") daemon();
      if (name == "server") server();
      if (name == "cli") cli(step);
      if (name == "spinner") ops += spin();
    }
    fmt::print(stderr,
               "{:<8} {:>8} ops, log at most {:.2f} MiB, longest write {} ms, failures {}\n", name,
               ops, static_cast<double>(largest_log) / MIB, longest_write, failures);
    result[0] = ops;
    result[1] = largest_log;
    result[2] = longest_write;
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
      if (kind == "write") {
        longest_write = std::max(
            longest_write,
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began).count());
      }
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
      if (timed("open", [&] {
            testing::open_fully(*db);
            base = testing::number(*db, "SELECT COALESCE(MAX(seq), 0) FROM memories");
          }))
        return true;
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
    const Clock::time_point began = Clock::now();
    if (!timed("write", [&] { db->swap_index_from(staging); })) return;
    if (swap_ms != nullptr && ops < static_cast<int>(MAX_SWAPS)) {
      swap_ms[ops] =
          std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began).count();
    }
    ++ops;
  }

  // Processor time, and nothing else.
  static int spin() {
    volatile std::uint64_t sum = 0;
    for (std::uint64_t i = 0; i < 1000000; ++i) sum = sum + i * i;
    return 1;
  }

  // The log's size now; one past max(64 MiB, twice the file's) is a failure.
  void sample_log() {
    std::error_code no_wal, no_db;
    const auto wal = static_cast<std::int64_t>(fs::file_size(dir / "index.db-wal", no_wal));
    const auto file = static_cast<std::int64_t>(fs::file_size(dir / "index.db", no_db));
    if (no_wal || no_db) return;
    largest_log = std::max(largest_log, wal);
    if (wal > std::max(64 * MIB, 2 * file))
      fail("log", fmt::format("{} bytes beside a file of {}", wal, file));
  }

  // Small transactions into a table that swaps leave alone; every other one reads first and
  // must see every row committed before it. Between them, the log's size against the file's.
  void daemon() {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const std::int64_t seq = base + ops + 1;
    std::int64_t seen = base + ops;
    const bool wrote = timed("write", [&] {
      db->transaction([&](sqlite::Cursor& cursor) {
        if (seq % 2 == 0) {
          seen = (*cursor.execute("SELECT COUNT(*) FROM memories").fetchone())[0].as_int();
          cursor.execute("UPDATE memories SET note = note || '.' WHERE seq = ?", {seq - 1});
        }
        cursor.execute("INSERT INTO memories (seq, note) VALUES (?, 'memory')", {seq});
      });
    });
    if (wrote && base + ++ops != seen + 1)
      fail("lost", fmt::format("{} rows before commit {}", seen, seq));
  }

  // Reads three ways: one statement, one at a time, one read transaction. Every table holds one
  // whole build: the generation's in one snapshot, and never an older one in the next.
  void server() {
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
  std::int64_t largest_log = 0;    // bytes
  std::int64_t longest_write = 0;  // ms
  std::int64_t* swap_ms = nullptr;
  std::int64_t base = 0;  // rows of the daemon's table when it opened the file
  std::map<std::string, int> failures;
  std::int64_t last_generation = 0;
};

// The median of the first `count` latencies at `ms`.
std::int64_t median(std::int64_t* ms, std::int64_t count) {
  std::vector<std::int64_t> sorted(ms, ms + std::min<std::int64_t>(count, MAX_SWAPS));
  std::ranges::sort(sorted);
  return sorted.empty() ? 0 : sorted[sorted.size() / 2];
}

TEST(StressRun, ServiceProcessesShareOneIndexFile) {
  const int seconds = env_int("QUILMA_STRESS_SECONDS", 60);
  const testing::TempDir dir;
  {
    Role seed(dir.path(), seconds);
    seed.db.emplace(dir / "index.db");
    testing::open_fully(*seed.db);
    seed.db->execute("CREATE TABLE memories (seq INTEGER PRIMARY KEY, note)");
    ASSERT_TRUE(seed.open());
    seed.indexer();
    ASSERT_EQ(seed.ops, 1);
  }
  constexpr std::size_t BYTES = (ROLES.size() * SLOTS + MAX_SWAPS) * sizeof(std::int64_t);
  std::array<std::int64_t, 2> medians{};
  auto* results = static_cast<std::int64_t*>(
      ::mmap(nullptr, BYTES, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  // Without readers, then with them: the roles' results and the swaps' latencies.
  for (const bool quiet : {true, false}) {
    const auto& roles = quiet ? QUIET_ROLES : ROLES;
    std::int64_t* swaps = results + ROLES.size() * SLOTS;
    const int time = quiet ? std::max(5, seconds / 4) : seconds;
    std::array<pid_t, ROLES.size()> pids{};
    for (std::size_t i = 0; i < roles.size(); ++i) {
      if ((pids[i] = ::fork()) == 0)
        std::_Exit(Role(dir.path(), time).run(roles[i], results + SLOTS * i, swaps));
      ASSERT_GT(pids[i], 0);
    }
    for (std::size_t i = 0; i < roles.size(); ++i) {
      int status = -1;
      ::waitpid(pids[i], &status, 0);
      EXPECT_EQ(status, 0) << roles[i] << " did nothing, failed (see above) or crashed";
    }
    medians[quiet ? 0 : 1] = median(swaps, results[0]);
    fmt::print(stderr, "{} swaps, median {} ms\n", results[0], medians[quiet ? 0 : 1]);
  }
  // Readers that never pause cost the swap no wait for them.
  EXPECT_LE(medians[1], 2 * medians[0]) << "swap medians without and with readers, ms";
  Database db(dir / "index.db");
  testing::open_fully(db);
  EXPECT_TRUE(db.check_integrity());
  // Every commit the daemon counted (in the second run) is there: its rows are exactly 1 up to
  // that count, after those of the first.
  EXPECT_EQ(testing::number(db, "SELECT COUNT(*) FROM memories"),
            testing::number(db, "SELECT COALESCE(MAX(seq), 0) FROM memories"));
  EXPECT_GE(testing::number(db, "SELECT COUNT(*) FROM memories"), results[SLOTS]);
  ::munmap(results, BYTES);
}

}  // namespace
}  // namespace quilma::storage
