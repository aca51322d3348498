// quilma-db end to end, through the same entry point as the executable, and the parts under it:
// which files a run reads, how one file is read and chunked.
#include "quilma/cli/app.h"

#include <atomic>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <spdlog/logger.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/cli_run.h"
#include "support/fault_vfs.h"
#include "support/temp_dir.h"

#include "quilma/cli/grep.h"
#include "quilma/cli/indexer.h"
#include "quilma/cli/source_file.h"
#include "quilma/storage/core_schema.h"
#include "quilma/storage/database.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Args = std::vector<std::string>;
using testing::quilma_db;
using testing::Result;
using testing::shell;
using testing::write;

Args split(const std::string& text, char by = '\n') {
  Args parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, by);) parts.push_back(part);
  return parts;
}

// A Python file of 120 lines: `identifier` on line `at`, "value_N = N" on the others.
std::string python_with(const std::string& identifier, int at) {
  std::string text;
  for (int line = 1; line <= 120; ++line) {
    text += line == at ? "    " + identifier + " = compute(" + std::to_string(line) + ")\n"
                       : "value_" + std::to_string(line) + " = " + std::to_string(line) + "\n";
  }
  return text;
}

const std::string PLANTED = "src/planted.py:73:    plantedIdentifier = compute(73)\n";

class IndexedRepoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    write(repo_ / "src/planted.py", python_with("plantedIdentifier", 73));
    write(repo_ / "src/util/helpers.cpp", "int helper() { return 42; }");  // no final newline
    write(repo_ / "docs/readme.md", "# Notes\n\nNothing planted here.\n");
    write(repo_ / "assets/logo.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
    write(repo_ / "legacy/latin1.txt", "first line\ncaf\xe9 au lait\n");
    fs::create_symlink("planted.py", repo_ / "src/link.py");  // not a file of its own
    // Left out by the walk: hidden directories, build output, the index's own directory.
    for (const char* left_out : {".cache/left.py", "build/left.cpp", "memory/left.md"}) {
      write(repo_ / left_out, "leftOut\n");
    }
    ASSERT_EQ(quilma_db({"index", "--quiet", repo_.string()}).told, "0 ");
  }

  Result in_repo(Args args, const std::atomic<bool>* stop = nullptr) {
    args.push_back(repo_.string());
    return quilma_db(args, stop);
  }

  // What each command prints when run in the repository.
  void expect_outputs(const std::vector<std::pair<Args, std::string>>& cases) {
    for (const auto& [args, out] : cases) EXPECT_EQ(in_repo(args).out, out) << args.back();
  }

  // The files beside the live database, which a finished run leaves without staging copies.
  std::string ls() const { return shell("ls " + index_.string()); }

  testing::TempDir dir_;
  fs::path repo_ = dir_ / "repo";
  fs::path index_ = repo_ / "memory/codebase-index";
};

TEST_F(IndexedRepoTest, FindsPlantedTextAndFollowsEditsOnceARunEnds) {
  const std::vector<std::pair<Args, std::string>> before = {
      {{"search", "plantedIdentifier"}, PLANTED},
      {{"search", "leftOut"}, ""},
      // Reported as not UTF-8, and indexed all the same with the stray byte replaced.
      {{"search", "lait"}, "legacy/latin1.txt:2:caf\xef\xbf\xbd au lait\n"},
      {{"generation"}, "1\n"},
      {{"search", "helper"}, "src/util/helpers.cpp:1:int helper() { return 42; }\n"},
      {{"check"}, "ok\n"},
      {{"check", "--json"}, "{\n  \"ok\": true,\n  \"problems\": []\n}\n"},
      {{"compact"},
       "nothing to compact: fewer than 2048 free pages, or under 10% of the file, is left for "
       "later\n"}};
  expect_outputs(before);
  // From inside the repository, the index above is found, and the search covers the
  // directory, with paths relative to it, as git grep's.
  EXPECT_EQ(quilma_db({"search", "plantedIdentifier", (repo_ / "src").string()}).out,
            PLANTED.substr(4));
  EXPECT_EQ(quilma_db({"search", "-l", "planted*", (repo_ / "src").string()}).out, "planted.py\n");

  write(repo_ / "src/planted.py", python_with("renamedIdentifier", 5));
  write(repo_ / "caf\xe9.py", "latinName = 1\n");  // names that are not UTF-8
  write(repo_ / "blob\xff.bin", std::string("\0\1\2", 3));
  // A file is read up to the limit, and no further.
  write(repo_ / "big/limit.txt", std::string(MAX_FILE_BYTES - 9, 'a') + " lastWord");
  write(repo_ / "big/over.txt", std::string(MAX_FILE_BYTES + 1, 'a'));
  // A full build that is stopped, or fails, leaves the index as it was.
  const std::atomic<bool> stop{true};  // as the interrupt handler leaves it
  EXPECT_EQ(in_repo({"index", "--quiet", "--full"}, &stop).told,
            "130 quilma-db: index: interrupted; the index was left as it was\n");
  {
    testing::FaultVfs vfs;
    vfs.fail_writes_after(std::int64_t{64} * 1024);  // the staging build runs out of disk
    EXPECT_EQ(in_repo({"index", "--quiet", "--full"}).told,
              "1 quilma-db: index: database or disk is full\n");
  }
  const std::string errors_before =
      "assets/logo.png: binary: a NUL byte at offset 8\n"
      "legacy/latin1.txt:2: not_utf8: not UTF-8 at offset 14\n";
  expect_outputs({{{"generation"}, "1\n"}, {{"errors"}, errors_before}});
  EXPECT_EQ(ls(), "0 index.db\n");

  // Staging files of runs that did not end are removed, and a log left without its database;
  // one that a run still holds is not, nor a file of that name that this tool did not make.
  for (const std::string name :
       {"dead01", "dead01-wal", "dead02-wal", "live01", "mine01", "dead01.txt"})
    write(index_ / ("index.db.staging-" + name),
          name.starts_with("dead01") ? std::string("SQLite format 3\0", 16) + "and its pages"
                                     : "a file of its own, no database");
  // A database whose name is as long as a staging file's, and is none.
  write(index_ / "backup-of-index-2024Jan", std::string("SQLite format 3\0", 16));
  const int live = ::open((index_ / "index.db.staging-live01").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(live, LOCK_EX), 0);
  const Result indexed = in_repo({"index", "--json"});
  ::close(live);
  EXPECT_NE(indexed.told.find("\nindexing: 9/9 files, "), std::string::npos) << indexed.told;
  EXPECT_NE(indexed.told.find("removed " + index_.string() +
                              "/index.db.staging-dead01 (0.0 MiB), left by an indexing run that"),
            std::string::npos);
  EXPECT_EQ(ls(),
            "0 backup-of-index-2024Jan\nindex.db\nindex.db.staging-dead01.txt\n"
            "index.db.staging-live01\nindex.db.staging-mine01\n");
  const json report = json::parse(indexed.out);
  // An update: the index holds 6 files, 1 with a stray byte; 3 are left out.
  EXPECT_EQ(json({report["files"], report["left_out"], report["not_utf8"], report["generation"]}),
            json({6, 3, 1, 1}));
  expect_outputs(
      {{{"search", "plantedIdentifier"}, ""},
       {{"search", "renamedIdentifier"}, "src/planted.py:5:    renamedIdentifier = compute(5)\n"},
       {{"search", "latinName"}, "\"caf\\351.py\":1:latinName = 1\n"},  // quoted as git quotes it
       {{"generation"}, "1\n"},
       {{"errors"},
        "assets/logo.png: binary: a NUL byte at offset 8\n"
        "big/over.txt: too_large: 32.0 MiB, over the limit of 32 MiB\n"
        "blob\\xff.bin: binary: a NUL byte at offset 0\n"
        "legacy/latin1.txt:2: not_utf8: not UTF-8 at offset 14\n"}});
  EXPECT_TRUE(in_repo({"search", "lastWord"}).out.ends_with("aaa lastWord\n"));
  EXPECT_EQ(json::parse(in_repo({"search", "--json", "latinName"}).out)["path"],
            "caf\xef\xbf\xbd.py");  // U+FFFD
}

