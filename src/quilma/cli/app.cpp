// The command line: parsing with CLI11, one function per command, text or JSON output, and
// the mapping of failures to exit statuses.
#include "quilma/cli/app.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <spdlog/sinks/ostream_sink.h>

#include "quilma/cli/freshness.h"
#include "quilma/cli/index_summary.h"
#include "quilma/cli/indexer.h"
#include "quilma/cli/progress.h"
#include "quilma/cli/search.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/log.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {

namespace {

namespace fs = std::filesystem;
// Keys keep the order they are written in: counts come in the order their operation defines.
using json = nlohmann::ordered_json;

constexpr std::string_view DEFAULT_DATABASE = "memory/codebase-index/index.db";

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
  bool all = false;
  bool files_only = false;
  bool counts = false;
  std::string sort = "rank";
  std::string staging;
  std::vector<std::string> stamps;
  bool full = false;
};

// Sends the storage layer's log lines to `err` at `level` for the life of the object, in place
// of the sinks its loggers had; puts those back afterwards.
class StorageLogs {
 public:
  StorageLogs(std::ostream& err, spdlog::level::level_enum level) {
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(err, /*force_flush=*/true);
    sink->set_pattern(level <= spdlog::level::info ? "[%T.%e] %l %n: %v" : "quilma-db: %l: %v");
    for (const std::string_view name : storage::detail::MODULE_LOGGERS) {
      std::shared_ptr<spdlog::logger> logger = storage::detail::module_logger(name);
      saved_.push_back({logger, logger->sinks(), logger->level()});
      logger->sinks() = {sink};
      logger->set_level(level);
    }
  }
  ~StorageLogs() {
    for (Saved& saved : saved_) {
      saved.logger->sinks() = std::move(saved.sinks);
      saved.logger->set_level(saved.level);
    }
  }
  StorageLogs(const StorageLogs&) = delete;
  StorageLogs& operator=(const StorageLogs&) = delete;

 private:
  struct Saved {
    std::shared_ptr<spdlog::logger> logger;
    std::vector<spdlog::sink_ptr> sinks;
    spdlog::level::level_enum level;
  };
  std::vector<Saved> saved_;
};

// One command's run: its options, its streams, and what every command needs.
class Command {
 public:
  Command(const Options& options, const Io& io) : options_(options), io_(io) {}

  int index();
  int search();
  int stats();
  int errors();
  int check();
  int compact();
  int generation();
  int clear();
  int swap_in();
  int stamp();

 private:
  fs::path repo() const { return fs::absolute(options_.repo).lexically_normal(); }
  // The index that `index` builds: REPO's own.
  fs::path database() const {
    return options_.db.empty() ? repo() / DEFAULT_DATABASE
                               : fs::absolute(options_.db).lexically_normal();
  }
  // The index that the other commands use: that of REPO or of the nearest directory above it
  // that has one, as git finds .git, so that they work from anywhere inside the repository.
  fs::path index_database() const {
    if (!options_.db.empty()) return database();
    for (fs::path at = repo(); !at.empty(); at = at.parent_path()) {
      if (fs::exists(at / DEFAULT_DATABASE)) return at / DEFAULT_DATABASE;
      if (at == at.root_path()) break;
    }
    return database();
  }
  // Opens the database of an index that must already exist.
  void open_existing(storage::Database& db) const {
    if (!fs::exists(db.db_path())) {
      throw std::runtime_error("no index at " + db.db_path().string() +
                               "; run 'quilma-db index' first");
    }
    open_database(db);
  }
  // A file name need not be UTF-8: such bytes come out as U+FFFD rather than failing the
  // whole output.
  int print_json(const json& value) const {
    io_.out << value.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
    return 0;
  }
  // One JSON object on a line of its own, for output that is read as it streams.
  void print_line(const json& value) const {
    io_.out << value.dump(-1, ' ', false, json::error_handler_t::replace) << '\n';
  }
  // Says on `err` that the limit left results out.
  void notice_cut(std::size_t shown, std::string_view what) const {
    if (options_.quiet) return;
    fmt::print(io_.err, "quilma-db: showing the first {} {}; more match (--limit N, or --all)\n",
               shown, what);
  }
  template <class... Args>
  int print(fmt::format_string<Args...> format, Args&&... args) const {
    fmt::print(io_.out, format, std::forward<Args>(args)...);
    io_.out << '\n';
    return 0;
  }
  bool colour() const {
    if (options_.color != "auto") return options_.color == "always";
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this process sets the environment
    return io_.out_is_terminal && std::getenv("NO_COLOR") == nullptr;
  }

