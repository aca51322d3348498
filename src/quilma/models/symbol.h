// Symbols as the index stores them.
#pragma once

#include <string>
#include <string_view>

namespace quilma::models {

// The kind of a file's top-level anchor symbol: every indexed file has one, so that edges
// can start at the file itself (its imports, its top-level calls). Anchors are bookkeeping
// and never shown to a user.
inline constexpr std::string_view FILE_SYMBOL_KIND = "file";

// An SQL condition over the columns of `symbols`, without "WHERE", that selects the symbols
// a user may see: every symbol except the files' anchors. It stands alone after "WHERE".
std::string listed_sql();

}  // namespace quilma::models
