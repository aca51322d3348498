#include "quilma/sqlite/cursor.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/error_of.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"

namespace quilma::sqlite {
namespace {

using testing::error_of;

class CursorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cursor_.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT UNIQUE)");
    cursor_.executemany("INSERT INTO t (name) VALUES (?)", {{"a"}, {"b"}, {"c"}});
  }

  // The statements the connection holds prepared, by text: how often each ran, and whether
  // one is mid-run (which would pin an old snapshot of the file).
  struct Prepared {
    int runs = 0;
    bool busy = false;
    int count = 0;
  };
  Prepared prepared(const std::string& sql) const {
    Prepared found;
    for (sqlite3_stmt* stmt = sqlite3_next_stmt(connection_.handle(), nullptr); stmt != nullptr;
         stmt = sqlite3_next_stmt(connection_.handle(), stmt)) {
      if (sql != sqlite3_sql(stmt)) continue;
      found.runs += sqlite3_stmt_status(stmt, SQLITE_STMTSTATUS_RUN, 0);
      found.busy = found.busy || sqlite3_stmt_busy(stmt) != 0;
      ++found.count;
    }
    return found;
  }

  testing::TempDir dir_;
  Connection connection_{dir_ / "cursor.db"};
  Cursor cursor_ = connection_.cursor();
};

TEST_F(CursorTest, ValuesRoundTripAndRowsAnswerByPositionAndName) {
  const Params sent{INT64_MIN, 2.5, std::string("a\0b", 3), "", Blob{}, Blob{0, 255}, nullptr};
  const Row row = *cursor_.execute("SELECT ?, ?, ?, ?, ?, ?, ? AS Last", sent).fetchone();
  ASSERT_EQ(row.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(row[i], sent[i]) << "column " << i;
  EXPECT_TRUE(row["last"].is_null());
  EXPECT_THROW((void)row[7], std::out_of_range);
  EXPECT_THROW((void)row["missing"], std::out_of_range);
}

TEST_F(CursorTest, RowcountCountsRowsChangedByDataChangingStatementsOnly) {
  const std::pair<const char*, std::int64_t> cases[] = {
      {"UPDATE t SET name = name || 'x' WHERE id > 1", 2},
      {"  -- first a comment\n DELETE FROM t WHERE id = 3", 1},
      {"REPLACE INTO t (id, name) VALUES (1, 'z')", 1},
      {"WITH n(x) AS (VALUES ('d'), ('e')) INSERT INTO t (name) SELECT x FROM n", 2},
      {"SELECT * FROM t", -1},
      {"CREATE TABLE u (x)", -1}};
  for (const auto& [sql, count] : cases) EXPECT_EQ(cursor_.execute(sql).rowcount(), count) << sql;
  EXPECT_EQ(cursor_.executemany("INSERT INTO u VALUES (?)", {{1}, {2}, {3}}).rowcount(), 3);
}

TEST_F(CursorTest, TheCacheReusesStatementsAndHandsThemBackResetAndCleared) {
  const std::string hot = "SELECT name FROM t WHERE name >= ?";
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(cursor_.execute(hot, {"a"}).fetchall().size(), 3U);
    cursor_.execute("SELECT " + std::to_string(i)).fetchall();  // 200 other texts between
  }
  // One statement ran all 200 times: used in between, it was never evicted.
  EXPECT_EQ(prepared(hot).runs, 200);
  EXPECT_FALSE(prepared(hot).busy);
  int total = 0;
  for (sqlite3_stmt* stmt = sqlite3_next_stmt(connection_.handle(), nullptr); stmt != nullptr;
       stmt = sqlite3_next_stmt(connection_.handle(), stmt)) {
    char* expanded = sqlite3_expanded_sql(stmt);  // a bound value would show here
    EXPECT_EQ(std::string(expanded).find("'a'"), std::string::npos) << expanded;
    sqlite3_free(expanded);
    ++total;
  }
  EXPECT_LE(total, 49);  // the cache, and the cursor's statement

  // A statement evicted while its cursor is mid-run stays usable until that cursor is done.
  const std::string held_sql = "SELECT name FROM t ORDER BY id";
  auto held = connection_.cursor();
  EXPECT_EQ(held.execute(held_sql).fetchone().value()[0], Value("a"));
  EXPECT_TRUE(prepared(held_sql).busy);
  for (int i = 0; i < 60; ++i) cursor_.execute("SELECT " + std::to_string(1000 + i));
  EXPECT_EQ(held.fetchall().size(), 2U);
  held.close();
  EXPECT_EQ(prepared(held_sql).count, 0);
}