  const Options& options_;
  const Io& io_;
};

// `name` for a terminal: a byte that is not part of UTF-8 is shown as \xNN, as git shows it,
// instead of being written raw.
std::string shown(std::string_view name) {
  std::string text;
  for (std::size_t at = 0; at < name.size();) {
    char32_t code = 0;
    const std::size_t length = utils::decode_utf8(name, at, code);
    if (length == 0) {
      text += fmt::format("\\x{:02x}", static_cast<unsigned char>(name[at++]));
    } else {
      text.append(name, at, length);
      at += length;
    }
  }
  return text;
}

json counts_json(const storage::Counts& counts) {
  json object = json::object();
  for (const auto& [name, count] : counts) object[name] = count;
  return object;
}

std::string counts_text(const storage::Counts& counts) {
  std::string text;
  for (const auto& [name, count] : counts) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name, count);
  }
  return text;
}

int Command::index() {
  const fs::path root = repo();
  if (!fs::exists(root)) throw std::runtime_error("no such directory: " + root.string());
  if (!fs::is_directory(root)) throw std::runtime_error("not a directory: " + root.string());
  const Progress::Mode mode = options_.quiet        ? Progress::Mode::Quiet
                              : io_.err_is_terminal ? Progress::Mode::Terminal
                                                    : Progress::Mode::Lines;
  Progress progress(io_.err, mode);
  const IndexReport report =
      index_repository({root, database(), io_.stop, options_.full}, progress);
  progress.clear_status();
  if (const std::string notice = damage_notice(report, database()); !notice.empty())
    io_.err << notice << '\n';
  return options_.json ? print_json(index_json(report, root, database()))
                       : print("{}", index_summary(report));
}

int Command::search() {
  storage::Database db(index_database());
  open_existing(db);
  SearchRequest request = options_.search;
  request.by_path = options_.sort == "path";
  const bool per_file = options_.files_only || options_.counts;
  if (options_.all || per_file) request.limit = std::nullopt;
  SearchResult result = search_current(db, request, io_.err, options_.quiet);

  if (per_file) {
    // Files in the order of their first matching line, with how many lines matched.
    std::vector<std::pair<std::string, std::int64_t>> files;
    std::map<std::string_view, std::size_t> at;
    for (const SearchHit& hit : result.hits) {
      const auto [found, added] = at.try_emplace(hit.path, files.size());
      if (added) files.emplace_back(hit.path, 0);
      ++files[found->second].second;
    }
    const std::int64_t limit = options_.search.limit.value_or(0);
    if (!options_.all && std::cmp_greater(files.size(), limit)) {
      files.resize(static_cast<std::size_t>(limit));
      result.cut = true;
    }
    for (const auto& [path, count] : files) {
      if (options_.json) {
        print_line(options_.counts ? json{{"path", path}, {"count", count}} : json{{"path", path}});
      } else if (options_.counts) {
        print("{}:{}", shown(path), count);
      } else {
        print("{}", shown(path));
      }
    }
    if (result.cut) notice_cut(files.size(), "files");
    return 0;
  }

  const bool marked = colour();
  const std::vector<SearchHit>& hits = result.hits;
  std::string_view group_path;  // the file of the lines printed last, and the last of them
  std::int64_t printed = 0;
  for (std::size_t i = 0; i < hits.size(); ++i) {
    const SearchHit& hit = hits[i];
    if (options_.json) {
      json object{
          {"path", hit.path}, {"line", hit.line}, {"text", hit.text}, {"matches", hit.matches}};
      if (request.context > 0) {
        object["before"] = hit.before;
        object["after"] = hit.after;
      }
      print_line(object);
      continue;
    }
    // Context lines print once: a hit whose context meets the lines printed last joins them;
    // any other starts a group of its own, after "--" as grep marks it.
    std::int64_t line = hit.line - static_cast<std::int64_t>(hit.before.size());
    if (group_path == hit.path && hit.line > printed && line <= printed + 1) {
      line = printed + 1;
    } else if (i > 0 && request.context > 0) {
      print("--");
    }
    for (; line < hit.line; ++line) {
      print("{}-{}- {}", shown(hit.path), line,
            hit.before[hit.before.size() - static_cast<std::size_t>(hit.line - line)]);
    }
    std::string text;
    std::size_t from = 0;
    for (const auto& [begin, end] : hit.matches) {
      if (begin < from) continue;
      text.append(hit.text, from, begin - from);
      text += marked ? "\033[1;31m" : "";
      text.append(hit.text, begin, end - begin);
      text += marked ? "\033[0m" : "";
      from = end;
    }
    text.append(hit.text, from);
    print("{}:{}: {}", shown(hit.path), hit.line, text);
    // The lines after it stop short of a next hit of the same file that falls among them.
    std::int64_t last = hit.line + static_cast<std::int64_t>(hit.after.size());
    if (i + 1 < hits.size() && hits[i + 1].path == hit.path && hits[i + 1].line > hit.line) {
      last = std::min(last, hits[i + 1].line - 1);
    }
    for (line = hit.line + 1; line <= last; ++line) {
      print("{}-{}- {}", shown(hit.path), line,
            hit.after[static_cast<std::size_t>(line - hit.line - 1)]);
    }
    group_path = hit.path;
    printed = std::max(last, hit.line);
  }
  if (result.cut) notice_cut(result.hits.size(), "matching lines");
  return 0;
}

