// What every command of quilma-db shares: the parsed options, the index it works on, and the
// ways it prints. Each command has a file of its own under commands/.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ostream.h>

#include "quilma/cli/app.h"
#include "quilma/cli/search.h"
#include "quilma/storage/database.h"

namespace quilma::cli {

// Keys keep the order they are written in: counts come in the order their operation defines.
using json = nlohmann::ordered_json;

inline constexpr std::string_view DEFAULT_DATABASE = "memory/codebase-index/index.db";

// What the user asked for is wrong in a way that parsing could not see: exit status 2.
class UsageError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

struct Options {
  std::string repo = ".";
  std::string db;
  int verbose = 0;
  bool quiet = false;
  bool json = false;
  std::string color = "auto";
  SearchRequest search;
  // grep's flags: -e patterns, -i, -E; -F and -n are grep's defaults here, taken and kept.
  std::vector<std::string> patterns;
  bool ignore_case = false;
  bool regex = false;
  bool fixed = false;
  bool line_numbers = false;
  bool all = false;
  bool files_only = false;
  bool counts = false;
  std::string sort;  // "rank" or "path"; empty: rank for a full-text query, path for grep's
  std::string staging;
  std::vector<std::string> stamps;
  bool full = false;        // index: rebuild the whole index
  bool as_indexed = false;  // search: skip the check for files changed since the index
  int settle_ms = 100;      // watch: how long changes must pause before an update
};

// One command's run: its options, its streams, and what every command needs.
class Command {
 public:
  Command(const Options& options, const Io& io) : options_(options), io_(io) {}

  const Options& options() const { return options_; }
  const Io& io() const { return io_; }

  std::filesystem::path repo() const;
  // The index that `index` builds: REPO's own.
  std::filesystem::path database() const;
  // The index that the other commands use: that of REPO or of the nearest directory above it
  // that has one, as git finds .git, so that they work from anywhere inside the repository.
  std::filesystem::path index_database() const;
  // Opens the database of an index that must already exist.
  void open_existing(storage::Database& db) const;

  // A file name need not be UTF-8: such bytes come out as U+FFFD rather than failing the
  // whole output.
  int print_json(const json& value) const;
  // One JSON object on a line of its own, for output that is read as it streams.
  void print_line(const json& value) const;
  // Says on `err` that the limit left results out.
  void notice_cut(std::size_t shown, std::string_view what) const;
  template <class... Args>
  int print(fmt::format_string<Args...> format, Args&&... args) const {
    fmt::print(io_.out, format, std::forward<Args>(args)...);
    io_.out << '\n';
    return 0;
  }
  // Whether search marks its matches in colour.
  bool colour() const;

 private:
  const Options& options_;
  const Io& io_;
};

// `name` for a terminal: a byte that is not part of UTF-8 is shown as \xNN, as git shows it,
// instead of being written raw.
std::string shown(std::string_view name);

// `path` as git prints a path by default: as it is when it holds only printable ASCII and no '"'
// or '\\'; otherwise in double quotes, with C's escapes and each other byte in octal ("\303\251").
std::string quoted_path(std::string_view path);

json counts_json(const storage::Counts& counts);
std::string counts_text(const storage::Counts& counts);

// A command: its name and summary, the options of its own, and its body.
struct CommandEntry {
  const char* name;
  const char* about;
  void (*add_options)(CLI::App& sub, Options& options);
  int (*body)(const Command& command);
};

// Adds nothing: for the commands whose only options are those every command has.
inline void no_options(CLI::App& /*sub*/, Options& /*options*/) {}

// Each defined in commands/NAME.cpp.
void index_options(CLI::App& sub, Options& options);
int cmd_index(const Command& command);
void search_options(CLI::App& sub, Options& options);
int cmd_search(const Command& command);
int cmd_stats(const Command& command);
int cmd_errors(const Command& command);
int cmd_check(const Command& command);
int cmd_compact(const Command& command);
int cmd_generation(const Command& command);
int cmd_clear(const Command& command);
void swap_options(CLI::App& sub, Options& options);
int cmd_swap(const Command& command);
void stamp_options(CLI::App& sub, Options& options);
int cmd_stamp(const Command& command);
void watch_options(CLI::App& sub, Options& options);
int cmd_watch(const Command& command);

}  // namespace quilma::cli
