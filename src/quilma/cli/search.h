// Full-text search over the index's chunks, down to the lines that match.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quilma/storage/database.h"

namespace quilma::cli {

// A query that the full-text engine cannot parse; what() says so in one line, with a hint.
class MalformedQuery : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// One matching line.
struct SearchHit {
  std::string path;
  std::int64_t line = 0;
  std::string text;  // the line, without leading blanks and cut around the match when long
  std::vector<std::pair<std::size_t, std::size_t>> matches;  // [begin, end) in `text`
};

// The lines that match `query` (FTS5 syntax), best chunk first (bm25) and in line order within
// a chunk; at most `limit` of them.
std::vector<SearchHit> search(storage::Database& db, std::string_view query, std::int64_t limit);

}  // namespace quilma::cli
