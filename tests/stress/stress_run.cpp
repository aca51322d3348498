// The service's processes on one index file at once, for QUILMA_STRESS_SECONDS (60 by default):
// an indexer swapping in staging builds of QUILMA_STRESS_FILES files (200), a daemon committing
// small transactions into a table of its own, a server reading in loops, and short quilma-db
// read commands. Each role is this executable started again with "--stress-role" and writes
// what it did and what failed to <dir>/<role>.json. The driver samples the log's size
// meanwhile, then checks the summaries and the daemon's ledger against the file.
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include "support/child_process.h"
#include "support/index_builder.h"
#include "support/temp_dir.h"

#include "quilma/storage/database.h"
#include "quilma/storage/storage_size.h"

namespace quilma::storage {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using Clock = std::chrono::steady_clock;
using Rows = std::vector<sqlite::Row>;

constexpr double BUSY_TIMEOUT_MS = 5000;  // a write that fails sooner gave up too early
constexpr int CHUNK_LINES = 40;
constexpr std::string_view WORD = "quokka";  // in every chunk of every build
constexpr std::array ROLES{"indexer", "daemon", "server", "cli"};

int env_int(const char* name, int fallback) {
  const char* raw = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing sets it
  return raw != nullptr && *raw != '\0' ? std::atoi(raw) : fallback;
}

int files_per_build() { return env_int("QUILMA_STRESS_FILES", 200); }

// What one role did and what failed, by kind, with the first few notes of each.
struct Tally {
  json out{{"ops", 0}, {"failures", json::object()}, {"notes", json::array()}};

