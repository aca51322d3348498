#include "quilma/sqlite/cursor.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"

namespace quilma::sqlite {
namespace {

using ::testing::HasSubstr;

class CursorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto cursor = connection_.cursor();
    cursor.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT UNIQUE, data BLOB)");
  }

  // Statements the connection holds prepared right now, with whether each is mid-run.
  std::vector<std::pair<std::string, bool>> prepared() const {
    std::vector<std::pair<std::string, bool>> result;
    for (sqlite3_stmt* stmt = sqlite3_next_stmt(connection_.handle(), nullptr); stmt != nullptr;
         stmt = sqlite3_next_stmt(connection_.handle(), stmt)) {
      result.emplace_back(sqlite3_sql(stmt), sqlite3_stmt_busy(stmt) != 0);
    }
    return result;
  }

  testing::TempDir dir_;
  Connection connection_{dir_ / "cursor.db"};
};

TEST_F(CursorTest, ValuesOfEveryTypeRoundTrip) {
  auto cursor = connection_.cursor();
  const std::string with_nul("a\0b", 3);
  const Params sent{INT64_MIN, 2.5, with_nul, "", Blob{}, Blob{0, 255}, nullptr};
  const Row row = *cursor.execute("SELECT ?, ?, ?, ?, ?, ?, ?", sent).fetchone();
  ASSERT_EQ(row.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(row[i], sent[i]) << "column " << i;
}

TEST_F(CursorTest, RowsAreAddressableByPositionAndCaseInsensitiveName) {
  auto cursor = connection_.cursor();
  cursor.execute("INSERT INTO t (name) VALUES ('a')");
  const Row row = *cursor.execute("SELECT id, name AS Label FROM t").fetchone();
  EXPECT_EQ(row.columns(), (Row::Columns{"id", "Label"}));
  EXPECT_EQ(row["label"].as_text(), "a");
  EXPECT_EQ(row["LABEL"], row[1]);
  EXPECT_THROW((void)row[2], std::out_of_range);
  EXPECT_THROW((void)row["missing"], std::out_of_range);
}

TEST_F(CursorTest, RowcountCountsChangedRowsOfDataChangingStatementsOnly) {
  auto cursor = connection_.cursor();
  EXPECT_EQ(cursor.rowcount(), -1);
  cursor.executemany("INSERT INTO t (name) VALUES (?)", {{"a"}, {"b"}, {"c"}});
  EXPECT_EQ(cursor.rowcount(), 3);
  EXPECT_EQ(cursor.execute("UPDATE t SET data = x'00' WHERE name <> 'a'").rowcount(), 2);
  EXPECT_EQ(cursor.execute("  -- a comment first\n DELETE FROM t WHERE name = 'c'").rowcount(), 1);
  EXPECT_EQ(cursor.execute("REPLACE INTO t (name) VALUES ('a')").rowcount(), 1);
  EXPECT_EQ(
      cursor.execute("WITH n(x) AS (VALUES ('d'), ('e')) INSERT INTO t (name) SELECT x FROM n")
          .rowcount(),
      2);
  EXPECT_EQ(cursor.execute("SELECT * FROM t").rowcount(), -1);
  EXPECT_EQ(cursor.execute("UPDATE t SET data = NULL WHERE 0").rowcount(), 0);
  EXPECT_EQ(cursor.execute("CREATE TABLE u (x)").rowcount(), -1);
}

TEST_F(CursorTest, StatementsAreCachedAndHandedBackResetWithBindingsCleared) {
  auto cursor = connection_.cursor();
  cursor.executemany("INSERT INTO t (name) VALUES (?)", {{"a"}, {"b"}, {"c"}});
  for (int i = 0; i < 50; ++i) {
    auto rows = cursor.execute("SELECT name FROM t WHERE id >= ?", {1}).fetchall();
    ASSERT_EQ(rows.size(), 3U);
  }
  // One statement per SQL text, none left mid-run (which would pin an old WAL snapshot),
  // and no bound value kept alive past its cursor.
  const auto statements = prepared();
  EXPECT_EQ(std::count_if(statements.begin(), statements.end(),
                          [](const auto& entry) { return entry.first.starts_with("SELECT"); }),
            1);
  for (sqlite3_stmt* stmt = sqlite3_next_stmt(connection_.handle(), nullptr); stmt != nullptr;
       stmt = sqlite3_next_stmt(connection_.handle(), stmt)) {
    EXPECT_EQ(sqlite3_stmt_busy(stmt), 0) << sqlite3_sql(stmt);
    char* expanded = sqlite3_expanded_sql(stmt);
    EXPECT_THAT(expanded, ::testing::Not(HasSubstr("'a'")));
    sqlite3_free(expanded);
  }

  // A cursor that stops after its first row gives its statement back when closed.
  auto partial = connection_.cursor();
  ASSERT_TRUE(partial.execute("SELECT name FROM t").fetchone());
  EXPECT_THAT(prepared(),
              ::testing::Contains(std::pair<std::string, bool>("SELECT name FROM t", true)));
  partial.close();
  EXPECT_THAT(prepared(),
              ::testing::Contains(std::pair<std::string, bool>("SELECT name FROM t", false)));
}

TEST_F(CursorTest, CacheStaysBoundedUnderManyDistinctTexts) {
  auto cursor = connection_.cursor();
  for (int i = 0; i < 500; ++i) cursor.execute("SELECT " + std::to_string(i)).fetchall();
  EXPECT_LE(prepared().size(), 48U);
  EXPECT_EQ(cursor.execute("SELECT 499").fetchone().value()[0], Value(499));
}

TEST_F(CursorTest, TheCacheKeepsWhatIsUsedAndLetsAnEvictedStatementFinish) {
  auto cursor = connection_.cursor();
  cursor.executemany("INSERT INTO t (name) VALUES (?)", {{"a"}, {"b"}, {"c"}});
  const std::string hot = "SELECT name FROM t WHERE id = ?";
  for (int i = 0; i < 200; ++i) {
    cursor.execute(hot, {1}).fetchall();
    cursor.execute("SELECT " + std::to_string(i)).fetchall();
  }
  // Used between the others, the hot text was never evicted: one statement ran all 200 times.
  int runs = 0;
  for (sqlite3_stmt* stmt = sqlite3_next_stmt(connection_.handle(), nullptr); stmt != nullptr;
       stmt = sqlite3_next_stmt(connection_.handle(), stmt)) {
    if (hot == sqlite3_sql(stmt)) runs = sqlite3_stmt_status(stmt, SQLITE_STMTSTATUS_RUN, 0);
  }
  EXPECT_EQ(runs, 200);

  const std::string held_sql = "SELECT name FROM t ORDER BY id";
  auto held = connection_.cursor();
  EXPECT_EQ(held.execute(held_sql).fetchone().value()[0], Value("a"));
  for (int i = 0; i < 100; ++i) cursor.execute("SELECT " + std::to_string(1000 + i)).fetchall();
  EXPECT_EQ(held.fetchall().size(), 2U);  // evicted meanwhile, still usable
  held.close();
  for (const auto& [sql, busy] : prepared()) EXPECT_NE(sql, held_sql);  // and now finalized
}

TEST_F(CursorTest, TwoCursorsOnOneTextNeverShareAStatement) {
  auto cursor = connection_.cursor();
  cursor.executemany("INSERT INTO t (name) VALUES (?)", {{"a"}, {"b"}, {"c"}});
  constexpr const char* sql = "SELECT name FROM t ORDER BY id";
  auto first = connection_.cursor();
  auto second = connection_.cursor();
  first.execute(sql);
  EXPECT_EQ(first.fetchone().value()[0], Value("a"));
  second.execute(sql);
  EXPECT_EQ(second.fetchone().value()[0], Value("a"));
  EXPECT_EQ(first.fetchone().value()[0], Value("b"));
  EXPECT_EQ(second.fetchall().size(), 2U);
  // A third use of the text while `first` still holds it, through executemany.
  EXPECT_EQ(connection_.cursor().executemany(sql, {}).rowcount(), -1);
  EXPECT_EQ(first.fetchall().size(), 1U);
  // The private copy made for the second cursor is gone once it is done.
  const auto statements = prepared();
  EXPECT_EQ(std::count_if(statements.begin(), statements.end(),
                          [&](const auto& entry) { return entry.first == sql; }),
            1);
}

TEST_F(CursorTest, FetchallStepsAStatementUntilItIsDone) {
  // incremental_vacuum releases one page per step: fetching all rows must release all.
  {
    Connection fresh(dir_ / "vacuum.db");
    auto cursor = fresh.cursor();
    cursor.execute("PRAGMA auto_vacuum=INCREMENTAL");
    cursor.execute("CREATE TABLE big (b BLOB)");
    cursor.execute(
        "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 200) "
        "INSERT INTO big SELECT zeroblob(4000) FROM n");
    cursor.execute("DELETE FROM big");
    const std::int64_t free_before =
        cursor.execute("PRAGMA freelist_count").fetchone().value()[0].as_int();
    ASSERT_GE(free_before, 150);
    cursor.execute("PRAGMA incremental_vacuum(100)").fetchall();
    EXPECT_EQ(cursor.execute("PRAGMA freelist_count").fetchone().value()[0].as_int(),
              free_before - 100);
  }
}

TEST_F(CursorTest, BadStatementsRaiseTheirKindWithSqlitesMessage) {
  auto cursor = connection_.cursor();
  try {
    cursor.execute("SELEC 1");
    FAIL() << "no error";
  } catch (const OperationalError& error) {
    EXPECT_STREQ(error.what(), "near \"SELEC\": syntax error");
    EXPECT_EQ(error.code(), SQLITE_ERROR);
  }
  try {
    cursor.execute("INSERT INTO t (name) VALUES ('x')");
    cursor.execute("INSERT INTO t (name) VALUES ('x')");
    FAIL() << "no error";
  } catch (const IntegrityError& error) {
    EXPECT_STREQ(error.what(), "UNIQUE constraint failed: t.name");
    EXPECT_EQ(error.extended_code(), SQLITE_CONSTRAINT_UNIQUE);
  }
  EXPECT_THROW(cursor.execute("SELECT * FROM missing"), OperationalError);
  try {
    cursor.execute("SELECT ?, ?", {1});
    FAIL() << "no error";
  } catch (const ProgrammingError& error) {
    EXPECT_STREQ(error.what(),
                 "Incorrect number of bindings supplied. The current statement uses 2, and there "
                 "are 1 supplied.");
  }
  EXPECT_THROW(cursor.execute("SELECT 1; SELECT 2"), ProgrammingError);
  EXPECT_THROW(cursor.executemany("SELECT ?", {{1}}), ProgrammingError);
  // None of the failures left a statement mid-run.
  for (const auto& [sql, busy] : prepared()) EXPECT_FALSE(busy) << sql;
}

TEST_F(CursorTest, TrailingSemicolonsCommentsAndEmptyTextAreAccepted) {
  auto cursor = connection_.cursor();
  EXPECT_EQ(cursor.execute("SELECT 1; -- done\n ; /* really */").fetchone().value()[0], Value(1));
  EXPECT_FALSE(cursor.execute("  -- nothing at all").fetchone());
  EXPECT_EQ(cursor.rowcount(), -1);
}

TEST_F(CursorTest, ClosedCursorsAndConnectionsRefuseWorkWithoutCrashing) {
  auto cursor = connection_.cursor();
  cursor.executemany("INSERT INTO t (name) VALUES (?)", {{"a"}, {"b"}});
  auto live = connection_.cursor();
  live.execute("SELECT name FROM t");
  auto detached = connection_.cursor();
  detached.execute("SELECT name FROM t ORDER BY id").detach();

  cursor.close();
  cursor.close();
  EXPECT_THROW(cursor.execute("SELECT 1"), ProgrammingError);
  EXPECT_THROW(cursor.fetchone(), ProgrammingError);

  connection_.close();  // finalizes the statement `live` still holds
  EXPECT_EQ(connection_.handle(), nullptr);
  try {
    live.fetchone();
    FAIL() << "no error";
  } catch (const ProgrammingError& error) {
    EXPECT_STREQ(error.what(), "Cannot operate on a closed database.");
  }
  EXPECT_THROW(connection_.cursor(), ProgrammingError);
  // A detached result outlives its connection; it cannot run anything new.
  EXPECT_EQ(detached.fetchall().size(), 2U);
  EXPECT_THROW(detached.execute("SELECT 1"), ProgrammingError);
}

}  // namespace
}  // namespace quilma::sqlite
