// quilma-db stats: the index's counts, size, pages and generation.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "quilma/cli/command.h"
#include "quilma/sqlite/error.h"

namespace quilma::cli {

int cmd_stats(const Command& command) {
  namespace fs = std::filesystem;
  storage::Database db(command.index_database());
  command.open_existing(db);
  storage::Counts counts = db.get_stats();
  try {
    counts.emplace_back("chunks",
                        db.fetchone("SELECT COUNT(*) FROM code_chunks").value()[0].as_int());
  } catch (const sqlite::OperationalError&) {  // an index built without its text
  }
  std::optional<std::string> built;
  if (const std::optional<sqlite::Row> row =
          db.fetchone("SELECT value FROM schema_info WHERE key = ?", {storage::LAST_INDEX_KEY});
      row && !(*row)[0].is_null()) {
    built = (*row)[0].as_text();
  }
  const std::int64_t generation = db.index_generation();
  const auto size_of = [](const fs::path& path) {
    std::error_code missing;
    const std::uintmax_t size = fs::file_size(path, missing);
    return missing ? std::int64_t{0} : static_cast<std::int64_t>(size);
  };
  const storage::PageUse pages = db.page_use();
  const std::int64_t file_bytes = size_of(db.db_path());
  const std::int64_t log_bytes = size_of(db.db_path().string() + "-wal");
  if (command.options().json) {
    json object = counts_json(counts);
    object["generation"] = generation;
    object["database"] = db.db_path().string();
    object["file_bytes"] = file_bytes;
    object["log_bytes"] = log_bytes;
    object["pages"] = pages.pages;
    object["free_pages"] = pages.free_pages;
    object["page_size"] = pages.page_size;
    object["last_index"] = built ? json(*built) : json();
    return command.print_json(object);
  }
  command.print("{:<11}{}", "database", db.db_path().string());
  command.print("{:<11}{:.1f} MiB, log {:.1f} MiB", "size",
                static_cast<double>(file_bytes) / 1048576.0,
                static_cast<double>(log_bytes) / 1048576.0);
  command.print("{:<11}{} of {} bytes, {} free ({:.0f}%)", "pages", pages.pages, pages.page_size,
                pages.free_pages,
                pages.pages > 0 ? 100.0 * static_cast<double>(pages.free_pages) /
                                      static_cast<double>(pages.pages)
                                : 0.0);
  for (const auto& [name, count] : counts) command.print("{:<11}{}", name, count);
  command.print("{:<11}{}", "generation", generation);
  return command.print("{:<11}{}", "indexed", built.value_or("never"));
}

}  // namespace quilma::cli
