#include "quilma/utils/path_filter.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/error_of.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"

namespace quilma::utils {
namespace {

using testing::error_of;

TEST(GlobMatchTest, MatchesWholePathsSegmentBySegment) {
  const struct {
    const char* pattern;
    const char* path;
    bool matches;
  } cases[] = {// '*' and '?' stay within one segment.
               {"*.py", "a.py", true},
               {"*.py", "src/a.py", false},
               {"src/*", "src/x/a.py", false},
               {"a?c", "abc", true},
               {"a?c", "a/c", false},
               {"*", "", true},
               {"", "a", false},
               {"a*b*c", "axxbyyc", true},
               {"a*b*c", "axxbyy", false},
               // '**' spans zero or more whole segments; inside a segment it is a plain '*'.
               {"**/*.py", "a.py", true},
               {"**/*.py", "src/x/y/a.py", true},
               {"src/**/test_*.py", "src/test_a.py", true},
               {"src/**/test_*.py", "lib/a/test_a.py", false},
               {"**/build/**", "a/build/x/y.o", true},
               {"**/build/**", "a/rebuild/x", false},
               {"a/**/b/**/c", "a/x/b/y/b/z/c", true},
               {"a/**/b", "a/b/c", false},
               {"src**", "src/x", false},
               // Sets, ranges, negation, escapes; a '[' without its ']' is literal.
               {"[abc].h", "b.h", true},
               {"[a-c].h", "d.h", false},
               {"[!a-c].h", "d.h", true},
               {"[^a].h", "a.h", false},
               {"[]].h", "].h", true},
               {"[a", "[a", true},
               {"\\*.h", "x.h", false},
               // Whole UTF-8 characters: é, [à-ï], ö, and a stray byte as one character.
               {"?.py", "\xC3\xA9.py", true},
               {"??.py", "\xC3\xA9.py", false},
               {"[\xC3\xA0-\xC3\xAF].txt", "\xC3\xA9.txt", true},
               {"[\xC3\xA0-\xC3\xAF].txt", "\xC3\xB6.txt", false},
               {"?", "\xFF", true}};
  for (const auto& c : cases) {
    EXPECT_EQ(glob_match(c.pattern, c.path), c.matches) << c.pattern << " ~ " << c.path;
  }
  std::string deep;
  for (int i = 0; i < 200; ++i) deep += "d/";
  EXPECT_TRUE(glob_match("**/**/**/**/**/**/**/x", deep + "x"));  // backtracks, once
  EXPECT_FALSE(glob_match("*a*a*a*a*a*a*a*a*a*b", std::string(5000, 'a')));
}

// A backslash makes any character literal, outside a set and inside one (alone or as either
// end of a range); checked for every printable ASCII character and a two-byte one.
TEST(GlobMatchTest, EscapedCharactersAreLiteralEverywhere) {
  std::vector<std::string> chars{"\xC3\xA9"};
  for (char c = ' '; c < 127; ++c) {
    if (c != '/') chars.emplace_back(1, c);
  }
  for (const std::string& c : chars) {
    const std::string e = "\\" + c;
    SCOPED_TRACE(c);
    EXPECT_TRUE(glob_match(e + "x" + e, c + "x" + c));
    EXPECT_FALSE(glob_match(e + "x", "\x01x"));
    EXPECT_FALSE(glob_match(e, c + c));
    EXPECT_TRUE(glob_match("[" + e + "]x", c + "x"));
    EXPECT_TRUE(glob_match("[!" + e + "]x", (c == "y" ? "z" : "y") + std::string("x")));
    EXPECT_FALSE(glob_match("[!" + e + "]x", c + "x"));
    EXPECT_TRUE(glob_match("[" + e + "-" + e + "]x", c + "x"));
    EXPECT_TRUE(glob_match("[" + e + "-\xEF\xBF\xBD]x", c + "x"));
    EXPECT_TRUE(glob_match("[ -" + e + "]x", c + "x"));
  }
  EXPECT_FALSE(glob_match("[\\a-\\c]", "d"));
  EXPECT_TRUE(glob_match("[\\]a]", "a"));
}

TEST(PathUnderTest, AcceptsTheDirectoryItselfAndWhatLiesBelowIt) {
  EXPECT_TRUE(path_under("src/a.py", "src/"));
  EXPECT_TRUE(path_under("src", "src"));
  EXPECT_FALSE(path_under("srcs/a.py", "src"));
  EXPECT_FALSE(path_under("src", "src/x"));
  EXPECT_TRUE(path_under("anything", "."));
}

TEST(PathFunctionsTest, WorkInSqlWithNullsPerRowPatternsAndClearErrors) {
  testing::TempDir dir;
  sqlite::Connection connection(dir / "x.db");
  register_path_functions(connection);
  auto cursor = connection.cursor();
  cursor.execute("CREATE TABLE p (pattern TEXT, path TEXT)");
  cursor.executemany("INSERT INTO p VALUES (?, ?)", {{"*.py", "a.py"},
                                                     {"*.md", "a.py"},
                                                     {"**/b", "x/y/b"},
                                                     {"x/*", "x/y/b"},
                                                     {"*", nullptr},
                                                     {1, nullptr}});
  std::string results;
  for (const auto& row :
       cursor.execute("SELECT path_glob(pattern, path) FROM p ORDER BY rowid").fetchall()) {
    results += row[0].is_null() ? "N" : row[0].as_text();
  }
  EXPECT_EQ(results, "1010NN");  // a pattern per row; NULL wins over a wrong type
  constexpr const char* sql = "SELECT path_glob(?, 'src/a.py'), path_under('src/a.py', ?)";
  EXPECT_EQ(cursor.execute(sql, {"src/*.py", "src"}).fetchone()->values(),
            (std::vector<sqlite::Value>{1, 1}));
  EXPECT_EQ(cursor.execute(sql, {"lib/*.py", "lib"}).fetchone()->values(),
            (std::vector<sqlite::Value>{0, 0}));

  auto error = [&](const std::string& query, const sqlite::Params& params = {}) {
    return error_of<sqlite::OperationalError>([&] { cursor.execute(query, params); });
  };
  EXPECT_EQ(error("SELECT path_glob(1, 'a')"),
            "path_glob(): the pattern must be text, not INTEGER");
  EXPECT_EQ(error("SELECT path_under('a', x'00')"),
            "path_under(): the directory must be text, not BLOB");
  EXPECT_EQ(error("SELECT path_glob(?, 'a')", {std::string(1025, '*')}),
            "path_glob(): the pattern is longer than 1024 bytes");
  EXPECT_EQ(error("SELECT path_glob('a')"), "wrong number of arguments to function path_glob()");
  // Registering again under a running statement would change the function it calls.
  cursor.execute("SELECT path_glob(pattern, '') FROM p");
  EXPECT_EQ(error_of<sqlite::OperationalError>([&] { register_path_functions(connection); }),
            "unable to delete/modify user-function due to active statements");
}

}  // namespace
}  // namespace quilma::utils
