// Opens a database through the installed headers and library, writes and reads a row.
#include <cstdio>
#include <filesystem>

#include "quilma/storage/database.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  quilma::storage::Database db(std::filesystem::path(argv[1]) / "index.db");
  db.connect();
  db.execute("CREATE TABLE t (name TEXT)");
  db.transaction([](quilma::sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (name) VALUES (?)", {"installed"});
  });
  const auto row = db.fetchone("SELECT name FROM t WHERE path_under('a/b', 'a')");
  db.close();
  if (!row || (*row)["name"].as_text() != "installed") return 1;
  std::puts("ok");
  return 0;
}
