// quilma-db watch: keeps the repository's index up to date while it runs, and vouches for it to
// the searches that ask, which then need not look at every file.
#include <chrono>
#include <filesystem>
#include <stdexcept>

#include "quilma/cli/command.h"
#include "quilma/cli/watcher.h"

namespace quilma::cli {

void watch_options(CLI::App& sub, Options& options) {
  sub.add_option("--settle", options.settle_ms,
                 "Milliseconds that changes must pause before the index is updated")
      ->check(CLI::Range(0, 60'000));
}

int cmd_watch(const Command& command) {
  namespace fs = std::filesystem;
  const fs::path root = command.repo();
  if (!fs::is_directory(root)) throw std::runtime_error("not a directory: " + root.string());
  if (command.io().stop == nullptr) throw std::logic_error("watch runs until it is stopped");
  watch({.repo = root,
         .database = command.database(),
         .stop = command.io().stop,
         .settle = std::chrono::milliseconds(command.options().settle_ms),
         .quiet = command.options().quiet},
        command.io().err);
  return 0;
}

}  // namespace quilma::cli