TEST_F(CursorTest, CursorsOnOneTextNeverShareAStatement) {
  const std::string sql = "SELECT name FROM t ORDER BY id";
  auto first = connection_.cursor();
  auto second = connection_.cursor();
  EXPECT_EQ(first.execute(sql).fetchone().value()[0], Value("a"));
  EXPECT_EQ(second.execute(sql).fetchone().value()[0], Value("a"));
  EXPECT_EQ(first.fetchone().value()[0], Value("b"));
  EXPECT_EQ(second.fetchall().size(), 2U);
  EXPECT_EQ(connection_.cursor().executemany(sql, {}).rowcount(), -1);  // a third, done at once
  EXPECT_EQ(first.fetchall().size(), 1U);
  EXPECT_EQ(prepared(sql).count, 1);  // the private copies are gone
}

TEST_F(CursorTest, FetchallStepsAStatementUntilItIsDone) {
  // incremental_vacuum releases one page per step: fetching every row must release them all.
  Connection fresh(dir_ / "vacuum.db");
  auto cursor = fresh.cursor();
  cursor.execute("PRAGMA auto_vacuum=INCREMENTAL");
  cursor.execute("CREATE TABLE big (b BLOB)");
  cursor.execute(
      "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 200) "
      "INSERT INTO big SELECT zeroblob(4000) FROM n");
  cursor.execute("DELETE FROM big");
  const auto free_pages = [&] {
    return cursor.execute("PRAGMA freelist_count").fetchone().value()[0].as_int();
  };
  const std::int64_t before = free_pages();
  ASSERT_GE(before, 150);
  cursor.execute("PRAGMA incremental_vacuum(100)").fetchall();
  EXPECT_EQ(free_pages(), before - 100);
}

TEST_F(CursorTest, BadStatementsRaiseTheirKindWithSqlitesMessage) {
  EXPECT_EQ(error_of<OperationalError>([&] { cursor_.execute("SELEC 1"); }),
            "near \"SELEC\": syntax error");
  try {
    cursor_.execute("INSERT INTO t (name) VALUES ('a')");
    FAIL() << "inserted a duplicate";
  } catch (const IntegrityError& error) {
    EXPECT_EQ(error.extended_code(), SQLITE_CONSTRAINT_UNIQUE);
    EXPECT_STREQ(error.what(), "UNIQUE constraint failed: t.name");
  }
  EXPECT_EQ(error_of<ProgrammingError>([&] { cursor_.execute("SELECT ?, ?", {1}); }),
            "Incorrect number of bindings supplied. The current statement uses 2, and there are "
            "1 supplied.");
  EXPECT_EQ(error_of<ProgrammingError>([&] { cursor_.execute("SELECT 1; SELECT 2"); }),
            "You can only execute one statement at a time.");
  EXPECT_THROW(cursor_.executemany("SELECT ?", {{1}}), ProgrammingError);
  // Trailing semicolons and comments are no second statement; empty text runs nothing.
  EXPECT_EQ(cursor_.execute("SELECT 1; -- done\n ;").fetchone().value()[0], Value(1));
  EXPECT_FALSE(cursor_.execute("  /* nothing */").fetchone());
  for (const char* sql : {"SELECT * FROM t", "INSERT INTO t (name) VALUES (?)"}) {
    EXPECT_FALSE(prepared(sql).busy) << sql;  // no failure left a statement mid-run
  }
}

TEST_F(CursorTest, ClosedCursorsAndConnectionsRefuseWorkWithoutCrashing) {
  auto live = connection_.cursor();
  live.execute("SELECT name FROM t");
  auto detached = connection_.cursor();
  detached.execute("SELECT name FROM t ORDER BY id").detach();
  cursor_.close();
  cursor_.close();
  EXPECT_EQ(error_of<ProgrammingError>([&] { cursor_.fetchone(); }),
            "Cannot operate on a closed cursor.");

  connection_.close();  // finalizes the statement `live` still holds
  EXPECT_EQ(error_of<ProgrammingError>([&] { live.fetchone(); }),
            "Cannot operate on a closed database.");
  EXPECT_THROW(connection_.cursor(), ProgrammingError);
  // A result read ahead outlives its connection, and cannot run anything new.
  EXPECT_EQ(detached.fetchall().size(), 3U);
  EXPECT_THROW(detached.execute("SELECT 1"), ProgrammingError);
}

}  // namespace
}  // namespace quilma::sqlite
