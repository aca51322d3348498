#include "quilma/sqlite/value.h"

#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "quilma/sqlite/error.h"

namespace quilma::sqlite {
namespace {

TEST(ValueTest, RealsReadAsTextInTheirShortestRoundTripForm) {
  // A version recorded as a number must read back as it was written.
  const std::pair<double, const char*> cases[] = {
      {3.1, "3.1"},      {2.0, "2.0"},
      {-0.0, "-0.0"},    {0.1 + 0.2, "0.30000000000000004"},
      {1e5, "100000.0"}, {1e15, "1000000000000000.0"},
      {1e16, "1e+16"},   {1.5e16, "1.5e+16"},
      {1e-4, "0.0001"},  {1e-5, "1e-05"},
      {1e100, "1e+100"}};
  for (const auto& [real, text] : cases) EXPECT_EQ(Value(real).as_text(), text);
  EXPECT_EQ(Value(INT64_MIN).as_text(), "-9223372036854775808");
}

TEST(ValueTest, ConversionsRefuseWhatTheyCannotRepresent) {
  EXPECT_EQ(Value(-2.9).as_int(), -2);
  EXPECT_EQ(Value(1e300).as_int(), INT64_MAX);
  EXPECT_EQ(Value(0x1p63).as_int(), INT64_MAX);
  EXPECT_EQ(Value(-0x1p63).as_int(), INT64_MIN);
  EXPECT_THROW((void)Value("12").as_int(), ProgrammingError);
  EXPECT_THROW((void)Value().as_text(), ProgrammingError);
  EXPECT_THROW((void)Value(1).as_blob(), ProgrammingError);
  EXPECT_THROW(Value(std::uint64_t{1} << 63), ProgrammingError);  // not wrapped to negative
  EXPECT_TRUE(Value(std::optional<std::string>()).is_null());
  EXPECT_NE(Value(1), Value(1.0));  // equal by type and value, as SQLite compares
}

}  // namespace
}  // namespace quilma::sqlite
