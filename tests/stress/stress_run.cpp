// The service's processes on one index file at once, for QUILMA_STRESS_SECONDS (60 by default):
// an indexer swapping in staging builds, a daemon committing small transactions into a table
// of its own, a server reading in loops, and short quilma-db read commands. Each role is this
// executable started again with "--stress-role"; each writes what it did and what failed to
// <dir>/<role>.json. The driver samples the log's size meanwhile, then checks the summaries
// and the daemon's ledger against the file.
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child_process.h"
#include "support/temp_dir.h"

#include "quilma/storage/core_schema.h"
#include "quilma/storage/database.h"
#include "quilma/storage/storage_size.h"

namespace quilma::storage {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

// A write that fails sooner than this gave up before the busy timeout (5 s) ran out.
constexpr double BUSY_TIMEOUT_MS = 5000;
// Operations this long are kept with their times, to tell what held the file during a late write.
constexpr double HOLD_MS = 100;
constexpr int CHUNK_LINES = 40;
constexpr std::string_view WORD = "quokka";  // in every chunk of every build
constexpr std::array ROLES{"indexer", "daemon", "server", "cli"};

int env_int(const char* name, int fallback) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here sets the environment
  const char* raw = std::getenv(name);
  return raw != nullptr && *raw != '\0' ? std::atoi(raw) : fallback;
}

int files_per_build() { return env_int("QUILMA_STRESS_FILES", 200); }

// Milliseconds since the epoch: the one clock that every process reads alike.
double wall_ms() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// What one role did and what failed, by kind; saved as JSON when the role ends.
class Tally {
 public:
  explicit Tally(const std::string& role) : out_{{"role", role}, {"failures", json::object()}} {}

  const json& summary() const { return out_; }
  void op() { out_["ops"] = out_.value("ops", 0) + 1; }
  void at_least(const char* key, std::int64_t value) {
    out_[key] = std::max(out_.value(key, value), value);
  }
  void fail(const std::string& kind, const std::string& text) {
    const int seen = out_["failures"].value(kind, 0) + 1;
    out_["failures"][kind] = seen;
    if (seen <= 5) out_["notes"].push_back(kind + ": " + text);  // the first few of each kind
  }
  // Runs `body`, which may hold the file's write lock or wait for it, and keeps its time. A
  // failure counts as `kind`, or as "early write" when a write gave up before the busy timeout.
  template <class Body>
  bool timed(const std::string& kind, const std::string& what, Body&& body) {
    const double start = wall_ms();
    const Clock::time_point began = Clock::now();
    std::string error;
    try {
      body();
    } catch (const std::exception& e) {
      error = e.what();
    }
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - began).count();
    out_["max_wait_ms"] = std::max(out_.value("max_wait_ms", 0.0), ms);
    if (ms >= HOLD_MS) out_["holds"].push_back({what, start, ms});
    if (ms >= BUSY_TIMEOUT_MS) out_["late"].push_back({what, start, ms, error});
    if (!error.empty()) {
      const bool early = kind == "write" && ms < BUSY_TIMEOUT_MS;
      fail(early ? "early write" : kind, fmt::format("{} after {:.0f} ms: {}", what, ms, error));
    }
    return error.empty();
  }

 private:
  json out_;
};

void open_fully(Database& db) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

