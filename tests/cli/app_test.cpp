// quilma-db end to end: a generated repository indexed, searched, re-indexed and maintained
// through the same entry point as the executable.
#include "quilma/cli/app.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <sys/file.h>
#include <unistd.h>

#include "support/child_process.h"
#include "support/fault_vfs.h"
#include "support/temp_dir.h"

#include "quilma/cli/indexer.h"

namespace quilma::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct Result {
  int status;
  std::string out;
  std::string err;
};

Result quilma_db(const std::vector<std::string>& args, const std::atomic<bool>* stop = nullptr) {
  std::ostringstream out;
  std::ostringstream err;
  std::vector<const char*> argv{"quilma-db"};
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  const Io io{out, err, false, false, stop};
  const int status = run(static_cast<int>(argv.size()), argv.data(), io);
  return {status, out.str(), err.str()};
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Runs a program with its output in a pipe; its standard error goes to the test's.
Result run_program(const std::vector<std::string>& args) {
  testing::ChildProcess child(args);
  child.close_input();
  Result result{0, "", ""};
  while (const std::optional<std::string> line = child.read_line()) result.out += *line + "\n";
  result.status = child.wait();
  return result;
}

// Output of one JSON object per line.
std::vector<json> json_lines(const std::string& out) {
  std::vector<json> objects;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) objects.push_back(json::parse(line));
  return objects;
}

void write(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

// A Python file whose line `at` (from 1) holds `identifier`, and whose other lines do not.
std::string python_with(const std::string& identifier, int at) {
  std::string text;
  for (int line = 1; line <= 120; ++line) {
    text += line == at ? "    " + identifier + " = compute(" + std::to_string(line) + ")\n"
                       : "value_" + std::to_string(line) + " = " + std::to_string(line) + "\n";
  }
  return text;
}

class IndexedRepoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    write(repo_ / "src/planted.py", python_with("plantedIdentifier", 73));
    write(repo_ / "src/util/helpers.cpp", "int helper() { return 42; }\n");
    write(repo_ / "docs/readme.md", "# Notes\n\nNothing planted here.\n");
    write(repo_ / "assets/logo.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
    write(repo_ / "legacy/latin1.txt", "first line\ncaf\xe9 au lait\n");
    // Left out by the walk: hidden directories, build output, the index's own directory.
    write(repo_ / ".cache/hiddenIdentifier.py", "hiddenIdentifier = 1\n");
    write(repo_ / "build/generated.cpp", "int generatedIdentifier;\n");
    write(repo_ / "memory/notes.md", "memoryIdentifier\n");
    const Result indexed = quilma_db({"index", "--quiet", repo_.string()});
    ASSERT_EQ(indexed.status, 0) << indexed.err;
    ASSERT_EQ(indexed.err, "");
  }

  Result in_repo(std::vector<std::string> args, const std::atomic<bool>* stop = nullptr) {
    args.push_back(repo_.string());
    return quilma_db(args, stop);
  }

  // The files beside the live database, which a finished run leaves without staging copies.
  std::vector<std::string> database_dir() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(repo_ / "memory/codebase-index")) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  testing::TempDir dir_;
  fs::path repo_ = dir_ / "repo";
};