  void fail(const std::string& kind, const std::string& text) {
    const int seen = out["failures"].value(kind, 0) + 1;
    out["failures"][kind] = seen;
    if (seen <= 3) out["notes"].push_back(kind + ": " + text);
  }
  // Runs `body`; a failure counts as `kind`, or as "early write" when a write gave up before
  // the busy timeout ran out.
  template <class Body>
  bool timed(const std::string& kind, Body&& body) {
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
};

template <class Over>
bool open_until(Database& db, Tally& tally, Over over) {
  while (!over()) {
    if (tally.timed("open", [&] { testing::open_fully(db); })) return true;
  }
  return false;
}

// A table of the index, the column that carries the build's tag in every row, and its rows
// per build: per_file for each file, plus fixed.
struct Tagged {
  std::string_view table, column;
  int per_file, fixed;
};
constexpr std::array TAGGED{
    Tagged{"components", "name", 0, 1},         Tagged{"files", "hash", 1, 0},
    Tagged{"symbols", "qualified_name", 2, 0},  Tagged{"edges", "line", 1, 0},
    Tagged{"external_imports", "module", 1, 0}, Tagged{"index_errors", "message", 0, 1},
    Tagged{"code_chunks", "exact", 1, 0}};

// One complete build whose every row carries `tag`: the generation it has once swapped in.
void fill_build(sqlite::Cursor& cursor, std::int64_t tag, int files) {
  const std::string text = std::to_string(tag);
  std::vector<sqlite::Params> file_rows, symbols, edges, imports, chunks;
  for (int f = 1; f <= files; ++f) {
    const std::string name = "m" + std::to_string(f);
    file_rows.push_back({f, "src/" + name + ".py", text});
    symbols.push_back({2 * f - 1, f, name + ".py", "file", text});
    symbols.push_back({2 * f, f, "fn_" + name, "function", text});
    edges.push_back({2 * f - 1, 2 * f, tag});
    imports.push_back({f, text});
    std::string chunk;
    for (int line = 1; line <= CHUNK_LINES; ++line) {
      chunk += fmt::format("def fn_{}_{}({}): return {}\n", f, line, WORD, line * f);
    }
    chunks.push_back({core_schema::chunk_rowid(f, 0), chunk, CHUNK_LINES, text});
  }
  cursor.execute("INSERT INTO components (id, name) VALUES (1, ?)", {text});
  cursor.executemany(
      "INSERT INTO files (id, path, language, hash, component_id) VALUES (?, ?, 'python', ?, 1)",
      file_rows);
  cursor.executemany(
      "INSERT INTO symbols (id, file_id, name, kind, qualified_name) VALUES (?, ?, ?, ?, ?)",
      symbols);
  cursor.executemany(
      "INSERT INTO edges (source_id, target_id, kind, line) VALUES (?, ?, 'contains', ?)", edges);
  cursor.executemany("INSERT INTO external_imports (file_id, module) VALUES (?, ?)", imports);
  cursor.execute(
      "INSERT INTO index_errors (file_path, error_type, message) "
      "VALUES ('src/broken.py', 'partial_parse', ?)",
      {text});
  cursor.executemany(
      "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, 1, ?, ?)",
      chunks);
}

// Builds the next index in a staging file beside the live one and swaps it in.
void build_and_swap(Database& live, const fs::path& dir, Tally& tally) {
  std::int64_t generation = 0;
  if (!tally.timed("read", [&] { generation = live.index_generation(); })) return;
  const fs::path staging = dir / "staging.db";
  const auto remove_staging = [&] {
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(staging.string() + suffix);
  };
  remove_staging();
  if (!tally.timed("build", [&] {
        Database build(staging);
        testing::open_fully(build);
        build.transaction(
            [&](sqlite::Cursor& cursor) { fill_build(cursor, generation + 1, files_per_build()); });
      })) {
    return;
  }
  const auto bytes = static_cast<std::int64_t>(fs::file_size(staging));
  tally.out["largest_tx_bytes"] = std::max(tally.out.value("largest_tx_bytes", bytes), bytes);
  if (tally.timed("write", [&] { live.swap_index_from(staging); }))
    tally.out["ops"] = tally.out["ops"].get<int>() + 1;
  remove_staging();
}

// What is wrong with the rows of [name, rows, lowest tag, highest tag] per tagged table, the
// generation first: a table that holds other than one whole build, or builds that differ within
// one snapshot (or go back across snapshots taken in turn).
std::string fault_in(const Rows& rows, int files, bool one_snapshot) {
  if (rows.size() != TAGGED.size() + 1) return fmt::format("{} rows", rows.size());
  std::int64_t last = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const sqlite::Row& row = rows[i];
    const std::int64_t expected = i == 0 ? 1 : TAGGED[i - 1].per_file * files + TAGGED[i - 1].fixed;
    const std::string low = row[2].is_null() ? "-" : row[2].as_text();
    if (row[1].as_int() != expected || low == "-" || row[3].is_null() || low != row[3].as_text()) {
      return fmt::format("{} holds {} rows tagged {}..", row[0].as_text(), row[1].as_int(), low);
    }
    const std::int64_t tag = std::stoll(low);
    if (i > 0 && (one_snapshot ? tag != last : tag < last)) {
      return fmt::format("{} tagged {} after {}", row[0].as_text(), tag, last);
    }
    last = tag;
  }
  return {};
}

// Small transactions into a table that swaps leave alone; every other one reads first. Each
// committed sequence number goes to the ledger.
template <class Over>
void daemon_loop(Database& db, const fs::path& dir, Tally& tally, Over over) {
  while (!over() && !tally.timed("write", [&] {
    db.execute("CREATE TABLE IF NOT EXISTS memories (seq INTEGER PRIMARY KEY, note TEXT)");
  })) {
  }
  std::ofstream ledger(dir / "ledger");
  for (std::int64_t seq = 1; !over(); std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
    std::int64_t seen = seq - 1;
    const bool committed = tally.timed("write", [&] {
      db.transaction([&](sqlite::Cursor& cursor) {
        if (seq % 2 == 0) {
          seen = (*cursor.execute("SELECT COUNT(*) FROM memories").fetchone())[0].as_int();
          cursor.execute("UPDATE memories SET note = note || '.' WHERE seq = ?", {seq - 1});
        }
        cursor.execute("INSERT INTO memories (seq, note) VALUES (?, 'memory')", {seq});
      });
    });
    if (!committed) continue;
    ledger << seq << '\n' << std::flush;
    tally.out["ops"] = tally.out["ops"].get<int>() + 1;
    if (seen != seq - 1) tally.fail("lost", fmt::format("{} rows after {} commits", seen, seq - 1));
    ++seq;
  }
}

// Reads in loops, three ways (one statement, one at a time, one read transaction), and opens
// the Database again now and then.
template <class Over>
void server_loop(const fs::path& dir, Tally& tally, Over over) {
  std::vector<std::string> queries{
      "SELECT 'generation', 1, user_version, user_version FROM pragma_user_version"};
  std::string all = queries[0];
  for (const Tagged& tagged : TAGGED) {
    queries.push_back(fmt::format("SELECT '{0}', COUNT(*), MIN({1}), MAX({1}) FROM {0}",
                                  tagged.table, tagged.column));
    all += " UNION ALL " + queries.back();
  }
  const auto check = [&](bool one_snapshot, const auto& fetch) {
    try {
      const std::string fault = fault_in(fetch(), files_per_build(), one_snapshot);
      if (!fault.empty()) tally.fail("torn", fault);
    } catch (const std::exception& e) {
      tally.fail("read", e.what());
    }
  };
  std::optional<Database> db;
  for (int i = 0; !over(); ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
    if (i % 200 == 0 && !open_until(db.emplace(dir / "index.db"), tally, over)) return;
    tally.out["ops"] = tally.out["ops"].get<int>() + 1;
    check(true, [&] { return db->fetchall(all); });
    check(false, [&] {
      Rows rows;
      for (const std::string& query : queries) rows.push_back(db->fetchone(query).value());
      return rows;
    });
    check(true, [&] {
      return db->read([&](sqlite::Cursor& cursor) {
        Rows rows;
        for (const std::string& query : queries)
          rows.push_back(cursor.execute(query).fetchone().value());
        return rows;
      });
    });
  }
}

// Runs `args` as a new process, its output to `out` and `err` when given; its exit status, or
// 128 plus the signal that ended it.
pid_t spawn(const std::vector<std::string>& args, const fs::path& out = {},
            const fs::path& err = {}) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!out.empty()) {
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  }
  const pid_t pid = testing::spawn(args, &actions);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

