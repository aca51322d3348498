// quilma-db compact: gives the index's free pages back to the file system.
#include "quilma/cli/command.h"

namespace quilma::cli {

int cmd_compact(const Command& command) {
  storage::Database db(command.index_database());
  command.open_existing(db);
  const storage::Compaction result = db.compact();
  if (command.options().json) {
    return command.print_json(json{{"converted", result.converted},
                                   {"pages_released", result.pages_released},
                                   {"skipped", result.skipped ? json(*result.skipped) : json()}});
  }
  if (result.skipped) return command.print("not compacted: {}", *result.skipped);
  if (result.converted) {
    return command.print("converted to incremental auto-vacuum; released {} pages",
                         result.pages_released);
  }
  if (result.pages_released > 0) return command.print("released {} pages", result.pages_released);
  return command.print(
      "nothing to compact: fewer than {} free pages, or under {:.0f}% of the file, is left for "
      "later",
      storage::COMPACT_MIN_FREE_PAGES, storage::COMPACT_MIN_FREE_RATIO * 100);
}

}  // namespace quilma::cli
