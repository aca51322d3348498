// quilma-db swap: replaces the index with that of a staging database.
#include <cstdint>
#include <filesystem>

#include "quilma/cli/command.h"
#include "quilma/cli/indexer.h"

namespace quilma::cli {

void swap_options(CLI::App& sub, Options& options) {
  sub.add_option("STAGING", options.staging, "The staging database")->required();
}

int cmd_swap(const Command& command) {
  const Options& options = command.options();
  storage::Database db(command.index_database());
  open_database(db);
  const storage::Counts inserted = db.swap_index_from(std::filesystem::absolute(options.staging));
  const std::int64_t generation = db.index_generation();
  if (options.json) {
    return command.print_json(
        json{{"inserted", counts_json(inserted)}, {"generation", generation}});
  }
  return command.print("swapped in {}: {}; generation {}", options.staging, counts_text(inserted),
                       generation);
}

}  // namespace quilma::cli
