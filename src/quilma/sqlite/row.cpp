#include "quilma/sqlite/row.h"

#include <stdexcept>
#include <utility>

namespace quilma::sqlite {

namespace {

bool equal_ignoring_ascii_case(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) return false;
  for (std::size_t i = 0; i < left.size(); ++i) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(left[i]) != lower(right[i])) return false;
  }
  return true;
}

}  // namespace

Row::Row(std::shared_ptr<const Columns> columns, std::vector<Value> values)
    : columns_(std::move(columns)), values_(std::move(values)) {}

const Value& Row::operator[](std::size_t index) const {
  if (index >= values_.size()) {
    throw std::out_of_range("row has " + std::to_string(values_.size()) +
                            " columns; no column at index " + std::to_string(index));
  }
  return values_[index];
}

const Value& Row::operator[](std::string_view column) const {
  const Columns& names = columns();
  for (std::size_t i = 0; i < names.size() && i < values_.size(); ++i) {
    if (equal_ignoring_ascii_case(names[i], column)) return values_[i];
  }
  throw std::out_of_range("no column named '" + std::string(column) + "' in row");
}

const Row::Columns& Row::columns() const noexcept {
  static const Columns none;
  return columns_ ? *columns_ : none;
}

}  // namespace quilma::sqlite