TEST_F(IndexedRepoTest, JsonAndPlainAnswersAndCheckNamesWhatIsDamaged) {
  const json stats = json::parse(in_repo({"stats", "--json"}).out);
  // Symbols: only the files' anchors, which a user never sees. Chunks: 120 lines in chunks of
  // 50, and three short files.
  EXPECT_EQ(json({stats["files"], stats["symbols"], stats["errors"], stats["chunks"]}),
            json({4, 0, 2, 6}));
  EXPECT_TRUE(stats["last_index"].get<std::string>().ends_with("Z"));

  // Each file has an anchor symbol that spans it; chunks say whether they hold the text as is.
  const fs::path file = index_ / "index.db";
  storage::Database held(file);  // open throughout: the file keeps its log
  open_database(held);
  const auto first = [&file](const char* sql) {
    return sqlite::Connection(file).cursor().execute(sql).fetchone().value()[0];
  };
  EXPECT_EQ(first("SELECT group_concat(s.name || ' ' || s.line || '-' || s.end_line || ' ' "
                  "|| ifnull(f.language, '-') || ' ' || (SELECT group_concat(DISTINCT "
                  "exact) FROM code_chunks WHERE rowid >> 20 = f.id), ', ') FROM symbols s "
                  "JOIN files f ON f.id = s.file_id AND s.qualified_name = f.path")
                .as_text(),
            "readme.md 1-3 markdown 1, latin1.txt 1-2 - 0, planted.py 1-120 python 1, "
            "helpers.cpp 1-1 cpp 1");
  const auto root = first("SELECT rootpage FROM sqlite_schema WHERE name = 'files'").as_int();
  // Cell pointers out of range on the table's root page.
  std::fstream damaged(file, std::ios::in | std::ios::out);
  damaged.seekp((root - 1) * 8192 + 8).write("\0\5\0\7", 4);
  damaged.close();
  const Result check = in_repo({"check"});
  EXPECT_NE(check.out.find("Offset 5 out of range"), std::string::npos) << check.out;
  const json problems = json::parse(in_repo({"check", "--json"}).out)["problems"];
  EXPECT_EQ(check.told, "1 quilma-db: check: integrity check failed: " + file.string() + " (" +
                            std::to_string(problems.size()) + " problems)\n");
  // Other commands name the damaged file; index moves it aside with its log and builds anew.
  const Result search = in_repo({"search", "planted"});
  EXPECT_TRUE(search.told.starts_with("1 quilma-db: search: the index " + file.string() +
                                      " is damaged (") &&
              search.told.ends_with("); 'quilma-db index' rebuilds it\n"))
      << search.told;
  const Result rebuilt = in_repo({"index", "-q"});
  EXPECT_TRUE(rebuilt.told.starts_with("0 quilma-db: index: " + file.string() + " was damaged (") &&
              rebuilt.told.find("); moved it to " + file.string() + ".damaged-") !=
                  std::string::npos &&
              rebuilt.told.ends_with(" and built a new one\n"))
      << rebuilt.told;
  EXPECT_NE(rebuilt.out.find("a full build (the index was damaged)"), std::string::npos);
  EXPECT_EQ(shell("cd " + index_.string() + " && ls | sed 's/-[0-9TZ]*/-T/'"),
            "0 index.db\nindex.db.damaged-T\nindex.db.damaged-T-wal\n");
  expect_outputs({{{"check"}, "ok\n"}, {{"search", "plantedIdentifier"}, PLANTED}});
  // An index made before the tool listed mixed-script words is built anew, and one of an older
  // schema is brought up to this release's.
  storage::Database older(file);
  older.connect();
  older.execute("DROP TABLE mixed_words");
  older.execute("UPDATE schema_info SET value = '3.0.0' WHERE key = 'version'");
  older.close();
  EXPECT_NE(in_repo({"index", "-q"})
                .out.find("full build (the index does not list its "
                          "mixed-script words yet)"),
            std::string::npos);
  EXPECT_EQ(first("SELECT value FROM schema_info WHERE key = 'version'"), sqlite::Value("3.1.0"));
  // Damage that only the swap meets, in a table that nothing before it reads.
  const auto symbols_root = first("SELECT rootpage FROM sqlite_schema WHERE name = 'symbols'");
  std::fstream(file, std::ios::in | std::ios::out)
      .seekp((symbols_root.as_int() - 1) * 8192)
      .write("\0", 1);  // no kind of page
  // The swap's own error is named: the run did not start over.
  EXPECT_TRUE(in_repo({"index", "-q", "--full"})
                  .told.starts_with("0 quilma-db: index: " + file.string() +
                                    " was damaged (database disk image is malformed)"));
  // A file that does not even open as a database is moved aside as well, no search before.
  std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).write("Not SQLite", 10);
  const Result unreadable = in_repo({"index", "-q"});
  EXPECT_TRUE(unreadable.told.starts_with("0 quilma-db: index: " + file.string() +
                                          " was damaged (file is not a database)"))
      << unreadable.told;
  expect_outputs({{{"search", "plantedIdentifier"}, PLANTED}});
  // An index the service built records no repository: which files changed cannot be told.
  sqlite::Connection(file).cursor().execute("DELETE FROM schema_info WHERE key = 'repository'");
  for (const Args& search :
       {Args{"search", "plantedIdentifier"}, Args{"search", "-w", "planted"}}) {
    EXPECT_NE(in_repo(search).told.find("cannot tell which files changed"), std::string::npos);
  }
}

