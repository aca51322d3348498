// Reading one file for the index, and writing its rows and its recorded state.
#include "quilma/cli/file_rows.h"

#include "quilma/cli/mixed_words.h"
#include "quilma/models/symbol.h"
#include "quilma/storage/core_schema.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {

namespace {

// A modification time this close to the run's start may have been set by a write that came
// after the file was read: the file system's clock moves in ticks of a few milliseconds.
constexpr std::int64_t RACY_NS = 1'000'000'000;

}  // namespace

std::unique_ptr<PreparedFile> prepare_file(const std::filesystem::path& path) {
  auto prepared = std::make_unique<PreparedFile>();
  prepared->file = read_source_file(path);
  const SourceFile& file = prepared->file;
  if (!prepared->indexed()) return prepared;
  prepared->hash = content_hash(file.content);
  prepared->lines = line_count(file.content);
  if (file.problem) prepared->replaced = utils::replace_invalid_utf8(file.content);
  const std::string_view text =
      file.problem ? std::string_view(prepared->replaced) : std::string_view(file.content);
  prepared->chunks = chunk_lines(text);
  prepared->mixed_words = mixed_words(text);
  return prepared;
}

void add_file(sqlite::Cursor& cursor, std::int64_t id, const std::string& path,
              const PreparedFile& prepared) {
  const std::optional<std::string_view> language = language_of(path);
  cursor.execute(
      "INSERT INTO files (id, path, language, hash, size) VALUES (?, ?, ?, ?, ?)",
      {id, path, language, prepared.hash, static_cast<std::int64_t>(prepared.file.size)});
  const std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
  cursor.execute(
      "INSERT INTO symbols (file_id, name, kind, line, end_line, qualified_name) "
      "VALUES (?, ?, ?, ?, ?, ?)",
      {id, name, models::FILE_SYMBOL_KIND, 1, prepared.lines, path});
  const bool exact = !prepared.file.problem;
  std::int64_t index = 0;
  for (const Chunk& chunk : prepared.chunks) {
    cursor.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, ?)",
        {storage::core_schema::chunk_rowid(id, index++), chunk.text, chunk.start_line,
         chunk.end_line, exact ? 1 : 0});
  }
  for (const std::string& word : prepared.mixed_words) {
    cursor.execute("INSERT OR IGNORE INTO mixed_words (word) VALUES (?)", {word});
  }
}

bool has_table(sqlite::Cursor& cursor, std::string_view name) {
  return cursor.execute("SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name = ?", {name})
      .fetchone()
      .has_value();
}

void record_state(sqlite::Cursor& cursor, const std::string& path, const PreparedFile& prepared,
                  std::int64_t run_started_ns) {
  const std::int64_t mtime =
      prepared.file.mtime_ns >= run_started_ns - RACY_NS ? UNTRUSTED_MTIME : prepared.file.mtime_ns;
  cursor.execute(
      "INSERT OR REPLACE INTO file_states (path, size, mtime_ns, hash) VALUES (?, ?, ?, ?)",
      {path, static_cast<std::int64_t>(prepared.file.size), mtime,
       prepared.indexed() ? std::optional<std::string>(prepared.hash) : std::nullopt});
}

}  // namespace quilma::cli
