// Database: what the index holds: clearing it, swapping in a staging build, its statistics
// and the per-file error records.
#include <algorithm>
#include <array>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include <sqlite3.h>
#include <sys/stat.h>

#include "quilma/models/symbol.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/core_schema.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/errors.h"
#include "quilma/storage/log.h"
#include "quilma/storage/migrations.h"

namespace quilma::storage {

namespace {

// The index tables, children before the tables they refer to: the order of deletes.
constexpr std::array<std::string_view, 6> CLEAR_ORDER = {
    "edges", "external_imports", "symbols", "files", "components", "index_errors"};
// Parents before children: the order of inserts.
constexpr std::array<std::string_view, 6> INSERT_ORDER = {
    "components", "files", "symbols", "edges", "external_imports", "index_errors"};

// Empties code_chunks and the six index tables inside the caller's transaction; returns
// whether the live file has code_chunks. The chunk trigger goes while the files are deleted
// (the chunks are gone already): fired once per file it would cost a full-text lookup each,
// and it keeps SQLite from emptying `files` in one step. It comes back only with the table it
// deletes from: a file whose code_chunks was dropped without it could delete no file at all.
bool empty_index(sqlite::Cursor& cursor) {
  const bool chunks = detail::empty_code_chunks(cursor);
  cursor.execute("DROP TRIGGER IF EXISTS files_delete_chunks");
  for (const std::string_view table : CLEAR_ORDER) {
    cursor.execute("DELETE FROM " + std::string(table));
  }
  if (chunks) migrations::run_ddl(cursor, core_schema::CHUNK_TRIGGER_DDL);
  return chunks;
}

// The table's definition as the database attached under `schema` records it.
std::optional<std::string> definition(sqlite::Cursor& cursor, std::string_view schema,
                                      std::string_view table) {
  const std::optional<sqlite::Row> row =
      cursor
          .execute("SELECT sql FROM " + std::string(schema) +
                       ".sqlite_schema WHERE type = 'table' AND name = ?",
                   {table})
          .fetchone();
  if (!row || (*row)[0].is_null()) return std::nullopt;
  return (*row)[0].as_text();
}

// Rows changed by the cursor's last statement; SQLite reports none as -1.
std::int64_t inserted_rows(const sqlite::Cursor& cursor) {
  return std::max<std::int64_t>(cursor.rowcount(), 0);
}

// The tables in which FTS5 keeps code_chunks' index and text. A staging build's are copied as
// they are when both files define them alike: the chunks are not tokenised a second time.
// code_chunks_config stays the live file's (the staging build's merge settings are its own).
constexpr std::array<std::string_view, 4> CHUNK_STORE = {
    "code_chunks_data", "code_chunks_idx", "code_chunks_content", "code_chunks_docsize"};

// The FTS5 format version that code_chunks' configuration records under `schema`.
std::optional<std::string> chunk_format(sqlite::Cursor& cursor, std::string_view schema) {
  const std::optional<sqlite::Row> row = cursor
                                             .execute("SELECT v FROM " + std::string(schema) +
                                                      ".code_chunks_config WHERE k = 'version'")
                                             .fetchone();
  if (!row || (*row)[0].is_null()) return std::nullopt;
  return (*row)[0].as_text();
}

// Whether the staging build's code_chunks can be copied table by table into the live one.
bool same_chunk_store(sqlite::Cursor& cursor) {
  if (definition(cursor, "main", "code_chunks") != definition(cursor, "stg", "code_chunks")) {
    return false;
  }
  for (const std::string_view table : CHUNK_STORE) {
    const std::optional<std::string> live = definition(cursor, "main", table);
    if (!live || live != definition(cursor, "stg", table)) return false;
  }
  const std::optional<std::string> format = chunk_format(cursor, "main");
  return format && format == chunk_format(cursor, "stg");
}

// Fills the emptied live code_chunks with the staging build's; returns how many chunks.
std::int64_t copy_chunks(sqlite::Cursor& cursor, bool store_checked) {
  if (!store_checked || !same_chunk_store(cursor)) {
    cursor.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
        "SELECT rowid, text, start_line, end_line, exact FROM stg.code_chunks");
    return inserted_rows(cursor);
  }
  std::int64_t chunks = 0;
  for (const std::string_view table : CHUNK_STORE) {
    const std::string name(table);
    cursor.execute("DELETE FROM " + name);  // what a new, empty table starts with
    std::string copy = "INSERT INTO ";
    copy.append(name).append(" SELECT * FROM stg.").append(name);
    cursor.execute(copy);
    if (table == "code_chunks_content") chunks = inserted_rows(cursor);
  }
  return chunks;
}

// A file's identity and version, as far as the file system tells.
struct FileVersion {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t mtime_ns = 0;
  bool operator==(const FileVersion&) const = default;
};

std::optional<FileVersion> version_of(const std::filesystem::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileVersion{status.st_dev, status.st_ino, status.st_size,
                     std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec};
}

std::mutex written_lock;
std::map<std::string, FileVersion>& written_files() {  // guarded by written_lock
  static std::map<std::string, FileVersion> files;
  return files;
}

std::string key_of(const std::filesystem::path& path) {
  return std::filesystem::absolute(path).lexically_normal().string();
}

// Refuses a staging file that is damaged or whose rows refer to rows it lacks, before the swap
// takes any lock: its reading costs other processes no waiting. The swap copies with foreign
// keys off, so the references are checked here instead.
//
// FTS5's own check compares code_chunks' index with its text, which the swap may then copy as
// they are; it is an INSERT, which a file this process may not write refuses. Such a file is
// checked without it, and its chunks are tokenised anew from their text. The check, the longest,
// is also spared a file that this process wrote itself and that nobody changed since. Returns
// whether the chunks' index was checked.
bool check_staging(const std::filesystem::path& staging_path) {
  const bool own = detail::built_here(staging_path);
  const std::string name = staging_path.string();
  // Each check reads the whole file: they run side by side, on a connection each.
  std::future<std::vector<sqlite::Row>> references = std::async(std::launch::async, [&] {
    sqlite::Connection connection(staging_path, {.read_only = true});
    return connection.cursor().execute("PRAGMA foreign_key_check").fetchall();
  });
  std::future<bool> chunks = std::async(std::launch::async, [&] {
    sqlite::Connection connection(staging_path);
    if (detail::read_only(connection)) return false;
    sqlite::Cursor cursor = connection.cursor();
    if (!own && detail::has_code_chunks(cursor)) {
      cursor.execute("INSERT INTO code_chunks (code_chunks) VALUES ('integrity-check')");
    }
    return true;
  });
  sqlite::Connection staging(staging_path, {.read_only = true});
  bool chunks_checked = false;
  std::vector<sqlite::Row> problems;
  try {
    problems = staging.cursor().execute("PRAGMA quick_check").fetchall();
    if (problems.size() != 1 || problems[0][0].is_null() || problems[0][0].as_text() != "ok") {
      const std::string first = problems.empty() || problems[0][0].is_null()
                                    ? std::string("no result")
                                    : problems[0][0].as_text();
      sqlite::raise_error(SQLITE_CORRUPT, first);
    }
    chunks_checked = chunks.get();
    problems = references.get();
  } catch (const sqlite::DatabaseError& error) {
    // The other checks end before the error goes on (get() has consumed those that threw).
    if (chunks.valid()) chunks.wait();
    if (references.valid()) references.wait();
    sqlite::raise_error(error.extended_code(),
                        "Staging database " + name + " is damaged: " + error.what());
  }
  if (!problems.empty()) {
    const sqlite::Row& first = problems.front();
    sqlite::raise_error(
        SQLITE_CONSTRAINT_FOREIGNKEY,
        "Staging database " + name + " has " + std::to_string(problems.size()) +
            " row(s) that refer to missing rows, the first in " + first[0].as_text() + " (rowid " +
            (first[1].is_null() ? "?" : first[1].as_text()) + ", to " + first[2].as_text() + ")");
  }
  return chunks_checked;
}

// Refuses a swap that left rows of the live `table` referring to rows that are not there: the
// staging file's own check covers only the keys that its tables declare.
void check_references(sqlite::Cursor& cursor, const std::filesystem::path& staging_path,
                      std::string_view table) {
  const std::vector<sqlite::Row> problems =
      cursor.execute("PRAGMA main.foreign_key_check(" + std::string(table) + ")").fetchall();
  if (problems.empty()) return;
  const sqlite::Row& first = problems.front();
  sqlite::raise_error(SQLITE_CONSTRAINT_FOREIGNKEY,
                      "Staging database " + staging_path.string() + " has " +
                          std::to_string(problems.size()) + " row(s) in " + std::string(table) +
                          " that refer to rows missing from " + first[2].as_text() +
                          " once swapped in, the first rowid " +
                          (first[1].is_null() ? "?" : first[1].as_text()));
}

// Refuses a staging code_chunks that does not keep its chunks' text (FTS5's content='' or an
// external content table): copied, every live chunk would have no text.
void check_chunk_text(sqlite::Cursor& cursor, const std::filesystem::path& staging_path) {
  if (definition(cursor, "stg", "code_chunks_content")) return;
  sqlite::raise_error(SQLITE_ERROR, "Staging database " + staging_path.string() +
                                        ": its code_chunks does not keep the chunks' text, "
                                        "which the live index needs");
}

// The live table's columns as PRAGMA table_info lists them, joined with ", ".
std::string column_list(sqlite::Cursor& cursor, std::string_view table) {
  std::string columns;
  for (const sqlite::Row& row :
       cursor.execute("PRAGMA table_info(" + std::string(table) + ")").fetchall()) {
    if (!columns.empty()) columns += ", ";
    columns += row[1].as_text();
  }
  return columns;
}

// Whether two paths name one file (by device and inode, whatever the names).
bool same_file(const std::filesystem::path& first, const std::filesystem::path& second) {
  struct stat first_status {};
  struct stat second_status {};
  return ::stat(first.c_str(), &first_status) == 0 && ::stat(second.c_str(), &second_status) == 0 &&
         first_status.st_dev == second_status.st_dev && first_status.st_ino == second_status.st_ino;
}

}  // namespace

