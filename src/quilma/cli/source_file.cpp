// Reading and classifying a repository's files, and cutting their text into chunks.
#include "quilma/cli/source_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quilma/cli/descriptor.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {

namespace {

constexpr double MIB = 1024.0 * 1024.0;

FileProblem unreadable(int error) {
  return {"unreadable", std::generic_category().message(error), std::nullopt};
}

}  // namespace

SourceFile read_source_file(const std::filesystem::path& path) {
  SourceFile file;
  const Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (fd.get() < 0 || ::fstat(fd.get(), &status) != 0) {
    file.problem = unreadable(errno);
    return file;
  }
  file.size = static_cast<std::uintmax_t>(status.st_size);
  file.mtime_ns = std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
  if (file.size > MAX_FILE_BYTES) {
    file.problem = FileProblem{"too_large",
                               fmt::format("{:.1f} MiB, over the limit of {:.0f} MiB",
                                           static_cast<double>(file.size) / MIB,
                                           static_cast<double>(MAX_FILE_BYTES) / MIB),
                               std::nullopt};
    return file;
  }
  // The size is a hint: the file may change while it is read, so read to the end, up to the
  // limit and one byte past it.
  file.content.resize(file.size + 1);
  std::size_t done = 0;
  while (true) {
    if (done == file.content.size()) {
      if (done > MAX_FILE_BYTES) break;
      file.content.resize(std::min<std::size_t>(done * 2 + 4096, MAX_FILE_BYTES + 1));
    }
    const ssize_t got = ::read(fd.get(), file.content.data() + done, file.content.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      file.problem = unreadable(errno);
      file.content.clear();
      return file;
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  file.content.resize(done);
  file.size = done;
  if (done > MAX_FILE_BYTES) {
    file.content.clear();
    file.problem = FileProblem{"too_large", "grew past the limit while it was read", std::nullopt};
    return file;
  }
  file.problem = text_problem(file.content);
  if (file.problem && !file.problem->indexed) file.content.clear();
  return file;
}

std::optional<FileProblem> text_problem(std::string_view content) {
  if (const void* nul =
          std::memchr(content.data(), '\0', std::min(content.size(), BINARY_PROBE_BYTES))) {
    const auto offset = static_cast<const char*>(nul) - content.data();
    return FileProblem{"binary", fmt::format("a NUL byte at offset {}", offset), std::nullopt};
  }
  if (const std::optional<std::size_t> bad = utils::find_invalid_utf8(content)) {
    const auto line =
        1 + std::count(content.begin(), content.begin() + static_cast<long>(*bad), '\n');
    return FileProblem{"not_utf8", fmt::format("not UTF-8 at offset {}", *bad), line,
                       /*indexed=*/true};
  }
  return std::nullopt;
}

std::optional<std::string_view> language_of(std::string_view path) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 3> NAMES{{
      {"CMakeLists.txt", "cmake"},
      {"Makefile", "make"},
      {"Dockerfile", "dockerfile"},
  }};
  for (const auto& [file_name, language] : NAMES) {
    if (name == file_name) return language;
  }
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return std::nullopt;
  const std::string_view extension = name.substr(dot + 1);
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 38> EXTENSIONS{{
      {"c", "c"},
      {"h", "cpp"},
      {"cc", "cpp"},
      {"cpp", "cpp"},
      {"cxx", "cpp"},
      {"hh", "cpp"},
      {"hpp", "cpp"},
      {"hxx", "cpp"},
      {"ipp", "cpp"},
      {"py", "python"},
      {"pyi", "python"},
      {"js", "javascript"},
      {"jsx", "javascript"},
      {"mjs", "javascript"},
      {"cjs", "javascript"},
      {"ts", "typescript"},
      {"tsx", "typescript"},
      {"go", "go"},
      {"rs", "rust"},
      {"java", "java"},
      {"kt", "kotlin"},
      {"kts", "kotlin"},
      {"scala", "scala"},
      {"rb", "ruby"},
      {"php", "php"},
      {"cs", "csharp"},
      {"swift", "swift"},
      {"m", "objc"},
      {"mm", "objcpp"},
      {"sh", "shell"},
      {"bash", "shell"},
      {"sql", "sql"},
      {"cmake", "cmake"},
      {"md", "markdown"},
      {"json", "json"},
      {"yaml", "yaml"},
      {"yml", "yaml"},
      {"toml", "toml"},
  }};
  for (const auto& [known, language] : EXTENSIONS) {
    if (extension == known) return language;
  }
  return std::nullopt;
}

std::string content_hash(std::string_view content) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (const char c : content) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3ULL;
  }
  return fmt::format("{:016x}", hash);
}

std::int64_t line_count(std::string_view content) {
  if (content.empty()) return 0;
  const auto newlines = std::count(content.begin(), content.end(), '\n');
  return newlines + (content.back() == '\n' ? 0 : 1);
}

std::vector<Chunk> chunk_lines(std::string_view content, std::int64_t lines_per_chunk) {
  std::vector<Chunk> chunks;
  std::size_t begin = 0;
  std::int64_t line = 1;
  while (begin < content.size()) {
    std::size_t end = begin;
    std::int64_t lines = 0;
    while (lines < lines_per_chunk && end < content.size()) {
      const std::size_t newline = content.find('\n', end);
      end = newline == std::string_view::npos ? content.size() : newline + 1;
      ++lines;
    }
    std::string_view text = content.substr(begin, end - begin);
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    chunks.push_back({text, line, line + lines - 1});
    line += lines;
    begin = end;
  }
  return chunks;
}

}  // namespace quilma::cli
