// From ranked chunks to matching lines: line numbers, matches that span lines, long lines,
// the literal search against git grep, and the options that shape the result.
#include "quilma/cli/search.h"

#include <cstdio>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

#include "quilma/cli/indexer.h"
#include "quilma/cli/progress.h"
#include "quilma/storage/core_schema.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {
namespace {

namespace fs = std::filesystem;
using Matches = std::vector<std::pair<std::size_t, std::size_t>>;

SearchRequest ask(std::string query, std::int64_t limit = 20) {
  SearchRequest request;
  request.query = std::move(query);
  request.limit = limit;
  return request;
}

class SearchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    open_database(db_);
    db_.execute("INSERT INTO files (id, path) VALUES (7, 'src/a.c'), (8, 'lib/b.h')");
  }
  void add_chunk(std::int64_t file, std::int64_t index, std::int64_t start_line,
                 const std::string& text) {
    db_.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, 0, 1)",
        {storage::core_schema::chunk_rowid(file, index), text, start_line});
  }

  testing::TempDir dir_;
  storage::Database db_{dir_ / "index.db"};
};

TEST_F(SearchTest, EveryMatchingLineOfAChunk) {
  add_chunk(7, 0, 1, "int one;\n  int target = 1;\nint two;\n\ttarget += target;");
  add_chunk(7, 1, 51, "alpha beta\ngamma delta");
  const SearchResult found = search(db_, ask("target"));
  ASSERT_EQ(found.hits.size(), 2U);
  EXPECT_FALSE(found.cut);
  EXPECT_EQ(found.hits[0].line, 2);
  EXPECT_EQ(found.hits[0].text, "int target = 1;");  // without its indent
  EXPECT_EQ(found.hits[0].matches, (Matches{{4, 10}}));
  EXPECT_EQ(found.hits[1].line, 4);
  EXPECT_EQ(found.hits[1].matches, (Matches{{0, 6}, {10, 16}}));
  const SearchResult one = search(db_, ask("target", 1));
  EXPECT_EQ(one.hits.size(), 1U);
  EXPECT_TRUE(one.cut);

  // A phrase across a line break marks the end of one line and the start of the next.
  const std::vector<SearchHit> phrase = search(db_, ask("\"beta gamma\"")).hits;
  ASSERT_EQ(phrase.size(), 2U);
  EXPECT_EQ(phrase[0].line, 51);
  EXPECT_EQ(phrase[0].matches, (Matches{{6, 10}}));
  EXPECT_EQ(phrase[1].line, 52);
  EXPECT_EQ(phrase[1].matches, (Matches{{0, 5}}));
}

TEST_F(SearchTest, LongLineIsCutAroundTheMatchOnCharacterBoundaries) {
  std::string line;
  for (int i = 0; i < 200; ++i) line += "\xc3\xa9 ";  // "é " a hundred times over
  line += "needle";
  for (int i = 0; i < 200; ++i) line += " \xc3\xa9";
  add_chunk(7, 0, 1, line + " needle");  // a second match, far outside what is kept
  const std::vector<SearchHit> hits = search(db_, ask("needle")).hits;
  ASSERT_EQ(hits.size(), 1U);
  const SearchHit& hit = hits[0];
  EXPECT_LE(hit.text.size(), 240U);
  ASSERT_EQ(hit.matches.size(), 1U);
  EXPECT_EQ(hit.text.substr(hit.matches[0].first, 6), "needle");
  EXPECT_EQ(utils::find_invalid_utf8(hit.text), std::nullopt);  // no half character at either end
}

TEST_F(SearchTest, PathsOrderAndContext) {
  // Context crosses from one chunk of a file into the next, and stops at the file's ends.
  add_chunk(7, 0, 1, "first\n  key = 1\nthird");
  add_chunk(7, 1, 4, "fourth key\nfifth");
  add_chunk(8, 0, 1, "key key key key key key");
  SearchRequest request = ask("key");
  request.context = 2;
  request.by_path = true;
  const std::vector<SearchHit> hits = search(db_, request).hits;
  ASSERT_EQ(hits.size(), 3U);
  EXPECT_EQ(hits[0].path, "lib/b.h");  // path order, not bm25's
  EXPECT_TRUE(hits[0].before.empty());
  EXPECT_TRUE(hits[0].after.empty());
  EXPECT_EQ(hits[1].line, 2);
  EXPECT_EQ(hits[1].before, std::vector<std::string>{"first"});
  EXPECT_EQ(hits[1].after, (std::vector<std::string>{"third", "fourth key"}));
  EXPECT_EQ(hits[2].before, (std::vector<std::string>{"key = 1", "third"}));
  EXPECT_EQ(hits[2].after, std::vector<std::string>{"fifth"});

  request.by_path = false;
  EXPECT_EQ(search(db_, request).hits[0].path, "lib/b.h");  // the densest chunk ranks first
  request.paths = {"*.c"};  // a name without '/' matches in any directory
  EXPECT_EQ(search(db_, request).hits.size(), 2U);
  request.paths = {"lib/*", "nothing/**"};
  EXPECT_EQ(search(db_, request).hits.size(), 1U);
  request.paths = {"*.py"};
  EXPECT_TRUE(search(db_, request).hits.empty());
}

