#include "quilma/storage/storage_size.h"

#include <exception>

#include "quilma/sqlite/cursor.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/log.h"

namespace quilma::storage::storage_size {

namespace {

// Looked up at each use, so that a logger the application registers in its place is the
// one written to.
std::shared_ptr<spdlog::logger> logger() {
  return detail::module_logger(detail::STORAGE_SIZE_LOGGER);
}

// Sets the journal mode and returns the one the file ended up in, in lower case.
std::string set_journal_mode(sqlite::Cursor& cursor, std::string_view pragma) {
  return detail::journal_mode(cursor.execute(pragma).fetchone());
}

}  // namespace

void rewrite_pages(sqlite::Connection& connection, const std::filesystem::path& db_path,
                   const std::optional<std::string>& why_not) {
  const std::string path = db_path.string();
  if (why_not) {
    detail::log(*logger(), spdlog::level::warn, "Not rewriting %s with %d-byte pages: %s", path,
                PAGE_SIZE, *why_not);
    return;
  }
  sqlite::Cursor cursor = connection.cursor();
  std::string mode;
  try {
    mode = set_journal_mode(cursor, "PRAGMA journal_mode=DELETE");
  } catch (const sqlite::OperationalError& error) {
    // SQLite refuses ("database is locked") while any other connection has the file open.
    detail::log(*logger(), spdlog::level::warn,
                "Not rewriting %s with %d-byte pages: cannot leave WAL mode (%s); another "
                "connection has the file open",
                path, PAGE_SIZE, error.what());
    return;
  }
  if (mode != "delete") {
    detail::log(*logger(), spdlog::level::warn,
                "Not rewriting %s with %d-byte pages: its journal stays in %s mode", path,
                PAGE_SIZE, mode);
    return;
  }
  std::exception_ptr failure;
  try {
    cursor.execute("PRAGMA page_size=" + std::to_string(PAGE_SIZE));
    // A VACUUM copies the file through its journal, so a failure leaves it as it was; it
    // applies the page size and the auto-vacuum mode requested before it.
    cursor.execute("PRAGMA auto_vacuum=INCREMENTAL");
    cursor.execute("VACUUM");
    detail::log(*logger(), spdlog::level::info, "Rewrote %s with %d-byte pages", path, PAGE_SIZE);
  } catch (const sqlite::OperationalError& error) {
    detail::log(*logger(), spdlog::level::warn, "Could not rewrite %s with %d-byte pages: %s", path,
                PAGE_SIZE, error.what());
  } catch (...) {  // raised once the journal is back in WAL mode where it can be
    failure = std::current_exception();
  }
  std::string why;
  try {
    mode = set_journal_mode(cursor, "PRAGMA journal_mode=WAL");
  } catch (const sqlite::OperationalError& error) {
    why = std::string(" (") + error.what() + ")";
    mode.clear();
  }
  if (mode != "wal") {
    detail::log(*logger(), spdlog::level::warn,
                "%s stays in rollback journal mode%s; its queries share the writer connection "
                "until it is opened again",
                path, why);
  }
  if (failure) std::rethrow_exception(failure);
}

}  // namespace quilma::storage::storage_size
