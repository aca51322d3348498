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
#include <spdlog/logger.h>
#include <sys/file.h>
#include <unistd.h>

#include "support/fault_vfs.h"
#include "support/temp_dir.h"

#include "quilma/cli/indexer.h"
#include "quilma/cli/source_file.h"
#include "quilma/storage/database.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Args = std::vector<std::string>;

// A run's exit status and standard error, as "STATUS ERR", and its standard output.
struct Result {
  std::string told;
  std::string out;
};

Result quilma_db(const Args& args, const std::atomic<bool>* stop = nullptr) {
  std::ostringstream out;
  std::ostringstream err;
  std::vector<const char*> argv{"quilma-db"};
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  const int code = run(static_cast<int>(argv.size()), argv.data(), {out, err, false, false, stop});
  return {std::to_string(code) + " " + err.str(), out.str()};
}

// What a shell command prints, after its wait status.
std::string shell(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  std::string out;
  for (int c = 0; (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
  return std::to_string(pclose(pipe)) + " " + out;
}

void write(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

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

const std::string PLANTED = "src/planted.py:73: plantedIdentifier = compute(73)\n";

class IndexedRepoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    write(repo_ / "src/planted.py", python_with("plantedIdentifier", 73));
    write(repo_ / "src/util/helpers.cpp", "int helper() { return 42; }");  // no final newline
    write(repo_ / "docs/readme.md", "# Notes\n\nNothing planted here.\n");
    write(repo_ / "assets/logo.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
    write(repo_ / "legacy/latin1.txt", "first line\ncaf\xe9 au lait\n");
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
      {{"search", "lait"}, "legacy/latin1.txt:2: caf\xef\xbf\xbd au lait\n"},
      {{"generation"}, "1\n"},
      {{"search", "helper"}, "src/util/helpers.cpp:1: int helper() { return 42; }\n"},
      {{"check"}, "ok\n"},
      {{"compact"},
       "nothing to compact: fewer than 2048 free pages, or under 10% of the file, is left for "
       "later\n"}};
  expect_outputs(before);
  // From inside the repository, the index above is found.
  EXPECT_EQ(quilma_db({"search", "plantedIdentifier", (repo_ / "src/util").string()}).out, PLANTED);

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

  // Staging files of runs that did not end are removed; one that a run still holds is not, nor
  // a file of that name that this tool did not make.
  for (const std::string name : {"dead01", "dead01-wal", "live01", "mine01", "dead01.txt"})
    write(index_ / ("index.db.staging-" + name),
          name.starts_with("dead01") ? std::string("SQLite format 3\0", 16) : "x");
  const int live = ::open((index_ / "index.db.staging-live01").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(live, LOCK_EX), 0);
  const Result indexed = in_repo({"index", "--json"});
  ::close(live);
  EXPECT_NE(indexed.told.find("\nindexing: 9/9 files, "), std::string::npos) << indexed.told;
  EXPECT_NE(indexed.told.find("removed " + index_.string() +
                              "/index.db.staging-dead01 (0.0 MiB), left by an indexing run that"),
            std::string::npos);
  EXPECT_EQ(ls(),
            "0 index.db\nindex.db.staging-dead01.txt\nindex.db.staging-live01\n"
            "index.db.staging-mine01\n");
  const json report = json::parse(indexed.out);
  // An update: the index holds 6 files, 1 with a stray byte; 3 are left out.
  EXPECT_EQ(json({report["files"], report["left_out"], report["not_utf8"], report["generation"]}),
            json({6, 3, 1, 1}));
  expect_outputs(
      {{{"search", "plantedIdentifier"}, ""},
       {{"search", "renamedIdentifier"}, "src/planted.py:5: renamedIdentifier = compute(5)\n"},
       {{"search", "latinName"}, "caf\\xe9.py:1: latinName = 1\n"},
       {{"generation"}, "1\n"},
       {{"errors"},
        "assets/logo.png: binary: a NUL byte at offset 8\n"
        "big/over.txt: too_large: 1.0 MiB, over the limit of 1 MiB\n"
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
  storage::Database db(file);
  open_database(db);
  const auto first = [&db](const char* sql) { return db.fetchone(sql).value()[0]; };
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
}

TEST_F(IndexedRepoTest, SearchOptionsThatGrepUsersExpect) {
  write(repo_ / "src/more.py",
        "planted_identifier = 1\nPlantedIdentifier()\n# plantedIdentifier\n");
  std::string words =
      "alpha beta\ngamma delta\nresend sand\nsend_file\nSEND\nsendfile\n\xc3\xa9send\nto send.\n";
  for (int i = 0; i < 300; ++i) words += i == 100 ? "needle " : "\xc3\xa9 ";  // a long line
  write(repo_ / "words.txt", words);
  ASSERT_EQ(in_repo({"index", "-q"}).told, "0 ");
  expect_outputs(
      {{{"search", "-w", "-s", "--sort", "path", "plantedIdentifier"},
        "src/more.py:3: # plantedIdentifier\n" + PLANTED},
       {{"search", "-l", "--sort", "path", "planted"}, "docs/readme.md\nsrc/more.py\n"},
       // A glob without '/' matches in any directory.
       {{"search", "-c", "--path", "*.py", "--sort", "path", "value_1*"}, "src/planted.py:32\n"},
       // Without -w a literal text starts and ends where the index's words do: '_' and '.' end a
       // word, 'é' does not; a text that ends in punctuation may run on.
       {{"search", "-s", "send"}, "words.txt:4: send_file\nwords.txt:8: to send.\n"},
       {{"search", "-w", "send"},
        "words.txt:5: SEND\nwords.txt:7: \xc3\xa9send\nwords.txt:8: to send.\n"},
       // Every line of a match that spans lines.
       {{"search", "\"beta gamma\""}, "words.txt:1: alpha beta\nwords.txt:2: gamma delta\n"},
       // Context crosses chunks and stops at the file's end; groups that meet print once.
       {{"search", "-C", "1", "--sort", "path", "value_10 OR value_12 OR value_51 OR value_120"},
        "src/planted.py-9- value_9 = 9\nsrc/planted.py:10: value_10 = 10\n"
        "src/planted.py-11- value_11 = 11\nsrc/planted.py:12: value_12 = 12\n"
        "src/planted.py-13- value_13 = 13\n--\nsrc/planted.py-50- value_50 = 50\n"
        "src/planted.py:51: value_51 = 51\nsrc/planted.py-52- value_52 = 52\n--\n"
        "src/planted.py-119- value_119 = 119\nsrc/planted.py:120: value_120 = 120\n"},
       {{"search", "-c", "--json", "--sort", "path", "planted"},
        "{\"path\":\"docs/readme.md\",\"count\":1}\n{\"path\":\"src/more.py\",\"count\":1}\n"}});
  // A long line is cut around the match, with no half character at either end.
  const std::string cut = in_repo({"search", "needle"}).out;
  EXPECT_TRUE(cut.size() < 260 && cut.find("needle") != std::string::npos) << cut;
  EXPECT_EQ(utils::find_invalid_utf8(cut.substr(0, cut.size() - 1)), std::nullopt);
  // A limit that cuts the result says so on stderr, and only then.
  const Result limited = in_repo({"search", "--limit", "2", "value_*"});
  EXPECT_EQ(limited.told + std::to_string(split(limited.out).size()),
            "0 quilma-db: showing the first 2 matching lines; more match (--limit N, or --all)\n2");
  const Result all = in_repo({"search", "--all", "value_*"});
  EXPECT_EQ(all.told + std::to_string(split(all.out).size()), "0 119");
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
  EXPECT_EQ(ls(), "0 index.db\n");
  EXPECT_EQ(shell("cat " + (index_ / "index.db").string()), before);
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
      {{"search", "x", repo, "--limit", "0"}, "2 --limit: --limit takes a whole number of 1 or"},
      {{"stats", empty}, "1 stats: no index at " + empty + "/memory/codebase-index/index.db; run"},
      {{"index", empty + "/nowhere"}, "1 index: no such directory: " + empty + "/nowhere\n"},
      {{"search", "std::vector", repo},
       "2 malformed search query \"std::vector\" (no such column: std); put text with "
       "punctuation in double quotes, as in '\"std::vector\"', or search for it literally with "
       "-w or -s\n"},
      {{"search", R"("open)", repo}, R"(2 malformed search query ""open")"},
      {{"swap", empty + "/absent.db", repo}, "1 swap: Staging database not found: " + empty},
      {{"search", "-w", "-s", "--", "\"std::vector", repo}, "0 "}};  // a literal text is not parsed
  for (const auto& [args, said] : cases) {
    EXPECT_EQ(quilma_db(args).told.substr(0, said.size() + 11),
              said.substr(0, 2) + (said.size() > 2 ? "quilma-db: " + said.substr(2) : ""));
  }
  // Help shows the defaults.
  EXPECT_NE(quilma_db({"search", "--help"}).out.find("{rank,path}=rank"), std::string::npos);
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
// them. Either way it prints the lines that git grep prints in the changed tree.
TEST_P(ChangedTreeTest, SearchAnswersAsGitGrepBeforeAndAfterTheUpdate) {
  testing::TempDir dir;
  const std::string git = "cd " + dir.path().string() + " && git ";
  write(dir / "a.py", python_with("target", 49));  // its last chunk's first line is 51
  write(dir / "b.py", python_with("target", 10));
  write(dir / "c.md", "target\n");
  ASSERT_EQ(shell(git + "init -q && " + git + "add -A"), "0 ");
  ASSERT_EQ(quilma_db({"index", "-q", dir.path().string()}).told, "0 ");
  ASSERT_EQ(shell("cd " + dir.path().string() + " && " + GetParam().command), "0 ");
  for (const bool updated : {false, true}) {
    if (updated) {
      const Result update = quilma_db({"index", "-q", dir.path().string()});
      EXPECT_NE(update.out.find(GetParam().summary), std::string::npos) << update.out;
    }
    // search prints a line without its indent.
    const std::string grep =
        shell(git + "grep --untracked -n -w -I target | sed -E 's/^([^:]*:[0-9]+:)\\s*/\\1 /'");
    EXPECT_EQ("0 " + quilma_db({"search", "-w", "-s", "--all", "--sort", "path", "target",
                                dir.path().string()})
                         .out,
              grep)
        << (updated ? "after the update" : "before it");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Changes, ChangedTreeTest,
    ::testing::Values(
        TreeChange{"add", "printf 'x\\ntarget()\\n' > new.py",
                   "1 added, 0 updated, 0 removed, 3 unchanged"},
        TreeChange{"line_shift", "sed -i '1i import os' a.py",
                   "0 added, 1 updated, 0 removed, 2 unchanged"},
        TreeChange{"delete", "git rm -qf b.py", "0 added, 0 updated, 1 removed, 2 unchanged"},
        TreeChange{"rename", "mkdir d && git mv b.py d/b.py",
                   "1 added, 0 updated, 1 removed, 2 unchanged"},
        TreeChange{"turns_binary", "printf 'target\\0' > c.md",
                   "0 added, 1 updated, 0 removed, 2 unchanged; 1 left out, 0 with bytes that "
                   "are not UTF-8"}),
    [](const auto& info) { return std::string(info.param.name); });

// Lines made of identifiers that a word-splitting index confuses: snake_case inside longer
// names, CamelCase, ALL_CAPS, a::b, accents, a stray Latin-1 byte and CRLF endings, in a git
// work tree. A literal search (-w, with and without -s) must print the lines that git grep -w
// prints.
TEST(LiteralSearchTest, FindsTheLinesThatGitGrepFinds) {
  const Args words = split(
      "send_file|send_file_max_age|send|file|SendFile|sendFile|SEND_FILE|json|nlohmann::json|"
      "nlohmann|a::b|b|x1|x10|_x|World|W\xc3\xb6rld|Secret|secret key| |(|)|.|::|->|, |\t|_",
      '|');
  testing::TempDir dir;
  std::mt19937 random(7);
  std::array<std::string, 4> files;
  for (int line = 0; line < 600; ++line) {
    std::string& text = files.at(line % 4);
    for (std::size_t part = random() % 5; part < 5; ++part) {
      text += words.at(random() % 19) + words.at(19 + random() % 9);
    }
    text += std::string(line % 28 == 2 ? "caf\xe9" : "") + (line % 4 == 3 ? "\r\n" : "\n");
  }
  for (int file = 0; file < 4; ++file) write(dir / ("f" + std::to_string(file)), files.at(file));
  const std::string git = "cd " + dir.path().string() + " && LC_ALL=C git ";
  ASSERT_EQ(shell(git + "init -q && " + git + "add -A"), "0 ");
  // git lists the files it tracks and those it does not ignore.
  write(dir / ".gitignore", "*.log\n");
  write(dir / "skip.log", "ignoredWord\n");
  write(dir / "new.txt", "untrackedWord\n");
  ASSERT_EQ(quilma_db({"index", "-q", dir.path().string()}).told, "0 ");
  EXPECT_EQ(quilma_db({"search", "untrackedWord OR ignoredWord", dir.path().string()}).out,
            "new.txt:1: untrackedWord\n");
  const auto located = [](const std::string& out) {  // "path:line" of each line grep prints
    std::set<std::string> lines;
    for (const std::string& l : split(out)) lines.insert(l.substr(0, l.find(':', l.find(':') + 1)));
    return lines;
  };
  std::size_t grepped = 0;  // lines git grep found in all: a grep that failed finds none
  for (const std::string term : {"send_file", "SendFile", "SEND_FILE", "nlohmann::json", "json",
                                 "a::b", "W\xc3\xb6rld", "x1", "_x", "file", "::json", "("}) {
    for (const auto& [search, grep] : {std::pair{"-s", ""}, {"-w", "-i "}}) {
      const std::string out = shell(fmt::format("{}grep -n -w -I -F {}-e '{}'", git, grep, term));
      const std::set<std::string> expected = located(out.substr(out.find(' ') + 1));
      grepped += expected.size();
      const Args literal{"search", "-w", search, "--all", "--", term, dir.path().string()};
      EXPECT_EQ(located(quilma_db(literal).out), expected) << term << search;
    }
  }
  EXPECT_GT(grepped, 1000U);
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
