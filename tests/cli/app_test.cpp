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

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <sys/file.h>
#include <unistd.h>

#include "support/fault_vfs.h"
#include "support/temp_dir.h"

#include "quilma/cli/indexer.h"
#include "quilma/cli/repo_files.h"
#include "quilma/cli/source_file.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Args = std::vector<std::string>;
using Names = std::set<std::string>;

struct Result {
  int status;
  std::string out;
  std::string err;
};

Result quilma_db(const Args& args, const std::atomic<bool>* stop = nullptr) {
  std::ostringstream out;
  std::ostringstream err;
  std::vector<const char*> argv{"quilma-db"};
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  const int status =
      run(static_cast<int>(argv.size()), argv.data(), {out, err, false, false, stop});
  return {status, out.str(), err.str()};
}

// What a shell command prints, and its wait status.
Result shell(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  Result result{0, "", ""};
  for (int c = 0; (c = std::fgetc(pipe)) != EOF;) result.out += static_cast<char>(c);
  result.status = pclose(pipe);
  return result;
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
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

  Result in_repo(Args args, const std::atomic<bool>* stop = nullptr) {
    args.push_back(repo_.string());
    return quilma_db(args, stop);
  }

  // What each command prints when run in the repository.
  void expect_outputs(const std::vector<std::pair<Args, std::string>>& cases) {
    for (const auto& [args, out] : cases) EXPECT_EQ(in_repo(args).out, out) << args.back();
  }

  // The files beside the live database, which a finished run leaves without staging copies.
  Names index_dir() const {
    Names names;
    for (const auto& entry : fs::directory_iterator(index_)) names.insert(entry.path().filename());
    return names;
  }

  testing::TempDir dir_;
  fs::path repo_ = dir_ / "repo";
  fs::path index_ = repo_ / "memory/codebase-index";
};

TEST_F(IndexedRepoTest, FindsPlantedTextAndFollowsEdits) {
  expect_outputs({{{"search", "plantedIdentifier"}, PLANTED},
                  {{"search", "hiddenIdentifier OR generatedIdentifier OR memoryIdentifier"}, ""},
                  // Reported as not UTF-8, and indexed all the same with the stray byte replaced.
                  {{"search", "lait"}, "legacy/latin1.txt:2: caf\xef\xbf\xbd au lait\n"},
                  {{"generation"}, "1\n"}});
  // From inside the repository, the index above is found.
  EXPECT_EQ(quilma_db({"search", "plantedIdentifier", (repo_ / "src/util").string()}).out, PLANTED);

  write(repo_ / "src/planted.py", python_with("renamedIdentifier", 5));
  write(repo_ / "caf\xe9.py", "latinName = 1\n");  // names that are not UTF-8
  write(repo_ / "blob\xff.bin", std::string("\0\1\2", 3));
  const json report = json::parse(in_repo({"index", "--json"}).out);
  EXPECT_EQ(json({report["files"], report["errors"], report["generation"]}), json({5, 3, 2}));
  expect_outputs(
      {{{"search", "plantedIdentifier"}, ""},
       {{"search", "renamedIdentifier"}, "src/planted.py:5: renamedIdentifier = compute(5)\n"},
       {{"search", "latinName"}, "caf\\xe9.py:1: latinName = 1\n"},
       {{"generation"}, "2\n"}});
  EXPECT_EQ(index_dir(), (Names{".gitignore", "index.db"}));
  EXPECT_EQ(json::parse(in_repo({"search", "--json", "latinName"}).out)["path"],
            "caf\xef\xbf\xbd.py");  // U+FFFD
  EXPECT_EQ(json::parse(in_repo({"errors", "--json"}).out)[1]["path"], "blob\xef\xbf\xbd.bin");
  EXPECT_NE(in_repo({"errors"}).out.find("blob\\xff.bin: binary"), std::string::npos);
}