// Opens `db` as the service does, again after each failure until `over`.
template <class Over>
bool open_until(Database& db, Tally& tally, Over over) {
  while (!over()) {
    if (tally.timed("open", "open", [&] { open_fully(db); })) return true;
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
  const std::string text_tag = std::to_string(tag);
  std::vector<sqlite::Params> file_rows, symbol_rows, edge_rows, import_rows, chunk_rows;
  for (int f = 1; f <= files; ++f) {
    const std::string name = "m" + std::to_string(f);
    file_rows.push_back({f, "src/" + name + ".py", text_tag});
    symbol_rows.push_back({2 * f - 1, f, name + ".py", "file", text_tag});
    symbol_rows.push_back({2 * f, f, "fn_" + name, "function", text_tag});
    edge_rows.push_back({2 * f - 1, 2 * f, tag});
    import_rows.push_back({f, text_tag});
    std::string text;
    for (int line = 1; line <= CHUNK_LINES; ++line) {
      text += fmt::format("def fn_{}_{}({}): return {}\n", f, line, WORD, line * f);
    }
    chunk_rows.push_back({core_schema::chunk_rowid(f, 0), text, CHUNK_LINES, text_tag});
  }
  cursor.execute("INSERT INTO components (id, name) VALUES (1, ?)", {text_tag});
  cursor.executemany(
      "INSERT INTO files (id, path, language, hash, component_id) VALUES (?, ?, 'python', ?, 1)",
      file_rows);
  cursor.executemany(
      "INSERT INTO symbols (id, file_id, name, kind, qualified_name) VALUES (?, ?, ?, ?, ?)",
      symbol_rows);
  cursor.executemany(
      "INSERT INTO edges (source_id, target_id, kind, line) VALUES (?, ?, 'contains', ?)",
      edge_rows);
  cursor.executemany("INSERT INTO external_imports (file_id, module) VALUES (?, ?)", import_rows);
  cursor.execute(
      "INSERT INTO index_errors (file_path, error_type, message) "
      "VALUES ('src/broken.py', 'partial_parse', ?)",
      {text_tag});
  cursor.executemany(
      "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, 1, ?, ?)",
      chunk_rows);
}

// Builds the next index in a staging file beside the live one and swaps it in.
void build_and_swap(Database& live, const fs::path& dir, Tally& tally) {
  std::int64_t generation = 0;
  if (!tally.timed("read", "generation", [&] { generation = live.index_generation(); })) return;
  const fs::path staging = dir / "staging.db";
  const auto remove_staging = [&] {
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(staging.string() + suffix);
  };
  remove_staging();
  const bool built = tally.timed("build", "build", [&] {
    Database build(staging);
    open_fully(build);
    build.transaction(
        [&](sqlite::Cursor& cursor) { fill_build(cursor, generation + 1, files_per_build()); });
  });
  if (!built) return;
  tally.at_least("largest_tx_bytes", static_cast<std::int64_t>(fs::file_size(staging)));
  if (tally.timed("write", "swap", [&] { live.swap_index_from(staging); })) tally.op();
  remove_staging();
}

// The queries that show which build a reader sees: [name, rows, lowest tag, highest tag],
// the generation first.
std::vector<std::string> tag_queries() {
  std::vector<std::string> queries{
      "SELECT 'generation', 1, user_version, user_version FROM pragma_user_version"};
  for (const Tagged& tagged : TAGGED) {
    queries.push_back(fmt::format("SELECT '{0}', COUNT(*), MIN({1}), MAX({1}) FROM {0}",
                                  tagged.table, tagged.column));
  }
  return queries;
}

using Rows = std::vector<sqlite::Row>;

// What is wrong with the rows of tag_queries(): a table that holds other than one whole build,
// or builds that differ within one snapshot (or go back across snapshots taken in turn).
std::string fault_in(const Rows& rows, int files, bool one_snapshot) {
  if (rows.size() != TAGGED.size() + 1) return fmt::format("{} rows", rows.size());
  std::int64_t last = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const sqlite::Row& row = rows[i];
    const std::int64_t rows_expected =
        i == 0 ? 1 : TAGGED[i - 1].per_file * files + TAGGED[i - 1].fixed;
    const std::string low = row[2].is_null() ? "-" : row[2].as_text();
    const std::string high = row[3].is_null() ? "-" : row[3].as_text();
    if (row[1].as_int() != rows_expected || low != high || low == "-") {
      return fmt::format("{} holds {} rows tagged {}..{}", row[0].as_text(), row[1].as_int(), low,
                         high);
    }
    const std::int64_t tag = std::stoll(low);
    if (i > 0 && (one_snapshot ? tag != last : tag < last)) {
      return fmt::format("{} tagged {} after {}", row[0].as_text(), tag, last);
    }
    last = tag;
  }
  return {};
}

