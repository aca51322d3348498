// The command line: the options every command shares, parsing with CLI11, and the mapping of
// failures to exit statuses. Each command's own options and body are in commands/.
#include "quilma/cli/app.h"

#include <CLI/CLI.hpp>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <spdlog/sinks/ostream_sink.h>

#include "quilma/cli/command.h"
#include "quilma/cli/indexer.h"
#include "quilma/cli/search.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/log.h"

namespace quilma::cli {

namespace {

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

constexpr std::array COMMANDS{
    CommandEntry{"index", "Bring the repository's index up to date with its files", &index_options,
                 &cmd_index},
    CommandEntry{"search", "Search the index (FTS5 query syntax, ranked by bm25)", &search_options,
                 &cmd_search},
    CommandEntry{"stats", "Counts of the index's rows, and its generation", &no_options,
                 &cmd_stats},
    CommandEntry{"errors", "Files that could not be indexed, and why", &no_options, &cmd_errors},
    CommandEntry{"check", "Run SQLite's integrity check on the index", &no_options, &cmd_check},
    CommandEntry{"compact", "Give free pages back to the file system", &no_options, &cmd_compact},
    CommandEntry{"generation", "The index generation", &no_options, &cmd_generation},
    CommandEntry{"clear", "Empty the index", &no_options, &cmd_clear},
    CommandEntry{"swap", "Replace the index with that of a staging database", &swap_options,
                 &cmd_swap},
    CommandEntry{"stamp", "Record extractor versions and mark their files for re-parsing",
                 &stamp_options, &cmd_stamp},
    CommandEntry{"watch",
                 "Keep the index up to date while it runs; searches then skip their own check "
                 "for changed files",
                 &watch_options, &cmd_watch},
};

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

  std::map<std::string, CLI::App*, std::less<>> subs;
  for (const CommandEntry& entry : COMMANDS) {
    CLI::App* sub = app.add_subcommand(entry.name, entry.about);
    subs[entry.name] = sub;
    // A command's own positionals come first: REPO follows them.
    entry.add_options(*sub, options);
    if (std::string_view(entry.name) == "stamp") {
      sub->add_option("--repo", options.repo, "The repository (default: .)");
    } else {
      sub->add_option("REPO", options.repo, "The repository (default: .)");
    }
  }
  app.require_subcommand(1);

  if (const std::optional<std::string> unknown = unknown_command(argc, argv, subs)) {
    fmt::print(io.err, "quilma-db: unknown command '{}'; the commands are:", *unknown);
    for (const CommandEntry& entry : COMMANDS) fmt::print(io.err, " {}", entry.name);
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
  const Command command(options, io);
  const std::string name = app.get_subcommands().front()->get_name();
  try {
    for (const CommandEntry& entry : COMMANDS) {
      if (name == entry.name) return entry.body(command);
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
  } catch (const sqlite::Error& e) {
    if (!is_damage(e)) {
      fmt::print(io.err, "quilma-db: {}: {}\n", name, e.what());
      return EXIT_FAILED;
    }
    const std::filesystem::path damaged =
        name == "index" ? command.database() : command.index_database();
    note_damage(damaged);
    fmt::print(io.err,
               "quilma-db: {}: the index {} is damaged ({}); 'quilma-db index' rebuilds it\n", name,
               damaged.string(), e.what());
    return EXIT_FAILED;
  } catch (const std::exception& e) {
    fmt::print(io.err, "quilma-db: {}: {}\n", name, e.what());
    return name == "search" ? EXIT_USAGE : EXIT_FAILED;  // grep's status for an error
  }
}

}  // namespace quilma::cli
