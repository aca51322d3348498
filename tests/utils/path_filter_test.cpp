#include "quilma/utils/path_filter.h"

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"

namespace quilma::utils {
namespace {

struct GlobCase {
  const char* pattern;
  const char* path;
  bool matches;
};

void PrintTo(const GlobCase& c, std::ostream* os) {
  *os << '"' << c.pattern << "\" ~ \"" << c.path << '"';
}

class GlobMatchTest : public ::testing::TestWithParam<GlobCase> {};

TEST_P(GlobMatchTest, MatchesWholePaths) {
  const GlobCase& c = GetParam();
  EXPECT_EQ(glob_match(c.pattern, c.path), c.matches) << c.pattern << " ~ " << c.path;
}

INSTANTIATE_TEST_SUITE_P(
    Patterns, GlobMatchTest,
    ::testing::Values(
        // '*' and '?' stay within one segment.
        GlobCase{"*.py", "a.py", true}, GlobCase{"*.py", "src/a.py", false},
        GlobCase{"src/*.py", "src/a.py", true}, GlobCase{"src/*", "src/x/a.py", false},
        GlobCase{"a?c", "abc", true}, GlobCase{"a?c", "a/c", false}, GlobCase{"*", "", true},
        GlobCase{"", "", true}, GlobCase{"", "a", false}, GlobCase{"a*b*c", "axxbyyc", true},
        GlobCase{"a*b*c", "axxbyy", false},
        // '**' spans zero or more whole segments.
        GlobCase{"**/*.py", "a.py", true}, GlobCase{"**/*.py", "src/x/y/a.py", true},
        GlobCase{"**/*.py", "src/x/a.pyc", false}, GlobCase{"src/**", "src/x/y", true},
        GlobCase{"src/**/test_*.py", "src/test_a.py", true},
        GlobCase{"src/**/test_*.py", "src/a/b/test_a.py", true},
        GlobCase{"src/**/test_*.py", "lib/a/test_a.py", false},
        GlobCase{"**/build/**", "a/build/x/y.o", true},
        GlobCase{"**/build/**", "a/rebuild/x", false},
        GlobCase{"a/**/b/**/c", "a/x/b/y/b/z/c", true}, GlobCase{"a/**/b", "a/b/c", false},
        GlobCase{"src**", "src/x", false},  // '**' inside a segment is a plain '*'
        // Sets, ranges, negation and escapes.
        GlobCase{"[abc].h", "b.h", true}, GlobCase{"[a-c].h", "d.h", false},
        GlobCase{"[!a-c].h", "d.h", true}, GlobCase{"[^a].h", "a.h", false},
        GlobCase{"[]].h", "].h", true}, GlobCase{"[a", "[a", true}, GlobCase{"\\*.h", "*.h", true},
        GlobCase{"\\*.h", "x.h", false}));

TEST(GlobMatchTest, WildcardsAndSetsMatchWholeUtf8Characters) {
  EXPECT_TRUE(glob_match("?.py", "\xC3\xA9.py"));  // é
  EXPECT_TRUE(glob_match("[!a].py", "\xC3\xA9.py"));
  EXPECT_TRUE(glob_match("[\xC3\xA0-\xC3\xAF].txt", "\xC3\xA9.txt"));   // [à-ï]
  EXPECT_FALSE(glob_match("[\xC3\xA0-\xC3\xAF].txt", "\xC3\xB6.txt"));  // ö
  EXPECT_TRUE(glob_match("caf?/*", "caf\xC3\xA9/menu"));
  EXPECT_FALSE(glob_match("??.py", "\xC3\xA9.py"));
  EXPECT_TRUE(glob_match("?", "\xFF"));  // a stray byte counts as one character
}

TEST(GlobMatchTest, PathologicalPatternsStillAnswer) {
  std::string path;
  for (int i = 0; i < 200; ++i) path += "d/";
  path += "x";
  EXPECT_FALSE(glob_match("**/**/**/**/**/**/**/**/y", path));
  EXPECT_TRUE(glob_match("**/**/**/**/**/**/**/**/x", path));
  EXPECT_FALSE(glob_match("*a*a*a*a*a*a*a*a*a*b", std::string(5000, 'a')));
}

TEST(PathUnderTest, AcceptsTheDirectoryItselfAndWhatLiesBelowIt) {
  EXPECT_TRUE(path_under("src/a.py", "src"));
  EXPECT_TRUE(path_under("src/a.py", "src/"));
  EXPECT_TRUE(path_under("src", "src"));
  EXPECT_TRUE(path_under("src/x/y", "src/x"));
  EXPECT_FALSE(path_under("srcs/a.py", "src"));
  EXPECT_FALSE(path_under("src", "src/x"));
  EXPECT_TRUE(path_under("anything", ""));
  EXPECT_TRUE(path_under("anything", "."));
}

TEST(PathFunctionsTest, WorkInSqlWithNullsAndClearErrors) {
  testing::TempDir dir;
  sqlite::Connection connection(dir / "x.db");
  register_path_functions(connection);
  auto cursor = connection.cursor();
  cursor.execute("CREATE TABLE files (path TEXT)");
  cursor.executemany("INSERT INTO files VALUES (?)",
                     {{"src/a.py"}, {"src/b/c.py"}, {"docs/x.md"}, {nullptr}});
  auto names = [&](const char* where) {
    std::string joined;
    for (const auto& row :
         cursor.execute(std::string("SELECT path FROM files WHERE ") + where + " ORDER BY path")
             .fetchall()) {
      joined += row[0].as_text() + ";";
    }
    return joined;
  };
  EXPECT_EQ(names("path_glob('**/*.py', path)"), "src/a.py;src/b/c.py;");
  EXPECT_EQ(names("path_under(path, 'src/b')"), "src/b/c.py;");
  EXPECT_EQ(cursor.execute("SELECT count(*) FROM files WHERE path_glob('*', path) IS NULL")
                .fetchone()
                .value()[0],
            sqlite::Value(1));
  EXPECT_TRUE(cursor.execute("SELECT path_glob(NULL, 'a')").fetchone().value()[0].is_null());
  EXPECT_TRUE(cursor.execute("SELECT path_under('a', NULL)").fetchone().value()[0].is_null());
  try {
    cursor.execute("SELECT path_glob(1, 'a')");
    FAIL() << "accepted a number";
  } catch (const sqlite::OperationalError& error) {
    EXPECT_STREQ(error.what(), "path_glob(): the pattern must be text, not INTEGER");
  }
  try {
    cursor.execute("SELECT path_under('a', x'00')");
    FAIL() << "accepted a blob";
  } catch (const sqlite::OperationalError& error) {
    EXPECT_STREQ(error.what(), "path_under(): the directory must be text, not BLOB");
  }
  EXPECT_THROW(cursor.execute("SELECT path_glob('a')"), sqlite::OperationalError);
  // NULL wins over a wrong type.
  EXPECT_TRUE(cursor.execute("SELECT path_glob(1, NULL)").fetchone().value()[0].is_null());
  try {
    cursor.execute("SELECT path_glob(?, 'a')", {std::string(1025, '*')});
    FAIL() << "accepted an over-long pattern";
  } catch (const sqlite::OperationalError& error) {
    EXPECT_STREQ(error.what(), "path_glob(): the pattern is longer than 1024 bytes");
  }
}

TEST(PathFunctionsTest, APatternThatChangesPerRowOrPerRunIsHonoured) {
  testing::TempDir dir;
  sqlite::Connection connection(dir / "x.db");
  register_path_functions(connection);
  auto cursor = connection.cursor();
  cursor.execute("CREATE TABLE p (pattern TEXT, path TEXT)");
  cursor.executemany("INSERT INTO p VALUES (?, ?)",
                     {{"*.py", "a.py"}, {"*.md", "a.py"}, {"**/b", "x/y/b"}, {"x/*", "x/y/b"}});
  std::string results;
  for (const auto& row :
       cursor.execute("SELECT path_glob(pattern, path) FROM p ORDER BY rowid").fetchall()) {
    results += row[0].as_text();
  }
  EXPECT_EQ(results, "1010");
  // The same statement run again with another pattern bound.
  constexpr const char* sql = "SELECT path_glob(?, 'src/a.py')";
  EXPECT_EQ(cursor.execute(sql, {"src/*.py"}).fetchone().value()[0], sqlite::Value(1));
  EXPECT_EQ(cursor.execute(sql, {"lib/*.py"}).fetchone().value()[0], sqlite::Value(0));
}

}  // namespace
}  // namespace quilma::utils
