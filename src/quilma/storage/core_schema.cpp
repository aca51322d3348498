// The DDL of this release's index tables.
#include "quilma/storage/core_schema.h"

#include <algorithm>
#include <array>
#include <set>
#include <string>

#include "quilma/storage/migrations.h"

namespace quilma::storage::core_schema {

namespace {

struct Table {
  std::string_view name;
  std::string_view ddl;
};

// Parents before children. Foreign keys cascade a file's deletion to what it holds;
// pending references keep no key, so that they survive the index being cleared.
constexpr std::array TABLES{
    Table{"schema_info", R"sql(
CREATE TABLE schema_info (
  key TEXT PRIMARY KEY,
  value TEXT
))sql"},
    Table{"components", R"sql(
CREATE TABLE components (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL,
  layer TEXT
))sql"},
    Table{"files", R"sql(
CREATE TABLE files (
  id INTEGER PRIMARY KEY,
  path TEXT NOT NULL UNIQUE,
  language TEXT,
  hash TEXT,
  component_id INTEGER REFERENCES components (id) ON DELETE SET NULL,
  size INTEGER
))sql"},
    Table{"symbols", R"sql(
CREATE TABLE symbols (
  id INTEGER PRIMARY KEY,
  file_id INTEGER NOT NULL REFERENCES files (id) ON DELETE CASCADE,
  name TEXT NOT NULL,
  kind TEXT NOT NULL,
  line INTEGER,
  end_line INTEGER,
  qualified_name TEXT
))sql"},
    Table{"edges", R"sql(
CREATE TABLE edges (
  id INTEGER PRIMARY KEY,
  source_id INTEGER NOT NULL REFERENCES symbols (id) ON DELETE CASCADE,
  target_id INTEGER REFERENCES symbols (id) ON DELETE CASCADE,
  kind TEXT NOT NULL,
  line INTEGER
))sql"},
    Table{"external_imports", R"sql(
CREATE TABLE external_imports (
  id INTEGER PRIMARY KEY,
  file_id INTEGER NOT NULL REFERENCES files (id) ON DELETE CASCADE,
  module TEXT NOT NULL,
  line INTEGER
))sql"},
    Table{"pending_references", R"sql(
CREATE TABLE pending_references (
  id INTEGER PRIMARY KEY,
  source_id INTEGER,
  target_name TEXT NOT NULL,
  kind TEXT,
  line INTEGER
))sql"},
    Table{"index_errors", R"sql(
CREATE TABLE index_errors (
  id INTEGER PRIMARY KEY,
  file_path TEXT NOT NULL,
  error_type TEXT NOT NULL,
  message TEXT,
  line INTEGER
))sql"},
    Table{"code_chunks", migrations::CODE_CHUNKS_DDL},
};

}  // namespace

std::vector<std::string_view> missing_tables(sqlite::Cursor& cursor) {
  std::set<std::string, std::less<>> existing;
  for (const sqlite::Row& row :
       cursor.execute("SELECT name FROM sqlite_schema WHERE type = 'table'").fetchall()) {
    existing.insert(row[0].as_text());
  }
  std::vector<std::string_view> missing;
  for (const Table& table : TABLES) {
    if (!existing.contains(table.name)) missing.push_back(table.name);
  }
  return missing;
}

void create_tables(sqlite::Cursor& cursor) {
  const std::vector<std::string_view> missing = missing_tables(cursor);
  for (const Table& table : TABLES) {
    if (std::find(missing.begin(), missing.end(), table.name) == missing.end()) continue;
    migrations::run_ddl(cursor, table.ddl);
    for (const Index& index : INDEXES) {
      if (index.table == table.name) cursor.execute(index.ddl);
    }
    if (table.name == "code_chunks") migrations::run_ddl(cursor, CHUNK_TRIGGER_DDL);
  }
  if (std::find(missing.begin(), missing.end(), "files") != missing.end()) {
    cursor.execute("INSERT OR IGNORE INTO schema_info (key, value) VALUES ('version', ?)",
                   {migrations::SCHEMA_VERSION});
  }
}

}  // namespace quilma::storage::core_schema