namespace detail {

bool built_here(const std::filesystem::path& path) {
  const std::optional<FileVersion> version = version_of(path);
  const std::lock_guard hold(written_lock);
  const auto found = written_files().find(key_of(path));
  return version && found != written_files().end() && found->second == *version;
}

bool has_code_chunks(sqlite::Cursor& cursor, std::string_view schema) {
  return cursor
      .execute("SELECT 1 FROM " + std::string(schema) +
               ".sqlite_master WHERE type = 'table' AND name = 'code_chunks'")
      .fetchone()
      .has_value();
}

bool empty_code_chunks(sqlite::Cursor& cursor) {
  if (!has_code_chunks(cursor)) return false;
  cursor.execute("DROP TABLE code_chunks");
  migrations::run_ddl(cursor, migrations::CODE_CHUNKS_DDL);
  return true;
}

std::string counts_text(const Counts& counts) {
  std::string text = "{";
  for (const auto& [name, count] : counts) {
    if (text.size() > 1) text += ", ";
    text += "'" + name + "': " + std::to_string(count);
  }
  return text + "}";
}

}  // namespace detail

void Database::clear_all() {
  Counts removed;
  transaction([&removed](sqlite::Cursor& cursor) {
    for (const std::string_view table : CLEAR_ORDER) {
      const std::optional<sqlite::Row> row =
          cursor.execute("SELECT COUNT(*) FROM " + std::string(table)).fetchone();
      removed.emplace_back(table, row ? (*row)[0].as_int() : 0);
    }
    empty_index(cursor);
  });
  detail::log(*database_logger(), spdlog::level::info,
              "clear_all: cleared all index data (rows removed: %s)", detail::counts_text(removed));
}

