// The tables of the index, as this release creates them.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "quilma/sqlite/cursor.h"

namespace quilma::storage::core_schema {

// A file's chunks in `code_chunks` take the rowids from file_id * CHUNKS_PER_FILE on, so
// that one rowid range finds or deletes them all (FTS5 searches rowid ranges directly).
inline constexpr std::int64_t CHUNKS_PER_FILE = std::int64_t{1} << 20;

// The rowid of chunk `index` (from 0, below CHUNKS_PER_FILE) of file `file_id`.
constexpr std::int64_t chunk_rowid(std::int64_t file_id, std::int64_t index) {
  return file_id * CHUNKS_PER_FILE + index;
}

struct Index {
  std::string_view table;
  std::string_view ddl;
};

// The indexes that the service's queries need: symbols by file and by name, edges by source
// and by target, files by language (their paths are unique, and so indexed already), and
// the indexes behind the foreign keys that a delete checks.
inline constexpr std::array INDEXES{
    Index{"files", "CREATE INDEX IF NOT EXISTS idx_files_language ON files (language)"},
    Index{"files", "CREATE INDEX IF NOT EXISTS idx_files_component ON files (component_id)"},
    Index{"symbols", "CREATE INDEX IF NOT EXISTS idx_symbols_file ON symbols (file_id)"},
    Index{"symbols", "CREATE INDEX IF NOT EXISTS idx_symbols_name ON symbols (name)"},
    Index{"edges", "CREATE INDEX IF NOT EXISTS idx_edges_source ON edges (source_id)"},
    Index{"edges", "CREATE INDEX IF NOT EXISTS idx_edges_target ON edges (target_id)"},
    Index{"external_imports",
          "CREATE INDEX IF NOT EXISTS idx_external_imports_file ON external_imports (file_id)"},
    Index{"index_errors",
          "CREATE INDEX IF NOT EXISTS idx_index_errors_path ON index_errors (file_path)"},
};

// Deleting a file's row deletes its chunks: the rowid range of chunk_rowid(id, 0) up to
// chunk_rowid(id + 1, 0). The trigger outlives a drop of `code_chunks` and works again once
// the table is re-created.
inline constexpr std::string_view CHUNK_TRIGGER_DDL = R"sql(
CREATE TRIGGER IF NOT EXISTS files_delete_chunks AFTER DELETE ON files BEGIN
  DELETE FROM code_chunks WHERE rowid >= old.id * 1048576 AND rowid < (old.id + 1) * 1048576;
END;
)sql";
static_assert(CHUNKS_PER_FILE == 1048576, "CHUNK_TRIGGER_DDL spells out CHUNKS_PER_FILE");

// Creates, on the cursor of the caller's open transaction, every table of the index that the
// file lacks, each with its indexes (and `code_chunks` with CHUNK_TRIGGER_DDL); tables that
// exist are left as they are (bringing them up to date is the migrations' work). A file that had
// none of the index tables is new: its "version" row is written with them, at this release's schema
// version.
void create_tables(sqlite::Cursor& cursor);

// The tables of the index that the file lacks, in the order create_tables() makes them.
std::vector<std::string_view> missing_tables(sqlite::Cursor& cursor);

}  // namespace quilma::storage::core_schema
