// Database: what the index holds: its statistics and the per-file error records.
#include "quilma/models/symbol.h"
#include "quilma/storage/database.h"

namespace quilma::storage {

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