TEST_F(IndexedRepoTest, JsonAndPlainAnswersAndCheckNamesWhatIsDamaged) {
  const json stats = json::parse(in_repo({"stats", "--json"}).out);
  // Symbols: only the files' anchors, which a user never sees. Chunks: 120 lines in chunks of
  // 50, and three short files.
  EXPECT_EQ(json({stats["files"], stats["symbols"], stats["errors"], stats["chunks"]}),
            json({4, 0, 2, 6}));
  EXPECT_TRUE(stats["last_index"].get<std::string>().ends_with("Z"));
  EXPECT_EQ(json::parse(in_repo({"search", "--json", "helper"}).out),
            json::parse(R"({"path": "src/util/helpers.cpp", "line": 1,
                "text": "int helper() { return 42; }", "matches": [[4, 10]]})"));
  EXPECT_EQ(json::parse(in_repo({"check", "--json"}).out)["ok"], true);
  expect_outputs({{{"check"}, "ok\n"},
                  {{"compact"},
                   "nothing to compact: fewer than 2048 free pages, or under 10% of the file, is "
                   "left for later\n"}});

  // Each file has an anchor symbol that spans it; chunks say whether they hold the text as is.
  const fs::path file = index_ / "index.db";
  std::int64_t root = 0;
  {
    storage::Database db(file);
    open_database(db);
    EXPECT_EQ(db.fetchone("SELECT (SELECT s.name || ' ' || s.line || '-' || s.end_line || ' ' || "
                          "s.qualified_name || ' ' || f.language FROM symbols s JOIN files f ON "
                          "f.id = s.file_id WHERE f.path = 'src/planted.py') || ' ' || (SELECT "
                          "group_concat(DISTINCT path || ':' || exact) FROM code_chunks JOIN files "
                          "ON id = code_chunks.rowid >> 20 WHERE path GLOB '[dl][oe]*')")
                  .value()[0]
                  .as_text(),
              "planted.py 1-120 src/planted.py python docs/readme.md:1,legacy/latin1.txt:0");
    root =
        db.fetchone("SELECT rootpage FROM sqlite_schema WHERE name = 'files'").value()[0].as_int();
  }
  std::fstream damaged(file, std::ios::in | std::ios::out | std::ios::binary);
  damaged.seekp((root - 1) * 8192 + 8);  // the first cell pointers of the table's root page
  damaged.write("\x00\x05\x00\x07", 4);
  damaged.close();
  const Result check = in_repo({"check"});
  EXPECT_NE(check.out.find("Offset 5 out of range"), std::string::npos) << check.out;
  const json problems = json::parse(in_repo({"check", "--json"}).out)["problems"];
  EXPECT_EQ(std::to_string(check.status) + " " + check.err,
            "1 quilma-db: check: integrity check failed: " + file.string() + " (" +
                std::to_string(problems.size()) + " problems)\n");
}

TEST_F(IndexedRepoTest, StoppedOrFailedRunsLeaveThePreviousIndexAndTheNextCleansUp) {
  write(repo_ / "src/planted.py", python_with("renamedIdentifier", 5));
  const std::atomic<bool> stop{true};  // as the interrupt handler leaves it
  const Result stopped = in_repo({"index", "--quiet"}, &stop);
  EXPECT_EQ(std::to_string(stopped.status) + " " + stopped.err,
            "130 quilma-db: index: interrupted; the index was left as it was\n");
  {
    testing::FaultVfs vfs;
    vfs.fail_writes_after(std::int64_t{64} * 1024);  // the staging build runs out of disk
    const Result failed = in_repo({"index", "--quiet"});
    EXPECT_EQ(std::to_string(failed.status) + " " + failed.err,
              "1 quilma-db: index: database or disk is full\n");
  }
  expect_outputs({{{"search", "plantedIdentifier"}, PLANTED}, {{"generation"}, "1\n"}});
  EXPECT_EQ(index_dir(), (Names{".gitignore", "index.db"}));

  // Staging files of runs that did not end are removed; one that a run still holds is not.
  for (const char* name : {"staging-dead01", "staging-dead01-wal", "staging-live01"}) {
    write(index_ / ("index.db." + std::string(name)), std::string(4096, 'x'));
  }
  const int live = ::open((index_ / "index.db.staging-live01").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(live, LOCK_EX), 0);
  const Result indexed = in_repo({"index"});
  ::close(live);
  EXPECT_NE(indexed.err.find("indexing: 5/5 files, "), std::string::npos) << indexed.err;
  EXPECT_NE(indexed.err.find("removed " + (index_ / "index.db.staging-dead01").string() +
                             " (0.0 MiB), left by an indexing run that did not end"),
            std::string::npos)
      << indexed.err;
  EXPECT_EQ(index_dir(), (Names{".gitignore", "index.db", "index.db.staging-live01"}));
  EXPECT_EQ(in_repo({"generation"}).out, "2\n");
}