TEST_F(IndexedRepoTest, FindsPlantedTextAndFollowsEdits) {
  EXPECT_EQ(in_repo({"search", "plantedIdentifier"}).out,
            "src/planted.py:73: plantedIdentifier = compute(73)\n");
  for (const char* left_out : {"hiddenIdentifier", "generatedIdentifier", "memoryIdentifier"}) {
    EXPECT_EQ(in_repo({"search", left_out}).out, "") << left_out;
  }
  EXPECT_EQ(in_repo({"generation"}).out, "1\n");
  {  // Each file has its row and an anchor symbol that spans it.
    storage::Database db(repo_ / "memory/codebase-index/index.db");
    open_database(db);
    EXPECT_EQ(db.fetchone("SELECT s.name || ' ' || s.line || '-' || s.end_line || ' ' || "
                          "s.qualified_name || ' ' || f.language FROM symbols s JOIN files f "
                          "ON f.id = s.file_id WHERE f.path = 'src/planted.py'")
                  .value()[0]
                  .as_text(),
              "planted.py 1-120 src/planted.py python");
    // Chunks hold the text as it is, but for the file whose stray byte was replaced.
    EXPECT_EQ(db.fetchone("SELECT group_concat(DISTINCT files.path || ':' || exact) FROM "
                          "code_chunks JOIN files ON files.id = code_chunks.rowid >> 20 WHERE "
                          "path LIKE 'legacy/%' OR path LIKE 'docs/%'")
                  .value()[0]
                  .as_text(),
              "docs/readme.md:1,legacy/latin1.txt:0");
  }
  // From inside the repository, the index above is found; it is kept out of commits.
  EXPECT_EQ(quilma_db({"search", "plantedIdentifier", (repo_ / "src/util").string()}).out,
            "src/planted.py:73: plantedIdentifier = compute(73)\n");
  std::ifstream ignore(repo_ / "memory/codebase-index/.gitignore");
  EXPECT_NE(std::string(std::istreambuf_iterator<char>(ignore), {}).find("\n*\n"),
            std::string::npos);

  write(repo_ / "src/planted.py", python_with("renamedIdentifier", 5));
  const Result again = in_repo({"index", "--json"});
  ASSERT_EQ(again.status, 0) << again.err;
  const json report = json::parse(again.out);
  EXPECT_EQ(report["files"], 4);
  EXPECT_EQ(report["errors"], 2);
  EXPECT_EQ(report["generation"], 2);
  EXPECT_EQ(in_repo({"search", "plantedIdentifier"}).out, "");
  EXPECT_EQ(in_repo({"search", "renamedIdentifier"}).out,
            "src/planted.py:5: renamedIdentifier = compute(5)\n");
  EXPECT_EQ(in_repo({"generation"}).out, "2\n");
  EXPECT_EQ(database_dir(), (std::vector<std::string>{".gitignore", "index.db"}));
}

TEST_F(IndexedRepoTest, JsonOutputParses) {
  const json errors = json::parse(in_repo({"errors", "--json"}).out);
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_EQ(errors[0]["path"], "assets/logo.png");
  EXPECT_EQ(errors[0]["type"], "binary");
  EXPECT_EQ(errors[1]["path"], "legacy/latin1.txt");
  EXPECT_EQ(errors[1]["type"], "not_utf8");
  EXPECT_EQ(errors[1]["line"], 2);
  // Reported, and indexed all the same with the stray byte replaced.
  EXPECT_EQ(in_repo({"search", "lait"}).out, "legacy/latin1.txt:2: caf\xef\xbf\xbd au lait\n");

  const json stats = json::parse(in_repo({"stats", "--json"}).out);
  EXPECT_EQ(stats["files"], 4);
  EXPECT_EQ(stats["symbols"], 0);  // only the files' anchors, which a user never sees
  EXPECT_EQ(stats["errors"], 2);
  EXPECT_EQ(stats["chunks"], 6);  // 120 lines in chunks of 50, and three short files
  EXPECT_GT(stats["file_bytes"], 0);
  EXPECT_TRUE(stats["last_index"].get<std::string>().ends_with("Z"));

  EXPECT_EQ(json_lines(in_repo({"search", "--json", "compute OR helper"}).out).size(), 2U);
  const std::vector<json> limited =
      json_lines(in_repo({"search", "--json", "--limit", "1", "value_*"}).out);
  ASSERT_EQ(limited.size(), 1U);
  EXPECT_EQ(limited[0]["path"], "src/planted.py");
  EXPECT_EQ(stats["free_pages"], 0);
  EXPECT_GT(stats["pages"], 0);

  EXPECT_EQ(json::parse(in_repo({"check", "--json"}).out)["ok"], true);
  EXPECT_EQ(json::parse(in_repo({"compact", "--json"}).out)["pages_released"], 0);
  EXPECT_EQ(json::parse(quilma_db({"stamp", "--json", "python=2", "--repo", repo_.string()}).out),
            json({{"marked", 1}}));
  EXPECT_EQ(json::parse(in_repo({"clear", "--json"}).out).contains("cleared"), true);
  EXPECT_EQ(json::parse(in_repo({"stats", "--json"}).out)["files"], 0);
}

