// Database: what the index holds: clearing it, swapping in a staging build, its statistics
// and the per-file error records.
#include <algorithm>
#include <array>
#include <string>
#include <system_error>

#include <sqlite3.h>

#include "quilma/models/symbol.h"
#include "quilma/sqlite/error.h"
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

void delete_index_rows(sqlite::Cursor& cursor) {
  for (const std::string_view table : CLEAR_ORDER) {
    cursor.execute("DELETE FROM " + std::string(table));
  }
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

// Rows changed by the cursor's last statement; SQLite reports none as -1.
std::int64_t inserted_rows(const sqlite::Cursor& cursor) {
  return std::max<std::int64_t>(cursor.rowcount(), 0);
}

}  // namespace

namespace detail {

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
    // First, so that the chunk trigger finds nothing to delete for the files deleted next.
    detail::empty_code_chunks(cursor);
    delete_index_rows(cursor);
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
    try {
      sqlite::Cursor reader = writer.cursor();
      std::array<std::string, INSERT_ORDER.size()> columns;
      for (std::size_t i = 0; i < INSERT_ORDER.size(); ++i) {
        columns[i] = column_list(reader, INSERT_ORDER[i]);
      }
      reader.close();
      inserted = transaction([&](sqlite::Cursor& cursor) {
        Counts counts;
        // The staging file is asked only when the live one has the table to fill.
        const bool copy_chunks =
            detail::empty_code_chunks(cursor) && detail::has_code_chunks(cursor, "stg");
        delete_index_rows(cursor);
        for (std::size_t i = 0; i < INSERT_ORDER.size(); ++i) {
          const std::string table(INSERT_ORDER[i]);
          std::string sql = "INSERT INTO " + table;
          sql.append(" (").append(columns[i]).append(") SELECT ").append(columns[i]);
          sql.append(" FROM stg.").append(table);
          cursor.execute(sql);
          counts.emplace_back(table, inserted_rows(cursor));
        }
        if (copy_chunks) {
          cursor.execute(
              "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
              "SELECT rowid, text, start_line, end_line, exact FROM stg.code_chunks");
          counts.emplace_back("code_chunks", inserted_rows(cursor));
        }
        bump_index_generation(&cursor);
        return counts;
      });
    } catch (...) {
      detach();
      throw;
    }
    detach();
  }
  detail::log(*database_logger(), spdlog::level::info,
              "swap_index_from: replaced live index from %s (rows inserted: %s)",
              staging_path.string(), detail::counts_text(inserted));
  compact();  // what it did, or why not, it reports itself
  try {
    shrink_file();                  // the swap wrote the whole index into the log
  } catch (const sqlite::Error&) {  // maintenance: the next checkpoint empties it
  }
  return inserted;
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
