// quilma-db index: lists the repository's files, indexes them into a staging database and swaps
// that in.
#include <filesystem>
#include <stdexcept>
#include <string>

#include "quilma/cli/command.h"
#include "quilma/cli/indexer.h"
#include "quilma/cli/progress.h"

namespace quilma::cli {

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
  const IndexReport report = index_repository({root, command.database(), io.stop}, progress);
  progress.clear_status();
  const double mib = static_cast<double>(report.bytes) / 1048576.0;
  const double seconds = report.total_seconds > 0 ? report.total_seconds : 1e-9;
  if (options.json) {
    return command.print_json(json{{"repository", root.string()},
                                   {"database", command.database().string()},
                                   {"listed_by", report.from_git ? "git" : "walk"},
                                   {"files", report.files},
                                   {"errors", report.errors},
                                   {"bytes", report.bytes},
                                   {"generation", report.generation},
                                   {"seconds",
                                    {{"list", report.list_seconds},
                                     {"build", report.build_seconds},
                                     {"swap", report.swap_seconds},
                                     {"total", report.total_seconds}}}});
  }
  const std::string left_out =
      report.errors == 0 ? ""
                         : fmt::format("; {} left out (see 'quilma-db errors')", report.errors);
  return command.print(
      "indexed {} files ({:.1f} MiB) in {:.1f} s: {:.0f} files/s, {:.1f} MiB/s{}; "
      "generation {}",
      report.files, mib, report.total_seconds,
      static_cast<double>(report.files + report.errors) / seconds, mib / seconds, left_out,
      report.generation);
}

}  // namespace quilma::cli
