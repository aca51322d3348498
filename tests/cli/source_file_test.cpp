// Reading, classifying and chunking one file.
#include "quilma/cli/source_file.h"

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace quilma::cli {
namespace {

std::string numbered_lines(int count, bool final_newline) {
  std::string text;
  for (int line = 1; line <= count; ++line) {
    text += "line" + std::to_string(line);
    if (line < count || final_newline) text += '\n';
  }
  return text;
}

TEST(SourceFileTest, ChunksCoverEveryLineOnce) {
  EXPECT_TRUE(chunk_lines("").empty());
  EXPECT_EQ(line_count(""), 0);

  const std::string exact = numbered_lines(100, true);
  const auto two = chunk_lines(exact);
  ASSERT_EQ(two.size(), 2U);
  EXPECT_EQ(two[0].start_line, 1);
  EXPECT_EQ(two[0].end_line, 50);
  EXPECT_EQ(two[1].start_line, 51);
  EXPECT_EQ(two[1].end_line, 100);
  EXPECT_TRUE(two[1].text.starts_with("line51\n"));
  EXPECT_TRUE(two[1].text.ends_with("\nline100"));
  EXPECT_EQ(line_count(exact), 100);

  const std::string unterminated = numbered_lines(101, false);
  const auto three = chunk_lines(unterminated);
  ASSERT_EQ(three.size(), 3U);
  EXPECT_EQ(three[2].text, "line101");
  EXPECT_EQ(three[2].start_line, 101);
  EXPECT_EQ(three[2].end_line, 101);
  EXPECT_EQ(line_count(unterminated), 101);

  const auto blank = chunk_lines("\n\n");  // two empty lines
  ASSERT_EQ(blank.size(), 1U);
  EXPECT_EQ(blank[0].text, "\n");
  EXPECT_EQ(blank[0].end_line, 2);
}

TEST(SourceFileTest, TextProblems) {
  EXPECT_EQ(text_problem("caf\xc3\xa9 \xe6\x97\xa5 \xf0\x9f\x98\x80\n"), std::nullopt);
  EXPECT_EQ(text_problem(std::string("ab\0c", 4))->type, "binary");
  // A bad byte after a run that the ASCII fast path skips: its offset and line are exact.
  const auto latin1 = text_problem("0123456789\nabcdef\xe9");
  ASSERT_TRUE(latin1);
  EXPECT_EQ(latin1->type, "not_utf8");
  EXPECT_EQ(latin1->message, "not UTF-8 at offset 17");
  EXPECT_EQ(latin1->line, 2);
  for (const char* malformed : {"\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe6\x97"}) {
    EXPECT_EQ(text_problem(malformed)->type, "not_utf8") << malformed;
  }
}

TEST(SourceFileTest, ReadsUpToTheLimit) {
  testing::TempDir dir;
  std::ofstream(dir / "limit.txt") << std::string(MAX_FILE_BYTES, 'a');
  std::ofstream(dir / "over.txt") << std::string(MAX_FILE_BYTES + 1, 'a');
  const SourceFile at_limit = read_source_file(dir / "limit.txt");
  EXPECT_EQ(at_limit.problem, std::nullopt);
  EXPECT_EQ(at_limit.content.size(), MAX_FILE_BYTES);

  const SourceFile over = read_source_file(dir / "over.txt");
  ASSERT_TRUE(over.problem);
  EXPECT_EQ(over.problem->type, "too_large");
  EXPECT_EQ(over.problem->message, "1.0 MiB, over the limit of 1 MiB");
  EXPECT_TRUE(over.content.empty());

  EXPECT_EQ(read_source_file(dir / "missing.txt").problem->message, "No such file or directory");
  EXPECT_EQ(read_source_file(dir.path()).problem->message, "Is a directory");
}

}  // namespace
}  // namespace quilma::cli
