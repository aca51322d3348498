// quilma-db search: the lines of the indexed files that match a query, as grep prints them, or
// the files that hold them.
#include "quilma/cli/search.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quilma/cli/command.h"
#include "quilma/cli/freshness.h"
#include "quilma/cli/grep.h"

namespace quilma::cli {

void search_options(CLI::App& sub, Options& options) {
  sub.add_option("QUERY", options.search.query,
                 "Words, \"phrases\", prefix*, AND, OR, NOT, NEAR(...), ranked; with -w, -s, -i, "
                 "-F or -E, a pattern matched as grep matches it");
  sub.add_option("-e,--regexp", options.patterns,
                 "A pattern, as QUERY is one (repeat for more: a line matches any); QUERY is then "
                 "taken as REPO")
      ->allow_extra_args(false);
  sub.add_flag("-w,--word", options.search.whole_word,
               "The pattern stands between characters that are not ASCII letters, digits or "
               "'_', as with grep -w");
  sub.add_flag("-s,--case-sensitive", options.search.case_sensitive,
               "A pattern, matched in its own case (grep's default; undoes nothing but -i)");
  sub.add_flag("-i,--ignore-case", options.ignore_case, "ASCII letters match in either case");
  sub.add_flag("-F,--fixed-strings", options.fixed, "Patterns are fixed strings (the default)");
  sub.add_flag("-E,--extended-regexp", options.regex,
               "Patterns are regular expressions (RE2's syntax, leftmost-longest as POSIX)");
  sub.add_flag("-n,--line-number", options.line_numbers, "Line numbers (always shown)");
  sub.add_option("--path", options.search.paths,
                 "Only files under PATHSPEC, relative to REPO: a file, a directory, or a glob "
                 "whose '*' crosses '/' (git's pathspecs). Repeat for more")
      ->allow_extra_args(false);
  sub.add_option("--sort", options.sort,
                 "rank (the best chunks first; full-text queries) or path (as grep; patterns)")
      ->check(CLI::IsMember({"rank", "path"}));
  sub.add_option("-C,--context", options.search.context, "Lines of context around each line")
      ->check(CLI::Range(std::int64_t{0}, std::int64_t{1000}));
  sub.add_flag("--as-indexed", options.as_indexed,
               "Search the index as it is, without looking for files changed since it was "
               "updated (which stats every file)");
  sub.add_flag("-l,--files-with-matches", options.files_only, "Only the files that match");
  sub.add_flag("-c,--count", options.counts, "The files that match, with how many lines each");
  sub.add_option("--limit", options.search.limit,
                 "At most this many matching lines (files with -l or -c)")
      ->default_str(std::to_string(SearchRequest{}.limit.value_or(0)))
      ->check(CLI::Validator(
          [](const std::string& value) {
            return std::all_of(value.begin(), value.end(),
                               [](char c) { return c >= '0' && c <= '9'; }) &&
                           !value.empty() && value.find_first_not_of('0') != std::string::npos
                       ? std::string()
                       : "--limit takes a whole number of 1 or more, not '" + value + "'";
          },
          "N >= 1"));
  sub.add_flag("--all", options.all, "Every match, without a limit")->excludes("--limit");
  sub.get_option("-l")->excludes("-c");
  sub.get_option("-E")->excludes("-F");
}

namespace {

namespace fs = std::filesystem;

// A line as grep prints it: "path:N:text" for a match, "path-N-text" for context, the path
// quoted as git quotes it.
void append_grep_line(std::string& line, std::string_view path, std::int64_t number,
                      std::string_view text, const std::vector<Span>& matches, bool marked) {
  const char separator = matches.empty() ? '-' : ':';
  // A file's lines come one after another: its path is shown once for all of them.
  thread_local std::string last_path;
  thread_local std::string last_shown;
  if (path != last_path) {
    last_path = path;
    last_shown = quoted_path(path);
  }
  const fmt::format_int digits(number);
  line.reserve(line.size() + last_shown.size() + digits.size() + text.size() + 3 +
               (marked ? matches.size() * 11 : 0));
  line.append(last_shown).append(1, separator).append(digits.data(), digits.size());
  line += separator;
  std::size_t from = 0;
  for (const auto& [begin, end] : matches) {
    if (begin < from || end > text.size()) continue;
    line.append(text, from, begin - from);
    line += marked ? "\033[1;31m" : "";
    line.append(text, begin, end - begin);
    line += marked ? "\033[0m" : "";
    from = end;
  }
  line.append(text, from);
  line += '\n';
}

void print_grep_line(const Command& command, std::string_view path, std::int64_t number,
                     std::string_view text, const std::vector<Span>& matches, bool marked) {
  std::string line;
  append_grep_line(line, path, number, text, matches, marked);
  command.io().out << line;
}

// Where the search runs: the repository the index holds, and REPO's directory under it.
struct Scope {
  fs::path root;
  std::string prefix;  // REPO relative to `root`, with a final '/'; empty for all of it
};

Scope scope_of(const Command& command) {
  const fs::path repo = command.repo();
  if (!fs::is_directory(repo)) {
    throw UsageError(
        fmt::format("'{}' is not a directory; QUERY is one pattern: quote several words as one "
                    "('quilma-db search \"spawn blocking\"'), or give each with -e",
                    command.options().repo));
  }
  fs::path root = repo;
  if (command.options().db.empty()) {
    // The index's directory is ROOT/memory/codebase-index/.
    root = command.index_database().parent_path().parent_path().parent_path();
  }
  const fs::path relative = repo.lexically_relative(root);
  if (relative.empty() || relative == "." || relative.begin()->string() == "..") return {root, ""};
  return {root, relative.generic_string() + "/"};
}

int grep_search(const Command& command, const Scope& scope, std::vector<std::string> patterns) {
  const Options& options = command.options();
  storage::Database db(command.index_database());
  command.open_existing(db);
  GrepRequest request{
      .patterns = {.patterns = std::move(patterns),
                   .regex = options.regex,
                   .word = options.search.whole_word,
                   .ignore_case = options.ignore_case && !options.search.case_sensitive},
      .root = scope.root,
      .scope = scope.prefix,
      .pathspecs = options.search.paths,
      .context = options.search.context,
      .threads = 0,
      .stale = {},
      .from_disk = {},
      .render = {}};
  // The check for files changed since the index was built runs beside the scan of the index's
  // text, and only the first file printed waits for it. The scan reads the index only once the
  // check has fixed what it compares with, so that the scan's index is never older than the
  // check's. When files did change, the scan stops before printing anything and runs again,
  // without their indexed text and with them as they are now.
  std::atomic<bool> decided = false;
  const auto decide = [&decided] {
    decided = true;
    decided.notify_all();
  };
  std::future<std::optional<Changes>> check;  // declared after what it uses: waited for first
  if (!options.as_indexed) {
    check = std::async(std::launch::async, [&db, &decide] {
      try {
        std::optional<Changes> changes = changed_since_index(db, decide);
        decide();
        return changes;
      } catch (...) {
        decide();
        throw;
      }
    });
    decided.wait(false);
  }
  std::optional<Changes> changes;
  const auto index_stands = [&] {  // once the check is done: whether nothing changed
    if (!check.valid()) return true;
    changes = check.get();
    if (!changes && !options.quiet) tell_changes_unknown(db, command.io().err);
    return !changes || changes->count() == 0;
  };
  const bool marked = command.colour();
  if (!options.json && !options.files_only && !options.counts) {
    request.render = [marked](std::string& out, std::string_view path, std::int64_t number,
                              std::string_view text, const std::vector<Span>& matches) {
      append_grep_line(out, path, number, text, matches, marked);
    };
  }
  const bool per_file = options.files_only || options.counts;
  const std::optional<std::int64_t> limit = options.all ? std::nullopt : options.search.limit;
  std::int64_t printed = 0;  // lines (files with -l or -c)
  bool cut = false;
  bool first_group = true;
  bool restart = false;
  const auto print = [&](GrepFile& file) {
    if (!index_stands()) {
      restart = true;
      return false;
    }
    if (limit && printed >= *limit) {
      cut = true;
      return false;
    }
    if (per_file) {
      if (options.json) {
        command.print_line(options.counts ? json{{"path", file.path}, {"count", file.matched}}
                                          : json{{"path", file.path}});
      } else if (options.counts) {
        command.print("{}:{}", quoted_path(file.path), file.matched);
      } else {
        command.print("{}", quoted_path(file.path));
      }
      ++printed;
      return true;
    }
    std::int64_t previous = -1;
    std::int64_t last_match = 0;
    // The rendered lines not yet written: consecutive in the file's buffer, written at once.
    std::size_t unwritten = 0;
    std::size_t written = 0;
    const auto write = [&] {
      command.io().out.write(file.rendered.data() + written,
                             static_cast<std::streamsize>(unwritten - written));
      written = unwritten;
    };
    for (const GrepLine& line : file.lines) {
      // Past the limit only the context after the last match shown is printed, as with grep -m;
      // a line further on leads to a match that is not shown.
      if (limit && printed >= *limit &&
          (!line.context || line.number > last_match + request.context)) {
        cut = true;
        write();
        return false;
      }
      if (options.json) {
        json object{{"path", file.path}, {"line", line.number}, {"text", line.text}};
        if (line.context) {
          object["context"] = true;
        } else {
          object["matches"] = line.matches;
        }
        command.print_line(object);
      } else {
        if (request.context > 0 && !first_group && line.number != previous + 1) {
          write();
          command.print("--");
        }
        unwritten = line.rendered_begin + line.rendered_size;
      }
      first_group = false;
      previous = line.number;
      if (!line.context) {
        ++printed;
        last_match = line.number;
      }
    }
    write();
    if (command.io().out_is_terminal) command.io().out.flush();
    return true;
  };
  std::vector<std::string> unmatched = grep(db, request, print);
  if (restart || !index_stands()) {
    request.stale = changes->stale();
    request.from_disk = changes->added;
    request.from_disk.insert(request.from_disk.end(), changes->modified.begin(),
                             changes->modified.end());
    unmatched = grep(db, request, print);
  }
  for (const std::string& pathspec : unmatched) {
    fmt::print(command.io().err, "quilma-db: --path '{}' matches no indexed file\n", pathspec);
  }
  if (cut)
    command.notice_cut(static_cast<std::size_t>(printed), per_file ? "files" : "matching lines");
  return printed > 0 ? 0 : EXIT_NO_MATCH;
}

int fts_search(const Command& command, const Scope& scope) {
  const Options& options = command.options();
  storage::Database db(command.index_database());
  command.open_existing(db);
  SearchRequest request = options.search;
  request.by_path = options.sort == "path";
  request.scope = scope.prefix;
  const bool per_file = options.files_only || options.counts;
  if (options.all || per_file) request.limit = std::nullopt;
  SearchResult result = options.as_indexed
                            ? cli::search(db, request)
                            : search_current(db, request, command.io().err, options.quiet);

  if (per_file) {
    // Files in the order of their first matching line, with how many lines matched.
    std::vector<std::pair<std::string, std::int64_t>> files;
    std::map<std::string_view, std::size_t> at;
    for (const SearchHit& hit : result.hits) {
      const auto [found, added] = at.try_emplace(hit.path, files.size());
      if (added) files.emplace_back(hit.path, 0);
      ++files[found->second].second;
    }
    const std::int64_t limit = options.search.limit.value_or(0);
    if (!options.all && std::cmp_greater(files.size(), limit)) {
      files.resize(static_cast<std::size_t>(limit));
      result.cut = true;
    }
    for (const auto& [path, count] : files) {
      if (options.json) {
        command.print_line(options.counts ? json{{"path", path}, {"count", count}}
                                          : json{{"path", path}});
      } else if (options.counts) {
        command.print("{}:{}", quoted_path(path), count);
      } else {
        command.print("{}", quoted_path(path));
      }
    }
    if (result.cut) command.notice_cut(files.size(), "files");
    return files.empty() ? EXIT_NO_MATCH : 0;
  }

  const bool marked = command.colour();
  const std::vector<SearchHit>& hits = result.hits;
  std::string_view group_path;  // the file of the lines printed last, and the last of them
  std::int64_t printed = 0;
  for (std::size_t i = 0; i < hits.size(); ++i) {
    const SearchHit& hit = hits[i];
    if (options.json) {
      json object{
          {"path", hit.path}, {"line", hit.line}, {"text", hit.text}, {"matches", hit.matches}};
      if (request.context > 0) {
        object["before"] = hit.before;
        object["after"] = hit.after;
      }
      command.print_line(object);
      continue;
    }
    // Context lines print once: a hit whose context meets the lines printed last joins them;
    // any other starts a group of its own, after "--" as grep marks it.
    std::int64_t line = hit.line - static_cast<std::int64_t>(hit.before.size());
    if (group_path == hit.path && hit.line > printed && line <= printed + 1) {
      line = printed + 1;
    } else if (i > 0 && request.context > 0) {
      command.print("--");
    }
    for (; line < hit.line; ++line) {
      print_grep_line(command, hit.path, line,
                      hit.before[hit.before.size() - static_cast<std::size_t>(hit.line - line)], {},
                      false);
    }
    print_grep_line(command, hit.path, hit.line, hit.text, hit.matches, marked);
    // The lines after it stop short of a next hit of the same file that falls among them.
    std::int64_t last = hit.line + static_cast<std::int64_t>(hit.after.size());
    if (i + 1 < hits.size() && hits[i + 1].path == hit.path && hits[i + 1].line > hit.line) {
      last = std::min(last, hits[i + 1].line - 1);
    }
    for (line = hit.line + 1; line <= last; ++line) {
      print_grep_line(command, hit.path, line,
                      hit.after[static_cast<std::size_t>(line - hit.line - 1)], {}, false);
    }
    group_path = hit.path;
    printed = std::max(last, hit.line);
  }
  if (result.cut) command.notice_cut(result.hits.size(), "matching lines");
  return hits.empty() ? EXIT_NO_MATCH : 0;
}

}  // namespace

int cmd_search(const Command& command) {
  const Options& options = command.options();
  std::vector<std::string> patterns = options.patterns;
  if (!patterns.empty() && !options.search.query.empty()) {
    // With -e, the first word after the options is REPO, as grep takes it for a path.
    if (options.repo != ".") {
      throw UsageError(fmt::format("with -e, '{}' is taken as REPO; '{}' is one word too many",
                                   options.search.query, options.repo));
    }
    Options moved = options;
    moved.repo = options.search.query;
    moved.search.query.clear();
    const Command again(moved, command.io());
    return cmd_search(again);
  }
  if (patterns.empty() && options.search.query.empty()) {
    throw UsageError("QUERY is required, or -e PATTERN");
  }
  const Scope scope = scope_of(command);
  const bool grep_mode = !patterns.empty() || options.search.whole_word ||
                         options.search.case_sensitive || options.ignore_case || options.regex ||
                         options.fixed;
  if (grep_mode) {
    if (options.sort == "rank") {
      throw UsageError("--sort rank applies to full-text queries; patterns come in path order");
    }
    if (patterns.empty()) patterns.push_back(options.search.query);
    for (const std::string& pattern : patterns) {
      if (pattern.empty()) throw MalformedQuery("an empty pattern: nothing to search for");
    }
    return grep_search(command, scope, std::move(patterns));
  }
  return fts_search(command, scope);
}

}  // namespace quilma::cli
