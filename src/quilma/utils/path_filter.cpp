#include "quilma/utils/path_filter.h"

#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"

namespace quilma::utils {

namespace {

constexpr std::size_t NO_MATCH = std::string_view::npos;

// Matches one pattern element at `at` against `c`: the position after the element when it
// matches, NO_MATCH otherwise.
std::size_t match_element(std::string_view pattern, std::size_t at, char c) {
  const char head = pattern[at];
  if (head == '?') return at + 1;
  if (head == '\\' && at + 1 < pattern.size()) return pattern[at + 1] == c ? at + 2 : NO_MATCH;
  if (head != '[') return head == c ? at + 1 : NO_MATCH;

  std::size_t q = at + 1;
  const bool negate = q < pattern.size() && (pattern[q] == '!' || pattern[q] == '^');
  if (negate) ++q;
  bool matched = false;
  bool first = true;
  while (q < pattern.size() && (pattern[q] != ']' || first)) {
    first = false;
    char low = pattern[q];
    if (low == '\\' && q + 1 < pattern.size()) low = pattern[++q];
    if (q + 2 < pattern.size() && pattern[q + 1] == '-' && pattern[q + 2] != ']') {
      char high = pattern[q + 2];
      q += 3;
      if (high == '\\' && q < pattern.size()) high = pattern[q++];
      matched = matched || (low <= c && c <= high);
    } else {
      matched = matched || low == c;
      ++q;
    }
  }
  if (q >= pattern.size()) return c == '[' ? at + 1 : NO_MATCH;  // no closing ']': a literal
  return matched != negate ? q + 1 : NO_MATCH;
}

// Glob match of one path segment (no '/'): '*' runs over any characters of the segment.
bool match_segment(std::string_view pattern, std::string_view segment) {
  std::size_t p = 0;
  std::size_t t = 0;
  std::size_t star_p = NO_MATCH;
  std::size_t star_t = 0;
  while (t < segment.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star_p = ++p;
      star_t = t;
      continue;
    }
    if (p < pattern.size()) {
      const std::size_t next = match_element(pattern, p, segment[t]);
      if (next != NO_MATCH) {
        p = next;
        ++t;
        continue;
      }
    }
    if (star_p == NO_MATCH) return false;
    p = star_p;  // let the last '*' take one more character
    t = ++star_t;
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

// A pattern split into its '/'-separated segments once, for matching many paths.
class GlobPattern {
 public:
  explicit GlobPattern(std::string_view pattern) : text_(pattern) {
    std::string_view rest = text_;
    while (true) {
      const std::size_t slash = rest.find('/');
      segments_.push_back(rest.substr(0, slash));
      if (slash == std::string_view::npos) break;
      rest.remove_prefix(slash + 1);
    }
  }
  // The segments point into text_, so the object stays where it was made.
  GlobPattern(const GlobPattern&) = delete;
  GlobPattern& operator=(const GlobPattern&) = delete;

  // The segment-level form of the same backtracking as match_segment: a `**` segment runs
  // over any number of whole path segments. Only the latest `**` needs revisiting, so the
  // match takes at most segments x path segments steps.
  bool matches(std::string_view path) const {
    const std::size_t end = path.size() + 1;  // the position after the last segment
    auto segment_at = [&](std::size_t start) {
      const std::size_t slash = path.find('/', start);
      const std::size_t stop = slash == std::string_view::npos ? path.size() : slash;
      return std::pair{path.substr(start, stop - start), stop + 1};
    };
    std::size_t i = 0;
    std::size_t at = 0;
    std::size_t star_i = NO_MATCH;
    std::size_t star_at = 0;
    while (at != end) {
      if (i < segments_.size() && segments_[i] == "**") {
        star_i = ++i;
        star_at = at;
        continue;
      }
      const auto [segment, next] = segment_at(at);
      if (i < segments_.size() && match_segment(segments_[i], segment)) {
        ++i;
        at = next;
        continue;
      }
      if (star_i == NO_MATCH) return false;
      i = star_i;
      star_at = segment_at(star_at).second;
      at = star_at;
    }
    while (i < segments_.size() && segments_[i] == "**") ++i;
    return i == segments_.size();
  }

 private:
  std::string text_;
  std::vector<std::string_view> segments_;
};

const char* type_name(int type) {
  switch (type) {
    case SQLITE_INTEGER:
      return "INTEGER";
    case SQLITE_FLOAT:
      return "REAL";
    case SQLITE_BLOB:
      return "BLOB";
    default:
      return "TEXT";
  }
}

// Reads the text arguments of a path function. Sets the result (NULL, or an error naming
// the function and the argument) and returns std::nullopt when the function cannot run.
std::optional<std::pair<std::string_view, std::string_view>> text_arguments(
    sqlite3_context* context, sqlite3_value** argv, const char* function, const char* first,
    const char* second) {
  const char* names[] = {first, second};
  std::string_view texts[2];
  for (int i = 0; i < 2; ++i) {
    const int type = sqlite3_value_type(argv[i]);
    if (type == SQLITE_NULL) {
      sqlite3_result_null(context);
      return std::nullopt;
    }
    if (type != SQLITE_TEXT) {
      const std::string message =
          std::string(function) + "(): " + names[i] + " must be text, not " + type_name(type);
      sqlite3_result_error(context, message.c_str(), -1);
      return std::nullopt;
    }
    const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(argv[i]));
    if (text == nullptr) {
      sqlite3_result_error_nomem(context);
      return std::nullopt;
    }
    texts[i] = std::string_view(text, static_cast<std::size_t>(sqlite3_value_bytes(argv[i])));
  }
  return std::pair{texts[0], texts[1]};
}

void path_glob_function(sqlite3_context* context, int /*argc*/, sqlite3_value** argv) {
  try {
    const auto args = text_arguments(context, argv, "path_glob", "the pattern", "the path");
    if (!args) return;
    // The compiled pattern is kept with the statement while the pattern argument stays the
    // same, so a filter over many rows splits it once.
    auto* compiled = static_cast<GlobPattern*>(sqlite3_get_auxdata(context, 0));
    std::optional<GlobPattern> local;
    if (compiled == nullptr) {
      sqlite3_set_auxdata(context, 0, new GlobPattern(args->first),
                          [](void* pattern) { delete static_cast<GlobPattern*>(pattern); });
      compiled = static_cast<GlobPattern*>(sqlite3_get_auxdata(context, 0));
      if (compiled == nullptr) compiled = &local.emplace(args->first);
    }
    sqlite3_result_int(context, compiled->matches(args->second) ? 1 : 0);
  } catch (const std::bad_alloc&) {
    sqlite3_result_error_nomem(context);
  }
}

void path_under_function(sqlite3_context* context, int /*argc*/, sqlite3_value** argv) {
  const auto args = text_arguments(context, argv, "path_under", "the path", "the directory");
  if (!args) return;
  sqlite3_result_int(context, path_under(args->first, args->second) ? 1 : 0);
}

}  // namespace

bool glob_match(std::string_view pattern, std::string_view path) {
  return GlobPattern(pattern).matches(path);
}

bool path_under(std::string_view path, std::string_view directory) {
  while (!directory.empty() && directory.back() == '/') directory.remove_suffix(1);
  if (directory.empty() || directory == ".") return true;
  if (!path.starts_with(directory)) return false;
  return path.size() == directory.size() || path[directory.size()] == '/';
}

void register_path_functions(sqlite::Connection& connection) {
  sqlite3* db = connection.handle();
  if (db == nullptr) {
    throw sqlite::ProgrammingError(SQLITE_MISUSE, "Cannot operate on a closed database.");
  }
  constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  struct Function {
    const char* name;
    void (*body)(sqlite3_context*, int, sqlite3_value**);
  };
  for (const Function& function :
       {Function{"path_glob", path_glob_function}, Function{"path_under", path_under_function}}) {
    if (sqlite3_create_function_v2(db, function.name, 2, flags, nullptr, function.body, nullptr,
                                   nullptr, nullptr) != SQLITE_OK) {
      sqlite::raise_error(sqlite3_extended_errcode(db), sqlite3_errmsg(db));
    }
  }
}

}  // namespace quilma::utils
