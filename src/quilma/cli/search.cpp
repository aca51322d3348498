// Search: FTS5 ranks the chunks; highlight() marks the matched tokens, and the marks tell
// which lines of a chunk matched.
#include "quilma/cli/search.h"

#include <algorithm>

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

// Adds to `hits` the lines of one highlighted chunk that hold a mark.
void add_lines(std::string_view path, std::int64_t start_line, std::string_view highlighted,
               std::vector<SearchHit>& hits, std::size_t limit) {
  bool inside = false;  // a match that began on an earlier line goes on
  std::int64_t line = start_line;
  while (hits.size() < limit) {
    const std::size_t newline = std::min(highlighted.find('\n'), highlighted.size());
    const std::string_view raw = highlighted.substr(0, newline);
    SearchHit hit{std::string(path), line, {}, {}};
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
      if (!hit.text.empty() && hit.text.back() == '\r') hit.text.pop_back();
      const std::size_t indent = std::min(hit.text.find_first_not_of(" \t"), hit.text.size());
      hit.text.erase(0, indent);
      for (auto& [from, to] : hit.matches) {
        from = from > indent ? from - indent : 0;
        to = std::min(to > indent ? to - indent : 0, hit.text.size());
      }
      shorten(hit);
      hits.push_back(std::move(hit));
    }
    if (newline == highlighted.size()) break;
    highlighted.remove_prefix(newline + 1);
    ++line;
  }
}

}  // namespace

std::vector<SearchHit> search(storage::Database& db, std::string_view query, std::int64_t limit) {
  if (limit <= 0) return {};
  constexpr std::string_view SQL =
      "SELECT files.path, chunk.start_line, chunk.marked FROM ("
      "SELECT rowid AS id, start_line, highlight(code_chunks, 0, char(1), char(2)) AS marked, "
      "rank FROM code_chunks WHERE code_chunks MATCH ? ORDER BY rank LIMIT ?) AS chunk "
      "JOIN files ON files.id = chunk.id / ? ORDER BY chunk.rank, chunk.id";
  std::vector<sqlite::Row> rows;
  try {
    rows = db.fetchall(SQL, {query, limit, storage::core_schema::CHUNKS_PER_FILE});
  } catch (const sqlite::OperationalError& error) {
    std::string_view reason = error.what();
    if (!reason.starts_with("fts5:") && !reason.starts_with("no such column:") &&
        !reason.starts_with("unknown special query:") && !reason.starts_with("unterminated")) {
      throw;
    }
    if (reason.starts_with("fts5: ")) reason.remove_prefix(6);
    const std::string_view hint =
        reason.starts_with("unterminated")
            ? "close every double quote; a double quote inside a phrase is written twice"
            : "put text with punctuation in double quotes, as in '\"std::vector\"'";
    throw MalformedQuery(
        fmt::format("malformed search query \"{}\" ({}); {}", query, reason, hint));
  }
  std::vector<SearchHit> hits;
  for (const sqlite::Row& row : rows) {
    add_lines(row[0].as_text(), row[1].as_int(), row[2].as_text(), hits,
              static_cast<std::size_t>(limit));
  }
  return hits;
}

}  // namespace quilma::cli