int Command::stats() {
  storage::Database db(index_database());
  open_existing(db);
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
  if (options_.json) {
    json object = counts_json(counts);
    object["generation"] = generation;
    object["database"] = db.db_path().string();
    object["file_bytes"] = file_bytes;
    object["log_bytes"] = log_bytes;
    object["pages"] = pages.pages;
    object["free_pages"] = pages.free_pages;
    object["page_size"] = pages.page_size;
    object["last_index"] = built ? json(*built) : json();
    return print_json(object);
  }
  print("{:<11}{}", "database", db.db_path().string());
  print("{:<11}{:.1f} MiB, log {:.1f} MiB", "size", static_cast<double>(file_bytes) / 1048576.0,
        static_cast<double>(log_bytes) / 1048576.0);
  print("{:<11}{} of {} bytes, {} free ({:.0f}%)", "pages", pages.pages, pages.page_size,
        pages.free_pages,
        pages.pages > 0
            ? 100.0 * static_cast<double>(pages.free_pages) / static_cast<double>(pages.pages)
            : 0.0);
  for (const auto& [name, count] : counts) print("{:<11}{}", name, count);
  print("{:<11}{}", "generation", generation);
  return print("{:<11}{}", "indexed", built.value_or("never"));
}

int Command::errors() {
  storage::Database db(index_database());
  open_existing(db);
  const std::vector<sqlite::Row> rows = db.fetchall(
      "SELECT file_path, error_type, message, line FROM index_errors ORDER BY file_path, id");
  if (options_.json) {
    json list = json::array();
    for (const sqlite::Row& row : rows) {
      list.push_back({{"path", row[0].as_text()},
                      {"type", row[1].as_text()},
                      {"message", row[2].is_null() ? json() : json(row[2].as_text())},
                      {"line", row[3].is_null() ? json() : json(row[3].as_int())}});
    }
    return print_json(list);
  }
  for (const sqlite::Row& row : rows) {
    const std::string path = shown(row[0].as_text());
    const std::string where = row[3].is_null() ? path : path + ":" + row[3].as_text();
    print("{}: {}{}", where, row[1].as_text(),
          row[2].is_null() ? std::string() : ": " + row[2].as_text());
  }
  return 0;
}

int Command::check() {
  storage::Database db(index_database());
  open_existing(db);
  const std::vector<std::string> problems = db.integrity_problems();
  if (options_.json) {
    print_json(json{{"ok", problems.empty()}, {"problems", problems}});
  } else {
    for (const std::string& problem : problems) print("{}", problem);
  }
  if (!problems.empty()) {
    throw std::runtime_error(fmt::format("integrity check failed: {} ({} problem{})",
                                         db.db_path().string(), problems.size(),
                                         problems.size() == 1 ? "" : "s"));
  }
  return options_.json ? 0 : print("ok");
}

int Command::compact() {
  storage::Database db(index_database());
  open_existing(db);
  const storage::Compaction result = db.compact();
  if (options_.json) {
    return print_json(json{{"converted", result.converted},
                           {"pages_released", result.pages_released},
                           {"skipped", result.skipped ? json(*result.skipped) : json()}});
  }
  if (result.skipped) return print("not compacted: {}", *result.skipped);
  if (result.converted) {
    return print("converted to incremental auto-vacuum; released {} pages", result.pages_released);
  }
  if (result.pages_released > 0) return print("released {} pages", result.pages_released);
  return print(
      "nothing to compact: fewer than {} free pages, or under {:.0f}% of the file, is left for "
      "later",
      storage::COMPACT_MIN_FREE_PAGES, storage::COMPACT_MIN_FREE_RATIO * 100);
}