TEST_F(IndexedRepoTest, StoppedOrFailedRunLeavesPreviousIndex) {
  write(repo_ / "src/planted.py", python_with("renamedIdentifier", 5));

  const std::atomic<bool> stop{true};  // as the interrupt handler leaves it
  const Result stopped = in_repo({"index", "--quiet"}, &stop);
  EXPECT_EQ(stopped.status, EXIT_INTERRUPTED);
  EXPECT_EQ(stopped.err, "quilma-db: index: interrupted; the index was left as it was\n");

  {
    testing::FaultVfs vfs;
    vfs.fail_writes_after(std::int64_t{64} * 1024);  // the staging build runs out of disk
    const Result failed = in_repo({"index", "--quiet"});
    EXPECT_EQ(failed.status, EXIT_FAILED);
    EXPECT_EQ(failed.err, "quilma-db: index: database or disk is full\n");
    EXPECT_GT(vfs.faults(), 0);
  }

  EXPECT_EQ(in_repo({"search", "plantedIdentifier"}).out,
            "src/planted.py:73: plantedIdentifier = compute(73)\n");
  EXPECT_EQ(in_repo({"search", "renamedIdentifier"}).out, "");
  EXPECT_EQ(in_repo({"generation"}).out, "1\n");
  EXPECT_EQ(database_dir(), (std::vector<std::string>{".gitignore", "index.db"}));
}

TEST_F(IndexedRepoTest, ARunRemovesTheStagingFilesOfRunsThatDidNotEnd) {
  const fs::path dir = repo_ / "memory/codebase-index";
  for (const char* name : {"index.db.staging-dead01", "index.db.staging-dead01-wal",
                           "index.db.staging-dead02-wal", "index.db.staging-live01"}) {
    write(dir / name, std::string(4096, 'x'));
  }
  // A run still going holds its staging file.
  const int live = ::open((dir / "index.db.staging-live01").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(live, LOCK_EX), 0);
  const Result indexed = in_repo({"index"});
  ::close(live);
  ASSERT_EQ(indexed.status, 0) << indexed.err;
  EXPECT_NE(indexed.err.find("indexing: 5/5 files, "), std::string::npos) << indexed.err;
  EXPECT_NE(indexed.err.find("removed " + (dir / "index.db.staging-dead01").string() +
                             " (0.0 MiB), left by an indexing run that did not end"),
            std::string::npos)
      << indexed.err;
  EXPECT_EQ(database_dir(),
            (std::vector<std::string>{".gitignore", "index.db", "index.db.staging-live01"}));
}

TEST_F(IndexedRepoTest, NamesThatAreNotUtf8AndTheTextOfPlainAnswers) {
  write(repo_ / "caf\xe9.py", "latinName = 1\n");
  write(repo_ / "blob\xff.bin", std::string("\0\1\2", 3));
  ASSERT_EQ(in_repo({"index", "-q"}).status, 0);
  EXPECT_EQ(in_repo({"search", "latinName"}).out, "caf\\xe9.py:1: latinName = 1\n");
  EXPECT_EQ(json::parse(in_repo({"search", "--json", "latinName"}).out)["path"],
            "caf\xef\xbf\xbd.py");  // U+FFFD
  const json errors = json::parse(in_repo({"errors", "--json"}).out);
  EXPECT_EQ(errors[1]["path"], "blob\xef\xbf\xbd.bin");
  EXPECT_NE(in_repo({"errors"}).out.find("blob\\xff.bin: binary"), std::string::npos);

  EXPECT_EQ(in_repo({"check"}).out, "ok\n");
  EXPECT_EQ(in_repo({"compact"}).out,
            "nothing to compact: fewer than 2048 free pages, or under 10% of the file, is left "
            "for later\n");
}