template <class Fetch>
void check_reads(Tally& tally, int files, bool one_snapshot, Fetch&& fetch) {
  Rows rows;
  try {
    rows = fetch();
  } catch (const std::exception& e) {
    tally.fail("read", e.what());
    return;
  }
  if (const std::string fault = fault_in(rows, files, one_snapshot); !fault.empty()) {
    tally.fail("torn", fault);
  }
}

template <class Over>
void index_loop(const fs::path& dir, Tally& tally, Over over) {
  Database live(dir / "index.db");
  if (!open_until(live, tally, over)) return;
  while (!over()) build_and_swap(live, dir, tally);
}

// Small transactions into a table that swaps leave alone; every other one reads first. Each
// committed sequence number goes to the ledger.
template <class Over>
void daemon_loop(const fs::path& dir, Tally& tally, Over over) {
  Database db(dir / "index.db");
  if (!open_until(db, tally, over)) return;
  constexpr std::string_view DDL =
      "CREATE TABLE IF NOT EXISTS memories (seq INTEGER PRIMARY KEY, note TEXT NOT NULL)";
  while (!over() && !tally.timed("write", "create table", [&] { db.execute(DDL); })) {
  }
  std::ofstream ledger(dir / "ledger");
  for (std::int64_t seq = 1; !over(); std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
    const bool read_first = seq % 2 == 0;
    std::int64_t seen = seq - 1;
    const bool committed = tally.timed("write", read_first ? "read, then write" : "write", [&] {
      db.transaction([&](sqlite::Cursor& cursor) {
        if (read_first) {
          seen = (*cursor.execute("SELECT COUNT(*) FROM memories").fetchone())[0].as_int();
          cursor.execute("UPDATE memories SET note = note || '.' WHERE seq = ?", {seq - 1});
        }
        cursor.execute("INSERT INTO memories (seq, note) VALUES (?, 'memory')", {seq});
      });
    });
    if (!committed) continue;
    ledger << seq << '\n' << std::flush;
    tally.op();
    if (seen != seq - 1)
      tally.fail("lost", fmt::format("{} rows seen after {} commits", seen, seq - 1));
    ++seq;
  }
}

// Reads in loops, three ways, and closes and reopens the Database now and then.
template <class Over>
void server_loop(const fs::path& dir, Tally& tally, Over over) {
  const int files = files_per_build();
  const std::vector<std::string> queries = tag_queries();
  std::string all;
  for (const std::string& query : queries) all += (all.empty() ? "" : " UNION ALL ") + query;
  const auto one_by_one = [&](auto&& fetchone) {
    Rows rows;
    for (const std::string& query : queries) rows.push_back(fetchone(query).value());
    return rows;
  };
  std::optional<Database> db;
  for (int i = 0; !over(); ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
    if (i % 200 == 0) {
      db.reset();
      db.emplace(dir / "index.db");
      if (!open_until(*db, tally, over)) return;
    }
    tally.op();
    check_reads(tally, files, true, [&] { return db->fetchall(all); });
    check_reads(tally, files, false, [&] {
      return one_by_one([&](const std::string& query) { return db->fetchone(query); });
    });
    check_reads(tally, files, true, [&] {
      return db->read([&](sqlite::Cursor& cursor) {
        return one_by_one(
            [&](const std::string& query) { return cursor.execute(query).fetchone(); });
      });
    });
  }
}

// Runs `args` as a new process, its output to `out` and `err` when given.
pid_t spawn(const std::vector<std::string>& args, const fs::path& out = {},
            const fs::path& err = {}) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!out.empty()) {
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  }
  try {
    const pid_t pid = testing::spawn(args, &actions);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  } catch (...) {
    posix_spawn_file_actions_destroy(&actions);
    throw;
  }
}

