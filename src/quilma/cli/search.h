// Full-text search over the index's chunks, ranked by bm25, down to the lines that match.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
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

struct SearchRequest {
  // FTS5 query syntax ("a AND NOT b" is taken for "a NOT b").
  std::string query;
  // The command line's -w and -s, which make QUERY a pattern for grep's side instead.
  bool whole_word = false;
  bool case_sensitive = false;
  // Only files under this directory of the repository (with its final '/'; empty for all),
  // and their paths relative to it.
  std::string scope;
  // Git pathspecs relative to the scope (pathspec_matches); a file must match one of them
  // when any are given.
  std::vector<std::string> paths;
  // File order (path, then line) instead of the best-ranked chunks first.
  bool by_path = false;
  // Lines of context to give before and after each matching line.
  std::int64_t context = 0;
  // At most this many lines; std::nullopt for all of them.
  std::optional<std::int64_t> limit = 20;
};

// One matching line.
struct SearchHit {
  std::string path;
  std::int64_t line = 0;
  std::string text;                                          // the line as it is in the file
  std::vector<std::pair<std::size_t, std::size_t>> matches;  // [begin, end) in `text`
  // The context lines before and after it, nearest last and first.
  std::vector<std::string> before;
  std::vector<std::string> after;
};

struct SearchResult {
  std::vector<SearchHit> hits;
  bool cut = false;  // more lines matched than the limit let through
};

SearchResult search(storage::Database& db, const SearchRequest& request);

}  // namespace quilma::cli
