// grep's side of search: patterns matched line by line as `git grep` matches them (fixed
// strings or extended regular expressions, -w, -i), the full-text query that finds every chunk
// a pattern can match in, and the scan of files in path order on every core.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "quilma/storage/database.h"

namespace re2 {
class RE2;
}

namespace quilma::cli {

using Span = std::pair<std::size_t, std::size_t>;  // [begin, end) in a line

struct GrepPatterns {
  std::vector<std::string> patterns;  // a line matches when any of them does
  bool regex = false;                 // extended regular expressions (RE2), not fixed strings
  bool word = false;                  // -w: a match stands between characters that are not
                                      // ASCII letters, digits or '_'
  bool ignore_case = false;           // -i: ASCII letters in either case
};

// The compiled patterns. Throws MalformedQuery for an expression RE2 cannot compile.
class LineMatcher {
 public:
  explicit LineMatcher(GrepPatterns patterns);
  ~LineMatcher();
  LineMatcher(const LineMatcher&) = delete;
  LineMatcher& operator=(const LineMatcher&) = delete;

  // The matches in `line` (which holds no '\n'), in order, into `spans` (emptied first; left
  // empty when the line does not match).
  void match(std::string_view line, std::vector<Span>& spans) const;
  // Calls `found(begin, end)` for each line of `text` (lines end at '\n') that matches, in
  // order, until it returns false. Lines that hold no literal a match needs are skipped unread.
  void scan(std::string_view text,
            const std::function<bool(std::size_t begin, std::size_t end,
                                     std::vector<Span>& matches)>& found) const;
  // A full-text query that finds every chunk with a line that can match (candidate chunks,
  // checked line by line afterwards), or std::nullopt when every chunk must be read. Uses the
  // index's vocabulary through `cursor` for words that a match may only be part of.
  std::optional<std::string> chunk_query(sqlite::Cursor& cursor) const;

 private:
  struct Pattern;
  // The first match of `pattern` in `line` from `from` on, under -w's rule as git applies it.
  std::optional<Span> first_match(const Pattern& pattern, std::string_view line,
                                  std::size_t from) const;

  GrepPatterns options_;
  std::vector<std::unique_ptr<Pattern>> compiled_;
};

// One printed line of a file: a match, or a context line around one.
struct GrepLine {
  std::int64_t number = 0;
  bool context = false;       // a line around a match rather than one
  std::string text;           // empty when GrepRequest::render wrote the line
  std::vector<Span> matches;  // empty when GrepRequest::render wrote the line
  // Where GrepRequest::render wrote the line in its file's `rendered`.
  std::size_t rendered_begin = 0;
  std::size_t rendered_size = 0;
};

// The lines a file gave, in order. Lines whose numbers do not follow on start a new group.
struct GrepFile {
  std::string path;  // relative to the scope
  std::vector<GrepLine> lines;
  std::int64_t matched = 0;  // lines that matched, context lines aside
  std::string rendered;      // the lines as GrepRequest::render wrote them, one after another
};

struct GrepRequest {
  GrepPatterns patterns;
  std::filesystem::path root;  // the indexed repository
  std::string scope;           // a directory under `root` ("" for all of it), with a final '/'
  std::vector<std::string> pathspecs;  // git pathspecs relative to the scope
  std::int64_t context = 0;
  unsigned threads = 0;  // 0: one per core
  // Files whose indexed text is out of date (paths relative to `root`): the index's text of
  // these is not read. Those of `from_disk` are read as they are now instead.
  std::unordered_set<std::string> stale;
  std::vector<std::string> from_disk;
  // Appends the line as it will be printed to `out`, from a file's path (relative to the
  // scope), the line's number, text and matches; runs on the scanning threads. Without it,
  // lines keep their text.
  std::function<void(std::string& out, std::string_view path, std::int64_t number,
                     std::string_view text, const std::vector<Span>& matches)>
      render;
};

// Whether `path` matches a git pathspec: the path itself, a directory above it, or a glob whose
// '*' crosses '/' as git's does.
bool pathspec_matches(const std::string& pathspec, const std::string& path);

// Searches the files of the index in path order, handing each file that matches to `print`
// as soon as it and every file before it are done; stops when `print` returns false. Files
// too large for the index are read from disk. Returns the pathspecs that matched no file.
std::vector<std::string> grep(storage::Database& db, const GrepRequest& request,
                              const std::function<bool(GrepFile&)>& print);

}  // namespace quilma::cli
