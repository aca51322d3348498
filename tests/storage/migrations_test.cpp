#include "quilma/storage/migrations.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"

namespace quilma::storage::migrations {
namespace {

using ::testing::ElementsAre;

TEST(MigrationsTest, VersionsCompareNumericallyAndStepsAreInOrder) {
  EXPECT_LT(detail::parse_version("3.9.0"), detail::parse_version("3.10.0"));
  EXPECT_LT(detail::parse_version("2.12.0"), detail::parse_version("3"));
  EXPECT_EQ(detail::parse_version("3"), detail::parse_version("3.0.0"));
  for (const char* bad : {"", "3.", ".3", "3..1", "v3", "3.1-rc1", "-1", "+1", "3.1.0 "}) {
    EXPECT_THROW(detail::parse_version(bad), SchemaMigrationError) << bad;
  }
  const std::span<const detail::Step> steps = detail::steps();
  ASSERT_FALSE(steps.empty());
  for (std::size_t i = 1; i < steps.size(); ++i) {
    EXPECT_LT(detail::parse_version(steps[i - 1].version), detail::parse_version(steps[i].version));
  }
  EXPECT_LT(detail::parse_version(OLDEST_VERSION), detail::parse_version(steps.front().version));
  EXPECT_EQ(steps.back().version, SCHEMA_VERSION);
}

// A transaction over a bare connection that counts the steps it runs.
struct CountingTransaction {
  sqlite::Connection* connection;
  int runs = 0;

  void operator()(const std::function<void(sqlite::Cursor&)>& body) {
    sqlite::Cursor cursor = connection->cursor();
    cursor.execute("BEGIN");
    try {
      body(cursor);
      ++runs;
      cursor.execute("COMMIT");
    } catch (...) {
      cursor.execute("ROLLBACK");
      throw;
    }
  }
};

class MigrateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    run_ddl(cursor_, R"sql(
      CREATE TABLE schema_info (key TEXT PRIMARY KEY, value TEXT);
      CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT, hash TEXT,
                          component_id INTEGER);
      CREATE TABLE symbols (id INTEGER PRIMARY KEY, file_id INTEGER, name TEXT, kind TEXT);
      CREATE TABLE edges (id INTEGER PRIMARY KEY, source_id INTEGER, target_id INTEGER);
      CREATE TABLE external_imports (id INTEGER PRIMARY KEY, file_id INTEGER, module TEXT);
      CREATE TABLE index_errors (id INTEGER PRIMARY KEY, file_path TEXT, error_type TEXT);
      CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line, end_line);
    )sql");
  }
  std::string version() {
    return cursor_.execute("SELECT value FROM schema_info WHERE key = 'version'")
        .fetchone()
        .value()[0]
        .as_text();
  }

  testing::TempDir dir_;
  sqlite::Connection connection_{dir_ / "index.db"};
  sqlite::Cursor cursor_ = connection_.cursor();
};

TEST_F(MigrateTest, RunsTheStepsAfterTheVersionEachInItsOwnTransaction) {
  CountingTransaction transaction{&connection_};
  EXPECT_EQ(migrate(std::ref(transaction), "2.4"), SCHEMA_VERSION);
  EXPECT_EQ(transaction.runs, 3);  // 2.12.0, 3.0.0, 3.1.0
  EXPECT_EQ(version(), SCHEMA_VERSION);

  transaction.runs = 0;
  EXPECT_EQ(migrate(std::ref(transaction), "3.1"), SCHEMA_VERSION);  // current, spelled short
  EXPECT_EQ(migrate(std::ref(transaction), "3.10.0"), "3.10.0");     // a newer release's file
  EXPECT_EQ(transaction.runs, 0);
}

TEST(RunDdlTest, SplitsOnlyWhereAStatementEnds) {
  testing::TempDir dir;
  sqlite::Connection connection(dir / "t.db");
  sqlite::Cursor cursor = connection.cursor();
  run_ddl(cursor, R"sql(
    -- a comment; with a semicolon
    CREATE TABLE t (v TEXT DEFAULT 'a;b');
    CREATE TABLE log (v TEXT);;
    CREATE TRIGGER t_log AFTER INSERT ON t BEGIN
      INSERT INTO log VALUES ('x;y');
      INSERT INTO log VALUES (new.v);
    END;
    /* last one, without a semicolon */ INSERT INTO t DEFAULT VALUES
  )sql");
  std::vector<std::string> logged;
  for (const sqlite::Row& row : cursor.execute("SELECT v FROM log ORDER BY rowid").fetchall()) {
    logged.push_back(row[0].as_text());
  }
  EXPECT_THAT(logged, ElementsAre("x;y", "a;b"));
  EXPECT_THROW(run_ddl(cursor, "CREATE TABLE u (v); CREATE TABLE t (v)"), sqlite::OperationalError);
}

TEST(MarkFilesStaleTest, MarksEveryFileOfTheLanguagesOnly) {
  testing::TempDir dir;
  sqlite::Connection connection(dir / "t.db");
  sqlite::Cursor cursor = connection.cursor();
  run_ddl(cursor, R"sql(
    CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT, hash TEXT);
    INSERT INTO files (path, language, hash) VALUES
      ('a.py', 'python', 'h'), ('b.py', 'python', 'h'), ('c.go', 'go', 'h'), ('d', NULL, 'h');
  )sql");
  EXPECT_EQ(mark_files_stale(cursor, {"python", "rust", "python"}), 2);
  EXPECT_EQ(mark_files_stale(cursor, {}), 0);
  EXPECT_EQ(
      cursor.execute("SELECT group_concat(path) FROM files WHERE hash = ?", {REINDEX_SENTINEL_HASH})
          .fetchone()
          .value()[0]
          .as_text(),
      "a.py,b.py");
}

}  // namespace
}  // namespace quilma::storage::migrations
