// Search over the index's chunks, down to the lines that match: full-text queries ranked by
// bm25, or a literal text checked line by line as grep does.
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
  // FTS5 query syntax; with `whole_word` or `case_sensitive`, a literal text instead.
  std::string query;
  // The text must stand between characters that are not letters, digits or '_' (grep -w);
  // without it, a literal text must start and end where words of the full-text index do.
  bool whole_word = false;
  // Letters match only in the case given (without it, ASCII letters match in either case).
  // A literal text always matches accented letters exactly.
  bool case_sensitive = false;
  // Globs over repository paths (path_glob); a file must match one of them when any are
  // given. A glob without '/' is matched against the file's name, in any directory.
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
  std::string text;  // the line, without leading blanks and cut around the match when long
  std::vector<std::pair<std::size_t, std::size_t>> matches;  // [begin, end) in `text`
  // The context lines before and after it (cut as `text` is), nearest last and first.
  std::vector<std::string> before;
  std::vector<std::string> after;
};

struct SearchResult {
  std::vector<SearchHit> hits;
  bool cut = false;  // more lines matched than the limit let through
};

SearchResult search(storage::Database& db, const SearchRequest& request);

}  // namespace quilma::cli
