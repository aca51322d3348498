// quilma-db stamp: records extractor versions and marks the files they parsed for re-parsing.
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

#include "quilma/cli/command.h"

namespace quilma::cli {

void stamp_options(CLI::App& sub, Options& options) {
  sub.add_option("LANG=VERSION", options.stamps, "A language and its extractor's version")
      ->required();
}

int cmd_stamp(const Command& command) {
  std::map<std::string, std::int64_t> versions;
  for (const std::string& item : command.options().stamps) {
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
  storage::Database db(command.index_database());
  command.open_existing(db);
  const std::int64_t marked = db.refresh_extractor_stamp(versions);
  return command.options().json ? command.print_json(json{{"marked", marked}})
                                : command.print("marked {} files for re-parsing", marked);
}

}  // namespace quilma::cli
