// SIGKILL during the layer's long operations: a child process runs one of them on a fresh copy
// of a prepared database and is killed at points spread over the operation's duration. Every
// time, the file must open, pass SQLite's integrity check, and hold exactly the index from
// before the operation or exactly the one after it. QUILMA_CRASH_POINTS sets the points per
// operation.
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
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

// An operation, and the live file it starts from: `files` files tagged "old", made as the
// service makes them after `pragmas` ran on the empty file; `padding` bytes follow every 50
// files and are deleted at the end, so that their free pages lie spread through the file.
// page_rewrite's small pages stay.
struct Operation {
  std::string name;
  // Runs in the child, in the copy's directory, on its index.db opened as the service opens it
  // (page_rewrite's is only constructed: the open sequence is its operation).
  std::function<void(Database&)> body;
  int files = 0;
  std::vector<std::string> pragmas{};
  int padding = 0;
  // For an operation that keeps the contents: the pragma telling the file before from after.
  // A compaction commits in steps, each of which leaves a whole file between the two.
  const char* shape = nullptr;
  // An update in place, which commits file by file: a killed run leaves each file old or new,
  // and the next run brings every one to new.
  bool per_file = false;
};

// Runs `op` in a child process, killed `kill_after` from the operation's beginning when given:
// its exit status (128 plus the signal that ended it), and how long it ran from that beginning.
std::pair<int, Clock::duration> run(const Operation& op,
                                    std::optional<Clock::duration> kill_after = {},
                                    int signal = SIGKILL) {
  int began[2];  // the child closes its end when the operation begins
  const pid_t pid = ::pipe(began) == 0 ? ::fork() : -1;
  if (pid < 0) throw std::system_error(errno, std::generic_category());
  if (pid == 0) {
    try {
      Database db("index.db");
      if (op.name != "page_rewrite") testing::open_fully(db);
      ::close(began[1]);
      op.body(db);
      db.close();
      std::_Exit(0);
    } catch (const std::exception& error) {
      fmt::print(stderr, "{}: {}\n", op.name, error.what());
      std::_Exit(1);
    }
  }
  ::close(began[1]);
  char byte = 0;
  while (::read(began[0], &byte, 1) < 0 && errno == EINTR) continue;
  ::close(began[0]);
  const Clock::time_point started = Clock::now();
  if (kill_after) std::this_thread::sleep_until(started + *kill_after);
  if (kill_after) ::kill(pid, signal);  // an exited child is a zombie until reaped: still ours
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status),
          Clock::now() - started};
}

// What a file holds, as far as the index goes: the file's form that an operation keeping the
// contents changes (read by `shape_sql` on a plain connection first, before the open sequence
// can change it), and the row count and checksum of each index table and the generation; or
// why the file failed to open or its integrity check.
using State = std::pair<std::int64_t, std::string>;
State inspect(const char* shape_sql) {
  State state;
  try {
    if (shape_sql != nullptr)
      state.first =
          sqlite::Connection("index.db").cursor().execute(shape_sql).fetchone().value()[0].as_int();
    Database db("index.db");
    testing::open_fully(db);
    if (!db.check_integrity()) return {0, "unsound: the integrity check failed"};
    for (const std::string table : {"components", "files", "symbols", "edges", "external_imports",
                                    "index_errors", "code_chunks"}) {
      std::string text;
      const std::vector<sqlite::Row> rows = db.fetchall("SELECT rowid, * FROM " + table);
      for (const sqlite::Row& row : rows)
        for (const sqlite::Value& value : row.values())
          text += value.is_null() ? "|" : value.as_text() + "|";
      state.second +=
          fmt::format("{} {}:{}, ", table, rows.size(), std::hash<std::string>{}(text) % 1000000);
    }
    state.second += fmt::format("generation {}", db.index_generation());
  } catch (const std::exception& error) {
    return {0, std::string("unsound: ") + error.what()};
  }
  return state;
}

// Each file's text in the index, as a digest of its chunks in order, with the generation under
// "": what an update in place must leave old or new file by file.
std::map<std::string, std::size_t> file_texts() {
  Database db("index.db");
  testing::open_fully(db);
  if (!db.check_integrity()) return {{"", 0}};
  std::map<std::string, std::size_t> texts{{"", db.index_generation()}};
  for (const sqlite::Row& row : db.fetchall(
           "SELECT path, (SELECT group_concat(text, char(10)) FROM (SELECT text FROM code_chunks "
           "WHERE rowid >= id * 1048576 AND rowid < (id + 1) * 1048576 ORDER BY rowid)) FROM "
           "files"))
    texts[row[0].as_text()] = std::hash<std::string>{}(row[1].is_null() ? "" : row[1].as_text());
  return texts;
}

