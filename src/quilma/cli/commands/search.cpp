// quilma-db search: the lines of the indexed files that match a query, as grep prints them, or
// the files that hold them.
#include "quilma/cli/search.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quilma/cli/command.h"
#include "quilma/cli/freshness.h"

namespace quilma::cli {

void search_options(CLI::App& sub, Options& options) {
  sub.add_option("QUERY", options.search.query,
                 "Words, \"phrases\", prefix*, AND, OR, NOT, NEAR(...); with -w or -s, a text "
                 "taken literally")
      ->required();
  sub.add_flag("-w,--word", options.search.whole_word,
               "QUERY is a text that stands as a whole identifier, as with grep -w");
  sub.add_flag("-s,--case-sensitive", options.search.case_sensitive,
               "QUERY is a text matched in its own case, accents as written");
  sub.add_option("--path", options.search.paths,
                 "Only files whose path matches GLOB (*, ?, [...], **); without a '/', the "
                 "file name in any directory. Repeat for more");
  sub.add_option("--sort", options.sort, "rank (the best chunks first) or path (as grep)")
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
}

int cmd_search(const Command& command) {
  const Options& options = command.options();
  storage::Database db(command.index_database());
  command.open_existing(db);
  SearchRequest request = options.search;
  request.by_path = options.sort == "path";
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
        command.print("{}:{}", shown(path), count);
      } else {
        command.print("{}", shown(path));
      }
    }
    if (result.cut) command.notice_cut(files.size(), "files");
    return 0;
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
      command.print("{}-{}- {}", shown(hit.path), line,
                    hit.before[hit.before.size() - static_cast<std::size_t>(hit.line - line)]);
    }
    std::string text;
    std::size_t from = 0;
    for (const auto& [begin, end] : hit.matches) {
      if (begin < from) continue;
      text.append(hit.text, from, begin - from);
      text += marked ? "\033[1;31m" : "";
      text.append(hit.text, begin, end - begin);
      text += marked ? "\033[0m" : "";
      from = end;
    }
    text.append(hit.text, from);
    command.print("{}:{}: {}", shown(hit.path), hit.line, text);
    // The lines after it stop short of a next hit of the same file that falls among them.
    std::int64_t last = hit.line + static_cast<std::int64_t>(hit.after.size());
    if (i + 1 < hits.size() && hits[i + 1].path == hit.path && hits[i + 1].line > hit.line) {
      last = std::min(last, hits[i + 1].line - 1);
    }
    for (line = hit.line + 1; line <= last; ++line) {
      command.print("{}-{}- {}", shown(hit.path), line,
                    hit.after[static_cast<std::size_t>(line - hit.line - 1)]);
    }
    group_path = hit.path;
    printed = std::max(last, hit.line);
  }
  if (result.cut) command.notice_cut(result.hits.size(), "matching lines");
  return 0;
}

}  // namespace quilma::cli