TEST_F(SearchTest, WithoutWholeWordALiteralTextKeepsTheIndexWordBoundaries) {
  add_chunk(7, 0, 1, "resend\nsend_file\nSEND\nsendfile\n\xc3\xa9send\nto send.");
  SearchRequest request = ask("send");
  request.case_sensitive = true;
  std::vector<std::int64_t> lines;
  for (const SearchHit& hit : search(db_, request).hits) lines.push_back(hit.line);
  EXPECT_EQ(lines, (std::vector<std::int64_t>{2, 6}));  // '_' and '.' end a word; 'é' does not
  request.query = "send_";  // a text that ends in punctuation may run on
  EXPECT_EQ(search(db_, request).hits.size(), 1U);
}

TEST_F(SearchTest, QueriesThatCannotRun) {
  add_chunk(7, 0, 1, "x");
  for (const char* query : {"\"unclosed", "a:b", "AND"}) {
    EXPECT_THROW(search(db_, ask(query)), MalformedQuery) << query;
  }
  SearchRequest literal = ask("");
  literal.whole_word = true;
  EXPECT_THROW(search(db_, literal), MalformedQuery);
  literal.query = "\"unclosed";  // a literal text is never parsed
  EXPECT_TRUE(search(db_, literal).hits.empty());
}

// What the shell prints for `command`.
std::string output_of(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  std::array<char, 4096> buffer{};
  for (std::size_t got = 0; (got = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    out.append(buffer.data(), got);
  }
  pclose(pipe);
  return out;
}

// "path:line" of each line that git grep prints.
std::set<std::string> grep_lines(const std::string& output) {
  std::set<std::string> lines;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    const std::size_t first = line.find(':');
    lines.insert(line.substr(0, line.find(':', first + 1)));
  }
  return lines;
}

// A repository of lines made of identifiers that a word-splitting index confuses: snake_case
// inside longer names, CamelCase, ALL_CAPS, a::b, prose, accents, a stray Latin-1 byte and
// CRLF endings. The literal search must print the same lines as git grep -w.
TEST(LiteralSearchTest, FindsTheLinesThatGitGrepFinds) {
  const std::array<std::string, 19> words{
      "send_file",
      "send_file_max_age",
      "send",
      "file",
      "SendFile",
      "sendFile",
      "SEND_FILE",
      "json",
      "nlohmann::json",
      "nlohmann",
      "a::b",
      "b",
      "x1",
      "x10",
      "_x",
      "World",
      "W\xc3\xb6rld",
      "Secret",
      "secret key",
  };
  const std::array<std::string, 9> between{" ", "(", ")", ".", "::", "->", ", ", "\t", "_"};
  testing::TempDir dir;
  const fs::path repo = dir / "repo";
  fs::create_directories(repo);
  std::mt19937 random(7);
  for (int file = 0; file < 4; ++file) {
    std::ofstream out(repo / ("f" + std::to_string(file) + ".txt"), std::ios::binary);
    for (int line = 0; line < 150; ++line) {
      const std::size_t parts = 1 + random() % 5;
      for (std::size_t part = 0; part < parts; ++part) {
        out << words.at(random() % words.size()) << between.at(random() % between.size());
      }
      out << (file == 2 && line % 7 == 0 ? "caf\xe9" : "") << (file == 3 ? "\r\n" : "\n");
    }
  }
  const std::string git = "cd '" + repo.string() + "' && LC_ALL=C git";
  ASSERT_EQ(std::system((git + " init -q && " + git + " add -A").c_str()), 0);
  Progress quiet(std::cerr, Progress::Mode::Quiet);
  index_repository({repo, repo / "index.db"}, quiet);
  storage::Database db(repo / "index.db");
  open_database(db);

  std::size_t grepped = 0;  // lines git grep found in all: a grep that failed finds none
  for (const std::string term : {"send_file", "SendFile", "SEND_FILE", "nlohmann::json", "json",
                                 "a::b", "W\xc3\xb6rld", "x1", "_x", "file", "::json", "("}) {
    for (const bool exact_case : {true, false}) {
      SearchRequest request = ask(term);
      request.whole_word = true;
      request.case_sensitive = exact_case;
      request.limit = std::nullopt;
      std::set<std::string> found;
      for (const SearchHit& hit : search(db, request).hits) {
        found.insert(hit.path + ":" + std::to_string(hit.line));
      }
      const std::string flags = exact_case ? " grep -n -w -I -F -e '" : " grep -n -i -w -I -F -e '";
      const std::set<std::string> expected = grep_lines(output_of(git + flags + term + "'"));
      grepped += expected.size();
      EXPECT_EQ(found, expected) << term << (exact_case ? " (case as given)" : " (any case)");
    }
  }
  EXPECT_GT(grepped, 1000U);
}

}  // namespace
}  // namespace quilma::cli
