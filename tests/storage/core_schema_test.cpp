#include "quilma/storage/core_schema.h"

#include <string>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/migrations.h"

namespace quilma::storage::core_schema {
namespace {

class CoreSchemaTest : public ::testing::Test {
 protected:
  std::int64_t number(const std::string& sql) {
    return cursor_.execute(sql).fetchone().value()[0].as_int();
  }
  void create() {
    cursor_.execute("BEGIN");
    create_tables(cursor_);
    cursor_.execute("COMMIT");
  }

  testing::TempDir dir_;
  sqlite::Connection connection_{dir_ / "index.db"};
  sqlite::Cursor cursor_ = connection_.cursor();
};

TEST_F(CoreSchemaTest, MissingTablesAreCreatedAndOthersLeftAsTheyAre) {
  cursor_.execute("CREATE TABLE memories (id INTEGER PRIMARY KEY, text TEXT)");  // not ours
  create();
  create();  // finds everything there and changes nothing
  EXPECT_EQ(number("SELECT COUNT(*) FROM sqlite_schema WHERE name IN ('schema_info', 'components', "
                   "'files', 'symbols', 'edges', 'external_imports', 'pending_references', "
                   "'index_errors', 'code_chunks', 'files_delete_chunks', 'memories')"),
            11);
  EXPECT_EQ(number("SELECT COUNT(*) FROM schema_info WHERE value = '" +
                   std::string(migrations::SCHEMA_VERSION) + "'"),
            1);
  sqlite::Connection old{dir_ /
                         "old.db"};  // a file with some of the tables: to be migrated, not stamped
  sqlite::Cursor cursor = old.cursor();
  cursor.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, extra TEXT)");
  cursor.execute("BEGIN");
  create_tables(cursor);
  cursor.execute("COMMIT");
  EXPECT_EQ(cursor.execute("SELECT COUNT(*) FROM pragma_table_info('files') WHERE name = 'extra'")
                .fetchone()
                .value()[0],
            sqlite::Value(1));
  EXPECT_FALSE(cursor.execute("SELECT * FROM schema_info").fetchone());
}

TEST_F(CoreSchemaTest, DeletingAFileDeletesItsChunksAndWhatItHolds) {
  cursor_.execute("PRAGMA foreign_keys = ON");
  create();
  cursor_.execute("INSERT INTO files (id, path) VALUES (1, 'a'), (2, 'b'), (3, 'c')");
  cursor_.execute("INSERT INTO symbols (id, file_id, name, kind) VALUES (1, 2, 'f', 'function')");
  cursor_.execute("INSERT INTO edges (source_id, target_id, kind) VALUES (1, 1, 'calls')");
  for (const std::int64_t file : {1, 2, 3}) {
    for (const std::int64_t index : {std::int64_t{0}, CHUNKS_PER_FILE - 1}) {
      cursor_.execute("INSERT INTO code_chunks (rowid, text) VALUES (?, 'x')",
                      {chunk_rowid(file, index)});
    }
  }
  cursor_.execute("DELETE FROM files WHERE id = 2");
  EXPECT_EQ(number("SELECT COUNT(*) FROM code_chunks"), 4);
  EXPECT_EQ(
      number("SELECT COUNT(*) FROM code_chunks WHERE rowid BETWEEN " +
             std::to_string(chunk_rowid(2, 0)) + " AND " + std::to_string(chunk_rowid(3, 0) - 1)),
      0);
  EXPECT_EQ(number("SELECT COUNT(*) FROM symbols") + number("SELECT COUNT(*) FROM edges"), 0);

  // The trigger outlives the table being dropped and made again.
  cursor_.execute("DROP TABLE code_chunks");
  cursor_.execute(migrations::CODE_CHUNKS_DDL);
  cursor_.execute("INSERT INTO code_chunks (rowid, text) VALUES (?, 'x')", {chunk_rowid(3, 5)});
  cursor_.execute("DELETE FROM files WHERE id = 3");
  EXPECT_EQ(number("SELECT COUNT(*) FROM code_chunks"), 0);
}

}  // namespace
}  // namespace quilma::storage::core_schema
