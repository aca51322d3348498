// SIGKILL during the layer's long operations: a child process runs one of them on a fresh copy
// of a prepared database and is killed at points spread over the operation's duration. Every
// time, the file must open, pass SQLite's integrity check, and hold exactly the index from before
// the operation or exactly the one after it. QUILMA_CRASH_POINTS sets the points per operation.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child_process.h"
#include "support/index_builder.h"
#include "support/temp_dir.h"

#include "quilma/storage/database.h"
#include "quilma/storage/storage_size.h"

namespace quilma::storage {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Ended {
  bool killed = false;  // by our SIGKILL; otherwise it exited first
  int status = 0;       // as waitpid reports it
  Clock::duration took{};
};

// Runs `args` with its standard error in `err`. A child that signals its start (one byte on
// its standard output) is timed, and killed, from that byte on; any other from its spawn.
Ended run_child(const std::vector<std::string>& args, bool signals_start, const fs::path& err,
                std::optional<Clock::duration> kill_after = std::nullopt) {
  int start[2];
  if (::pipe2(start, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (signals_start) {
    posix_spawn_file_actions_adddup2(&actions, start[1], STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const pid_t pid = testing::spawn(args, &actions);
  posix_spawn_file_actions_destroy(&actions);
  ::close(start[1]);
  char byte = 0;
  while (signals_start && ::read(start[0], &byte, 1) < 0 && errno == EINTR) {
  }
  const Clock::time_point started = Clock::now();
  if (kill_after) {
    std::this_thread::sleep_until(started + *kill_after);
    ::kill(pid, SIGKILL);  // an exited child stays a zombie until reaped: its pid is still ours
  }
  Ended ended;
  while (::waitpid(pid, &ended.status, 0) < 0 && errno == EINTR) {
  }
  ::close(start[0]);
  ended.took = Clock::now() - started;
  ended.killed = WIFSIGNALED(ended.status) && WTERMSIG(ended.status) == SIGKILL;
  return ended;
}

// What a file holds after a crash, as far as the index goes.
struct State {
  std::string contents;    // row count and checksum of each index table, and the generation
  std::int64_t shape = 0;  // the file's form that an operation keeping the contents changes
  std::string problem;     // why the file failed to open or its check; empty when it passed
};

// `shape_sql` is read on a plain connection first, before the open sequence can change it.
State inspect(const fs::path& path, const char* shape_sql) {
  State state;
  try {
    if (shape_sql != nullptr) {
      state.shape = (*sqlite::Connection(path).cursor().execute(shape_sql).fetchone())[0].as_int();
    }
    Database db(path);
    testing::open_fully(db);
    if (!db.check_integrity()) state.problem = "the integrity check failed";
    for (const std::string table : {"components", "files", "symbols", "edges", "external_imports",
                                    "index_errors", "code_chunks"}) {
      const std::vector<sqlite::Row> rows = db.fetchall(
          table == "code_chunks" ? "SELECT rowid, text, start_line, end_line FROM code_chunks"
                                 : "SELECT * FROM " + table + " ORDER BY id");
      std::string text;
      for (const sqlite::Row& row : rows) {
        for (const sqlite::Value& value : row.values())
          text += value.is_null() ? "|" : value.as_text() + "|";
      }
      state.contents += table + " " + std::to_string(rows.size()) + ":" +
                        std::to_string(std::hash<std::string>{}(text) % 1000000) + ", ";
    }
    state.contents += "generation " + std::to_string(db.index_generation());
  } catch (const std::exception& error) {
    state.problem = error.what();
  }
  return state;
}

// A database made as the service makes it, holding files [1, files] of `tag`. `pragmas` run
// on the empty file first; `padding` bytes follow every 50 files and are deleted at the end, so
// that their free pages lie spread through the file. Without `migrate`, small pages stay.
void build(const fs::path& path, const std::string& tag, int files,
           const std::vector<std::string>& pragmas = {}, int padding = 0, bool migrate = true) {
  if (!pragmas.empty()) {
    sqlite::Connection raw(path);
    for (const std::string& pragma : pragmas) raw.cursor().execute(pragma);
    raw.cursor().execute("CREATE TABLE padding (data BLOB)");
  }
  Database db(path);
  db.connect();
  db.create_schema();
  if (migrate) db.migrate_schema();
  db.execute("CREATE TABLE IF NOT EXISTS padding (data BLOB)");
  for (int first = 1; first <= files; first += 50) {
    db.transaction([&](sqlite::Cursor& cursor) {
      testing::fill_index(cursor, tag, first, std::min(50, files - first + 1));
      if (padding > 0) cursor.execute("INSERT INTO padding (data) VALUES (zeroblob(?))", {padding});
    });
  }
  db.execute("DELETE FROM padding");
}

// A repository of Python files; the next version drops some, adds others and changes a third.
void write_repo(const fs::path& repo, int version) {
  fs::remove_all(repo);
  for (int f = version * 100; f < 1000 + version * 100; ++f) {
    const fs::path path =
        repo / ("pkg" + std::to_string(f % 7)) / ("m" + std::to_string(f) + ".py");
    fs::create_directories(path.parent_path());
    std::ofstream out(path);
    for (int line = 0; line < 60; ++line) {
      out << "def fn_" << f << "_" << line << "_v" << (f % 3 == 0 ? version : 0)
          << "(x):\n    return x + " << line << "\n";
    }
  }
}

struct Operation {
  // Fills `tmpl` (copied for every run) and anything else the runs read in `dir`.
  std::function<void(const fs::path& tmpl, const fs::path& dir)> setup;
  std::function<std::vector<std::string>(const fs::path& run, const fs::path& dir)> command;
  // For an operation that keeps the contents: the pragma telling the file before from after.
  const char* shape = nullptr;
  bool steps = false;  // commits in steps, each of which leaves a whole file between the two
  bool signals_start = true;
};

// crash_child with `args`; a name ending in ".db" is a file of the run's copy.
std::function<std::vector<std::string>(const fs::path&, const fs::path&)> child(
    std::vector<std::string> args) {
  return [args](const fs::path& run, const fs::path&) {
    std::vector<std::string> argv{CRASH_CHILD};
    for (const std::string& arg : args)
      argv.push_back(arg.ends_with(".db") ? (run / arg).string() : arg);
    return argv;
  };
}

// A setup that builds only the live file, of `files` files tagged "old" (see build()).
std::function<void(const fs::path&, const fs::path&)> live(int files,
                                                           std::vector<std::string> pragmas = {},
                                                           int padding = 0, bool migrate = true) {
  return [=](const fs::path& tmpl, const fs::path&) {
    build(tmpl / "index.db", "old", files, pragmas, padding, migrate);
  };
}

const std::map<std::string, Operation>& operations() {
  static const std::string page_size =
      "PRAGMA page_size=" + std::to_string(storage_size::PAGE_SIZE);
  static const std::map<std::string, Operation> table{
      {"swap",
       {[](const fs::path& tmpl, const fs::path&) {
          build(tmpl / "index.db", "old", 1500);
          build(tmpl / "staging.db", "new", 2000);
        },
        child({"swap", "index.db", "staging.db"})}},
      {"clear", {live(4000), child({"clear", "index.db"})}},
      {"compact",
       {live(1200, {}, 1 << 20), child({"compact", "index.db"}), "PRAGMA freelist_count", true}},
      {"convert",
       {live(4000, {page_size, "PRAGMA auto_vacuum=NONE"}, 1 << 20), child({"compact", "index.db"}),
        "PRAGMA auto_vacuum"}},
      {"page_rewrite",
       {live(2000, {"PRAGMA page_size=1024", "PRAGMA auto_vacuum=INCREMENTAL"}, 0, false),
        child({"open", "index.db"}), "PRAGMA page_size"}},
      {"transaction", {live(500), child({"insert", "index.db", "501", "2000"})}},
#ifdef QUILMA_DB
      {"cli_index",
       {[](const fs::path& tmpl, const fs::path& dir) {
          write_repo(dir / "repo", 0);
          const Ended first =
              run_child(operations().at("cli_index").command(tmpl, dir), false, dir / "setup.err");
          ASSERT_EQ(first.status, 0) << "the first index failed";
          write_repo(dir / "repo", 1);
        },
        [](const fs::path& run, const fs::path& dir) {
          return std::vector<std::string>{QUILMA_DB, "--quiet",
                                          "--db",    (run / "index.db").string(),
                                          "index",   (dir / "repo").string()};
        },
        nullptr, false, false}},
#endif
  };
  return table;
}

std::string text_of(const fs::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class CrashTest : public ::testing::TestWithParam<std::string> {};

TEST_P(CrashTest, AKilledRunLeavesTheOldOrTheNewIndexWhole) {
  const Operation& op = operations().at(GetParam());
  const testing::TempDir dir;
  const fs::path tmpl = dir / "template";
  const fs::path run = dir / "run";
  fs::create_directories(tmpl);
  ASSERT_NO_FATAL_FAILURE(op.setup(tmpl, dir.path()));
  const auto fresh_run = [&] {
    fs::remove_all(run);
    fs::copy(tmpl, run, fs::copy_options::recursive);
  };
  // Before: the template as it is. After: one run to its end, which also times the operation.
  fresh_run();
  const State before = inspect(run / "index.db", op.shape);
  fresh_run();
  const Ended whole = run_child(op.command(run, dir.path()), op.signals_start, run / "stderr");
  ASSERT_EQ(whole.status, 0) << text_of(run / "stderr");
  const State after = inspect(run / "index.db", op.shape);
  ASSERT_EQ(before.problem + after.problem, "");
  if (op.shape != nullptr) {
    ASSERT_EQ(after.contents, before.contents);
    ASSERT_NE(after.shape, before.shape) << "the operation left the file's form as it was";
  } else {
    ASSERT_NE(after.contents, before.contents) << "the operation changed nothing";
  }

  const char* raw_points = std::getenv("QUILMA_CRASH_POINTS");  // NOLINT(concurrency-mt-unsafe)
  const int count = raw_points != nullptr && std::atoi(raw_points) > 0 ? std::atoi(raw_points) : 6;
  std::mt19937 random{std::random_device{}()};
  std::uniform_real_distribution<double> jitter(0.0, 1.0);
  std::map<std::string, int> seen;
  int killed = 0, leftovers = 0;  // runs killed, and staging files they left behind
  for (int point = 0; point < count; ++point) {
    fresh_run();
    const Ended ended = run_child(op.command(run, dir.path()), op.signals_start, run / "stderr",
                                  std::chrono::duration_cast<Clock::duration>(
                                      whole.took * ((point + jitter(random)) / count)));
    killed += ended.killed ? 1 : 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(run)) {
      leftovers += entry.path().filename().string().find(".staging-") != std::string::npos;
    }
    const State state = inspect(run / "index.db", op.shape);
    std::string outcome = state.contents != before.contents
                              ? (state.contents == after.contents ? "new" : "mixed")
                          : state.shape == before.shape ? "old"
                          : state.shape == after.shape  ? "new"
                          : op.steps                    ? "partial"
                                                        : "mixed";
    if (!state.problem.empty() || (!ended.killed && ended.status != 0)) {
      outcome = "failed checks";
      ADD_FAILURE() << "point " << point << ": status " << ended.status << ", " << state.problem
                    << "\n"
                    << text_of(run / "stderr");
    }
    if (outcome == "mixed") {
      ADD_FAILURE() << "point " << point << " left a mixed file: shape " << state.shape << ", "
                    << state.contents << "\nbefore: " << before.contents
                    << "\nafter:  " << after.contents;
    }
    ++seen[outcome];
  }
  std::cout << GetParam() << ": " << count << " points: " << seen["old"] << " old, " << seen["new"]
            << " new, " << seen["partial"] << " partial, " << seen["mixed"] << " mixed (" << killed
            << " killed; a whole run "
            << std::chrono::duration_cast<std::chrono::milliseconds>(whole.took).count()
            << " ms; staging files left behind: " << leftovers << ")" << std::endl;
}

std::vector<std::string> operation_names() {
  std::vector<std::string> names;
  for (const auto& entry : operations()) names.push_back(entry.first);
  return names;
}

INSTANTIATE_TEST_SUITE_P(Operations, CrashTest, ::testing::ValuesIn(operation_names()),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace quilma::storage