TEST_F(IndexedRepoTest, SearchOptionsThatGrepUsersExpect) {
  write(repo_ / "src/more.py",
        "planted_identifier = 1\nPlantedIdentifier()\n# plantedIdentifier\n");
  std::string words = "alpha beta\ngamma delta\n";
  for (int i = 0; i < 300; ++i) words += i == 100 ? "needle " : "\xc3\xa9 ";  // a long line
  write(repo_ / "words.txt", words);
  ASSERT_EQ(in_repo({"index", "-q"}).told, "0 ");
  expect_outputs(
      {{{"search", "-w", "-s", "--sort", "path", "plantedIdentifier"},
        "src/more.py:3:# plantedIdentifier\n" + PLANTED},
       {{"search", "-l", "--sort", "path", "planted"}, "docs/readme.md\nsrc/more.py\n"},
       // Only files with a line that matches: the index offers planted.py too, in any case.
       {{"search", "-w", "-c", "PlantedIdentifier"}, "src/more.py:1\n"},
       // A pathspec names a directory, or has a '*' that crosses '/', as git's do.
       {{"search", "-w", "-s", "--path", "src", "plantedIdentifier"},
        "src/more.py:3:# plantedIdentifier\n" + PLANTED},
       {{"search", "-s", "-l", "--path", "src", "planted"}, "src/more.py\nsrc/planted.py\n"},
       {{"search", "-c", "--path", "*.py", "--sort", "path", "value_1*"}, "src/planted.py:32\n"},
       // Every line of a match that spans lines.
       {{"search", "\"beta gamma\""}, "words.txt:1:alpha beta\nwords.txt:2:gamma delta\n"},
       // Context crosses chunks and stops at the file's end; groups that meet, one's lines after
       // and the next one's before, print once.
       {{"search", "-C", "1", "--sort", "path", "value_10 OR value_13 OR value_51 OR value_120"},
        "src/planted.py-9-value_9 = 9\nsrc/planted.py:10:value_10 = 10\n"
        "src/planted.py-11-value_11 = 11\nsrc/planted.py-12-value_12 = 12\n"
        "src/planted.py:13:value_13 = 13\nsrc/planted.py-14-value_14 = 14\n--\n"
        "src/planted.py-50-value_50 = 50\n"
        "src/planted.py:51:value_51 = 51\nsrc/planted.py-52-value_52 = 52\n--\n"
        "src/planted.py-119-value_119 = 119\nsrc/planted.py:120:value_120 = 120\n"},
       // The limit's last match keeps its context after it, and no line further on.
       {{"search", "-w", "-C", "1", "--limit", "1", "-e", "value_10", "-e", "value_13"},
        "src/planted.py-9-value_9 = 9\nsrc/planted.py:10:value_10 = 10\n"
        "src/planted.py-11-value_11 = 11\n"},
       // The context after a hit stops short of the next one.
       {{"search", "-C", "2", "--sort", "path", "value_119 OR value_120"},
        "src/planted.py-117-value_117 = 117\nsrc/planted.py-118-value_118 = 118\n"
        "src/planted.py:119:value_119 = 119\nsrc/planted.py:120:value_120 = 120\n"},
       {{"search", "-c", "--json", "--sort", "path", "planted"},
        "{\"path\":\"docs/readme.md\",\"count\":1}\n{\"path\":\"src/more.py\",\"count\":1}\n"}});
  // A long line is printed whole, and JSON offsets point into it.
  const json needle = json::parse(in_repo({"search", "--json", "needle"}).out);
  EXPECT_EQ(needle["text"].get<std::string>().substr(needle["matches"][0][0], 6), "needle");
  EXPECT_FALSE(needle.contains("before"));  // no context asked for
  // Matches of several patterns come in their order in the line, those that touch included;
  // JSON keeps text beyond ASCII as it is.
  const std::string touching =
      in_repo({"search", "--json", "-e", " delta", "-e", "gamma", "-e", "needle"}).out;
  EXPECT_EQ(json::parse(split(touching).at(0)).at("matches"), json::parse("[[0, 5], [5, 11]]"));
  EXPECT_NE(touching.find("\xc3\xa9 needle"), std::string::npos);
  // A limit that cuts the result says so on stderr, and only then.
  const Result limited = in_repo({"search", "--limit", "10", "value_*"});
  EXPECT_EQ(
      limited.told + std::to_string(split(limited.out).size()),
      "0 quilma-db: showing the first 10 matching lines; more match (--limit N, or --all)\n10");
  EXPECT_EQ(
      in_repo({"search", "-w", "-C", "1", "--limit", "1", "-e", "value_10", "-e", "value_13"}).told,
      "0 quilma-db: showing the first 1 matching lines; more match (--limit N, or --all)\n");
  const Result all = in_repo({"search", "--all", "value_*"});
  EXPECT_EQ(all.told + std::to_string(split(all.out).size()), "0 119");
  // A new extractor version marks the files of its language for the next run.
  EXPECT_EQ(quilma_db({"stamp", "python=2", "--repo", repo_.string()}).out,
            "marked 2 files for re-parsing\n");
}

