// Search: FTS5 ranks the chunks; highlight() marks the matched tokens, and the marks tell
// which lines of a chunk matched. A literal text is looked for in the chunks that hold its
// words, line by line.
#include "quilma/cli/search.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "quilma/sqlite/error.h"
#include "quilma/storage/core_schema.h"

namespace quilma::cli {

namespace {

// Marks around each matched token in the highlighted text. Indexed text holds no NUL (binary
// files are left out), but may hold any other control character; these two are the least
// likely in source code.
constexpr char OPEN = '\x01';
constexpr char CLOSE = '\x02';
// Longer lines are cut to this many bytes around their first match.
constexpr std::size_t MAX_HIT_BYTES = 240;

// Moves `at` back to the start of the UTF-8 character it falls in.
std::size_t char_start(std::string_view text, std::size_t at) {
  while (at > 0 && at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) {
    --at;
  }
  return at;
}

// Cuts `hit` to MAX_HIT_BYTES around its first match, on character boundaries.
void shorten(SearchHit& hit) {
  if (hit.text.size() <= MAX_HIT_BYTES) return;
  const std::size_t first = hit.matches.empty() ? 0 : hit.matches.front().first;
  const std::size_t begin =
      char_start(hit.text, first > MAX_HIT_BYTES / 4 ? first - MAX_HIT_BYTES / 4 : 0);
  const std::size_t end = char_start(hit.text, std::min(hit.text.size(), begin + MAX_HIT_BYTES));
  hit.text = hit.text.substr(begin, end - begin);
  std::vector<std::pair<std::size_t, std::size_t>> kept;
  for (auto [from, to] : hit.matches) {
    if (to <= begin || from >= end) continue;
    kept.emplace_back(std::max(from, begin) - begin, std::min(to, end) - begin);
  }
  hit.matches = std::move(kept);
}

// Takes the line break and the indent off a matched line, shifting its matches with it, and
// cuts it to length.
void finish(SearchHit& hit) {
  if (!hit.text.empty() && hit.text.back() == '\r') hit.text.pop_back();
  const std::size_t indent = std::min(hit.text.find_first_not_of(" \t"), hit.text.size());
  hit.text.erase(0, indent);
  for (auto& [from, to] : hit.matches) {
    from = from > indent ? from - indent : 0;
    to = std::min(to > indent ? to - indent : 0, hit.text.size());
  }
  shorten(hit);
}

// Adds to `hits` the lines of one highlighted chunk that hold a mark, until `hits` holds `room`.
void add_marked_lines(std::string_view path, std::int64_t start_line, std::string_view highlighted,
                      std::vector<SearchHit>& hits, std::size_t room) {
  bool inside = false;  // a match that began on an earlier line goes on
  std::int64_t line = start_line;
  while (hits.size() < room) {
    const std::size_t newline = std::min(highlighted.find('\n'), highlighted.size());
    const std::string_view raw = highlighted.substr(0, newline);
    SearchHit hit;
    hit.path = path;
    hit.line = line;
    bool matched = inside;
    std::size_t match_begin = 0;
    for (const char c : raw) {
      if (c == OPEN) {
        inside = matched = true;
        match_begin = hit.text.size();
      } else if (c == CLOSE) {
        inside = false;
        hit.matches.emplace_back(match_begin, hit.text.size());
      } else {
        hit.text += c;
      }
    }
    if (inside) hit.matches.emplace_back(match_begin, hit.text.size());
    if (matched) {
      finish(hit);
      hits.push_back(std::move(hit));
    }
    if (newline == highlighted.size()) break;
    highlighted.remove_prefix(newline + 1);
    ++line;
  }
}

bool is_ascii_alnum(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
// A character of an identifier, as grep -w counts them (bytes of other characters are not).
bool is_word_byte(char c) { return is_ascii_alnum(c) || c == '_'; }
// A byte of a word of the full-text index: letters and digits, every non-ASCII one included.
bool is_token_byte(char c) { return is_ascii_alnum(c) || static_cast<unsigned char>(c) >= 0x80; }

char fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Where `term` next occurs in `text` from `at`; npos when nowhere.
std::size_t find_term(std::string_view text, std::string_view term, std::size_t at,
                      bool case_sensitive) {
  if (case_sensitive) return text.find(term, at);
  const char first = fold(term.front());
  for (; at + term.size() <= text.size(); ++at) {
    if (fold(text[at]) != first) continue;
    std::size_t i = 1;
    while (i < term.size() && fold(text[at + i]) == fold(term[i])) ++i;
    if (i == term.size()) return at;
  }
  return std::string_view::npos;
}

// Whether the occurrence [at, end) of `term` in `text` stands on the boundaries that `request`
// asks for. A line break is a boundary of either kind.
bool on_boundaries(std::string_view text, std::size_t at, std::size_t end, std::string_view term,
                   const SearchRequest& request) {
  if (request.whole_word) {
    return (at == 0 || !is_word_byte(text[at - 1])) &&
           (end == text.size() || !is_word_byte(text[end]));
  }
  return (!is_token_byte(term.front()) || at == 0 || !is_token_byte(text[at - 1])) &&
         (!is_token_byte(term.back()) || end == text.size() || !is_token_byte(text[end]));
}

// Adds to `hits` the lines of one chunk that hold `term`, until `hits` holds `room`. The text
// is searched whole, and only the lines with an occurrence are cut out of it.
void add_literal_lines(std::string_view path, std::int64_t start_line, std::string_view text,
                       const SearchRequest& request, std::vector<SearchHit>& hits,
                       std::size_t room) {
  const std::string_view term = request.query;
  if (term.find('\n') != std::string_view::npos) return;  // no line holds a line break
  SearchHit hit;  // the line being gathered, from line_begin to line_end of `text`
  std::int64_t line = start_line;
  std::size_t line_begin = 0;
  std::size_t line_end = 0;
  const auto flush = [&] {
    if (hit.matches.empty()) return;
    finish(hit);
    hits.push_back(std::exchange(hit, SearchHit()));
  };
  for (std::size_t at = find_term(text, term, 0, request.case_sensitive);
       at != std::string_view::npos && hits.size() < room;) {
    const std::size_t end = at + term.size();
    if (!on_boundaries(text, at, end, term, request)) {
      at = find_term(text, term, at + 1, request.case_sensitive);
      continue;
    }
    if (hit.matches.empty() || at >= line_end) {
      flush();
      line += std::count(text.begin() + static_cast<std::ptrdiff_t>(line_begin),
                         text.begin() + static_cast<std::ptrdiff_t>(at), '\n');
      const std::size_t previous_break = text.rfind('\n', at);
      line_begin = previous_break == std::string_view::npos ? 0 : previous_break + 1;
      line_end = std::min(text.find('\n', at), text.size());
      hit.path = path;
      hit.line = line;
      hit.text = text.substr(line_begin, line_end - line_begin);
    }
    hit.matches.emplace_back(at - line_begin, end - line_begin);
    at = find_term(text, term, end, request.case_sensitive);
  }
  if (hits.size() < room) flush();
}

// A context line as a matched line is shown: without its indent, and cut to length.
std::string context_line(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  return std::string(line.substr(0, char_start(line, std::min(line.size(), MAX_HIT_BYTES))));
}

// Every line of a file, from its chunks; [0] stands for line 1.
std::vector<std::string> file_lines(sqlite::Cursor& cursor, std::int64_t file_id) {
  using storage::core_schema::chunk_rowid;
  std::vector<std::string> lines;
  for (const sqlite::Row& row : cursor
                                    .execute("SELECT start_line, text FROM code_chunks "
                                             "WHERE rowid >= ? AND rowid < ? ORDER BY rowid",
                                             {chunk_rowid(file_id, 0), chunk_rowid(file_id + 1, 0)})
                                    .fetchall()) {
    const std::string chunk = row[1].as_text();
    std::string_view text = chunk;
    for (auto line = static_cast<std::size_t>(row[0].as_int()); line >= 1; ++line) {
      const std::size_t newline = std::min(text.find('\n'), text.size());
      if (lines.size() < line) lines.resize(line);
      lines[line - 1] = context_line(text.substr(0, newline));
      if (newline == text.size()) break;
      text.remove_prefix(newline + 1);
    }
  }
  return lines;
}

// Puts the context lines around each hit; `files` holds the id of each hit's file.
void add_context(sqlite::Cursor& cursor, const std::vector<std::int64_t>& files,
                 std::int64_t context, std::vector<SearchHit>& hits) {
  std::map<std::int64_t, std::vector<std::string>> loaded;
  for (std::size_t i = 0; i < hits.size(); ++i) {
    auto [at, added] = loaded.try_emplace(files[i]);
    if (added) at->second = file_lines(cursor, files[i]);
    const std::vector<std::string>& lines = at->second;
    SearchHit& hit = hits[i];
    for (std::int64_t line = std::max<std::int64_t>(1, hit.line - context); line < hit.line;
         ++line) {
      hit.before.push_back(lines.at(static_cast<std::size_t>(line - 1)));
    }
    for (std::int64_t line = hit.line + 1;
         line <= hit.line + context && std::cmp_less_equal(line, lines.size()); ++line) {
      hit.after.push_back(lines[static_cast<std::size_t>(line - 1)]);
    }
  }
}

// The full-text query that finds every chunk holding the literal `term`: the phrase of its
// words. std::nullopt when it has none: every chunk is a candidate then.
std::optional<std::string> literal_phrase(std::string_view term) {
  if (std::none_of(term.begin(), term.end(), is_token_byte)) return std::nullopt;
  std::string phrase = "\"";
  for (const char c : term) phrase += c == '"' ? std::string("\"\"") : std::string(1, c);
  return phrase + "\"";
}

[[noreturn]] void rethrow_as_malformed(const sqlite::OperationalError& error,
                                       std::string_view query) {
  std::string_view reason = error.what();
  if (!reason.starts_with("fts5:") && !reason.starts_with("no such column:") &&
      !reason.starts_with("unknown special query:") && !reason.starts_with("unterminated")) {
    throw error;
  }
  if (reason.starts_with("fts5: ")) reason.remove_prefix(6);
  const std::string_view hint =
      reason.starts_with("unterminated")
          ? "close every double quote; a double quote inside a phrase is written twice"
          : "put text with punctuation in double quotes, as in '\"std::vector\"', or search for "
            "it literally with -w or -s";
  throw MalformedQuery(fmt::format("malformed search query \"{}\" ({}); {}", query, reason, hint));
}

}  // namespace

SearchResult search(storage::Database& db, const SearchRequest& request) {
  const bool literal = request.whole_word || request.case_sensitive;
  if (literal && request.query.empty()) throw MalformedQuery("nothing to search for");
  if (request.limit && *request.limit <= 0) return {};

  // code_chunks drives the join (CROSS JOIN keeps it outside): a file's chunks are found by
  // the file's id, never the other way round.
  std::string sql = "SELECT files.id, files.path, code_chunks.start_line, ";
  sql += literal ? "code_chunks.text" : "highlight(code_chunks, 0, char(1), char(2))";
  sql += " FROM code_chunks CROSS JOIN files ON files.id = code_chunks.rowid / ? WHERE 1";
  sqlite::Params params{storage::core_schema::CHUNKS_PER_FILE};
  const std::optional<std::string> match =
      literal ? literal_phrase(request.query) : std::optional(request.query);
  if (match) {
    sql += " AND code_chunks MATCH ?";
    params.emplace_back(*match);
  }
  for (std::size_t i = 0; i < request.paths.size(); ++i) {
    sql += i == 0 ? " AND (" : " OR ";
    sql += "path_glob(?, files.path)";
    const std::string& glob = request.paths[i];
    params.emplace_back(glob.find('/') == std::string::npos ? "**/" + glob : glob);
  }
  if (!request.paths.empty()) sql += ")";
  sql += match && !request.by_path ? " ORDER BY code_chunks.rank, code_chunks.rowid"
                                   : " ORDER BY files.path, code_chunks.rowid";

  // One more line than the limit tells that the limit cut the result.
  const std::size_t room = request.limit ? static_cast<std::size_t>(*request.limit) + 1
                                         : std::numeric_limits<std::size_t>::max();
  return db.read([&](sqlite::Cursor& cursor) {
    SearchResult result;
    std::vector<std::int64_t> files;  // each hit's file
    try {
      cursor.execute(sql, params);
      while (result.hits.size() < room) {
        const std::optional<sqlite::Row> row = cursor.fetchone();
        if (!row) break;
        const std::string path = (*row)[1].as_text();
        const std::string text = (*row)[3].as_text();
        if (literal) {
          add_literal_lines(path, (*row)[2].as_int(), text, request, result.hits, room);
        } else {
          add_marked_lines(path, (*row)[2].as_int(), text, result.hits, room);
        }
        files.resize(result.hits.size(), (*row)[0].as_int());
      }
    } catch (const sqlite::OperationalError& error) {
      if (literal) throw;
      rethrow_as_malformed(error, request.query);
    }
    if (result.hits.size() == room && request.limit) {
      result.hits.pop_back();
      result.cut = true;
    }
    if (request.context > 0) add_context(cursor, files, request.context, result.hits);
    return result;
  });
}

}  // namespace quilma::cli