void build(const fs::path& path, const std::string& tag, const Operation& op) {
  sqlite::Connection raw(path);  // idle once the pragmas and the padding's table are in
  for (const std::string& pragma : op.pragmas) raw.cursor().execute(pragma);
  raw.cursor().execute("CREATE TABLE padding (data BLOB)");
  Database db(path);
  db.connect();
  db.create_schema();
  if (op.name != "page_rewrite") db.migrate_schema();
  for (int first = 1; first <= op.files; first += 50) {
    db.transaction([&](sqlite::Cursor& cursor) {
      testing::fill_index(cursor, tag, first, std::min(50, op.files - first + 1));
      cursor.execute("INSERT INTO padding VALUES (zeroblob(?))", {op.padding});
    });
  }
  db.execute("DELETE FROM padding");
}

// A repository of Python files in "../repo"; the next version drops some, adds others and
// changes a third (`step` 100, which makes a full rebuild) or a fiftieth (`step` 10, an
// update). As a checkout does, it writes only the files whose content changes.
void write_repo(int version, int step = 100) {
  std::set<fs::path> kept;
  for (int f = version * step; f < 1000 + version * step; ++f) {
    const fs::path path = fmt::format("../repo/pkg{}/m{}.py", f % 7, f);
    std::string text;
    for (int line = 0; line < 60; ++line)
      text += fmt::format("def fn_{}_{}_v{}(x):\n    return x + {}\n", f, line,
                          f % (step == 100 ? 3 : 50) ? 0 : version, line);
    kept.insert(path);
    std::ifstream in(path);
    if (std::string(std::istreambuf_iterator<char>(in), {}) == text) continue;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }
  std::vector<fs::path> dropped;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator("../repo"))
    if (entry.is_regular_file() && !kept.contains(entry.path())) dropped.push_back(entry.path());
  for (const fs::path& path : dropped) fs::remove(path);
}

void compact(Database& db) {
  if (db.compact().pages_released == 0) throw std::runtime_error("the compaction released nothing");
}

// clang-format off
const std::vector<Operation> OPERATIONS{
    {"swap", [](Database& db) { db.swap_index_from("staging.db"); }, 1500},
    {"clear", [](Database& db) { db.clear_all(); }, 4000},
    {"compact", compact, 1200, {}, 1 << 20, "PRAGMA freelist_count"},
    {"convert", compact, 4000, {fmt::format("PRAGMA page_size={}", storage_size::PAGE_SIZE),
                                "PRAGMA auto_vacuum=NONE"}, 1 << 20, "PRAGMA auto_vacuum"},
    {"page_rewrite", testing::open_fully, 2000,
     {"PRAGMA page_size=1024", "PRAGMA auto_vacuum=INCREMENTAL"}, 0, "PRAGMA page_size"},
    {"transaction", [](Database& db) {
       db.transaction([](sqlite::Cursor& cursor) { testing::fill_index(cursor, "added", 501, 1500); });
     }, 500},
#ifdef QUILMA_DB
    {"cli_index", [](Database& db) {
       db.close();
       ::execl(QUILMA_DB, QUILMA_DB, "--quiet", "--db", "index.db", "index", "--full", "../repo",
               nullptr);
       throw std::system_error(errno, std::generic_category(), QUILMA_DB);
     }},
    {"cli_update", [](Database& db) {
       db.close();
       ::execl(QUILMA_DB, QUILMA_DB, "--quiet", "--db", "index.db", "index", "../repo", nullptr);
       throw std::system_error(errno, std::generic_category(), QUILMA_DB);
     }, 0, {}, 0, nullptr, true},
#endif
};
// clang-format on

void PrintTo(const Operation& op, std::ostream* out) { *out << op.name; }

class CrashTest : public ::testing::TestWithParam<Operation> {};

