// What the indexer takes from one file of a repository: whether it can be indexed as text,
// its language, its digest, and its text in chunks of lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quilma::cli {

// Larger files are recorded as too large and not indexed (search reads them from disk): at
// this size they are generated code, data or bundles.
inline constexpr std::uintmax_t MAX_FILE_BYTES = std::uintmax_t{32} * 1024 * 1024;
// A file with a NUL among its first this many bytes is binary, as git decides it; a NUL further
// on is part of the text.
inline constexpr std::size_t BINARY_PROBE_BYTES = 8000;
// Lines per row of code_chunks: a search hit ranks a chunk, so this is how much text bm25
// weighs together.
inline constexpr std::int64_t CHUNK_LINES = 50;

// Why a file is not in the index; recorded as an index_errors row.
struct FileProblem {
  std::string type;  // "unreadable", "too_large", "binary" or "not_utf8"
  std::string message;
  std::optional<std::int64_t> line;  // for "not_utf8": the line of the first bad byte
  // The file is indexed all the same (its stray bytes as U+FFFD): the record is a warning.
  bool indexed = false;
};

// A file as read from disk: its content, or the problem that keeps it out of the index.
struct SourceFile {
  std::string content;
  std::uintmax_t size = 0;  // bytes on disk
  // The modification time before the file was read (nanoseconds since the epoch), which the
  // index records to tell next time whether the file may have changed.
  std::int64_t mtime_ns = 0;
  std::optional<FileProblem> problem;
};

// Reads the file at `path`. A file larger than MAX_FILE_BYTES is not read. Never throws for
// the file's own problems: they come back in `problem`.
SourceFile read_source_file(const std::filesystem::path& path);

// Whether `content` is text this index can hold: no NUL among its first BINARY_PROBE_BYTES,
// and UTF-8 throughout. Text
// with bytes that are not UTF-8 is held with them replaced, and reported.
std::optional<FileProblem> text_problem(std::string_view content);

// The language of a file, from its name; std::nullopt for one that no extractor reads.
std::optional<std::string_view> language_of(std::string_view path);

// A digest of the content that changes when any byte does (64-bit FNV-1a, in hex).
std::string content_hash(std::string_view content);

// Lines in `content`: a last line without a newline counts; an empty file has none.
std::int64_t line_count(std::string_view content);

// A run of whole lines: `text` is lines start_line to end_line (from 1, inclusive) of the
// content it views, joined by their newlines, without the last line's newline.
struct Chunk {
  std::string_view text;
  std::int64_t start_line;
  std::int64_t end_line;
};

// `content` in runs of `lines_per_chunk` lines; none for an empty file.
std::vector<Chunk> chunk_lines(std::string_view content,
                               std::int64_t lines_per_chunk = CHUNK_LINES);

}  // namespace quilma::cli