// An index this user may not write, in a directory it may not write either: searched through
// the log that a process of its owner's shares, refused while none does (the owner could
// rewrite it meanwhile), and left byte for byte as it was.
TEST_F(IndexedRepoTest, AnIndexThatCannotBeWrittenIsSearched) {
  const std::string before = shell("cat " + (index_ / "index.db").string());
  std::string command = QUILMA_DB_EXECUTABLE;
  if (::geteuid() == 0) {
    // Permissions do not bind root: run as nobody, from a copy of the program it can reach.
    fs::copy_file(QUILMA_DB_EXECUTABLE, dir_ / "quilma-db");
    ASSERT_EQ(shell("chmod -R o+rX " + dir_.path().string()), "0 ");
    command = "setpriv --reuid=65534 --regid=65534 --clear-groups " + (dir_ / "quilma-db").string();
  }
  ASSERT_EQ(shell("chmod a-w " + index_.string() + " " + index_.string() + "/index.db"), "0 ");
  const std::string search = command + " search plantedIdentifier " + repo_.string();
  const std::string refused = shell(search + " 2>&1");
  EXPECT_TRUE(refused.starts_with("256 quilma-db: search: Cannot read " + index_.string() +
                                  "/index.db safely: this process may not write it or its "
                                  "directory, and no process that may has it open"))
      << refused;
  {
    storage::Database owner(index_ / "index.db");
    owner.connect();
    EXPECT_EQ(shell(search), "0 " + PLANTED);
  }
  ASSERT_EQ(shell("chmod u+w " + index_.string()), "0 ");
  // On a read-only mount no process can write it: it is read as it stands. (Where this user
  // may not make a mount namespace of its own, there is no such mount to try.)
  if (shell("unshare -rm true") == "0 ") {
    const std::string at = index_.string() + " " + index_.string();
    EXPECT_EQ(
        shell("unshare -rm sh -c 'mount --bind " + at + " && mount -o remount,bind,ro " + at +
              " && " + QUILMA_DB_EXECUTABLE + " search plantedIdentifier " + repo_.string() + "'"),
        "0 " + PLANTED);
  }
  EXPECT_EQ(ls(), "0 index.db\n");
  EXPECT_EQ(shell("cat " + (index_ / "index.db").string()), before);
}

// The program tells a terminal from a pipe: on a terminal, matches in colour and one status line
// that updates itself; into a pipe, plain text and whole lines.
TEST_F(IndexedRepoTest, TheProgramColoursAndRewritesItsStatusOnlyOnATerminal) {
  const std::string program = std::string("env -u NO_COLOR ") + QUILMA_DB_EXECUTABLE;
  const std::string search = program + " search -w plantedIdentifier " + repo_.string();
  const std::string index = program + " index --full " + repo_.string();
  EXPECT_EQ(shell(search), "0 " + PLANTED);
  const std::string piped = shell(index + " 2>&1 >/dev/null");
  EXPECT_NE(piped.find("\nindexing: "), std::string::npos) << piped;
  EXPECT_EQ(piped.find('\r'), std::string::npos) << piped;
  // script(1) runs a command on a terminal of its own, where one can be made.
  if (shell("script -qec true /dev/null") != "0 ") return;
  EXPECT_NE(shell("script -qec '" + search + "' /dev/null").find("\033[1;31mplantedIdentifier"),
            std::string::npos);
  EXPECT_NE(shell("script -qec '" + program + " search -w 120 " + repo_.string() + "' /dev/null")
                .find("= \033[1;31m120\033[0m"),  // at the line's end
            std::string::npos);
  // The status line is erased once the run ends.
  const std::string status = shell("script -qec '" + index + " >/dev/null' /dev/null");
  EXPECT_NE(status.find("\r\033[Kindexing: "), std::string::npos);
  EXPECT_GT(status.rfind("\r\033[K"), status.rfind("indexing: ")) << status;
}