// The exit status, or 128 + the signal that ended the process.
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
  const int files = files_per_build();
  const std::array<std::vector<std::string>, 4> commands{
      {{"stats"}, {"generation"}, {"search", std::string(WORD)}, {"errors"}}};
  std::int64_t last_generation = 0;
  for (std::size_t i = 0; !over(); ++i) {
    const std::vector<std::string>& command = commands[i % commands.size()];
    std::vector<std::string> args{QUILMA_DB_EXECUTABLE, "--db", (dir / "index.db").string(),
                                  "--json"};
    args.insert(args.end(), command.begin(), command.end());
    const bool ran = tally.timed("command", command[0], [&] {
      if (const int status = wait_for(spawn(args, dir / "cli.out", dir / "cli.err")); status != 0) {
        throw std::runtime_error(fmt::format("exit {}: {}", status, slurp(dir / "cli.err")));
      }
    });
    if (!ran) continue;
    tally.op();
    // search prints one object per line: its first line is enough.
    std::string printed = slurp(dir / "cli.out");
    if (command[0] == "search") printed.resize(std::min(printed.find('\n'), printed.size()));
    const json out = json::parse(printed, nullptr, false);
    const bool whole = command[0] == "stats"        ? out.value("files", -1) == files
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
  Tally tally(role);
  try {
    if (role == "indexer") index_loop(dir, tally, over);
    if (role == "daemon") daemon_loop(dir, tally, over);
    if (role == "server") server_loop(dir, tally, over);
    if (role == "cli") cli_loop(dir, tally, over);
  } catch (const std::exception& e) {
    tally.fail("crash", e.what());
  }
  std::ofstream(dir / (role + ".json")) << tally.summary().dump();
  return 0;
}

