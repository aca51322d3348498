// quilma-db generation: the index generation, which every swap advances.
#include <cstdint>

#include "quilma/cli/command.h"

namespace quilma::cli {

int cmd_generation(const Command& command) {
  storage::Database db(command.index_database());
  command.open_existing(db);
  const std::int64_t value = db.index_generation();
  return command.options().json ? command.print_json(json{{"generation", value}})
                                : command.print("{}", value);
}

}  // namespace quilma::cli