// Past a share of the files changed, an update is a full build, and its summary says why.
TEST(IndexSummaryTest, ManyChangedFilesMakeAFullBuildThatSaysWhy) {
  testing::TempDir dir;
  const auto write_all = [&](const std::string& word) {
    for (int i = 0; i < 210; ++i) write(dir / fmt::format("f{}.py", i), word + " = 1\n");
  };
  write_all("before");
  fs::create_directory(dir / ".git");  // no repository: git fails, and the tree is walked
  const std::string repo = dir.path().string();
  ASSERT_EQ(quilma_db({"index", "-q", repo}).told, "0 ");
  ASSERT_EQ(quilma_db({"stamp", "python=2", "--repo", repo}).out,
            "marked 210 files for re-parsing\n");
  write_all("after");
  EXPECT_NE(quilma_db({"index", repo})
                .out.find("a full build (210 files added, changed or removed of 210, 210 of "
                          "them marked by a changed extractor stamp)"),
            std::string::npos);
  write_all("changed_again");  // of another size: not taken for a file touched alone
  const std::string rebuilt = quilma_db({"index", repo}).out;
  EXPECT_NE(rebuilt.find("a full build (210 files added, changed or removed of 210)"),
            std::string::npos);
  EXPECT_EQ(rebuilt.find("left out"), std::string::npos);  // nothing was
  // Many batches of files, every one printed.
  EXPECT_EQ(split(quilma_db({"search", "-w", "-l", "--all", "changed_again", repo}).out).size(),
            210U);
}

