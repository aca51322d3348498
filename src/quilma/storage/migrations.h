// The schema's history: the versions an index file has been at, and the steps between them.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "quilma/sqlite/cursor.h"

namespace quilma::storage::migrations {

// The version of the first release; a file that records no version was made by it.
inline constexpr std::string_view OLDEST_VERSION = "2.0.0";
// The version of this release's schema, recorded in a new file when its tables are created.
inline constexpr std::string_view SCHEMA_VERSION = "3.1.0";
// The content hash of a file that the next index pass must parse again: no digest of any
// content equals it.
inline constexpr std::string_view REINDEX_SENTINEL_HASH = "reindex-pending";

// The full-text table of the files' text, one row per chunk of lines. Its rowid carries the
// file id (core_schema::chunk_rowid). `start_line` and `end_line` are the chunk's first and
// last line; `exact` is 1 when `text` holds those lines as they are in the file and 0 when
// the chunker shortened them. Runs after a drop to give the table back empty.
inline constexpr std::string_view CODE_CHUNKS_DDL =
    "CREATE VIRTUAL TABLE code_chunks USING fts5("
    "text, start_line UNINDEXED, end_line UNINDEXED, exact UNINDEXED)";

// A migration step failed; the file stays at the version before it. The step's own error is
// nested (std::rethrow_if_nested gives it back).
class SchemaMigrationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs its argument as the body of one transaction of its own, committing when the body
// returns and rolling back when it throws.
using Transaction = std::function<void(const std::function<void(sqlite::Cursor&)>&)>;

// Runs, oldest first, every step that comes after `version` (dotted numbers, compared
// numerically: 3.10.0 comes after 3.9.0; missing parts count as 0, so "3" is 3.0.0), each in
// a transaction of its own that also records the step's version. Returns the version the file
// has reached: SCHEMA_VERSION once it is current, `version` unchanged when it is newer than
// every step. A step that fails is logged once, with its error, and raises
// SchemaMigrationError; so does a `version` that is not dotted numbers, before any step runs.
std::string migrate(const Transaction& transaction, std::string_view version);

// Marks every file of `languages` stale (its hash becomes REINDEX_SENTINEL_HASH), on the
// cursor and so in its transaction; returns how many files it marked.
std::int64_t mark_files_stale(sqlite::Cursor& cursor, const std::vector<std::string>& languages);

// Runs each statement of `ddl` (statements separated by ";", which may also end a trigger's
// body statements) on the cursor, in order.
void run_ddl(sqlite::Cursor& cursor, std::string_view ddl);

namespace detail {

struct Step {
  std::string_view version;
  void (*apply)(sqlite::Cursor& cursor);
};

// Every step, in ascending order of version.
std::span<const Step> steps();

// The numbers of a dotted version, without trailing zeros ("3.1.0" and "3.1" give {3, 1});
// SchemaMigrationError when `version` is not dotted decimal numbers.
std::vector<std::int64_t> parse_version(std::string_view version);

}  // namespace detail

}  // namespace quilma::storage::migrations