TEST_F(IndexedRepoTest, SearchOptionsThatGrepUsersExpect) {
  write(repo_ / "src/more.py",
        "planted_identifier = 1\nPlantedIdentifier()\n# plantedIdentifier\n");
  ASSERT_EQ(in_repo({"index", "-q"}).status, 0);
  // Case and whole identifiers, and the files that hold them.
  EXPECT_EQ(in_repo({"search", "-w", "-s", "--sort", "path", "plantedIdentifier"}).out,
            "src/more.py:3: # plantedIdentifier\nsrc/planted.py:73: plantedIdentifier = "
            "compute(73)\n");
  EXPECT_EQ(in_repo({"search", "-w", "-l", "--sort", "path", "PLANTEDIDENTIFIER"}).out,
            "src/more.py\nsrc/planted.py\n");
  EXPECT_EQ(in_repo({"search", "-c", "--path", "*.py", "--sort", "path", "value_1*"}).out,
            "src/planted.py:32\n");
  EXPECT_EQ(json_lines(in_repo({"search", "-c", "--json", "--sort", "path", "planted"}).out),
            (std::vector<json>{{{"path", "docs/readme.md"}, {"count", 1}},
                               {{"path", "src/more.py"}, {"count", 1}}}));
  EXPECT_EQ(in_repo({"search", "--path", "docs/**", "plantedIdentifier"}).out, "");

  // A limit that cuts the result says so on stderr, and only then.
  const Result cut = in_repo({"search", "--limit", "2", "value_*"});
  EXPECT_EQ(std::count(cut.out.begin(), cut.out.end(), '\n'), 2);
  EXPECT_EQ(cut.err,
            "quilma-db: showing the first 2 matching lines; more match (--limit N, or --all)\n");
  const Result all = in_repo({"search", "--all", "value_*"});
  EXPECT_EQ(std::count(all.out.begin(), all.out.end(), '\n'), 119);
  EXPECT_EQ(all.err, "");

  // Context: groups that meet are printed once, others apart after "--".
  EXPECT_EQ(
      in_repo({"search", "-C", "1", "--sort", "path", "value_10 OR value_12 OR value_40"}).out,
      "src/planted.py-9- value_9 = 9\n"
      "src/planted.py:10: value_10 = 10\n"
      "src/planted.py-11- value_11 = 11\n"
      "src/planted.py:12: value_12 = 12\n"
      "src/planted.py-13- value_13 = 13\n"
      "--\n"
      "src/planted.py-39- value_39 = 39\n"
      "src/planted.py:40: value_40 = 40\n"
      "src/planted.py-41- value_41 = 41\n");
}

TEST_F(IndexedRepoTest, CheckNamesWhatIsDamaged) {
  const fs::path file = repo_ / "memory/codebase-index/index.db";
  std::int64_t root = 0;
  {
    storage::Database db(file);
    open_database(db);
    root =
        db.fetchone("SELECT rootpage FROM sqlite_schema WHERE name = 'files'").value()[0].as_int();
  }
  std::fstream damaged(file, std::ios::in | std::ios::out | std::ios::binary);
  damaged.seekp((root - 1) * 8192 + 8);  // the first cell pointers of the table's root page
  damaged.write("\x00\x05\x00\x07", 4);
  damaged.close();
  const Result check = in_repo({"check"});
  EXPECT_EQ(check.status, EXIT_FAILED);
  EXPECT_NE(check.out.find("Offset 5 out of range"), std::string::npos) << check.out;
  EXPECT_TRUE(check.err.starts_with("quilma-db: check: integrity check failed: ")) << check.err;
  const json report = json::parse(in_repo({"check", "--json"}).out);
  EXPECT_EQ(report["ok"], false);
  EXPECT_GE(report["problems"].size(), 2U);
}

// An index this user may not write, in a directory it may not write either: searched all the
// same, and left byte for byte as it was.
TEST_F(IndexedRepoTest, AnIndexThatCannotBeWrittenIsSearched) {
  const fs::path index_dir = repo_ / "memory/codebase-index";
  const std::string before = read_file(index_dir / "index.db");
  std::vector<std::string> command{QUILMA_DB_EXECUTABLE};
  if (::geteuid() == 0) {
    // Permissions do not bind root: run as nobody, from a copy of the program it can reach.
    fs::copy_file(QUILMA_DB_EXECUTABLE, dir_ / "quilma-db");
    for (fs::path at = repo_; at != dir_.path().parent_path(); at = at.parent_path()) {
      fs::permissions(at, fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);
    }
    command = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
               (dir_ / "quilma-db").string()};
  }
  fs::permissions(index_dir / "index.db", fs::perms::owner_write, fs::perm_options::remove);
  fs::permissions(index_dir, fs::perms::owner_write, fs::perm_options::remove);
  command.insert(command.end(), {"search", "plantedIdentifier", repo_.string()});
  const Result found = run_program(command);
  fs::permissions(index_dir, fs::perms::owner_write, fs::perm_options::add);
  EXPECT_EQ(found.status, 0) << found.err;
  EXPECT_EQ(found.out, "src/planted.py:73: plantedIdentifier = compute(73)\n");
  EXPECT_EQ(database_dir(), (std::vector<std::string>{".gitignore", "index.db"}));
  EXPECT_EQ(read_file(index_dir / "index.db"), before);
}

