// The page size of the storage layer's database files.
#pragma once

namespace quilma::storage::storage_size {

// Bytes per page of a new database file. Larger pages make the full-text table and its drop
// cheaper; 8192 keeps one release step of 1024 pages near 8 MiB of I/O.
inline constexpr int PAGE_SIZE = 8192;

}  // namespace quilma::storage::storage_size
