// The steps that bring an older file up to date. Files marked stale after a language's parser
// changed, and the tables of a new file, are checked through the schema tests' release files.
#include "quilma/storage/migrations.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"

namespace quilma::storage {
namespace {

using migrations::detail::parse_version;

TEST(MigrationsTest, VersionsCompareNumericallyAndStepsAreInOrder) {
  EXPECT_LT(parse_version("3.9.0"), parse_version("3.10.0"));
  EXPECT_LT(parse_version("2.12.0"), parse_version("3"));
  EXPECT_EQ(parse_version("3.0.0"), parse_version("3"));
  EXPECT_EQ(parse_version("0.0"), std::vector<std::int64_t>{0});
  for (const char* bad : {"", "3.", ".3", "3..1", "v3", "3.1-rc1", "-1", "+1", "3.1.0 "}) {
    EXPECT_THROW(parse_version(bad), migrations::SchemaMigrationError) << bad;
  }
  const auto steps = migrations::detail::steps();
  ASSERT_FALSE(steps.empty());
  for (std::size_t i = 1; i < steps.size(); ++i) {
    EXPECT_LT(parse_version(steps[i - 1].version), parse_version(steps[i].version));
  }
  EXPECT_LT(parse_version(migrations::OLDEST_VERSION), parse_version(steps.front().version));
  EXPECT_EQ(steps.back().version, migrations::SCHEMA_VERSION);
}

TEST(MigrationsTest, DdlSplitsOnlyWhereAStatementEnds) {
  testing::TempDir dir;
  sqlite::Connection connection(dir / "index.db");
  sqlite::Cursor cursor = connection.cursor();
  migrations::run_ddl(cursor, R"sql(
    -- a comment; with a semicolon
    CREATE TABLE t (v TEXT DEFAULT 'a;b');
    CREATE TABLE log (v TEXT);;
    CREATE TRIGGER t_log AFTER INSERT ON t BEGIN
      INSERT INTO log VALUES ('x;y');
      INSERT INTO log VALUES (new.v);
    END;
    /* last one, without a semicolon */ INSERT INTO t DEFAULT VALUES
  )sql");
  EXPECT_EQ(cursor.execute("SELECT group_concat(v) FROM log").fetchone()->values()[0],
            sqlite::Value("x;y,a;b"));
  EXPECT_THROW(migrations::run_ddl(cursor, "CREATE TABLE u (v); CREATE TABLE t (v)"),
               sqlite::OperationalError);
}

}  // namespace
}  // namespace quilma::storage