TEST_F(IndexedRepoTest, SearchOptionsThatGrepUsersExpect) {
  std::string wide;  // "é " a hundred times over
  for (int i = 0; i < 100; ++i) wide += "\xc3\xa9 ";
  write(repo_ / "src/more.py",
        "planted_identifier = 1\nPlantedIdentifier()\n# plantedIdentifier\n");
  write(repo_ / "words.txt",
        "target += target\nalpha beta\ngamma delta\nresend\nsend_file\nSEND\n"
        "sendfile\n\xc3\xa9send\nto send.\n" +
            wide + "needle " + wide + wide);
  ASSERT_EQ(in_repo({"index", "-q"}).status, 0);
  expect_outputs(
      {{{"search", "-w", "-s", "--sort", "path", "plantedIdentifier"},
        "src/more.py:3: # plantedIdentifier\n" + PLANTED},
       {{"search", "-w", "-l", "--sort", "path", "PLANTEDIDENTIFIER"},
        "src/more.py\nsrc/planted.py\n"},
       // A glob without '/' matches in any directory.
       {{"search", "-c", "--path", "*.py", "--sort", "path", "value_1*"}, "src/planted.py:32\n"},
       {{"search", "-l", "--path", "docs/**", "--path", "*.cpp", "--sort", "path",
         "helper OR planted"},
        "docs/readme.md\nsrc/util/helpers.cpp\n"},
       // Without -w a literal text starts and ends where the index's words do: '_' and '.' end a
       // word, 'é' does not; a text that ends in punctuation may run on.
       {{"search", "-s", "send"}, "words.txt:5: send_file\nwords.txt:9: to send.\n"},
       {{"search", "-s", "send_"}, "words.txt:5: send_file\n"},
       // Every line of a match that spans lines.
       {{"search", "\"beta gamma\""}, "words.txt:2: alpha beta\nwords.txt:3: gamma delta\n"},
       // Context crosses chunks and stops at the file's end; groups that meet print once.
       {{"search", "-C", "1", "--sort", "path", "value_10 OR value_12 OR value_51 OR value_120"},
        "src/planted.py-9- value_9 = 9\nsrc/planted.py:10: value_10 = 10\n"
        "src/planted.py-11- value_11 = 11\nsrc/planted.py:12: value_12 = 12\n"
        "src/planted.py-13- value_13 = 13\n--\nsrc/planted.py-50- value_50 = 50\n"
        "src/planted.py:51: value_51 = 51\nsrc/planted.py-52- value_52 = 52\n--\n"
        "src/planted.py-119- value_119 = 119\nsrc/planted.py:120: value_120 = 120\n"}});
  EXPECT_EQ(
      split(in_repo({"search", "-c", "--json", "--sort", "path", "planted"}).out),
      (Args{R"({"path":"docs/readme.md","count":1})", R"({"path":"src/more.py","count":1})"}));
  EXPECT_EQ(json::parse(in_repo({"search", "--json", "target"}).out)["matches"],
            json::parse("[[0, 6], [10, 16]]"));
  // A long line is cut around the match, with no half character at either end.
  const std::string cut = in_repo({"search", "needle"}).out;
  EXPECT_TRUE(cut.size() < 260 && cut.find("needle") != std::string::npos) << cut.size() << cut;
  EXPECT_EQ(utils::find_invalid_utf8(cut), std::nullopt);
  // A limit that cuts the result says so on stderr, and only then.
  const Result limited = in_repo({"search", "--limit", "2", "value_*"});
  EXPECT_EQ(split(limited.out).size(), 2U);
  EXPECT_EQ(limited.err,
            "quilma-db: showing the first 2 matching lines; more match (--limit N, or --all)\n");
  const Result all = in_repo({"search", "--all", "value_*"});
  EXPECT_EQ(split(all.out).size(), 119U);
  EXPECT_EQ(all.err, "");
}

