// The tokenizer's character kinds as search assumes them, checked against the tokenizer itself,
// and the words that the tool lists because the tokenizer folds them.
#include "quilma/cli/mixed_words.h"

#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"
#include "support/utf8.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/cursor.h"

namespace quilma::cli {
namespace {

using testing::utf8;

TEST(MixedWordsTest, KindsAgreeWithTheTokenizerAndFoldedWordsAreListed) {
  // Every character of the Basic Multilingual Plane up to the surrogates that kind_of() claims
  // to know, between two letters: the index's own tokenizer joins them into one word exactly
  // when it is a word character.
  const testing::TempDir dir;
  sqlite::Connection probe(dir / "probe.db");
  sqlite::Cursor cursor = probe.cursor();
  cursor.execute("CREATE VIRTUAL TABLE p USING fts5(t)");
  cursor.execute("BEGIN");
  std::vector<char32_t> known;
  for (char32_t c = 1; c < 0xD800; ++c) {
    if (kind_of(c) == CharKind::Unknown) continue;
    known.push_back(c);
    cursor.execute("INSERT INTO p (rowid, t) VALUES (?, ?)",
                   {static_cast<std::int64_t>(c), "q" + utf8(c) + "q"});
  }
  cursor.execute("COMMIT");
  std::set<std::int64_t> separating;
  for (const sqlite::Row& row :
       cursor.execute("SELECT rowid FROM p WHERE p MATCH 'q'").fetchall()) {
    separating.insert(row[0].as_int());
  }
  std::vector<std::string> wrong;
  for (const char32_t c : known) {
    const bool separator = kind_of(c) == CharKind::Separator;
    if (separator != separating.contains(c) && wrong.size() < 20) {
      wrong.push_back(fmt::format("U+{:04X} {}", static_cast<std::uint32_t>(c),
                                  separator ? "separates" : "joins"));
    }
  }
  EXPECT_EQ(wrong, std::vector<std::string>{}) << "kind_of() says, the tokenizer does not";
  EXPECT_GT(known.size(), 34000U);  // the blocks above, not a few characters

  // Listed: a character beyond ASCII right before an ASCII letter or digit, in a word that
  // known separators, ASCII or not, end; ASCII letters lower-cased; each word once, sorted.
  EXPECT_EQ(mixed_words("plain d\xc3\xa9j\xc3\xa0Vu x\xc3\xa9 \xc3\xa9t\xc3\xa9\xe2\x80\x94"
                        "\xe4\xb8\x80"
                        "commit_\xc3\xa9"
                        "9 d\xc3\xa9j\xc3\xa0vu \xff\xc3\xa9x"),
            (std::vector<std::string>{"d\xc3\xa9j\xc3\xa0vu", "\u00e99", "\xc3\xa9t\xc3\xa9",
                                      "\xc3\xa9x", "\u4e00commit"}));
}

}  // namespace
}  // namespace quilma::cli
