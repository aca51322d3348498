// The process that the crash suite kills: `crash_child OPERATION DATABASE [ARGUMENTS]` opens the
// database as the service does, writes one byte to its standard output when the operation
// begins, and runs it. Exit status 0 when the operation did its work.
#include <iostream>
#include <string>
#include <vector>

#include <unistd.h>

#include "support/index_builder.h"

#include "quilma/storage/database.h"

namespace {

int run(const std::vector<std::string>& args) {
  const std::string& operation = args.at(0);
  quilma::storage::Database db(args.at(1));
  const auto signal_start = [] {
    if (::write(STDOUT_FILENO, "R", 1) != 1) std::_Exit(4);
  };
  if (operation == "open") {  // the open sequence is the operation: a page rewrite
    signal_start();
    quilma::testing::open_fully(db);
    return 0;
  }
  quilma::testing::open_fully(db);
  signal_start();
  if (operation == "swap") {
    db.swap_index_from(args.at(2));
  } else if (operation == "clear") {
    db.clear_all();
  } else if (operation == "compact") {
    const quilma::storage::Compaction done = db.compact();
    if (done.skipped || done.pages_released == 0) {
      std::cerr << "compaction did nothing: " << done.skipped.value_or("too little to gain")
                << "\n";
      return 3;
    }
  } else if (operation == "insert") {
    db.transaction([&](quilma::sqlite::Cursor& cursor) {
      quilma::testing::fill_index(cursor, "added", std::stoll(args.at(2)), std::stoll(args.at(3)));
    });
  } else {
    std::cerr << "unknown operation " << operation << "\n";
    return 2;
  }
  db.close();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    std::cerr << "crash_child: " << error.what() << "\n";
    return 1;
  }
}
