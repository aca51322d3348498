#include "quilma/sqlite/value.h"

#include <array>
#include <charconv>
#include <cmath>
#include <string>

#include <sqlite3.h>

#include "quilma/sqlite/error.h"

namespace quilma::sqlite {

namespace {

const char* type_name(Value::Type type) {
  switch (type) {
    case Value::Type::Null:
      return "NULL";
    case Value::Type::Integer:
      return "INTEGER";
    case Value::Type::Real:
      return "REAL";
    case Value::Type::Text:
      return "TEXT";
    case Value::Type::Blob:
      return "BLOB";
  }
  return "?";
}

// The shortest text that reads back as the same double, with ".0" added to whole numbers
// the way SQLite's CAST(x AS TEXT) writes them ("3.0", "3.1", "1e+100").
std::string real_text(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Inf" : "-Inf";
  std::array<char, 32> buffer{};
  auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  std::string text(buffer.data(), end);
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

}  // namespace

void Value::out_of_range(std::uint64_t value) {
  throw ProgrammingError(SQLITE_RANGE, "integer " + std::to_string(value) +
                                           " does not fit in SQLite's 64-bit INTEGER");
}

void Value::wrong_type(const char* wanted) const {
  throw ProgrammingError(SQLITE_MISMATCH, std::string("value of type ") + type_name(type()) +
                                              " cannot be read as " + wanted);
}

std::int64_t Value::as_int() const {
  if (const auto* integer = std::get_if<std::int64_t>(&data_)) return *integer;
  if (const auto* real = std::get_if<double>(&data_)) {
    // Truncation toward zero, clamped to the integer range as SQLite's CAST does.
    if (std::isnan(*real)) return 0;
    if (*real >= 9223372036854775807.0) return INT64_MAX;
    if (*real <= -9223372036854775808.0) return INT64_MIN;
    return static_cast<std::int64_t>(*real);
  }
  wrong_type("INTEGER");
}

double Value::as_double() const {
  if (const auto* real = std::get_if<double>(&data_)) return *real;
  if (const auto* integer = std::get_if<std::int64_t>(&data_)) {
    return static_cast<double>(*integer);
  }
  wrong_type("REAL");
}

std::string Value::as_text() const {
  if (const auto* text = std::get_if<std::string>(&data_)) return *text;
  if (const auto* integer = std::get_if<std::int64_t>(&data_)) return std::to_string(*integer);
  if (const auto* real = std::get_if<double>(&data_)) return real_text(*real);
  wrong_type("TEXT");
}

std::string_view Value::text_view() const {
  if (const auto* text = std::get_if<std::string>(&data_)) return *text;
  wrong_type("TEXT");
}

const Blob& Value::as_blob() const {
  if (const auto* blob = std::get_if<Blob>(&data_)) return *blob;
  wrong_type("BLOB");
}

}  // namespace quilma::sqlite
