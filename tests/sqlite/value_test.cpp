#include "quilma/sqlite/value.h"

#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "quilma/sqlite/error.h"

namespace quilma::sqlite {
namespace {

TEST(ValueTest, RealsReadAsTextInTheirShortestRoundTripForm) {
  // A version recorded as a number must come back as the text a user wrote ("3.1", "2.0").
  EXPECT_EQ(Value(3.1).as_text(), "3.1");
  EXPECT_EQ(Value(2.0).as_text(), "2.0");
  EXPECT_EQ(Value(-0.5).as_text(), "-0.5");
  EXPECT_EQ(Value(123.456).as_text(), "123.456");
  EXPECT_EQ(Value(-0.0).as_text(), "-0.0");
  EXPECT_EQ(Value(0.1 + 0.2).as_text(), "0.30000000000000004");
  // Fixed notation from 1e-4 up to below 1e16, exponent form outside.
  EXPECT_EQ(Value(100000.0).as_text(), "100000.0");
  EXPECT_EQ(Value(1e15).as_text(), "1000000000000000.0");
  EXPECT_EQ(Value(1e16).as_text(), "1e+16");
  EXPECT_EQ(Value(1.5e16).as_text(), "1.5e+16");
  EXPECT_EQ(Value(1e100).as_text(), "1e+100");
  EXPECT_EQ(Value(0.0001).as_text(), "0.0001");
  EXPECT_EQ(Value(0.00001).as_text(), "1e-05");
  EXPECT_EQ(Value(1.25e-7).as_text(), "1.25e-07");
  EXPECT_EQ(Value(std::int64_t{-42}).as_text(), "-42");
  EXPECT_EQ(Value(INT64_MAX).as_text(), "9223372036854775807");
}

TEST(ValueTest, ConversionsRefuseWhatTheyCannotRepresent) {
  EXPECT_EQ(Value(2.9).as_int(), 2);
  EXPECT_EQ(Value(-2.9).as_int(), -2);
  EXPECT_EQ(Value(1e300).as_int(), INT64_MAX);
  EXPECT_DOUBLE_EQ(Value(7).as_double(), 7.0);
  EXPECT_THROW((void)Value("12").as_int(), ProgrammingError);
  EXPECT_THROW((void)Value().as_text(), ProgrammingError);
  EXPECT_THROW((void)Value(Blob{1}).as_text(), ProgrammingError);
  EXPECT_THROW((void)Value(1).as_blob(), ProgrammingError);
  // An unsigned value beyond SQLite's signed 64-bit INTEGER is refused, not wrapped.
  EXPECT_THROW(Value(std::uint64_t{1} << 63), ProgrammingError);
  EXPECT_EQ(Value(std::uint64_t{INT64_MAX}).as_int(), INT64_MAX);
}

TEST(ValueTest, TypesFollowTheSourceAndEmptyOptionalsAreNull) {
  EXPECT_EQ(Value(true).type(), Value::Type::Integer);
  EXPECT_EQ(Value(1.5F).type(), Value::Type::Real);
  EXPECT_EQ(Value(std::string("x")).type(), Value::Type::Text);
  EXPECT_EQ(Value(std::optional<std::string>()).type(), Value::Type::Null);
  EXPECT_EQ(Value(std::optional<int>(4)), Value(4));
  EXPECT_TRUE(Value(nullptr).is_null());
  EXPECT_TRUE(Value(std::nullopt).is_null());
  // Equality is by type and value, as SQLite compares an INTEGER with a TEXT.
  EXPECT_NE(Value(1), Value(1.0));
  EXPECT_NE(Value(1), Value("1"));
}

}  // namespace
}  // namespace quilma::sqlite