TEST_P(CrashTest, AKilledRunLeavesTheOldOrTheNewIndexWhole) {
  const Operation& op = GetParam();
  const testing::TempDir dir;
  // The template's directory, and then each run's, a fresh copy of it, is the working directory
  // (the process stays in the removed directory until the next test moves on).
  fs::current_path(dir.path());
  fs::create_directory("template");
  fs::current_path("template");
  if (op.files > 0) build("index.db", "old", op);
  if (op.name == "swap") build("staging.db", "new", {"staging", nullptr, 2000});
  if (op.name.starts_with("cli_")) {  // indexed once, then changed
    const int step = op.per_file ? 10 : 100;
    write_repo(0, step);
    ASSERT_EQ(run(op).first, 0) << "the first index failed";
    write_repo(1, step);
  }
  const auto fresh_run = [&]() -> const Operation& {
    fs::current_path(dir.path());
    fs::remove_all("run");
    fs::copy("template", "run", fs::copy_options::recursive);
    fs::current_path("run");
    return op;
  };
  // Before: the template as it is. After: one run to its end, which also times the operation.
  fresh_run();
  const auto before = inspect(op.shape);
  const auto texts_before = file_texts();
  const auto [status, whole] = run(fresh_run());
  const auto after = inspect(op.shape);
  const auto texts_after = file_texts();
  if (op.per_file) {
    ASSERT_EQ(texts_after.at(""), texts_before.at("")) << "the update swapped";
  }
  ASSERT_EQ(status, 0);
  const std::string both = fmt::format("\nbefore: {}\nafter:  {}", before, after);
  ASSERT_TRUE(op.shape != nullptr ? after.second == before.second && after.first != before.first
                                  : after.second != before.second)
      << both;

  const char* raw_points = std::getenv("QUILMA_CRASH_POINTS");  // NOLINT(concurrency-mt-unsafe)
  const int count = raw_points != nullptr && std::atoi(raw_points) > 0 ? std::atoi(raw_points) : 6;
  std::mt19937 random{std::random_device{}()};
  std::uniform_real_distribution<double> jitter(0.0, 1.0);
  std::map<std::string, int> seen;
  for (int point = 0; point < count; ++point) {
    // An update is also stopped as a terminal stops it: Ctrl-C, SIGTERM, and SIGHUP when the
    // terminal closes.
    const int signal =
        op.per_file ? std::array{SIGKILL, SIGINT, SIGTERM, SIGHUP}[point % 4] : SIGKILL;
    const auto [ended, took] =
        run(fresh_run(),
            std::chrono::duration_cast<Clock::duration>(whole * ((point + jitter(random)) / count)),
            signal);
    if (op.per_file) {
      const auto texts = file_texts();
      std::size_t changed = 0;  // files that the run changed, and those it had still to change
      std::size_t pending = 0;
      for (const auto& [path, text] : texts) {
        const auto was = texts_before.find(path);
        const auto is = texts_after.find(path);
        const bool old = was != texts_before.end() && was->second == text;
        const bool new_ = is != texts_after.end() && is->second == text;
        changed += new_ && !old;
        pending += old && !new_;
        EXPECT_TRUE(old || new_) << fmt::format("point {}: status {}, {} is neither old nor new",
                                                point, ended, path);
      }
      // Ended by itself, killed, or stopped by the signal: by its handler, or before it was set
      // (a process under a sanitizer can take longer to start than a point lies into the run).
      EXPECT_TRUE(ended == 0 || ended == 128 + SIGKILL || ended == 130 || ended == 128 + signal)
          << fmt::format("point {}: status {} after signal {}", point, ended, signal);
      ++seen[changed == 0 ? "old" : pending == 0 ? "new" : "part new"];
      ASSERT_EQ(run(op).first, 0);  // the next run does the rest
      EXPECT_EQ(file_texts(), texts_after) << "point " << point;
      continue;
    }
    const auto state = inspect(op.shape);
    const bool old = state == before, new_ = state == after;
    const bool partial = op.name == "compact" && state.second == before.second;
    EXPECT_TRUE((ended == 0 || ended == 128 + SIGKILL) && (old || new_ || partial))
        << fmt::format("point {}: status {}, {}", point, ended, state) << both;
    const char* outcome = old ? "old" : new_ ? "new" : partial ? "partial" : "broken";
    ++seen[outcome + std::string(ended == 0 ? " (ended first)" : "")];
  }
  fmt::print("{}: a whole run {} ms; {}\n", op.name,
             std::chrono::duration_cast<std::chrono::milliseconds>(whole).count(), seen);
}

INSTANTIATE_TEST_SUITE_P(Operations, CrashTest, ::testing::ValuesIn(OPERATIONS),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace quilma::storage