int Command::generation() {
  storage::Database db(index_database());
  open_existing(db);
  const std::int64_t value = db.index_generation();
  return options_.json ? print_json(json{{"generation", value}}) : print("{}", value);
}

int Command::clear() {
  storage::Database db(index_database());
  open_existing(db);
  db.clear_all();
  return options_.json ? print_json(json{{"cleared", db.db_path().string()}})
                       : print("cleared the index in {}", db.db_path().string());
}

int Command::swap_in() {
  storage::Database db(index_database());
  open_database(db);
  const storage::Counts inserted = db.swap_index_from(fs::absolute(options_.staging));
  const std::int64_t generation = db.index_generation();
  if (options_.json)
    return print_json(json{{"inserted", counts_json(inserted)}, {"generation", generation}});
  return print("swapped in {}: {}; generation {}", options_.staging, counts_text(inserted),
               generation);
}

int Command::stamp() {
  std::map<std::string, std::int64_t> versions;
  for (const std::string& item : options_.stamps) {
    const std::size_t equals = item.find('=');
    std::int64_t version = 0;
    std::size_t used = 0;
    try {
      if (equals != std::string::npos) version = std::stoll(item.substr(equals + 1), &used);
    } catch (const std::logic_error&) {  // not a number, or out of range
      used = 0;
    }
    if (equals == 0 || equals == std::string::npos || used == 0 ||
        used != item.size() - equals - 1) {
      throw UsageError("stamp: expected LANG=VERSION with a whole-number VERSION, got '" + item +
                       "'");
    }
    if (!versions.emplace(item.substr(0, equals), version).second) {
      throw UsageError("stamp: language '" + item.substr(0, equals) + "' given twice");
    }
  }
  storage::Database db(index_database());
  open_existing(db);
  const std::int64_t marked = db.refresh_extractor_stamp(versions);
  return options_.json ? print_json(json{{"marked", marked}})
                       : print("marked {} files for re-parsing", marked);
}

// The first word that stands where a command goes, when it names none: CLI11 would report it
// as "A subcommand is required".
std::optional<std::string> unknown_command(
    int argc, const char* const* argv,
    const std::map<std::string, CLI::App*, std::less<>>& commands) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--db" || arg == "--color") {
      ++i;  // and its value
    } else if (!arg.starts_with("-")) {
      if (commands.contains(arg)) return std::nullopt;
      return std::string(arg);
    }
  }
  return std::nullopt;
}

spdlog::level::level_enum log_level(const Options& options) {
  if (options.quiet) return spdlog::level::err;
  if (options.verbose >= 2) return spdlog::level::debug;
  return options.verbose == 1 ? spdlog::level::info : spdlog::level::warn;
}

}  // namespace

