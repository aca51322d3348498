#include "quilma/utils/path_filter.h"

#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "support/error_of.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"

namespace quilma::utils {
namespace {

using testing::error_of;

// Each case is "pattern path": '*' and '?' stay within one segment, '**' spans zero or more
// whole segments (inside a segment it is a plain '*'), sets take ranges, negation and ']'
// first, a '[' without its ']' is literal, and UTF-8 characters count whole (é, [à-ï], ö, €,
// and a stray byte as one character).
TEST(PathFilterTest, GlobsMatchWholePathsSegmentBySegmentEscapesAreLiteralAndSqlFunctionsAgree) {
  const char* cases[] = {
      // these match
      "*.py a.py", "a?c abc", "* ", "a*b*c axxbyyc", "**/*.py a.py", "**/*.py src/x/y/a.py",
      "src/**/test_*.py src/test_a.py", "**/build/** a/build/x/y.o", "a/**/b/**/c a/x/b/y/b/z/c",
      "[abc].h b.h", "[!a-c].h d.h", "[]].h ].h", "[a [a", "?.py \xC3\xA9.py",
      "[\xC3\xA0-\xC3\xAF].txt \xC3\xA9.txt", "? \xE2\x82\xAC", "? \xFF",
      // these do not
      "*.py src/a.py", "src/* src/x/a.py", "a?c a/c", " a", "a*b*c axxbyy",
      "src/**/test_*.py lib/a/test_a.py", "**/build/** a/rebuild/x", "a/**/b a/b/c", "src** src/x",
      "[a-c].h d.h", "[^a].h a.h", "\\*.h x.h", "??.py \xC3\xA9.py",
      "[\xC3\xA0-\xC3\xAF].txt \xC3\xB6.txt"};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string_view c = cases[i];
    const std::size_t space = c.find(' ');
    EXPECT_EQ(glob_match(c.substr(0, space), c.substr(space + 1)), i < 17) << c;
  }
  std::string deep;
  for (int i = 0; i < 200; ++i) deep += "d/";
  EXPECT_TRUE(glob_match("**/**/**/**/**/**/**/x", deep + "x"));  // backtracks, once
  EXPECT_FALSE(glob_match("*a*a*a*a*a*a*a*a*a*b", std::string(5000, 'a')));

  // A backslash makes any character literal, outside a set and inside one (alone or as either
  // end of a range); checked for every printable ASCII character and a two-byte one.
  std::vector<std::string> chars{"\xC3\xA9"};
  for (char c = ' '; c < 127; ++c) chars.emplace_back(1, c == '/' ? '~' : c);
  for (const std::string& c : chars) {
    const std::string e = "\\" + c;
    SCOPED_TRACE(c);
    EXPECT_TRUE(glob_match(fmt::format("{0}x{0}", e), fmt::format("{0}x{0}", c)));
    EXPECT_FALSE(glob_match(e + "x", "\x01x"));
    EXPECT_TRUE(glob_match("[" + e + "]x", c + "x"));
    EXPECT_TRUE(glob_match("[!" + e + "]x", (c == "y" ? "z" : "y") + std::string("x")));
    EXPECT_FALSE(glob_match("[!" + e + "]x", c + "x"));
    EXPECT_TRUE(glob_match("[" + e + "-\xEF\xBF\xBD]x", c + "x"));
    EXPECT_TRUE(glob_match("[ -" + e + "]x", c + "x"));
  }
  EXPECT_FALSE(glob_match("[\\a-\\c]", "d"));
  EXPECT_TRUE(glob_match("[\\]a]", "a"));

  // path_under, and both as SQL functions: NULL for NULL, a pattern per row, clear errors.
  EXPECT_TRUE(path_under("src/a.py", "src/") && path_under("src", "src"));
  EXPECT_FALSE(path_under("srcs/a.py", "src") || path_under("src", "src/x"));
  EXPECT_TRUE(path_under("anything", "."));
  testing::TempDir dir;
  sqlite::Connection connection(dir / "x.db");
  register_path_functions(connection);
  auto cursor = connection.cursor();
  // A pattern per row, and NULL for NULL even next to a wrong type.
  EXPECT_EQ(cursor
                .execute("SELECT group_concat(ifnull(path_glob(column1, column2), 'N'), '') || "
                         "path_under('src/a.py', 'src') || ifnull(path_under('a', NULL), 'N') "
                         "FROM (VALUES ('*.py', 'a.py'), ('*.md', 'a.py'), ('**/b', 'x/y/b'), "
                         "('x/*', 'x/y/b'), ('*', NULL), (1, NULL))")
                .fetchone()
                ->values()[0],
            sqlite::Value("1010NN1N"));
  const auto error = [&](const std::string& query) {
    return error_of<sqlite::OperationalError>([&] { cursor.execute(query); });
  };
  EXPECT_EQ(error("SELECT path_glob(1, 'a')"),
            "path_glob(): the pattern must be text, not INTEGER");
  EXPECT_EQ(error("SELECT path_glob('" + std::string(1025, '*') + "', 'a')"),
            "path_glob(): the pattern is longer than 1024 bytes");
}

}  // namespace
}  // namespace quilma::utils
