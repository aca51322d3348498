// The page size of the storage layer's database files, and the rewrite that gives an older
// file that page size.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "quilma/sqlite/connection.h"

namespace quilma::storage::storage_size {

// Bytes per page of a new database file. Larger pages make the full-text table and its drop
// cheaper; 8192 keeps one release step of 1024 pages near 8 MiB of I/O.
inline constexpr int PAGE_SIZE = 8192;

// Rewrites the file behind `connection` (the writer, with no transaction open) with PAGE_SIZE
// pages: leaves WAL mode, VACUUMs, and returns to WAL mode. Leaving WAL needs the file to
// itself, so while any other connection has it open, even an idle one, the file stays as it
// is. When `why_not` holds a reason (the disk has no room for the copy), or the rewrite
// cannot happen, a warning is logged and the file keeps its pages and its data, in WAL mode
// wherever SQLite allows. Errors other than SQLite's operational ones (a corrupt file)
// propagate.
void rewrite_pages(sqlite::Connection& connection, const std::filesystem::path& db_path,
                   const std::optional<std::string>& why_not);

}  // namespace quilma::storage::storage_size