// An index this user may not write, in a directory it may not write either: searched all the
// same, and left byte for byte as it was.
TEST_F(IndexedRepoTest, AnIndexThatCannotBeWrittenIsSearched) {
  const std::string before = read_file(index_ / "index.db");
  std::string command = QUILMA_DB_EXECUTABLE;
  if (::geteuid() == 0) {
    // Permissions do not bind root: run as nobody, from a copy of the program it can reach.
    fs::copy_file(QUILMA_DB_EXECUTABLE, dir_ / "quilma-db");
    for (fs::path at = repo_; at != dir_.path().parent_path(); at = at.parent_path()) {
      fs::permissions(at, fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);
    }
    command = "setpriv --reuid=65534 --regid=65534 --clear-groups " + (dir_ / "quilma-db").string();
  }
  fs::permissions(index_ / "index.db", fs::perms::owner_write, fs::perm_options::remove);
  fs::permissions(index_, fs::perms::owner_write, fs::perm_options::remove);
  const Result found = shell(command + " search plantedIdentifier " + repo_.string());
  fs::permissions(index_, fs::perms::owner_write, fs::perm_options::add);
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.out, PLANTED);
  EXPECT_EQ(index_dir(), (Names{".gitignore", "index.db"}));
  EXPECT_EQ(read_file(index_ / "index.db"), before);
}