// Ctrl-C, SIGTERM and a closed terminal (SIGHUP) each stop a run of the program cleanly.
TEST(ProgramTest, SignalsStopABuildCleanly) {
  testing::TempDir dir;
  for (int i = 0; i < 1100; ++i) write(dir / fmt::format("f{}.py", i), python_with("word", 1));
  write(dir / "z.py", "WORD = 1\n");
  const std::string repo = dir.path().string();
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    int pipe_fds[2];
    ASSERT_EQ(::pipe(pipe_fds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
    const char* argv[] = {QUILMA_DB_EXECUTABLE, "index", "--full", repo.c_str(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(
        ::posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ),
        0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe_fds[1]);
    std::string err;
    char c = 0;
    // Its first line (what it lists) comes after its handlers are in place, before the build.
    while (::read(pipe_fds[0], &c, 1) == 1 && (err += c, c != '\n')) {
    }
    ::kill(pid, signal);
    while (::read(pipe_fds[0], &c, 1) == 1) err += c;
    ::close(pipe_fds[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << signal << ": " << status;
    EXPECT_NE(err.find("index: interrupted; the index was left as it was"), std::string::npos)
        << signal << ": " << err;
  }
  // A search that reaches its limit early in many files ends, with its scanning threads.
  ASSERT_EQ(quilma_db({"index", "-q", repo}).told, "0 ");
  const Result first = quilma_db({"search", "-w", "--limit", "1", "word", repo});
  EXPECT_EQ(first.out + first.told,
            "f0.py:1:    word = compute(1)\n0 quilma-db: showing the first 1 matching lines; more "
            "match (--limit N, or --all)\n");
  // A pathspec that matches nothing is told even when the limit ends the search early.
  EXPECT_EQ(
      quilma_db({"search", "-w", "--limit", "1", "--path", ".", "--path", "nowhere", "word", repo})
          .told,
      "0 quilma-db: --path 'nowhere' matches no indexed file\nquilma-db: showing the first 1 "
      "matching lines; more match (--limit N, or --all)\n");
  // Every file is a candidate (the index folds case), and only the last one matches.
  EXPECT_EQ(quilma_db({"search", "-w", "WORD", repo}).out, "z.py:1:WORD = 1\n");
  // A print that throws ends the scan as well: the threads waiting for the printer stop.
  storage::Database db(dir / "memory/codebase-index/index.db");
  db.connect();
  GrepRequest request;
  request.patterns.patterns = {"word"};
  request.root = dir.path();
  EXPECT_THROW(grep(db, request, [](GrepFile&) -> bool { throw std::runtime_error("print"); }),
               std::runtime_error);
}

TEST_F(IndexedRepoTest, BadUsageAndFailedOperations) {
  const spdlog::level::level_enum level = storage::database_logger()->level();
  const std::string repo = repo_.string();
  const std::string empty = dir_.path().string();  // holds no index
  // Each with its exit status and the start of what it says after "quilma-db: ".
  const std::vector<std::pair<Args, std::string>> cases = {
      {{}, "2 A subcommand is required"},
      {{"--db", "x.db", "reindex"}, "2 unknown command 'reindex'; the commands are: index search"},
      {{"search"}, "2 QUERY is required"},
      {{"stamp"}, "2 LANG=VERSION is required"},
      {{"search", "-C", "1001", "x", repo}, "2 --context: Value 1001 not in range 0 to 1000"},
      {{"search", "x", repo, "--limit", "0"}, "2 --limit: --limit takes a whole number of 1 or"},
      {{"search", "x", repo, "--limit", "x1"}, "2 --limit: --limit takes a whole number of 1 or"},
      {{"stats", empty}, "1 stats: no index at " + empty + "/memory/codebase-index/index.db; run"},
      {{"index", empty + "/nowhere"}, "1 index: no such directory: " + empty + "/nowhere\n"},
      {{"search", "std::vector", repo},
       "2 malformed search query \"std::vector\" (no such column: std); put text with "
       "punctuation in double quotes, as in '\"std::vector\"', or search for it literally with "
       "-w or -s;"},
      {{"search", R"("open)", repo}, R"(2 malformed search query ""open")"},
      {{"swap", empty + "/absent.db", repo}, "1 swap: Staging database not found: " + empty},
      {{"search", "-w", "-s", "--", "\"std::vector", repo}, "1 "},  // a pattern is not parsed
      {{"search", "spawn", "blocking"}, "2 'blocking' is not a directory; QUERY is one pattern"},
      {{"search", "-E", "(", repo}, "2 bad regular expression '(': missing )"},
      {{"search", "-w", "--path=nowhere/", "x", repo}, "1 --path 'nowhere/' matches no"}};
  for (const auto& [args, said] : cases) {
    EXPECT_EQ(quilma_db(args).told.substr(0, said.size() + 11),
              said.substr(0, 2) + (said.size() > 2 ? "quilma-db: " + said.substr(2) : ""));
  }
  // Help shows the defaults.
  EXPECT_NE(quilma_db({"search", "--help"}).out.find("--limit INT:N >= 1=20"), std::string::npos);
  EXPECT_NE(quilma_db({"--help"}).out.find("--color TEXT:{auto,always,never}=auto"),
            std::string::npos);
  // A run gives the storage layer's loggers back as it found them.
  EXPECT_EQ(storage::database_logger()->level(), level);
}

// A change to a git work tree, and the summary of the update that follows it.
struct TreeChange {
  const char* name;
  const char* command;  // run in the work tree
  const char* summary;  // what the update reports
};

class ChangedTreeTest : public ::testing::TestWithParam<TreeChange> {};

// Before the next index run search reads the changed files themselves; after it, the index has
// them, and a word after a letter that the index folds into ASCII ("àtarget") among them. Either
// way it prints the lines that git grep prints in the changed tree.
TEST_P(ChangedTreeTest, SearchAnswersAsGitGrepBeforeAndAfterTheUpdate) {
  testing::TempDir dir;
  const std::string git = "cd " + dir.path().string() + " && git ";
  write(dir / "a.py", python_with("target", 49));  // its last chunk's first line is 51
  write(dir / "b.py", python_with("target", 10));
  write(dir / "c.md", "target\n");
  write(dir / "d.bin", std::string("target\0", 7));  // left out
  fs::create_symlink("c.md", dir / "e.lnk");         // tracked, and no file of the index
  ASSERT_EQ(shell(git + "init -q && " + git + "add -A"), "0 ");
  ASSERT_EQ(quilma_db({"index", "-q", dir.path().string()}).told, "0 ");
  ASSERT_EQ(shell("cd " + dir.path().string() + " && " + GetParam().command), "0 ");
  for (const bool updated : {false, true}) {
    if (updated) {
      const Result update = quilma_db({"index", "-q", dir.path().string()});
      EXPECT_NE(update.out.find(GetParam().summary), std::string::npos) << update.out;
    }
    EXPECT_EQ(
        "0 " + quilma_db({"search", "-w", "-C", "1", "--all", "target", dir.path().string()}).out,
        shell(git + "grep --untracked -n -w -I -C 1 target"))
        << (updated ? "after the update" : "before it");
    // The full-text search reads the changed files into an index of their own, and leaves
    // out the lines of files removed: each line it prints is one of the pattern's (which also
    // finds "target" after a letter beyond ASCII, where the index sees one word).
    const Result words = quilma_db({"search", "--all", "target", dir.path().string()});
    const std::string lines =
        quilma_db({"search", "-w", "-i", "--all", "target", dir.path().string()}).out;
    EXPECT_EQ(words.told, "0 ");
    for (const std::string& line : split(words.out))
      EXPECT_NE(lines.find(line + "\n"), std::string::npos) << line;
  }
  // The files changed too recently for their times to vouch for them: the search above read
  // them from disk again. The index alone answers alike.
  EXPECT_EQ(
      "0 " +
          quilma_db({"search", "-w", "--all", "--as-indexed", "target", dir.path().string()}).out,
      shell(git + "grep --untracked -n -w -I target"));
}

INSTANTIATE_TEST_SUITE_P(
    Changes, ChangedTreeTest,
    ::testing::Values(
        TreeChange{"add", "printf 'x\\ntarget()\\n' > new.py && printf '\\303\\240target' > new.md",
                   "2 added, 0 updated, 0 removed, 4 unchanged"},
        TreeChange{"line_shift", "sed -i '1i import os' a.py",
                   "0 added, 1 updated, 0 removed, 3 unchanged"},
        TreeChange{"delete", "git rm -qf b.py", "0 added, 0 updated, 1 removed, 3 unchanged"},
        TreeChange{"delete_left_out", "git rm -qf d.bin",
                   "0 added, 0 updated, 1 removed, 3 unchanged"},
        TreeChange{"rename", "mkdir d && git mv b.py d/b.py",
                   "1 added, 0 updated, 1 removed, 3 unchanged"},
        // Unmerged: git lists the file once for each side.
        TreeChange{
            "conflict",
            "C='git -c user.name=t -c user.email=t@t' && $C commit -qm a && git checkout "
            "-qb b && sed -i '1s/$/ 1/' c.md && $C commit -qam b && git checkout -q - && sed "
            "-i '1s/$/ 2/' c.md && $C commit -qam c && ! $C merge -q b >/dev/null 2>&1",
            "0 added, 1 updated, 0 removed, 3 unchanged"},
        TreeChange{"turns_binary", "printf 'target\\0' > c.md",
                   "0 added, 1 updated, 0 removed, 3 unchanged; 2 left out, 0 with bytes that "
                   "are not UTF-8"}),
    [](const auto& info) { return std::string(info.param.name); });

// Another program (the service's daemon) may rewrite a file's rows without the tool's record of
// the file's state. Only a state that shows the file's size, time and indexed digest vouches for
// the index's text; the search reads any other file from disk.
TEST(FreshnessTest, OnlyARecordedStateVouchesForTheIndexedText) {
  testing::TempDir dir;
  for (const char* name : {"a.py", "b.py", "c.py", "d.py"}) write(dir / name, "onDisk = 1\n");
  // Old enough for their times to vouch for them.
  ASSERT_EQ(shell("touch -d @1600000000 " + dir.path().string() + "/*.py"), "0 ");
  ASSERT_EQ(quilma_db({"index", "-q", dir.path().string()}).told, "0 ");
  {
    storage::Database db(dir / "memory/codebase-index/index.db");
    db.connect();
    db.transaction([](sqlite::Cursor& cursor) {
      // a.py rewritten under a new digest, b.py's state gone, c.py's text changed alone, d.py
      // taken out of the index.
      cursor.execute("UPDATE files SET hash = 'other' WHERE path = 'a.py'");
      cursor.execute("DELETE FROM file_states WHERE path = 'b.py'");
      cursor.execute("DELETE FROM files WHERE path = 'd.py'");
      cursor.execute(
          "UPDATE code_chunks SET text = 'inIndex = 1' WHERE rowid IN (SELECT c.rowid FROM "
          "code_chunks AS c JOIN files AS f ON c.rowid / ? = f.id)",
          {storage::core_schema::CHUNKS_PER_FILE});
    });
    db.close();
  }
  const auto search = [&](const Args& flags) {
    Args args{"search", "-w", "--all"};
    args.insert(args.end(), flags.begin(), flags.end());
    args.push_back(dir.path().string());
    return quilma_db(args).out;
  };
  EXPECT_EQ(search({"inIndex"}), "c.py:1:inIndex = 1\n");
  EXPECT_EQ(search({"onDisk"}), "a.py:1:onDisk = 1\nb.py:1:onDisk = 1\nd.py:1:onDisk = 1\n");
  EXPECT_EQ(search({"--as-indexed", "inIndex"}),
            "a.py:1:inIndex = 1\nb.py:1:inIndex = 1\nc.py:1:inIndex = 1\n");
  // Ranked, the lines read from disk come first, then the index's.
  EXPECT_EQ(quilma_db({"search", "--all", "inIndex OR onDisk", dir.path().string()}).out,
            "a.py:1:onDisk = 1\nb.py:1:onDisk = 1\nd.py:1:onDisk = 1\nc.py:1:inIndex = 1\n");
  // Within a limit, the index is asked again for the lines of changed files it had to leave out.
  EXPECT_EQ(quilma_db({"search", "--limit", "1", "inIndex", dir.path().string()}).out,
            "c.py:1:inIndex = 1\n");
  // An update reads again the files whose state does not vouch for them. b.py's digest shows
  // that the index holds it as it is (only its state was lost): its rows stay.
  const Result update = quilma_db({"index", dir.path().string()});
  EXPECT_NE(update.out.find("0 added, 2 updated, 0 removed, 2 unchanged"), std::string::npos)
      << update.out;
  EXPECT_EQ(search({"--as-indexed", "onDisk"}), "a.py:1:onDisk = 1\nd.py:1:onDisk = 1\n");
  EXPECT_EQ(search({"inIndex"}), "b.py:1:inIndex = 1\nc.py:1:inIndex = 1\n");
}

// A repository made to be hard on a word index, searched as git grep searches it: non-ASCII
// letters and symbols on either side of a match, CRLF, tabs, a long line, a file over the
// index's size limit, a NUL past git's binary probe and one before it, and a subdirectory.
// Each case prints what `git grep -n -I` prints, byte for byte, with its exit status.
class GrepParityTest : public ::testing::TestWithParam<std::pair<Args, std::string>> {
 protected:
  static void SetUpTestSuite() {
    const Args words = split(
        "commit|Commit|COMMIT|Hall|Hall\xc3\xb3|commit\xc3\xa9\x65s|\xe4\xb8\x80"
        "commit\xe7\x9a\x84|"
        "cr\xc3\xa9\xc3\xa9|\xc3\xa9|\xe2\x80\x94|\xe2\x86\x92|-x|send_file|a::b|_x|x1|"
        "\xc3\xbc\x62\x65r|"
        "\xc3\x9c\x62\x65r| |\t|.|(|\xc3\xa9|\xe2\x80\x94",
        '|');
    std::mt19937 random(11);
    for (int file = 0; file < 3; ++file) {
      std::string text;
      for (int line = 0; line < 300; ++line) {
        for (std::size_t part = random() % 6; part < 6; ++part) {
          text += words.at(random() % 18) + words.at(18 + random() % 6);
        }
        text += file == 1 ? "\r\n" : "\n";
      }
      write(dir() / (file == 2 ? "sub/deep/f.txt" : "f" + std::to_string(file) + ".txt"), text);
    }
    write(dir() / "long.txt", std::string(100000, 'x') + " commit\n");
    std::string big;
    for (std::size_t line = 0; big.size() <= MAX_FILE_BYTES; ++line) {
      big += line % 1000 == 7 ? "\tHall commit\n" : std::string(1000, 'y') + "\n";
    }
    write(dir() / "big.txt", big);
    write(dir() / "aardvark.txt", "commit\n");  // before big.txt, which is read from disk
    write(dir() / "nul_late.txt",
          std::string(BINARY_PROBE_BYTES, 'a') + std::string("\0commit\n", 8));
    write(dir() / "nul_early.bin", std::string("commit\0\n", 8));
    write(dir() / ".gitignore", "ignored.txt\n");
    write(dir() / "ignored.txt", "commit\n");  // git lists it nowhere
    // A rare word, found through the index, in files of its own: after a CJK letter, after
    // accented ones (which the index folds into ASCII) in a file whose name git quotes, before
    // an accented one, and inside an ASCII word (after a digit, in a file the index offers for
    // another line; after a letter), where only grep without -w finds it.
    write(dir() / "rare/cjk.txt", "\xe4\xb8\x80\xe6\xac\xa1Zorblax\xe7\x9a\x84\n");
    write(dir() / "rare/folded \xc3\xa0 \"quoted\".txt",
          "d\xc3\xa9j\xc3\xa0Zorblax end\n\xc3\x89zorblax\n");
    write(dir() / "rare/accent.txt", "Zorblax\xc3\xa9s\n0Zorblax\nAZorblax\n");
    write(dir() / "rare/inside.txt", "xZorblax\na---\n");
    write(dir() / "rare/last.txt", "x\nHALL");    // a match that ends the file
    write(dir() / "rare/blank.txt", "Hall\n\n");  // and one before an empty last line
    write(dir() / "rare/gap.txt", std::string(5000, '\n') + "Hall\n");  // after 5 000 lines
    // Letters whose case reaches beyond ASCII: the Kelvin sign, the long s.
    write(dir() / "rare/fold.txt", "\xe2\x84\xaa\x65lvin test \xc5\xbfun\nkelvin sun\n");
    ASSERT_EQ(shell(git() + "init -q && " + git() + "add -A"), "0 ");
    ASSERT_EQ(quilma_db({"index", "-q", dir().string()}).told, "0 ");
  }
  static void TearDownTestSuite() { fs::remove_all(dir()); }
  // One per process: CTest runs the cases as processes of their own, side by side.
  static fs::path dir() {
    return fs::temp_directory_path() / ("quilma-grep-parity-" + std::to_string(::getpid()));
  }
  static std::string git() { return "cd " + dir().string() + " && LC_ALL=C.UTF-8 git "; }
};

TEST_P(GrepParityTest, PrintsWhatGitGrepPrints) {
  auto [flags, where] = GetParam();
  std::string grep = "cd " + (dir() / where).string() + " && LC_ALL=C.UTF-8 git grep -n -I";
  const bool listed = std::find(flags.begin(), flags.end(), "-e") != flags.end();
  for (std::size_t i = 0; i < flags.size(); ++i) {
    grep += (i + 1 == flags.size() && !listed ? " -e '" : " '") + flags[i] + "'";
  }
  const std::string expected = shell(grep);
  // As indexed: the files were written moments before the index was built, too recently for
  // their times to vouch for them, and would be read from disk instead.
  Args search{"search", "--all", "--as-indexed", "--color", "never"};
  search.insert(search.end(), flags.begin(), flags.end() - 1);
  if (!listed) search.emplace_back("--");
  search.insert(search.end(), {flags.back(), (dir() / where).string()});
  const Result got = quilma_db(search);
  // git's wait status carries its exit status in the second byte.
  EXPECT_EQ(std::to_string(std::stoi(expected) >> 8) + " " + got.out,
            std::to_string(std::stoi(got.told)) + expected.substr(expected.find(' ')))
      << got.told;
}

INSTANTIATE_TEST_SUITE_P(
    HardRepository, GrepParityTest,
    ::testing::Values(std::pair{Args{"-w", "commit"}, ""}, std::pair{Args{"-w", "Hall"}, ""},
                      std::pair{Args{"-w", "\xc3\xa9"}, ""},
                      std::pair{Args{"-w", "\xe2\x80\x94"}, ""},
                      std::pair{Args{"-w", "\xe2\x86\x92"}, ""}, std::pair{Args{"-w", "-x"}, ""},
                      std::pair{Args{"-w", "a::b"}, ""}, std::pair{Args{"-w", "_x"}, ""},
                      std::pair{Args{"-F", "commit"}, ""}, std::pair{Args{"-i", "HALL"}, ""},
                      std::pair{Args{"-w", "Zorblax"}, ""}, std::pair{Args{"-F", "Zorblax"}, ""},
                      std::pair{Args{"-w", "-i", "Zorblax end"}, ""},
                      std::pair{Args{"-w", "-i", "\xc3\x9c\x62\x65r"}, ""},
                      std::pair{Args{"-i", "KELVIN"}, ""}, std::pair{Args{"-w", "-i", "Sun"}, ""},
                      std::pair{Args{"-w", "-e", "send_file", "-e", "x1"}, ""},
                      std::pair{Args{"-E", "comm[a-z]+"}, ""},
                      std::pair{Args{"-E", "Zorblax|HALL"}, ""},
                      std::pair{Args{"-E", "Ha(llxyzw)?ll"}, ""},
                      std::pair{Args{"-E", "-w", "^commit"}, ""}, std::pair{Args{"-w", "--"}, ""},
                      std::pair{Args{"-E", "q?C"}, ""}, std::pair{Args{"-E", "Zorblaxq*"}, ""},
                      std::pair{Args{"-w", "-C", "1", "Hall"}, ""}, std::pair{Args{"-F", "("}, ""},
                      std::pair{Args{"-w", "absent"}, ""}, std::pair{Args{"-w", "commit"}, "sub"}));

TEST(SourceFileTest, LanguageFromNameOrExtension) {
  // By extension, the indexed files show their languages (JsonAndPlainAnswers...); by name:
  EXPECT_EQ(language_of("sub/Makefile"), "make");
  EXPECT_EQ(language_of("dir/.py"), std::nullopt);     // a hidden file, not an extension
  EXPECT_EQ(language_of("dir/notes."), std::nullopt);  // an empty extension
}

TEST(SourceFileTest, ChunksCoverEveryLineOnce) {
  // The first lines of a file, with a final newline and without: chunks of 50 lines (the last
  // one fewer), each starting where the one before ended, give the text back.
  const std::string lines = python_with("", 7);
  for (std::int64_t count = 0, end = 0; count <= 120;
       ++count, end = static_cast<std::int64_t>(lines.find('\n', end)) + 1) {
    for (const std::string& text : {lines.substr(0, end), lines.substr(0, end ? end - 1 : 0)}) {
      std::string joined;
      std::int64_t next = 1;
      for (const Chunk& chunk : chunk_lines(text)) {
        EXPECT_EQ(chunk.start_line, std::exchange(next, chunk.end_line + 1));
        EXPECT_TRUE(chunk.end_line - chunk.start_line == 49 || chunk.end_line == count);
        joined += std::string(chunk.text) + "\n";
      }
      const std::string whole = text.empty() || text.ends_with('\n') ? text : text + "\n";
      EXPECT_EQ(json({line_count(text), next - 1, joined}), json({count, count, whole}));
    }
  }
}

}  // namespace
}  // namespace quilma::cli