TEST(StressRun, ServiceProcessesShareOneIndexFile) {
  const int seconds = env_int("QUILMA_STRESS_SECONDS", 60);
  testing::TempDir dir;
  const fs::path db_path = dir / "index.db";
  {
    Database live(db_path);
    open_fully(live);
    Tally seed("seed");
    build_and_swap(live, dir.path(), seed);
    ASSERT_EQ(seed.summary().value("ops", 0), 1) << seed.summary().dump();
  }

  const std::string self = fs::read_symlink("/proc/self/exe").string();
  const double started = wall_ms();
  std::vector<std::pair<pid_t, int>> children;  // pid, exit status (-1: running)
  children.reserve(ROLES.size());
  for (const char* role : ROLES) {
    children.emplace_back(
        spawn({self, "--stress-role", role, dir.path().string(), std::to_string(seconds)}), -1);
  }
  // The log's size against the file's, sampled until every role has ended.
  std::int64_t max_wal = 0, db_at_max = 0, max_excess = INT64_MIN;
  const Clock::time_point give_up = Clock::now() + std::chrono::seconds(seconds + 180);
  for (std::size_t running = children.size(); running > 0;) {
    std::error_code no_wal, no_db;
    const auto wal = static_cast<std::int64_t>(fs::file_size(db_path.string() + "-wal", no_wal));
    const auto db = static_cast<std::int64_t>(fs::file_size(db_path, no_db));
    if (!no_wal && !no_db) {
      if (wal > max_wal) std::tie(max_wal, db_at_max) = std::pair(wal, db);
      max_excess = std::max(max_excess, wal - db);
    }
    for (auto& [pid, status] : children) {
      if (status >= 0) continue;
      int raw = 0;
      if (waitpid(pid, &raw, WNOHANG) == pid) {
        status = exit_status(raw);
      } else if (Clock::now() > give_up) {
        kill(pid, SIGKILL);
        status = wait_for(pid);
      }
      if (status >= 0) --running;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }

  std::vector<json> tallies;
  for (std::size_t i = 0; i < ROLES.size(); ++i) {
    EXPECT_EQ(children[i].second, 0) << ROLES[i] << " ended badly";
    const std::string text = slurp(dir / (std::string(ROLES[i]) + ".json"));
    tallies.push_back(json::parse(text.empty() ? "{}" : text));
    EXPECT_GT(tallies.back().value("ops", 0), 0) << ROLES[i] << " did nothing";
  }
  std::set<std::int64_t> stored;
  {
    Database db(db_path);
    open_fully(db);
    for (const sqlite::Row& row : db.fetchall("SELECT seq FROM memories"))
      stored.insert(row[0].as_int());
  }
  std::int64_t ledgered = 0, lost = 0;
  std::ifstream ledger(dir / "ledger");
  for (std::int64_t seq = 0; ledger >> seq; ++ledgered) lost += stored.count(seq) == 0 ? 1 : 0;

  const std::int64_t largest_tx = tallies[0].value("largest_tx_bytes", 0);
  // What the other roles held during [from, to], longest first.
  const auto held = [&](std::size_t role, double from, double to) {
    std::vector<std::pair<double, std::string>> holds;
    for (std::size_t i = 0; i < tallies.size(); ++i) {
      for (const json& hold : tallies[i].value("holds", json::array())) {
        const double start = hold[1], ms = hold[2];
        if (i == role || start >= to || start + ms <= from) continue;
        holds.emplace_back(
            ms, fmt::format("; {} {} {:.0f} ms", ROLES[i], hold[0].get<std::string>(), ms));
      }
    }
    std::sort(holds.rbegin(), holds.rend());
    std::string text;
    for (std::size_t h = 0; h < holds.size() && h < 3; ++h) text += holds[h].second;
    return text;
  };
  fmt::print("\n{:<8} {:>8} {:>12} {:>5}  {}\n", "role", "ops", "max wait ms", "late", "failures");
  for (std::size_t i = 0; i < ROLES.size(); ++i) {
    fmt::print("{:<8} {:>8} {:>12.0f} {:>5}  {}\n", ROLES[i], tallies[i].value("ops", 0),
               tallies[i].value("max_wait_ms", 0.0), tallies[i].value("late", json::array()).size(),
               tallies[i].value("failures", json::object()).dump());
  }
  fmt::print("ledger: {} commits, {} lost\n", ledgered, lost);
  fmt::print("log: -wal at most {:.2f} MiB, file then {:.2f} MiB; largest transaction {:.2f} MiB\n",
             static_cast<double>(max_wal) / 1048576.0, static_cast<double>(db_at_max) / 1048576.0,
             static_cast<double>(largest_tx) / 1048576.0);
  for (std::size_t i = 0; i < ROLES.size(); ++i) {
    for (const json& note : tallies[i].value("notes", json::array())) {
      fmt::print("  {}: {}\n", ROLES[i], note.get<std::string>());
    }
    for (const json& late : tallies[i].value("late", json::array())) {
      const double from = late[1], ms = late[2];
      fmt::print("  late: {} {} at +{:.1f} s took {:.0f} ms ({}){}\n", ROLES[i],
                 late[0].get<std::string>(), (from - started) / 1000, ms,
                 late[3].get<std::string>().empty() ? "done" : late[3].get<std::string>(),
                 held(i, from, from + ms));
    }
  }

  for (std::size_t i = 0; i < ROLES.size(); ++i) {
    json failures = tallies[i].value("failures", json::object());
    failures.erase("write");  // gave up after the busy timeout: counted and reported above
    EXPECT_TRUE(failures.empty()) << ROLES[i] << ": " << failures.dump();
  }
  EXPECT_EQ(lost, 0) << "of " << ledgered << " committed rows";
  EXPECT_EQ(stored.size(), static_cast<std::size_t>(ledgered));
  // Between the checkpoints that empty it, the log holds at most the largest transaction and
  // what small ones add before SQLite's automatic checkpoint (1000 pages) starts it over.
  const std::int64_t checkpoint_bytes = 1000 * static_cast<std::int64_t>(storage_size::PAGE_SIZE);
  EXPECT_LE(max_excess, largest_tx + checkpoint_bytes)
      << "-wal " << max_wal << " bytes with the file at " << db_at_max << " bytes";
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
