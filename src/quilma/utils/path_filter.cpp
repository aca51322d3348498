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

// One character of UTF-8 text: its code point and its length in bytes.
struct Char {
  char32_t code;
  std::size_t size;
};

// The character at `at`. A byte that does not begin a well-formed sequence stands alone, as a
// code point (U+DC80..U+DCFF) that no well-formed character has.
Char decode(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) return {lead, 1};
  const Char stray{static_cast<char32_t>(0xDC00 + lead), 1};
  const std::size_t size = (lead >> 5) == 0x6    ? 2
                           : (lead >> 4) == 0xE  ? 3
                           : (lead >> 3) == 0x1E ? 4
                                                 : 0;
  if (size == 0 || at + size > text.size()) return stray;
  char32_t code = lead & (0x7F >> size);
  for (std::size_t i = 1; i < size; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return stray;
    code = (code << 6) | (next & 0x3F);
  }
  return {code, size};
}

// Matches the pattern element at `at` (a character, '?', an escaped character or a set)
// against one character: the position after the element when it matches, NO_MATCH otherwise.
std::size_t match_element(std::string_view pattern, std::size_t at, char32_t c) {
  const char head = pattern[at];
  if (head == '?') return at + 1;
  if (head == '\\' && at + 1 < pattern.size()) {
    const Char escaped = decode(pattern, at + 1);
    return escaped.code == c ? at + 1 + escaped.size : NO_MATCH;
  }
  if (head != '[') {
    const Char literal = decode(pattern, at);
    return literal.code == c ? at + literal.size : NO_MATCH;
  }

  std::size_t q = at + 1;
  const bool negate = q < pattern.size() && (pattern[q] == '!' || pattern[q] == '^');
  if (negate) ++q;
  bool matched = false;
  bool first = true;  // a ']' right after the opening bracket is a member
  while (q < pattern.size() && (pattern[q] != ']' || first)) {
    first = false;
    if (pattern[q] == '\\' && q + 1 < pattern.size()) ++q;
    const Char low = decode(pattern, q);
    q += low.size;
    if (q + 1 < pattern.size() && pattern[q] == '-' && pattern[q + 1] != ']') {
      ++q;
      if (pattern[q] == '\\' && q + 1 < pattern.size()) ++q;
      const Char high = decode(pattern, q);
      q += high.size;
      matched = matched || (low.code <= c && c <= high.code);
    } else {
      matched = matched || low.code == c;
    }
  }
  if (q >= pattern.size()) return c == '[' ? at + 1 : NO_MATCH;  // no closing ']': a literal
  return matched != negate ? q + 1 : NO_MATCH;
}

// Glob match of one path segment (no '/'): '*' runs over any characters of the segment. The
// classic backtracking over the latest '*' only: at most |pattern| x |segment| steps.
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
    const Char c = decode(segment, t);
    if (p < pattern.size()) {
      const std::size_t next = match_element(pattern, p, c.code);
      if (next != NO_MATCH) {
        p = next;
        t += c.size;
        continue;
      }
    }
    if (star_p == NO_MATCH) return false;
    p = star_p;  // let the last '*' take one more character
    star_t += decode(segment, star_t).size;
    t = star_t;
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
  // over any number of whole path segments. Only the latest `**` needs revisiting, so a match
  // compares at most (pattern segments x path segments) pairs of segments, and costs at most
  // about |pattern| x |path| character steps in all.
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

// Matching costs up to |pattern| x |path| steps per row, and a pattern may come from a user
// (a search filter): longer patterns are refused rather than run.
constexpr std::size_t MAX_PATTERN_BYTES = 1024;

// Reads the two text arguments of a path function. Sets the result (NULL when either is
// NULL, otherwise an error naming the function and the argument) and returns std::nullopt
// when the function cannot run.
std::optional<std::pair<std::string_view, std::string_view>> text_arguments(
    sqlite3_context* context, sqlite3_value** argv, const char* function, const char* first,
    const char* second) {
  if (sqlite3_value_type(argv[0]) == SQLITE_NULL || sqlite3_value_type(argv[1]) == SQLITE_NULL) {
    sqlite3_result_null(context);
    return std::nullopt;
  }
  const char* names[] = {first, second};
  std::string_view texts[2];
  for (int i = 0; i < 2; ++i) {
    const int type = sqlite3_value_type(argv[i]);
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
    if (args->first.size() > MAX_PATTERN_BYTES) {
      const std::string message =
          "path_glob(): the pattern is longer than " + std::to_string(MAX_PATTERN_BYTES) + " bytes";
      sqlite3_result_error(context, message.c_str(), -1);
      return;
    }
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
  } catch (const std::bad_alloc&) {  // nothing may unwind through SQLite's C frames
    sqlite3_result_error_nomem(context);
  }
}

void path_under_function(sqlite3_context* context, int /*argc*/, sqlite3_value** argv) {
  try {
    const auto args = text_arguments(context, argv, "path_under", "the path", "the directory");
    if (!args) return;
    sqlite3_result_int(context, path_under(args->first, args->second) ? 1 : 0);
  } catch (const std::bad_alloc&) {
    sqlite3_result_error_nomem(context);
  }
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
    sqlite::raise_error(SQLITE_MISUSE, "Cannot operate on a closed database.");
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