Counts Database::swap_index_from(const std::filesystem::path& staging_path) {
  // Missing, as a dangling link or a path through a file is; any other failure to look is the
  // operating system's error.
  std::error_code failure;
  if (!std::filesystem::exists(staging_path, failure)) {
    if (failure && failure != std::errc::no_such_file_or_directory &&
        failure != std::errc::not_a_directory &&
        failure != std::errc::too_many_symbolic_link_levels) {
      throw std::filesystem::filesystem_error("cannot look at the staging database", staging_path,
                                              failure);
    }
    throw FileNotFoundError("Staging database not found: " + staging_path.string());
  }
  connection();  // a closed database says so before the staging file is looked at
  if (same_file(staging_path, db_path_)) {
    sqlite::raise_error(
        SQLITE_ERROR, "Staging database " + staging_path.string() + " is the live database itself");
  }
  const bool chunk_store_checked = check_staging(staging_path);
  Counts inserted;
  {
    const std::lock_guard hold(lock_);
    sqlite::Connection& writer = connection();
    // SQLite would attach inside a transaction, but the swap's own transaction must be the
    // outermost one: otherwise a failure could not roll back what it did, and its commit
    // would wait for the caller's.
    if (tx_depth_ > 0 || sqlite3_get_autocommit(writer.handle()) == 0) {
      sqlite::raise_error(SQLITE_ERROR, "cannot ATTACH database within transaction");
    }
    writer.cursor().execute("ATTACH DATABASE ? AS stg", {staging_path.string()});
    // From here on "stg" is detached on every way out. A failed DETACH says nothing: if the
    // name stays taken, the next swap's ATTACH reports it.
    auto detach = [&writer] {
      try {
        writer.cursor().execute("DETACH DATABASE stg");
      } catch (const sqlite::Error&) {
      }
    };
    // Foreign keys stay off for the swap (they can only be switched outside a transaction):
    // check_staging() has checked the references, and with them on SQLite checks each row
    // and neither empties a table in one step nor copies one page by page.
    writer.cursor().execute("PRAGMA foreign_keys=OFF");
    auto restore = [&writer, &detach] {
      try {
        writer.cursor().execute("PRAGMA foreign_keys=ON");
      } catch (const sqlite::Error&) {
      }
      detach();
    };
    try {
      sqlite::Cursor reader = writer.cursor();
      // A staging table defined exactly as the live one is copied with SELECT *, which SQLite
      // runs as a copy of the table's pages and its indexes' (the transfer optimisation);
      // any other with the live table's column list, row by row.
      std::array<std::string, INSERT_ORDER.size()> copies;
      std::array<bool, INSERT_ORDER.size()> alike{};
      for (std::size_t i = 0; i < INSERT_ORDER.size(); ++i) {
        const std::string table(INSERT_ORDER[i]);
        const std::optional<std::string> live = definition(reader, "main", table);
        std::string& sql = copies[i];
        sql.append("INSERT INTO ").append(table);
        alike[i] = live && live == definition(reader, "stg", table);
        if (alike[i]) {
          sql.append(" SELECT *");
        } else {
          const std::string columns = column_list(reader, table);
          sql.append(" (").append(columns).append(") SELECT ").append(columns);
        }
        sql.append(" FROM stg.").append(table);
      }
      reader.close();
      // The commit leaves the log it wrote to the next writer's checkpoint: the caller of a
      // swap (the event loop, too) never waits for the readers.
      swapping_ = true;
      const struct Swapped {
        bool& swapping;
        ~Swapped() { swapping = false; }
      } swapped{swapping_};
      inserted = transaction([&](sqlite::Cursor& cursor) {
        Counts counts;
        // The staging file is asked only when the live one has the table to fill.
        const bool chunks = empty_index(cursor) && detail::has_code_chunks(cursor, "stg");
        if (chunks) check_chunk_text(cursor, staging_path);
        for (std::size_t i = 0; i < INSERT_ORDER.size(); ++i) {
          cursor.execute(copies[i]);
          counts.emplace_back(INSERT_ORDER[i], inserted_rows(cursor));
        }
        for (std::size_t i = 0; i < INSERT_ORDER.size(); ++i) {
          if (!alike[i]) check_references(cursor, staging_path, INSERT_ORDER[i]);
        }
        if (chunks) counts.emplace_back("code_chunks", copy_chunks(cursor, chunk_store_checked));
        bump_index_generation(&cursor);
        return counts;
      });
    } catch (...) {
      restore();
      throw;
    }
    restore();
  }
  detail::log(*database_logger(), spdlog::level::info,
              "swap_index_from: replaced live index from %s (rows inserted: %s)",
              staging_path.string(), detail::counts_text(inserted));
  compact();  // what it did, or why not, it reports itself
  return inserted;
}