TEST_F(IndexedRepoTest, BadUsageAndFailedOperations) {
  const spdlog::level::level_enum level = storage::database_logger()->level();
  const std::string repo = repo_.string();
  const std::string empty = dir_.path().string();  // holds no index
  // Each with its exit status and what it says.
  const std::vector<std::pair<Args, std::string>> cases = {
      {{}, "2 A subcommand is required"},
      {{"--db", "x.db", "reindex"}, "2 unknown command 'reindex'; the commands are: index search"},
      {{"search"}, "2 QUERY is required"},
      {{"search", "x", repo, "--limit", "0"}, "2 --limit: --limit takes a whole number of 1 or"},
      {{"search", "x", "-l", "-c"}, "2 --files-with-matches excludes --count"},
      {{"search", "x", "--all", "--limit", "3"}, "2 --limit excludes --all"},
      {{"stamp", "python=two"}, "2 stamp: expected LANG=VERSION"},
      {{"stamp", "python=1", "python=2"}, "2 stamp: language 'python' given twice"},
      {{"stats", empty},
       "1 stats: no index at " + empty +
           "/memory/codebase-index/index.db; run "
           "'quilma-db index' first\n"},
      {{"index", empty + "/nowhere"}, "1 index: no such directory: " + empty + "/nowhere\n"},
      {{"index", repo + "/docs/readme.md"},
       "1 index: not a directory: " + repo + "/docs/readme.md\n"},
      {{"search", "std::vector", repo},
       "2 malformed search query \"std::vector\" (no such column: std); put text with "
       "punctuation in double quotes, as in '\"std::vector\"', or search for it literally with "
       "-w or -s\n"},
      {{"search", "\"open", repo}, "2 malformed search query \"\"open\""},
      {{"search", "-w", "--", "", repo}, "2 nothing to search for"},
      {{"swap", empty + "/absent.db", repo},
       "1 swap: Staging database not found: " + empty + "/absent.db\n"},
      // A literal text is never parsed as a query.
      {{"search", "-w", "-s", "--", "\"std::vector", repo}, "0 "},
      {{"search", "\"std::vector\"", repo}, "0 "}};
  for (const auto& [args, said] : cases) {
    const Result result = quilma_db(args);
    EXPECT_EQ(std::to_string(result.status) + " " + result.err.substr(0, said.size() + 9),
              said.substr(0, 2) + (said.size() > 2 ? "quilma-db: " + said.substr(2) : ""));
  }
  const std::string help = quilma_db({"search", "--help"}).out;
  for (const char* shown : {"{rank,path}=rank", "--limit INT:N >= 1=20"}) {  // the defaults
    EXPECT_NE(help.find(shown), std::string::npos) << help;
  }
  // A run gives the storage layer's loggers back as it found them.
  EXPECT_EQ(storage::database_logger()->level(), level);
  EXPECT_TRUE(quilma_db({"--version"}).out.starts_with("quilma-db "));
  EXPECT_FALSE(fs::exists(dir_ / "memory"));
}

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
  for (int file = 0; file < 4; ++file) {
    std::string text;
    for (int line = 0; line < 150; ++line) {
      for (std::size_t part = random() % 5; part < 5; ++part) {
        text += words.at(random() % 19);
        text += words.at(19 + random() % 9);
      }
      text += std::string(file == 2 && line % 7 == 0 ? "caf\xe9" : "") + (file == 3 ? "\r" : "");
      text += "\n";
    }
    write(dir / ("f" + std::to_string(file) + ".txt"), text);
  }
  const std::string git = "cd " + dir.path().string() + " && LC_ALL=C git ";
  ASSERT_EQ(shell(git + "init -q && " + git + "add -A").status, 0);
  ASSERT_EQ(quilma_db({"index", "-q", dir.path().string()}).status, 0);
  // "path:line" of each line printed as grep prints it.
  const auto located = [](const std::string& out) {
    Names lines;
    for (const std::string& line : split(out)) {
      lines.insert(line.substr(0, line.find(':', line.find(':') + 1)));
    }
    return lines;
  };
  std::size_t grepped = 0;  // lines git grep found in all: a grep that failed finds none
  for (const std::string term : {"send_file", "SendFile", "SEND_FILE", "nlohmann::json", "json",
                                 "a::b", "W\xc3\xb6rld", "x1", "_x", "file", "::json", "("}) {
    for (const bool exact : {true, false}) {
      Args literal{"search", "-w", "--all", "--", term, dir.path().string()};
      if (exact) literal.insert(literal.begin() + 1, "-s");
      const std::string flags = exact ? "grep -n -w -I -F -e '" : "grep -n -w -I -F -i -e '";
      const Names expected = located(shell(git + flags + term + "'").out);
      grepped += expected.size();
      EXPECT_EQ(located(quilma_db(literal).out), expected) << term << (exact ? " -s" : "");
    }
  }
  EXPECT_GT(grepped, 1000U);
}

