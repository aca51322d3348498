// One file of a repository as the index holds it: read and cut into chunks, then written as
// its rows (the file, its anchor symbol, its chunks) and the state the tool records of it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quilma/cli/source_file.h"
#include "quilma/sqlite/cursor.h"

namespace quilma::cli {

// A file read, digested and cut into chunks, ready to be written. Its chunks view `file`'s
// content or `replaced`, so it stays where it was made: it is handed on by pointer.
struct PreparedFile {
  SourceFile file;
  std::string hash;
  std::int64_t lines = 0;
  std::string replaced;  // the text with U+FFFD for each stray byte, for a file that has them
  std::vector<Chunk> chunks;
  std::vector<std::string> mixed_words;  // of the text, for the tool's list (mixed_words.h)
  // Whether the file goes into `files`: readable text, its stray bytes replaced if need be.
  bool indexed() const { return !file.problem || file.problem->indexed; }
};

std::unique_ptr<PreparedFile> prepare_file(const std::filesystem::path& path);

// Writes one indexed file: its row under `id`, its anchor symbol, its chunks, and its mixed
// words into the tool's list. The digest is of the bytes on disk; the chunks of a file with
// stray bytes hold U+FFFD for each and are marked inexact.
void add_file(sqlite::Cursor& cursor, std::int64_t id, const std::string& path,
              const PreparedFile& prepared);

// The tool's record of each file it listed: the size and modification time it saw, and the
// digest of what it indexed (NULL for a file left out). A row vouches for the file while the
// file system shows the same size and time and `files` the same digest. The storage layer's
// swap leaves the table alone; a full build replaces its rows after the swap.
inline constexpr std::string_view FILE_STATES_DDL =
    "CREATE TABLE IF NOT EXISTS file_states (path TEXT PRIMARY KEY, size INTEGER NOT NULL, "
    "mtime_ns INTEGER NOT NULL, hash TEXT) WITHOUT ROWID";

// Whether the database on `cursor` has the table `name` (an index made by another program may
// lack the tool's own).
bool has_table(sqlite::Cursor& cursor, std::string_view name);

// A modification time that vouches for nothing: the file was changed about when it was read,
// within the clock's granularity, so the next run reads it again.
inline constexpr std::int64_t UNTRUSTED_MTIME = -1;

// The file's state row, as `prepared` was read at a run that began at `run_started_ns`
// (nanoseconds since the epoch).
void record_state(sqlite::Cursor& cursor, const std::string& path, const PreparedFile& prepared,
                  std::int64_t run_started_ns);

}  // namespace quilma::cli