void note_built_here(const std::filesystem::path& staging_path) {
  const std::optional<FileVersion> version = version_of(staging_path);
  const std::lock_guard hold(written_lock);
  if (version) written_files()[key_of(staging_path)] = *version;
}

Counts Database::get_stats() {
  Counts stats;
  stats.reserve(5);
  stats.emplace_back("files", count("SELECT COUNT(*) FROM files"));
  stats.emplace_back("symbols",
                     count("SELECT COUNT(*) FROM symbols WHERE " + models::listed_sql()));
  stats.emplace_back("edges", count("SELECT COUNT(*) FROM edges"));
  stats.emplace_back("components", count("SELECT COUNT(*) FROM components"));
  stats.emplace_back("errors", count("SELECT COUNT(*) FROM index_errors"));
  return stats;
}

// The public signature takes `message` by value.
void Database::record_error(std::string_view file_path, std::string_view error_type,
                            std::optional<std::string> message,  // NOLINT(performance-*)
                            std::optional<std::int64_t> line) {
  execute("INSERT INTO index_errors (file_path, error_type, message, line) VALUES (?, ?, ?, ?)",
          {file_path, error_type, message, line});
}

void Database::clear_file_errors(std::string_view file_path,
                                 std::optional<std::string> error_type) {
  if (!error_type) {
    execute("DELETE FROM index_errors WHERE file_path = ?", {file_path});
  } else {
    execute("DELETE FROM index_errors WHERE file_path = ? AND error_type = ?",
            {file_path, std::move(*error_type)});
  }
}

std::int64_t Database::get_error_count() {
  return count("SELECT COUNT(DISTINCT file_path) FROM index_errors");
}

}  // namespace quilma::storage
