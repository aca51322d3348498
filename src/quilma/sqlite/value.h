// One SQLite value, as bound to a placeholder or read from a result column.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quilma::sqlite {

using Blob = std::vector<std::uint8_t>;

class Value {
 public:
  enum class Type { Null, Integer, Real, Text, Blob };

  Value() = default;
  Value(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): NULL, as in SQL
  Value(std::nullopt_t) {}  // NOLINT(google-explicit-constructor)

  template <std::integral T>
  Value(T value)  // NOLINT(google-explicit-constructor)
      : data_(to_int64(value)) {}
  template <std::floating_point T>
  Value(T value)  // NOLINT(google-explicit-constructor)
      : data_(static_cast<double>(value)) {}

  Value(const char* text) : data_(std::string(text)) {}       // NOLINT
  Value(std::string text) : data_(std::move(text)) {}         // NOLINT
  Value(std::string_view text) : data_(std::string(text)) {}  // NOLINT
  Value(sqlite::Blob blob) : data_(std::move(blob)) {}        // NOLINT

  template <class T>
  Value(const std::optional<T>& value)  // NOLINT(google-explicit-constructor)
  {
    if (value) *this = Value(*value);
  }

  Type type() const noexcept { return static_cast<Type>(data_.index()); }
  bool is_null() const noexcept { return data_.index() == 0; }

  std::int64_t as_int() const;          // INTEGER as is; REAL truncated toward zero
  double as_double() const;             // REAL or INTEGER
  std::string as_text() const;          // TEXT as is; INTEGER and REAL as SQLite writes them
  const sqlite::Blob& as_blob() const;  // BLOB only
  std::string_view text_view() const;   // TEXT only, without a copy

  bool operator==(const Value& other) const = default;

 private:
  template <std::integral T>
  static std::int64_t to_int64(T value) {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t)) {
      if (value > static_cast<T>(INT64_MAX)) out_of_range(static_cast<std::uint64_t>(value));
    }
    return static_cast<std::int64_t>(value);
  }
  [[noreturn]] static void out_of_range(std::uint64_t value);
  [[noreturn]] void wrong_type(const char* wanted) const;

  std::variant<std::monostate, std::int64_t, double, std::string, sqlite::Blob> data_;
};

// Values for a statement's "?" placeholders, in order.
using Params = std::vector<Value>;

}  // namespace quilma::sqlite
