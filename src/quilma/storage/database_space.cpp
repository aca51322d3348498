// Database: how much of the file is in use, and whether the disks can hold a rewrite of it.
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"

namespace quilma::storage {

namespace detail {

namespace {

std::mutex free_space_mutex;
FreeSpaceQuery free_space_query;  // empty: ask the file system

bool is_writable_directory(const char* path) {
  struct stat status {};
  return path != nullptr && ::stat(path, &status) == 0 && S_ISDIR(status.st_mode) &&
         ::access(path, W_OK | X_OK) == 0;
}

}  // namespace

bool same_volume(const std::filesystem::path& first, const std::filesystem::path& second) {
  struct stat first_status {};
  struct stat second_status {};
  if (::stat(first.c_str(), &first_status) != 0 || ::stat(second.c_str(), &second_status) != 0) {
    return true;
  }
  return first_status.st_dev == second_status.st_dev;
}

std::filesystem::path temp_directory() {
  // NOLINTBEGIN(concurrency-mt-unsafe): the process does not change its environment.
  if (const char* configured = std::getenv("SQLITE_TMPDIR");
      configured != nullptr && *configured != '\0') {
    return configured;
  }
  const char* candidates[] = {std::getenv("TMPDIR"), "/var/tmp", "/usr/tmp", "/tmp", "."};
  // NOLINTEND(concurrency-mt-unsafe)
  for (const char* candidate : candidates) {
    if (is_writable_directory(candidate)) return candidate;
  }
  return ".";
}

std::uintmax_t available_bytes(const std::filesystem::path& directory) {
  FreeSpaceQuery query;
  {
    const std::lock_guard hold(free_space_mutex);
    query = free_space_query;
  }
  return query ? query(directory) : std::filesystem::space(directory).available;
}

FreeSpaceQuery replace_free_space_query(FreeSpaceQuery query) {
  const std::lock_guard hold(free_space_mutex);
  return std::exchange(free_space_query, std::move(query));
}

std::optional<std::string> disk_shortfall(const std::filesystem::path& db_dir,
                                          std::int64_t used_bytes) {
  const std::filesystem::path temp = temp_directory();
  const std::int64_t each = used_bytes + COMPACT_DISK_MARGIN_BYTES;
  // The VACUUM copies the data into the temporary directory and back through the log beside
  // the database: on one volume both copies need room at once.
  std::vector<std::pair<std::filesystem::path, std::int64_t>> places;
  if (same_volume(db_dir, temp)) {
    places.emplace_back(db_dir, each + used_bytes);
  } else {
    places.emplace_back(db_dir, each);
    places.emplace_back(temp, each);
  }
  for (const auto& [place, needed] : places) {
    const auto available = static_cast<std::int64_t>(
        std::min<std::uintmax_t>(available_bytes(place), std::numeric_limits<std::int64_t>::max()));
    if (available < needed) {
      return "not enough disk space: " + std::to_string(available / MIB) + " MiB free in " +
             place.string() + ", " + std::to_string(needed / MIB) + " MiB needed";
    }
  }
  return std::nullopt;
}

}  // namespace detail

detail::Space Database::space(sqlite::Connection& connection) {
  sqlite::Cursor cursor = connection.cursor();
  auto read = [&cursor](const char* pragma) -> std::int64_t {
    const std::optional<sqlite::Row> row = cursor.execute(pragma).fetchone();
    // Never on an open file; a 0 read as "no auto-vacuum" would send compaction astray.
    if (!row) sqlite::raise_error(SQLITE_ERROR, std::string(pragma) + " returned no row");
    return (*row)[0].as_int();
  };
  detail::Space space;
  space.mode = read("PRAGMA auto_vacuum");
  space.pages = read("PRAGMA page_count");
  space.free = read("PRAGMA freelist_count");
  space.page_size = read("PRAGMA page_size");
  return space;
}

}  // namespace quilma::storage
