// quilma-db check: SQLite's integrity check of the index; a problem fails the run.
#include <stdexcept>
#include <string>
#include <vector>

#include "quilma/cli/command.h"

namespace quilma::cli {

int cmd_check(const Command& command) {
  storage::Database db(command.index_database());
  command.open_existing(db);
  const std::vector<std::string> problems = db.integrity_problems();
  const bool as_json = command.options().json;
  if (as_json) {
    command.print_json(json{{"ok", problems.empty()}, {"problems", problems}});
  } else {
    for (const std::string& problem : problems) command.print("{}", problem);
  }
  if (!problems.empty()) {
    throw std::runtime_error(fmt::format("integrity check failed: {} ({} problem{})",
                                         db.db_path().string(), problems.size(),
                                         problems.size() == 1 ? "" : "s"));
  }
  return as_json ? 0 : command.print("ok");
}

}  // namespace quilma::cli
