// SIGKILL during the layer's long operations: this executable, started again as a child, runs
// one of them on a fresh copy of a prepared database and is killed at points spread over the
// operation's duration. Every time, the file must open, pass SQLite's integrity check, and hold
// exactly the index from before the operation or exactly the one after it. QUILMA_CRASH_POINTS
// sets the points per operation.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/index_builder.h"
#include "support/temp_dir.h"

#include "quilma/storage/database.h"
#include "quilma/storage/storage_size.h"

namespace quilma::storage {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Args = std::vector<std::string>;

// The child, `--crash-child OPERATION DATABASE [ARGUMENTS]`: opens the database as the service
// does, prints a line when the operation begins, and runs it. "open" times the open sequence
// itself, a page rewrite on a file of small pages. Exit status 3: a compaction released nothing.
int run_operation(const Args& args) {
  const std::string& operation = args.at(0);
  Database db(args.at(1));
  if (operation != "open") testing::open_fully(db);
  std::cout << "started" << std::endl;
  if (operation == "open") testing::open_fully(db);
  if (operation == "swap") db.swap_index_from(args.at(2));
  if (operation == "clear") db.clear_all();
  if (operation == "compact" && db.compact().pages_released == 0) return 3;
  if (operation == "insert") {
    db.transaction([&](sqlite::Cursor& cursor) {
      testing::fill_index(cursor, "added", std::stoll(args.at(2)), std::stoll(args.at(3)));
    });
  }
  db.close();
  return 0;
}

// Runs `args` (an operation of run_operation() unless a program's absolute path comes first),
// killed `kill_after` from its start when given: its exit status (128 plus the signal that
// ended it) and how long it ran. An operation is timed from the line it prints when it begins.
std::pair<int, Clock::duration> run(Args args, std::optional<Clock::duration> kill_after = {}) {
  const bool mine = !fs::path(args.at(0)).is_absolute();
  if (mine) args.insert(args.begin(), {fs::read_symlink("/proc/self/exe"), "--crash-child"});
  testing::ChildProcess child(args);
  if (mine) child.read_line();
  const Clock::time_point started = Clock::now();
  if (kill_after) {
    std::this_thread::sleep_until(started + *kill_after);
    child.kill(SIGKILL);  // an exited child stays a zombie until reaped: its pid is still ours
  }
  const int status = child.wait();
  return {status, Clock::now() - started};
}

// What a file holds, as far as the index goes: the file's form that an operation keeping the
// contents changes (read by `shape_sql` on a plain connection first, before the open sequence
// can change it), and the row count and checksum of each index table and the generation; or
// why the file failed to open or its integrity check.
std::pair<std::int64_t, std::string> inspect(const fs::path& path, const char* shape_sql) {
  std::pair<std::int64_t, std::string> state;
  try {
    if (shape_sql != nullptr)
      state.first = (*sqlite::Connection(path).cursor().execute(shape_sql).fetchone())[0].as_int();
    Database db(path);
    testing::open_fully(db);
    if (!db.check_integrity()) return {0, "unsound: the integrity check failed"};
    for (const std::string table : {"components", "files", "symbols", "edges", "external_imports",
                                    "index_errors", "code_chunks"}) {
      std::string text;
      const std::vector<sqlite::Row> rows = db.fetchall("SELECT rowid, * FROM " + table);
      for (const sqlite::Row& row : rows) {
        for (const sqlite::Value& value : row.values())
          text += value.is_null() ? "|" : value.as_text() + "|";
      }
      state.second +=
          fmt::format("{} {}:{}, ", table, rows.size(), std::hash<std::string>{}(text) % 1000000);
    }
    state.second += fmt::format("generation {}", db.index_generation());
  } catch (const std::exception& error) {
    return {0, std::string("unsound: ") + error.what()};
  }
  return state;
}

// An operation with its arguments (see run()), and the live file it starts from: `files` files
// tagged "old", made as the service makes them after `pragmas` ran on the empty file; `padding`
// bytes follow every 50 files and are deleted at the end, so that their free pages lie spread
// through the file. Without `migrate`, small pages stay.
struct Operation {
  std::string name;
  Args args;
  int files = 0;
  std::vector<std::string> pragmas{};
  int padding = 0;
  bool migrate = true;
  // For an operation that keeps the contents: the pragma telling the file before from after.
  const char* shape = nullptr;
  bool steps = false;  // commits in steps, each of which leaves a whole file between the two
};

void build(const fs::path& path, const std::string& tag, const Operation& op) {
  {
    sqlite::Connection raw(path);
    for (const std::string& pragma : op.pragmas) raw.cursor().execute(pragma);
    raw.cursor().execute("CREATE TABLE padding (data BLOB)");
  }
  Database db(path);
  db.connect();
  db.create_schema();
  if (op.migrate) db.migrate_schema();
  for (int first = 1; first <= op.files; first += 50) {
    db.transaction([&](sqlite::Cursor& cursor) {
      testing::fill_index(cursor, tag, first, std::min(50, op.files - first + 1));
      if (op.padding > 0) cursor.execute("INSERT INTO padding VALUES (zeroblob(?))", {op.padding});
    });
  }
  db.execute("DELETE FROM padding");
}

// A repository of Python files, "repo"; the next version drops some, adds others and changes a
// third.
void write_repo(int version) {
  fs::remove_all("repo");
  for (int f = version * 100; f < 1000 + version * 100; ++f) {
    const fs::path path = fmt::format("repo/pkg{}/m{}.py", f % 7, f);
    fs::create_directories(path.parent_path());
    std::ofstream out(path);
    for (int line = 0; line < 60; ++line)
      out << fmt::format("def fn_{}_{}_v{}(x):\n    return x + {}\n", f, line, f % 3 ? 0 : version,
                         line);
  }
}

const std::vector<Operation> OPERATIONS{
    {.name = "swap", .args = {"swap", "index.db", "staging.db"}, .files = 1500},
    {.name = "clear", .args = {"clear", "index.db"}, .files = 4000},
    {.name = "compact",
     .args = {"compact", "index.db"},
     .files = 1200,
     .padding = 1 << 20,
     .shape = "PRAGMA freelist_count",
     .steps = true},
    {.name = "convert",
     .args = {"compact", "index.db"},
     .files = 4000,
     .pragmas = {fmt::format("PRAGMA page_size={}", storage_size::PAGE_SIZE),
                 "PRAGMA auto_vacuum=NONE"},
     .padding = 1 << 20,
     .shape = "PRAGMA auto_vacuum"},
    {.name = "page_rewrite",
     .args = {"open", "index.db"},
     .files = 2000,
     .pragmas = {"PRAGMA page_size=1024", "PRAGMA auto_vacuum=INCREMENTAL"},
     .migrate = false,
     .shape = "PRAGMA page_size"},
    {.name = "transaction", .args = {"insert", "index.db", "501", "2000"}, .files = 500},
#ifdef QUILMA_DB
    {.name = "cli_index", .args = {QUILMA_DB, "--quiet", "--db", "index.db", "index", "../repo"}},
#endif
};

class CrashTest : public ::testing::TestWithParam<Operation> {
  const fs::path home_ = fs::current_path();
  void TearDown() override { fs::current_path(home_); }
};

TEST_P(CrashTest, AKilledRunLeavesTheOldOrTheNewIndexWhole) {
  const Operation& op = GetParam();
  const testing::TempDir dir;
  // Every run works in a fresh copy of "template": "run", its working directory and this one's.
  fs::current_path(dir.path());
  fs::create_directories("template");
  if (op.files > 0) build("template/index.db", "old", op);
  if (op.name == "swap")
    build("template/staging.db", "new", {.name = "staging", .args = {}, .files = 2000});
  if (op.name == "cli_index") {  // indexed once, then changed
    write_repo(0);
    fs::current_path("template");
    ASSERT_EQ(run(op.args).first, 0) << "the first index failed";
    fs::current_path(dir.path());
    write_repo(1);
  }
  const auto fresh_run = [&] {
    fs::current_path(dir.path());
    fs::remove_all("run");
    fs::copy("template", "run", fs::copy_options::recursive);
    fs::current_path("run");
    return op.args;
  };
  // Before: the template as it is. After: one run to its end, which also times the operation.
  fresh_run();
  const auto before = inspect("index.db", op.shape);
  const auto [status, whole] = run(fresh_run());
  const auto after = inspect("index.db", op.shape);
  ASSERT_EQ(status, 0);
  ASSERT_TRUE(op.shape != nullptr ? after.second == before.second && after.first != before.first
                                  : after.second != before.second)
      << "before: " << before.first << ", " << before.second << "\nafter: " << after.first << ", "
      << after.second;

  const char* raw_points = std::getenv("QUILMA_CRASH_POINTS");  // NOLINT(concurrency-mt-unsafe)
  const int count = raw_points != nullptr && std::atoi(raw_points) > 0 ? std::atoi(raw_points) : 6;
  std::mt19937 random{std::random_device{}()};
  std::uniform_real_distribution<double> jitter(0.0, 1.0);
  std::map<std::string, int> seen;
  for (int point = 0; point < count; ++point) {
    const auto [ended, took] = run(fresh_run(), std::chrono::duration_cast<Clock::duration>(
                                                    whole * ((point + jitter(random)) / count)));
    const auto state = inspect("index.db", op.shape);
    const bool old = state == before, new_ = state == after;
    const bool partial = op.steps && state.second == before.second;
    EXPECT_TRUE((ended == 0 || ended == 128 + SIGKILL) && (old || new_ || partial))
        << "point " << point << ": status " << ended << ", shape " << state.first << ", "
        << state.second << "\nbefore: " << before.first << ", " << before.second
        << "\nafter:  " << after.first << ", " << after.second;
    ++seen[std::string(old       ? "old"
                       : new_    ? "new"
                       : partial ? "partial"
                                 : "broken") +
           (ended == 0 ? " (ended first)" : "")];
  }
  fmt::print("{}: a whole run {} ms; {}\n", op.name,
             std::chrono::duration_cast<std::chrono::milliseconds>(whole).count(), seen);
}

INSTANTIATE_TEST_SUITE_P(Operations, CrashTest, ::testing::ValuesIn(OPERATIONS),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace quilma::storage

int main(int argc, char** argv) {
  if (argc > 2 && std::string_view(argv[1]) == "--crash-child")
    return quilma::storage::run_operation({argv + 2, argv + argc});
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
