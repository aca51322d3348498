#include "quilma/storage/migrations.h"

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
