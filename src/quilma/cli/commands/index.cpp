// quilma-db index: brings the repository's index up to date: the files that changed, in place,
// or a full build into a staging database that is then swapped in.
#include <filesystem>
#include <stdexcept>
#include <string>

#include "quilma/cli/command.h"
#include "quilma/cli/index_summary.h"
#include "quilma/cli/indexer.h"
#include "quilma/cli/progress.h"

namespace quilma::cli {

void index_options(CLI::App& sub, Options& options) {
  sub.add_flag("--full", options.full,
               "Rebuild the whole index through a staging database, even when few files changed");
}

int cmd_index(const Command& command) {
  namespace fs = std::filesystem;
  const Options& options = command.options();
  const Io& io = command.io();
  const fs::path root = command.repo();
  if (!fs::exists(root)) throw std::runtime_error("no such directory: " + root.string());
  if (!fs::is_directory(root)) throw std::runtime_error("not a directory: " + root.string());
  const Progress::Mode mode = options.quiet        ? Progress::Mode::Quiet
                              : io.err_is_terminal ? Progress::Mode::Terminal
                                                   : Progress::Mode::Lines;
  Progress progress(io.err, mode);
  const IndexReport report =
      index_repository({root, command.database(), io.stop, options.full}, progress);
  progress.clear_status();
  if (const std::string notice = damage_notice(report, command.database()); !notice.empty()) {
    io.err << notice << '\n';
  }
  if (options.json) return command.print_json(index_json(report, root, command.database()));
  return command.print("{}", index_summary(report));
}

}  // namespace quilma::cli
