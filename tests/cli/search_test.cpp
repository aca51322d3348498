// From ranked chunks to matching lines: line numbers, matches that span lines, long lines.
#include "quilma/cli/search.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

#include "quilma/cli/indexer.h"
#include "quilma/storage/core_schema.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {
namespace {

using Matches = std::vector<std::pair<std::size_t, std::size_t>>;

class SearchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    open_database(db_);
    db_.execute("INSERT INTO files (id, path) VALUES (7, 'src/a.c')");
  }
  void add_chunk(std::int64_t index, std::int64_t start_line, const std::string& text) {
    db_.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, 0, 1)",
        {storage::core_schema::chunk_rowid(7, index), text, start_line});
  }

  testing::TempDir dir_;
  storage::Database db_{dir_ / "index.db"};
};

TEST_F(SearchTest, EveryMatchingLineOfAChunk) {
  add_chunk(0, 1, "int one;\n  int target = 1;\nint two;\n\ttarget += target;");
  add_chunk(1, 51, "alpha beta\ngamma delta");
  const std::vector<SearchHit> hits = search(db_, "target", 10);
  ASSERT_EQ(hits.size(), 2U);
  EXPECT_EQ(hits[0].line, 2);
  EXPECT_EQ(hits[0].text, "int target = 1;");  // without its indent
  EXPECT_EQ(hits[0].matches, (Matches{{4, 10}}));
  EXPECT_EQ(hits[1].line, 4);
  EXPECT_EQ(hits[1].matches, (Matches{{0, 6}, {10, 16}}));
  EXPECT_EQ(search(db_, "target", 1).size(), 1U);

  // A phrase across a line break marks the end of one line and the start of the next.
  const std::vector<SearchHit> phrase = search(db_, "\"beta gamma\"", 10);
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
  add_chunk(0, 1, line);
  const std::vector<SearchHit> hits = search(db_, "needle", 10);
  ASSERT_EQ(hits.size(), 1U);
  const SearchHit& hit = hits[0];
  EXPECT_LE(hit.text.size(), 240U);
  ASSERT_EQ(hit.matches.size(), 1U);
  EXPECT_EQ(hit.text.substr(hit.matches[0].first, 6), "needle");
  EXPECT_EQ(utils::find_invalid_utf8(hit.text), std::nullopt);  // no half character at either end
}

}  // namespace
}  // namespace quilma::cli
