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
#include <sys/file.h>
#include <unistd.h>

#include "support/fault_vfs.h"
#include "support/temp_dir.h"

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

  const json hits = json::parse(in_repo({"search", "--json", "compute OR helper"}).out);
  EXPECT_EQ(hits.size(), 2U);
  const json limited = json::parse(in_repo({"search", "--json", "--limit", "1", "value_*"}).out);
  ASSERT_EQ(limited.size(), 1U);
  EXPECT_EQ(limited[0]["path"], "src/planted.py");

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
  EXPECT_EQ(json::parse(in_repo({"search", "--json", "latinName"}).out)[0]["path"],
            "caf\xef\xbf\xbd.py");  // U+FFFD
  const json errors = json::parse(in_repo({"errors", "--json"}).out);
  EXPECT_EQ(errors[1]["path"], "blob\xef\xbf\xbd.bin");
  EXPECT_NE(in_repo({"errors"}).out.find("blob\\xff.bin: binary"), std::string::npos);

  EXPECT_EQ(in_repo({"check"}).out, "ok\n");
  EXPECT_EQ(in_repo({"compact"}).out,
            "nothing to compact: fewer than 2048 free pages, or under 10% of the file, is left "
            "for later\n");
}

TEST(AppTest, BadUsageAndFailedOperations) {
  testing::TempDir dir;
  const std::string empty = dir.path().string();
  const std::vector<std::pair<std::vector<std::string>, std::string>> usages = {
      {{}, "A subcommand is required"},
      {{"--db", "x.db", "reindex"}, "unknown command 'reindex'; the commands are: index search"},
      {{"search"}, "QUERY is required"},
      {{"search", "x", empty, "--limit", "0"},
       "--limit takes a whole number of 1 or more, not '0'"},
      {{"stamp", "python"}, "expected LANG=VERSION"},
      {{"stamp", "python=two"}, "expected LANG=VERSION"},
      {{"stamp", "python=1", "python=2"}, "language 'python' given twice"}};
  for (const auto& [usage, said] : usages) {
    const Result result = quilma_db(usage);
    EXPECT_EQ(result.status, EXIT_USAGE) << ::testing::PrintToString(usage);
    EXPECT_NE(result.err.find(said), std::string::npos) << result.err;
  }
  EXPECT_EQ(quilma_db({"--help"}).status, 0);
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
            "with punctuation in double quotes, as in '\"std::vector\"'\n");
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