TEST(SourceFileTest, ChunksCoverEveryLineOnceAndProblemsAreFound) {
  // Texts of up to 120 lines, some blank, with a final newline or without: chunks of 50 lines
  // (the last one fewer), each starting where the one before ended, give the text back.
  for (const int count : {0, 1, 2, 50, 51, 100, 101, 120}) {
    for (const bool final_newline : {true, false}) {
      std::string text;
      for (int line = 1; line <= count; ++line) {
        text += line % 7 == 0 ? "" : "line" + std::to_string(line);
        text += line < count || final_newline ? "\n" : "";
      }
      std::string joined;
      std::int64_t next = 1;
      for (const Chunk& chunk : chunk_lines(text)) {
        EXPECT_EQ(chunk.start_line, next);
        EXPECT_EQ(std::count(chunk.text.begin(), chunk.text.end(), '\n'),
                  chunk.end_line - chunk.start_line);
        EXPECT_TRUE(chunk.end_line - chunk.start_line == 49 || chunk.end_line == count);
        next = chunk.end_line + 1;
        joined += std::string(chunk.text) + "\n";
      }
      EXPECT_EQ(next - 1, count);
      EXPECT_EQ(line_count(text), count);
      EXPECT_EQ(joined, count == 0 || final_newline ? text : text + "\n");
    }
  }

  testing::TempDir dir;
  write(dir / "limit.txt", std::string(MAX_FILE_BYTES, 'a'));
  write(dir / "over.txt", std::string(MAX_FILE_BYTES + 1, 'a'));
  EXPECT_EQ(read_source_file(dir / "limit.txt").content.size(), MAX_FILE_BYTES);
  const SourceFile over = read_source_file(dir / "over.txt");
  EXPECT_TRUE(over.content.empty());
  const std::vector<std::pair<std::optional<FileProblem>, std::string>> problems{
      {text_problem("caf\xc3\xa9 \xe6\x97\xa5 \xf0\x9f\x98\x80\n"), ""},
      {text_problem(std::string("ab\0c", 4)), "binary: a NUL byte at offset 2"},
      // A bad byte after a run that the ASCII fast path skips: its offset and line are exact.
      {text_problem("0123456789\nabcdef\xe9"), "not_utf8: not UTF-8 at offset 17 on line 2"},
      {text_problem("\xc0\xaf"), "not_utf8: not UTF-8 at offset 0 on line 1"},
      {text_problem("ab\xed\xa0\x80"), "not_utf8: not UTF-8 at offset 2 on line 1"},
      {text_problem("\xf4\x90\x80\x80"), "not_utf8: not UTF-8 at offset 0 on line 1"},
      {text_problem("\n\xe6\x97"), "not_utf8: not UTF-8 at offset 1 on line 2"},
      {read_source_file(dir / "limit.txt").problem, ""},
      {over.problem, "too_large: 1.0 MiB, over the limit of 1 MiB"},
      {read_source_file(dir / "missing.txt").problem, "unreadable: No such file or directory"},
      {read_source_file(dir.path()).problem, "unreadable: Is a directory"}};
  for (const auto& [problem, said] : problems) {
    EXPECT_EQ(!problem ? ""
                       : problem->type + ": " + problem->message +
                             (problem->line ? " on line " + std::to_string(*problem->line) : ""),
              said);
  }
}

TEST(RepoFilesTest, WalkOrGitListTheSourceFiles) {
  testing::TempDir dir;
  for (const char* path : {"a.py", "src/memory/kept.py", "src/.env", ".hidden/no.py", "build/no.o",
                           "cmake-build-release/no.cpp", "memory/no.md", "data/my.db",
                           "data/my.db-wal", "data/my.dbx", "deleted.py", "skip.log"}) {
    write(dir / path, "x\n");
  }
  fs::create_symlink(dir / "a.py", dir / "link.py");
  // The database's prefix covers its log and staging copies, and so "my.dbx" as well.
  RepoFiles files = list_repo_files(dir.path(), dir / "data/my.db");
  EXPECT_FALSE(files.from_git);
  EXPECT_EQ(files.paths,
            (Args{"a.py", "deleted.py", "skip.log", "src/.env", "src/memory/kept.py"}));

  write(dir / ".gitignore", "*.log\n");
  ASSERT_EQ(
      shell("cd " + dir.path().string() + " && git init -q && git add a.py deleted.py link.py")
          .status,
      0);
  fs::remove(dir / "deleted.py");
  files = list_repo_files(dir.path(), dir / "data/my.db");
  EXPECT_TRUE(files.from_git);
  // git decides what is source; links and tracked files deleted since are left out.
  EXPECT_EQ(files.paths,
            (Args{".gitignore", ".hidden/no.py", "a.py", "build/no.o", "cmake-build-release/no.cpp",
                  "memory/no.md", "src/.env", "src/memory/kept.py"}));
}

}  // namespace
}  // namespace quilma::cli
