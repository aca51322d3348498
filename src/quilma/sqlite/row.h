// One result row, addressable by position and by column name.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quilma/sqlite/value.h"

namespace quilma::sqlite {

class Row {
 public:
  using Columns = std::vector<std::string>;

  Row() = default;
  // `columns` is shared by every row of one statement's result.
  Row(std::shared_ptr<const Columns> columns, std::vector<Value> values);

  std::size_t size() const noexcept { return values_.size(); }
  const Value& operator[](std::size_t index) const;        // std::out_of_range past the end
  const Value& operator[](std::string_view column) const;  // ASCII case-insensitive
  const Columns& columns() const noexcept;
  const std::vector<Value>& values() const noexcept { return values_; }

 private:
  std::shared_ptr<const Columns> columns_;
  std::vector<Value> values_;
};

}  // namespace quilma::sqlite
