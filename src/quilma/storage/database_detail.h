// Internal to the storage layer: helpers of Database that tests reach directly.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"
#include "quilma/sqlite/row.h"
#include "quilma/sqlite/value.h"
#include "quilma/storage/database.h"

namespace quilma::storage::detail {

inline constexpr std::string_view READERS_ENV = "QUILMA_DB_READERS";
inline constexpr int DEFAULT_READERS = 6;
inline constexpr int MAX_READERS = 32;
// The size, in bytes, that the writer's log is cut back to whenever a checkpoint has copied
// all of it into the file, however large a swap or a VACUUM made it.
inline constexpr std::int64_t JOURNAL_SIZE_LIMIT = 16LL * 1024 * 1024;

// Whether `path` is a staging build that this process noted with note_built_here(), unchanged
// since (the same device, inode, size and modification time).
bool built_here(const std::filesystem::path& path);

// Whether a query may run on a read connection: it begins with SELECT or WITH, or it is the
// read of the index generation ("PRAGMA user_version"). A WITH that writes passes here and
// is refused by the read connection, which sends it to the writer.
bool is_read_statement(std::string_view sql);

// Whether a read connection's error means "run it on the writer instead".
bool reader_cannot_serve(const sqlite::OperationalError& error);

// Whether the connection can only read its main database: SQLite opened a file that this
// process may not write read-only.
bool read_only(sqlite::Connection& connection);

// The journal mode that a "PRAGMA journal_mode" row names, in lower case; "" for no row.
std::string journal_mode(const std::optional<sqlite::Row>& row);

// Bytes in a MiB; every MiB figure in messages is a byte count divided by it, rounded down.
inline constexpr std::int64_t MIB = 1048576;
inline constexpr std::int64_t AUTO_VACUUM_NONE = 0;
inline constexpr std::int64_t AUTO_VACUUM_INCREMENTAL = 2;

// How much of a database file is in use; a snapshot, not updated when the file changes.
struct Space {
  std::int64_t mode = 0;       // auto_vacuum: 0 none, 1 full, 2 incremental
  std::int64_t pages = 0;      // page_count
  std::int64_t free = 0;       // freelist_count
  std::int64_t page_size = 0;  // page_size
  bool operator==(const Space&) const = default;
};

// Compaction's steps. The first releases COMPACT_FIRST_STEP_PAGES; each later one is sized from
// the pace of the one before, so that a holding of the lock lasts about COMPACT_STEP_TARGET
// however fast the disk, between COMPACT_MIN_STEP_PAGES and COMPACT_STEP_PAGES.
inline constexpr std::int64_t COMPACT_FIRST_STEP_PAGES = 256;
inline constexpr std::int64_t COMPACT_MIN_STEP_PAGES = 16;
inline constexpr std::chrono::milliseconds COMPACT_STEP_TARGET{20};

// Whether two directories are on one volume (unknown counts as one: the worst case).
bool same_volume(const std::filesystem::path& first, const std::filesystem::path& second);

// The directory of a VACUUM's temporary copy: SQLITE_TMPDIR when set and not empty (as given,
// even when it names no directory), else the first writable directory of TMPDIR, /var/tmp,
// /usr/tmp, /tmp and "." in the order of SQLite's own lookup on Unix.
std::filesystem::path temp_directory();

// std::nullopt when the disks can hold a VACUUM of `used_bytes` bytes of data (a copy in the
// temporary directory and one through the log beside the database, plus a margin in each
// place); otherwise why not. Throws std::system_error when free space cannot be asked.
std::optional<std::string> disk_shortfall(const std::filesystem::path& db_dir,
                                          std::int64_t used_bytes);

// The bytes available to unprivileged users on the volume that holds `directory`.
std::uintmax_t available_bytes(const std::filesystem::path& directory);

// Replaces the free-space query behind available_bytes() (tests simulate full disks with it)
// and returns the previous one; an empty function restores the file system's own.
using FreeSpaceQuery = std::function<std::uintmax_t(const std::filesystem::path&)>;
FreeSpaceQuery replace_free_space_query(FreeSpaceQuery query);

// The directory that holds the database file at `db_path` ("." for a bare file name).
std::filesystem::path directory_of(const std::filesystem::path& db_path);

// Whether a file with `space` has enough free pages, by count and by share, to be compacted.
bool worth_compacting(const Space& space);

// Whether the calling thread is running the service's event loop now.
bool on_event_loop();

// Whether the database attached under `schema` ("main" for the live one) has code_chunks.
// `schema` goes into the SQL as it is: callers pass fixed names only.
bool has_code_chunks(sqlite::Cursor& cursor, std::string_view schema = "main");

// Empties code_chunks by dropping and re-creating it (deleting an FTS5 table's rows would
// tokenize each of them again), inside the transaction the caller has open on `cursor`.
// Returns whether the live database has the table; without it nothing changes.
bool empty_code_chunks(sqlite::Cursor& cursor);

// `counts` as log lines show a mapping: {'files': 3, 'symbols': 12}.
std::string counts_text(const Counts& counts);

// What an extractor stamp records: language name to version, as the version's decimal text
// so that an integer of any width compares exactly.
using ExtractorStamp = std::map<std::string, std::string>;

// The stamp that the stored value records; std::nullopt when there is no row (`raw` empty)
// or when the value is in an unknown format, which is logged as a warning. Known is a JSON
// object whose every value is an integer, written without fraction or exponent.
std::optional<ExtractorStamp> parse_extractor_stamp(const std::optional<sqlite::Value>& raw);

// The stamp text of `versions`: one line, keys in ascending order, ", " and ": " between
// members and around values, every character outside ASCII escaped. std::invalid_argument
// when a name is not UTF-8.
std::string extractor_stamp_text(const std::map<std::string, std::int64_t>& versions);

}  // namespace quilma::storage::detail