int run(int argc, const char* const* argv, const Io& io) {
  Options options;
  CLI::App app{"Builds, searches and maintains the code index of a repository.", "quilma-db"};
  app.fallthrough();
  app.option_defaults()->always_capture_default();
  app.set_help_all_flag("--help-all", "Help for every command");
  app.set_version_flag("--version", std::string("quilma-db ") + QUILMA_VERSION);
  app.add_option("--db", options.db,
                 "The index database (default: REPO/memory/codebase-index/index.db)");
  app.add_flag("-v,--verbose", options.verbose,
               "Show the storage layer's log lines: -v from INFO, -vv from DEBUG");
  app.add_flag("-q,--quiet", options.quiet, "No progress and no log lines");
  app.add_flag("--json", options.json, "Machine-readable output");
  app.add_option("--color", options.color, "Colour search matches: auto, always or never")
      ->check(CLI::IsMember({"auto", "always", "never"}));

  struct Entry {
    const char* name;
    const char* about;
    int (Command::*body)();
  };
  static constexpr std::array COMMANDS{
      Entry{"index", "Index the repository's files and swap them into its index", &Command::index},
      Entry{"search", "Search the index (FTS5 query syntax, ranked by bm25)", &Command::search},
      Entry{"stats", "Counts of the index's rows, and its generation", &Command::stats},
      Entry{"errors", "Files that could not be indexed, and why", &Command::errors},
      Entry{"check", "Run SQLite's integrity check on the index", &Command::check},
      Entry{"compact", "Give free pages back to the file system", &Command::compact},
      Entry{"generation", "The index generation", &Command::generation},
      Entry{"clear", "Empty the index", &Command::clear},
      Entry{"swap", "Replace the index with that of a staging database", &Command::swap_in},
      Entry{"stamp", "Record extractor versions and mark their files for re-parsing",
            &Command::stamp},
  };
  std::map<std::string, CLI::App*, std::less<>> subs;
  for (const Entry& entry : COMMANDS)
    subs[entry.name] = app.add_subcommand(entry.name, entry.about);
  subs["search"]
      ->add_option("QUERY", options.search.query,
                   "Words, \"phrases\", prefix*, AND, OR, NOT, NEAR(...); with -w or -s, a text "
                   "taken literally")
      ->required();
  subs["swap"]->add_option("STAGING", options.staging, "The staging database")->required();
  subs["stamp"]
      ->add_option("LANG=VERSION", options.stamps, "A language and its extractor's version")
      ->required();
  for (auto& [name, sub] : subs) {
    if (name == "stamp") {
      sub->add_option("--repo", options.repo, "The repository (default: .)");
    } else {
      sub->add_option("REPO", options.repo, "The repository (default: .)");
    }
  }
  CLI::App& search = *subs["search"];
  search.add_flag("-w,--word", options.search.whole_word,
                  "QUERY is a text that stands as a whole identifier, as with grep -w");
  search.add_flag("-s,--case-sensitive", options.search.case_sensitive,
                  "QUERY is a text matched in its own case, accents as written");
  search.add_option("--path", options.search.paths,
                    "Only files whose path matches GLOB (*, ?, [...], **); without a '/', the "
                    "file name in any directory. Repeat for more");
  search.add_option("--sort", options.sort, "rank (the best chunks first) or path (as grep)")
      ->check(CLI::IsMember({"rank", "path"}));
  search.add_option("-C,--context", options.search.context, "Lines of context around each line")
      ->check(CLI::Range(std::int64_t{0}, std::int64_t{1000}));
  search.add_flag("-l,--files-with-matches", options.files_only, "Only the files that match");
  search.add_flag("-c,--count", options.counts, "The files that match, with how many lines each");
  search
      .add_option("--limit", options.search.limit,
                  "At most this many matching lines (files with -l or -c)")
      ->default_str(std::to_string(SearchRequest{}.limit.value_or(0)))
      ->check(CLI::Validator(
          [](const std::string& value) {
            return std::all_of(value.begin(), value.end(),
                               [](char c) { return c >= '0' && c <= '9'; }) &&
                           !value.empty() && value.find_first_not_of('0') != std::string::npos
                       ? std::string()
                       : "--limit takes a whole number of 1 or more, not '" + value + "'";
          },
          "N >= 1"));
  subs["index"]->add_flag("--full", options.full,
                          "Rebuild the whole index, even when only some files changed");
  search.add_flag("--all", options.all, "Every match, without a limit")->excludes("--limit");
  search.get_option("-l")->excludes("-c");
  app.require_subcommand(1);

  if (const std::optional<std::string> unknown = unknown_command(argc, argv, subs)) {
    fmt::print(io.err, "quilma-db: unknown command '{}'; the commands are:", *unknown);
    for (const Entry& entry : COMMANDS) fmt::print(io.err, " {}", entry.name);
    fmt::print(io.err, "\nRun 'quilma-db --help' for usage.\n");
    return EXIT_USAGE;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e, io.out, io.err);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, io.out, io.err);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e, io.out, io.err);
  } catch (const CLI::ParseError& e) {
    fmt::print(io.err, "quilma-db: {}\nRun 'quilma-db --help' for usage.\n", e.what());
    return EXIT_USAGE;
  }

  const StorageLogs logs(io.err, log_level(options));
  Command run_command(options, io);
  const std::string name = app.get_subcommands().front()->get_name();
  try {
    for (const Entry& entry : COMMANDS) {
      if (name == entry.name) return (run_command.*entry.body)();
    }
    return EXIT_USAGE;  // CLI11 lets through only the commands above
  } catch (const UsageError& e) {
    fmt::print(io.err, "quilma-db: {}\n", e.what());
    return EXIT_USAGE;
  } catch (const MalformedQuery& e) {
    fmt::print(io.err, "quilma-db: {}\n", e.what());
    return EXIT_USAGE;
  } catch (const Interrupted& e) {
    fmt::print(io.err, "quilma-db: {}: {}\n", name, e.what());
    return EXIT_INTERRUPTED;
  } catch (const std::exception& e) {
    fmt::print(io.err, "quilma-db: {}: {}\n", name, e.what());
    return EXIT_FAILED;
  }
}

}  // namespace quilma::cli
