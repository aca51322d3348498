// The migration registry. Each step brings a file from the version before it to its own
// version, and must work on every file that create_tables() has already run on: the tables
// this release added are there, new and empty, while the tables that existed keep the columns
// of the release that made them.
#include "quilma/storage/migrations.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <exception>
#include <set>

#include <sqlite3.h>

#include "quilma/storage/core_schema.h"
#include "quilma/storage/log.h"

namespace quilma::storage::migrations {

namespace {

// Looked up at each use, so that a logger the application registers in its place is the
// one written to.
std::shared_ptr<spdlog::logger> logger() {
  return storage::detail::module_logger(storage::detail::MIGRATIONS_LOGGER);
}

bool has_column(sqlite::Cursor& cursor, std::string_view table, std::string_view column) {
  // Table names here are fixed words of this file, never values.
  for (const sqlite::Row& row :
       cursor.execute("PRAGMA table_info(" + std::string(table) + ")").fetchall()) {
    if (row["name"].as_text() == column) return true;
  }
  return false;
}

// 2.4.0: an error record can name the line it is at.
void add_error_lines(sqlite::Cursor& cursor) {
  if (!has_column(cursor, "index_errors", "line")) {
    cursor.execute("ALTER TABLE index_errors ADD COLUMN line INTEGER");
  }
}

// 2.12.0: chunks say whether their text is the file's text unshortened. A full-text table
// takes no new column, so a table without it is dropped and made again, empty, and every
// file is marked stale so that the next index pass fills it.
void add_chunk_exactness(sqlite::Cursor& cursor) {
  if (has_column(cursor, "code_chunks", "exact")) return;
  cursor.execute("DROP TABLE code_chunks");
  run_ddl(cursor, CODE_CHUNKS_DDL);
  cursor.execute("UPDATE files SET hash = ?", {REINDEX_SENTINEL_HASH});
}

// 3.0.0: symbols keep their fully qualified name.
void add_qualified_names(sqlite::Cursor& cursor) {
  if (!has_column(cursor, "symbols", "qualified_name")) {
    cursor.execute("ALTER TABLE symbols ADD COLUMN qualified_name TEXT");
  }
}

// 3.1.0: the indexes that the service's queries need and the trigger that deletes a file's
// chunks with the file; files made before have neither. The second half of this step is the
// page-size rewrite, which Database runs once the file is at this version.
void add_indexes_and_chunk_trigger(sqlite::Cursor& cursor) {
  for (const core_schema::Index& index : core_schema::INDEXES) cursor.execute(index.ddl);
  run_ddl(cursor, core_schema::CHUNK_TRIGGER_DDL);
}

constexpr std::array STEPS{
    detail::Step{"2.4.0", &add_error_lines},
    detail::Step{"2.12.0", &add_chunk_exactness},
    detail::Step{"3.0.0", &add_qualified_names},
    detail::Step{"3.1.0", &add_indexes_and_chunk_trigger},
};

bool is_blank_or_semicolons(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return c == ';' || c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
  });
}

}  // namespace

namespace detail {

std::span<const Step> steps() { return STEPS; }

std::vector<std::int64_t> parse_version(std::string_view version) {
  std::vector<std::int64_t> numbers;
  std::size_t at = 0;
  while (true) {
    const std::size_t dot = std::min(version.find('.', at), version.size());
    const std::string_view part = version.substr(at, dot - at);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), number);
    if (part.empty() || part.front() < '0' || part.front() > '9' || error != std::errc() ||
        end != part.data() + part.size()) {
      throw SchemaMigrationError("Schema version " + storage::detail::repr(version) +
                                 " is not a dotted version number");
    }
    numbers.push_back(number);
    if (dot == version.size()) break;
    at = dot + 1;
  }
  while (numbers.size() > 1 && numbers.back() == 0) numbers.pop_back();
  return numbers;
}

}  // namespace detail

std::string migrate(const Transaction& transaction, std::string_view version) {
  const std::vector<std::int64_t> from = detail::parse_version(version);
  std::string reached(version);
  if (from == detail::parse_version(SCHEMA_VERSION)) reached = SCHEMA_VERSION;
  for (const detail::Step& step : STEPS) {
    if (detail::parse_version(step.version) <= from) continue;
    try {
      transaction([&step](sqlite::Cursor& cursor) {
        step.apply(cursor);
        cursor.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES ('version', ?)",
                       {step.version});
      });
    } catch (...) {
      const std::string message =
          fmt::format("Schema migration from {} to {} failed: {}", reached, step.version,
                      storage::detail::describe_current_error());
      storage::detail::log(*logger(), spdlog::level::warn, "%s", message);
      std::throw_with_nested(SchemaMigrationError(message));
    }
    reached = step.version;
  }
  return reached;
}

std::int64_t mark_files_stale(sqlite::Cursor& cursor, const std::vector<std::string>& languages) {
  const std::set<std::string> distinct(languages.begin(), languages.end());
  std::vector<sqlite::Params> params;
  params.reserve(distinct.size());
  for (const std::string& language : distinct) params.push_back({REINDEX_SENTINEL_HASH, language});
  if (params.empty()) return 0;
  return cursor.executemany("UPDATE files SET hash = ? WHERE language = ?", params).rowcount();
}

void run_ddl(sqlite::Cursor& cursor, std::string_view ddl) {
  // A ";" ends a statement only where SQLite's own tokenizer says the text is complete, so
  // that semicolons inside literals, comments and trigger bodies stay where they are.
  std::string statement;
  for (const char c : ddl) {
    statement += c;
    if (c == ';' && sqlite3_complete(statement.c_str()) != 0) {
      if (!is_blank_or_semicolons(statement)) cursor.execute(statement);
      statement.clear();
    }
  }
  if (!is_blank_or_semicolons(statement)) cursor.execute(statement);
}

}  // namespace quilma::storage::migrations
