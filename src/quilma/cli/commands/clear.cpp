// quilma-db clear: empties the index, keeping its file.
#include "quilma/cli/command.h"

namespace quilma::cli {

int cmd_clear(const Command& command) {
  storage::Database db(command.index_database());
  command.open_existing(db);
  db.clear_all();
  return command.options().json ? command.print_json(json{{"cleared", db.db_path().string()}})
                                : command.print("cleared the index in {}", db.db_path().string());
}

}  // namespace quilma::cli
