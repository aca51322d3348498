// Full-text search: FTS5 ranks the chunks; highlight() marks the matched tokens, and the marks
// tell which lines of a chunk matched.
#include "quilma/cli/search.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "quilma/cli/grep.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/core_schema.h"

namespace quilma::cli {

namespace {

// Marks around each matched token in the highlighted text. Indexed text holds no NUL (binary
// files are left out), but may hold any other control character; these two are the least
// likely in source code.
constexpr char OPEN = '\x01';
constexpr char CLOSE = '\x02';
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
    if (matched) hits.push_back(std::move(hit));
    if (newline == highlighted.size()) break;
    highlighted.remove_prefix(newline + 1);
    ++line;
  }
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
      lines[line - 1] = text.substr(0, newline);
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

// Whether the file at `path` is one the request searches: under its scope, and under one of its
// pathspecs when it has any.
bool in_scope(const SearchRequest& request, const std::string& path) {
  if (!path.starts_with(request.scope)) return false;
  const std::string relative = path.substr(request.scope.size());
  return request.paths.empty() ||
         std::any_of(request.paths.begin(), request.paths.end(), [&](const std::string& pathspec) {
           return pathspec_matches(pathspec, relative);
         });
}

// The query in FTS5's syntax: "a AND NOT b", as SQL writes it, is FTS5's "a NOT b".
std::string fts_query(std::string_view query) {
  std::string out;
  std::size_t at = 0;
  for (std::size_t found; (found = query.find("AND NOT ", at)) != std::string_view::npos;) {
    out.append(query.substr(at, found - at));
    at = found + 4;
  }
  out.append(query.substr(at));
  return out;
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
            "it literally with -w or -s; the operators are AND, OR, NOT (as in 'a NOT b'), "
            "NEAR(a b) and parentheses";
  throw MalformedQuery(fmt::format("malformed search query \"{}\" ({}); {}", query, reason, hint));
}

}  // namespace

SearchResult search(storage::Database& db, const SearchRequest& request) {
  if (request.limit && *request.limit <= 0) return {};

  // code_chunks drives the join (CROSS JOIN keeps it outside): a file's chunks are found by
  // the file's id, never the other way round.
  std::string sql =
      "SELECT files.id, files.path, code_chunks.start_line, "
      "highlight(code_chunks, 0, char(1), char(2)) FROM code_chunks CROSS JOIN files ON "
      "files.id = code_chunks.rowid / ? WHERE code_chunks MATCH ?";
  sql += request.by_path ? " ORDER BY files.path, code_chunks.rowid"
                         : " ORDER BY code_chunks.rank, code_chunks.rowid";
  const sqlite::Params params{storage::core_schema::CHUNKS_PER_FILE, fts_query(request.query)};

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
        if (!in_scope(request, path)) continue;
        add_marked_lines(path.substr(request.scope.size()), (*row)[2].as_int(), (*row)[3].as_text(),
                         result.hits, room);
        files.resize(result.hits.size(), (*row)[0].as_int());
      }
    } catch (const sqlite::OperationalError& error) {
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
