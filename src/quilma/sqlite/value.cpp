#include "quilma/sqlite/value.h"

#include <array>
#include <charconv>
#include <cmath>
#include <string>
#include <system_error>

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

// The shortest digits that read back as the same double, written in fixed notation unless the
// exponent is below -4 or above 15, and with ".0" after a whole number: "3.0", "3.1",
// "100000.0", "1e+16", "1e-05" (the form Python's repr gives, so that a version recorded as a
// number reads back as it was written).
std::string real_text(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  std::array<char, 32> buffer{};
  const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                       std::chars_format::scientific);
  std::string scientific(buffer.data(), end);  // "-1.2345e+17", "1e-05"
  const std::size_t e = scientific.find('e');
  const int exponent = std::stoi(scientific.substr(e + 1));
  if (exponent < -4 || exponent >= 16) return scientific;

  const bool negative = scientific.front() == '-';
  std::string digits;
  for (std::size_t i = negative ? 1 : 0; i < e; ++i) {
    if (scientific[i] != '.') digits += scientific[i];
  }
  std::string text = negative ? "-" : "";
  if (exponent < 0) {
    text += "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
  } else {
    const auto whole = static_cast<std::size_t>(exponent) + 1;
    if (digits.size() <= whole) {
      text += digits + std::string(whole - digits.size(), '0') + ".0";
    } else {
      text += digits.substr(0, whole) + "." + digits.substr(whole);
    }
  }
  return text;
}

}  // namespace

void Value::out_of_range(std::uint64_t value) {
  raise_error(SQLITE_RANGE,
              "integer " + std::to_string(value) + " does not fit in SQLite's 64-bit INTEGER");
}

void Value::wrong_type(const char* wanted) const {
  raise_error(SQLITE_MISUSE,
              std::string("value of type ") + type_name(type()) + " cannot be read as " + wanted);
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
