// quilma-db errors: the files the last index run left out, and why.
#include <string>
#include <vector>

#include "quilma/cli/command.h"

namespace quilma::cli {

int cmd_errors(const Command& command) {
  storage::Database db(command.index_database());
  command.open_existing(db);
  const std::vector<sqlite::Row> rows = db.fetchall(
      "SELECT file_path, error_type, message, line FROM index_errors ORDER BY file_path, id");
  if (command.options().json) {
    json list = json::array();
    for (const sqlite::Row& row : rows) {
      list.push_back({{"path", row[0].as_text()},
                      {"type", row[1].as_text()},
                      {"message", row[2].is_null() ? json() : json(row[2].as_text())},
                      {"line", row[3].is_null() ? json() : json(row[3].as_int())}});
    }
    return command.print_json(list);
  }
  for (const sqlite::Row& row : rows) {
    const std::string path = shown(row[0].as_text());
    const std::string where = row[3].is_null() ? path : path + ":" + row[3].as_text();
    command.print("{}: {}{}", where, row[1].as_text(),
                  row[2].is_null() ? std::string() : ": " + row[2].as_text());
  }
  return 0;
}

}  // namespace quilma::cli