int exit_status(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int wait_for(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return exit_status(status);
}

// quilma-db read commands, one after another; each must exit 0 and see a whole index.
template <class Over>
void cli_loop(const fs::path& dir, Tally& tally, Over over) {
  const std::array<std::vector<std::string>, 4> commands{
      {{"stats"}, {"generation"}, {"search", std::string(WORD)}, {"errors"}}};
  std::int64_t last_generation = 0;
  for (std::size_t i = 0; !over(); ++i) {
    const std::vector<std::string>& command = commands[i % commands.size()];
    std::vector<std::string> args{QUILMA_DB_EXECUTABLE, "--db", (dir / "index.db").string(),
                                  "--json"};
    args.insert(args.end(), command.begin(), command.end());
    if (const int status = wait_for(spawn(args, dir / "cli.out", dir / "cli.err")); status != 0) {
      tally.fail("command", fmt::format("{} exit {}: {}", command[0], status,
                                        testing::bytes_of(dir / "cli.err")));
      continue;
    }
    tally.out["ops"] = tally.out["ops"].get<int>() + 1;
    // search prints one object per line: its first line is enough.
    std::string printed = testing::bytes_of(dir / "cli.out");
    if (command[0] == "search") printed.resize(std::min(printed.find('\n'), printed.size()));
    const json out = json::parse(printed, nullptr, false);
    const bool whole = command[0] == "stats"        ? out.value("files", -1) == files_per_build()
                       : command[0] == "generation" ? out.value("generation", 0) >= last_generation
                       : command[0] == "search"     ? out.is_object() && out.contains("path")
                                                    : out.is_array() && out.size() == 1;
    if (command[0] == "generation") last_generation = out.value("generation", 0);
    if (!whole) tally.fail("torn", command[0] + " printed " + out.dump());
  }
}

int run_role(const std::string& role, const fs::path& dir, int seconds) {
  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  const auto over = [end] { return Clock::now() >= end; };
  Tally tally;
  try {
    if (role == "server") server_loop(dir, tally, over);
    if (role == "cli") cli_loop(dir, tally, over);
    if (role == "indexer" || role == "daemon") {
      Database db(dir / "index.db");
      if (open_until(db, tally, over)) {
        if (role == "daemon") daemon_loop(db, dir, tally, over);
        while (role == "indexer" && !over()) build_and_swap(db, dir, tally);
      }
    }
  } catch (const std::exception& e) {
    tally.fail("crash", e.what());
  }
  std::ofstream(dir / (role + ".json")) << tally.out.dump();
  return 0;
}

TEST(StressRun, ServiceProcessesShareOneIndexFile) {
  const int seconds = env_int("QUILMA_STRESS_SECONDS", 60);
  testing::TempDir dir;
  const fs::path db_path = dir / "index.db";
  {
    Database live(db_path);
    testing::open_fully(live);
    Tally seed;
    build_and_swap(live, dir.path(), seed);
    ASSERT_EQ(seed.out["ops"], 1) << seed.out.dump();
  }
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  std::vector<std::pair<pid_t, int>> children;  // pid, exit status (-1: running)
  for (const char* role : ROLES) {
    children.emplace_back(
        spawn({self, "--stress-role", role, dir.path().string(), std::to_string(seconds)}), -1);
  }
  // The log's size against the file's, sampled until every role has ended.
  std::int64_t max_wal = 0, max_excess = INT64_MIN;
  const Clock::time_point give_up = Clock::now() + std::chrono::seconds(seconds + 180);
  for (std::size_t running = children.size(); running > 0;) {
    std::error_code no_wal, no_db;
    const auto wal = static_cast<std::int64_t>(fs::file_size(db_path.string() + "-wal", no_wal));
    const auto db = static_cast<std::int64_t>(fs::file_size(db_path, no_db));
    if (!no_wal && !no_db) {
      max_wal = std::max(max_wal, wal);
      max_excess = std::max(max_excess, wal - db);
    }
    for (auto& [pid, status] : children) {
      int raw = 0;
      if (status >= 0) continue;
      if (waitpid(pid, &raw, WNOHANG) == pid) {
        status = exit_status(raw);
      } else if (Clock::now() > give_up) {
        kill(pid, SIGKILL);
        status = wait_for(pid);
      }
      running -= status >= 0 ? 1 : 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }

  std::vector<json> tallies;
  for (std::size_t i = 0; i < ROLES.size(); ++i) {
    EXPECT_EQ(children[i].second, 0) << ROLES[i] << " ended badly";
    const std::string text = testing::bytes_of(dir / (std::string(ROLES[i]) + ".json"));
    tallies.push_back(json::parse(text.empty() ? "{}" : text));
    fmt::print("{:<8} {:>8} ops, failures {}, {}\n", ROLES[i], tallies[i].value("ops", 0),
               tallies[i].value("failures", json::object()).dump(),
               tallies[i].value("notes", json::array()).dump());
    EXPECT_GT(tallies[i].value("ops", 0), 0) << ROLES[i] << " did nothing";
    json failures = tallies[i].value("failures", json::object());
    failures.erase("write");  // gave up after the busy timeout: reported above
    EXPECT_TRUE(failures.empty()) << ROLES[i] << ": " << failures.dump();
  }
  std::set<std::int64_t> stored;
  {
    Database db(db_path);
    testing::open_fully(db);
    for (const sqlite::Row& row : db.fetchall("SELECT seq FROM memories"))
      stored.insert(row[0].as_int());
  }
  std::int64_t ledgered = 0, lost = 0;
  std::ifstream ledger(dir / "ledger");
  for (std::int64_t seq = 0; ledger >> seq; ++ledgered) lost += stored.count(seq) == 0 ? 1 : 0;
  const std::int64_t largest_tx = tallies[0].value("largest_tx_bytes", 0);
  fmt::print(
      "ledger: {} commits, {} lost; -wal at most {:.2f} MiB; largest transaction {:.2f} MiB\n",
      ledgered, lost, max_wal / 1048576.0, largest_tx / 1048576.0);
  EXPECT_EQ(lost, 0) << "of " << ledgered << " committed rows";
  EXPECT_EQ(stored.size(), static_cast<std::size_t>(ledgered));
  // Between the checkpoints that empty it, the log holds at most the largest transaction and
  // what small ones add before SQLite's automatic checkpoint (1000 pages) starts it over.
  EXPECT_LE(max_excess, largest_tx + 1000 * static_cast<std::int64_t>(storage_size::PAGE_SIZE));
}

}  // namespace
}  // namespace quilma::storage

int main(int argc, char** argv) {
  try {
    if (argc == 5 && std::string_view(argv[1]) == "--stress-role") {
      return quilma::storage::run_role(argv[2], argv[3], std::atoi(argv[4]));
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "stress run: %s\n", error.what());
    return 3;
  }
}