TEST(AppTest, BadUsageAndFailedOperations) {
  const spdlog::level::level_enum level = storage::database_logger()->level();
  testing::TempDir dir;
  const std::string empty = dir.path().string();
  const std::vector<std::pair<std::vector<std::string>, std::string>> usages = {
      {{}, "A subcommand is required"},
      {{"--db", "x.db", "reindex"}, "unknown command 'reindex'; the commands are: index search"},
      {{"search"}, "QUERY is required"},
      {{"search", "x", empty, "--limit", "0"},
       "--limit takes a whole number of 1 or more, not '0'"},
      {{"search", "x", "-l", "-c"}, "excludes"},
      {{"search", "x", "--all", "--limit", "3"}, "excludes"},
      {{"search", "x", "--sort", "size"}, "--sort"},
      {{"stamp", "python"}, "expected LANG=VERSION"},
      {{"stamp", "python=two"}, "expected LANG=VERSION"},
      {{"stamp", "python=1", "python=2"}, "language 'python' given twice"}};
  for (const auto& [usage, said] : usages) {
    const Result result = quilma_db(usage);
    EXPECT_EQ(result.status, EXIT_USAGE) << ::testing::PrintToString(usage);
    EXPECT_NE(result.err.find(said), std::string::npos) << result.err;
  }
  const Result help = quilma_db({"search", "--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* shown : {"{rank,path}=rank", "--limit INT:N >= 1=20"}) {  // the defaults
    EXPECT_NE(help.out.find(shown), std::string::npos) << help.out;
  }
  // A run gives the storage layer's loggers back as it found them.
  EXPECT_EQ(storage::database_logger()->level(), level);
  const Result version = quilma_db({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_TRUE(version.out.starts_with("quilma-db ")) << version.out;

  const Result missing = quilma_db({"stats", empty});
  EXPECT_EQ(missing.status, EXIT_FAILED);
  EXPECT_EQ(missing.err, "quilma-db: stats: no index at " + empty +
                             "/memory/codebase-index/index.db; run 'quilma-db index' first\n");
  EXPECT_FALSE(fs::exists(dir / "memory"));
  const Result nowhere = quilma_db({"index", (dir / "nowhere").string()});
  EXPECT_EQ(nowhere.status, EXIT_FAILED);
  EXPECT_EQ(nowhere.err,
            "quilma-db: index: no such directory: " + (dir / "nowhere").string() + "\n");
  write(dir / "file", "");
  EXPECT_EQ(quilma_db({"index", (dir / "file").string()}).err,
            "quilma-db: index: not a directory: " + (dir / "file").string() + "\n");

  ASSERT_EQ(quilma_db({"index", "-q", empty}).status, 0);
  const Result malformed = quilma_db({"search", "std::vector", empty});
  EXPECT_EQ(malformed.status, EXIT_USAGE);
  EXPECT_EQ(malformed.err,
            "quilma-db: malformed search query \"std::vector\" (no such column: std); put text "
            "with punctuation in double quotes, as in '\"std::vector\"', or search for it "
            "literally with -w or -s\n");
  EXPECT_EQ(quilma_db({"search", "-w", "-s", "--", "std::vector", empty}).status, 0);
  EXPECT_EQ(quilma_db({"search", "\"std::vector\"", empty}).status, 0);
  const Result unbalanced = quilma_db({"search", "\"open", empty});
  EXPECT_EQ(unbalanced.status, EXIT_USAGE);
  EXPECT_NE(unbalanced.err.find("close every double quote"), std::string::npos) << unbalanced.err;
  const Result no_staging = quilma_db({"swap", (dir / "absent.db").string(), empty});
  EXPECT_EQ(no_staging.status, EXIT_FAILED);
  EXPECT_EQ(no_staging.err,
            "quilma-db: swap: Staging database not found: " + (dir / "absent.db").string() + "\n");
}

}  // namespace
}  // namespace quilma::cli
