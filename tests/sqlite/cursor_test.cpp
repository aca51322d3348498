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

  // The prepared statements with text `sql`: how many, how often they ran, whether one is
  // mid-run (which would pin an old snapshot of the file).
  struct Prepared {
    int count = 0, runs = 0;
    bool busy = false;
  };
  Prepared prepared(const std::string& sql) const {
    Prepared found;
    for (sqlite3_stmt* stmt = sqlite3_next_stmt(connection_.handle(), nullptr); stmt != nullptr;
         stmt = sqlite3_next_stmt(connection_.handle(), stmt)) {
      if (sql != sqlite3_sql(stmt)) continue;
      ++found.count;
      found.runs += sqlite3_stmt_status(stmt, SQLITE_STMTSTATUS_RUN, 0);
      found.busy = found.busy || sqlite3_stmt_busy(stmt) != 0;
    }
    return found;
  }
  Value first(const std::string& sql) { return cursor_.execute(sql).fetchone().value()[0]; }

  testing::TempDir dir_;
  Connection connection_{dir_ / "cursor.db"};
  Cursor cursor_ = connection_.cursor();
};

TEST_F(CursorTest, ValuesRoundTripAndRowsAnswerByPositionAndName) {
  const Params sent{nullptr, INT64_MIN, 2.5, std::string("a\0b", 3), "", Blob{}, Blob{0, 255}};
  const Row row = *cursor_.execute("SELECT ?, ?, ?, ?, ?, ?, ? AS Last", sent).fetchone();
  ASSERT_EQ(row.values(), sent);
  EXPECT_EQ(row["last"], sent.back());
  EXPECT_THROW((void)row[7], std::out_of_range);
  EXPECT_THROW((void)row["missing"], std::out_of_range);
}

TEST_F(CursorTest, RowcountCountsRowsChangedByDataChangingStatementsOnly) {
  const std::pair<const char*, std::int64_t> cases[] = {
      {"UPDATE t SET name = name || 'x' WHERE id > 1", 2},
      {"-- a comment\nDELETE FROM t WHERE id = 3", 1},
      {"/* a comment */DELETE FROM t WHERE id = 2", 1},
      {"\f REPLACE INTO t (id, name) VALUES (1, 'z')", 1},
      {"WITH n(x) AS (VALUES ('d'), ('e')) INSERT INTO t (name) SELECT x FROM n", 2},
      {"WITH n(x) AS (VALUES (1)) SELECT x FROM n", -1},
      {"SELECT * FROM t", -1},
      {"CREATE TABLE u (x)", -1}};
  for (const auto& [sql, count] : cases) EXPECT_EQ(cursor_.execute(sql).rowcount(), count) << sql;
  EXPECT_EQ(cursor_.executemany("INSERT INTO u VALUES (?)", {{1}, {2}, {3}}).rowcount(), 3);
}

TEST_F(CursorTest, StatementsGoBackToTheCacheResetAndAreReused) {
  const std::string hot = "SELECT name FROM t WHERE name >= ?";
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(cursor_.execute(hot, {"a"}).fetchall().size(), 3U);
    cursor_.execute("SELECT " + std::to_string(i)).fetchall();  // 100 other texts between
  }
  EXPECT_EQ(prepared(hot).runs, 100);  // one statement, never evicted while in use
  int total = 0;
  for (sqlite3_stmt* stmt = sqlite3_next_stmt(connection_.handle(), nullptr); stmt != nullptr;
       stmt = sqlite3_next_stmt(connection_.handle(), stmt), ++total) {
    char* expanded = sqlite3_expanded_sql(stmt);  // a bound value left behind would show here
    EXPECT_EQ(std::string(expanded).find("'a'"), std::string::npos) << expanded;
    sqlite3_free(expanded);
  }
  EXPECT_LE(total, 49);  // the cache, and the cursor's statement

  // With the cache full of "SELECT 0".."SELECT 47", each new text evicts the oldest, which is
  // asked for again at once: a fresh statement each time.
  Connection fresh(dir_ / "cache.db");
  Cursor filler = fresh.cursor();
  const auto text = [](int n) { return "SELECT " + std::to_string(n); };
  for (int i = 0; i < 48; ++i) filler.execute(text(i));
  for (int i = 0; i < 20; ++i) {
    filler.execute(text(48 + i));
    EXPECT_EQ(filler.execute(text(2 * i)).fetchone().value()[0], Value(2 * i));
  }
  filler.execute("SELECT 'done'");
  int cached = 0;  // each text asked for again is cached again
  for (sqlite3_stmt* stmt = sqlite3_next_stmt(fresh.handle(), nullptr); stmt != nullptr;
       stmt = sqlite3_next_stmt(fresh.handle(), stmt)) {
    for (int i = 0; i < 20; ++i) cached += text(2 * i) == sqlite3_sql(stmt) ? 1 : 0;
  }
  EXPECT_EQ(cached, 20);

  // Cursors on one text never share a statement; whichever way a cursor lets go (its rows
  // read, another statement, close, assignment, destruction), its statement is no longer busy.
  const std::string sql = "SELECT name FROM t ORDER BY id";
  Cursor one = connection_.cursor();
  Cursor two = connection_.cursor();
  EXPECT_EQ(one.execute(sql).fetchone().value()[0], Value("a"));
  EXPECT_EQ(two.execute(sql).fetchone().value()[0], Value("a"));
  EXPECT_EQ(one.fetchone().value()[0], Value("b"));
  EXPECT_EQ(two.fetchall().size(), 2U);
  one = connection_.cursor();
  EXPECT_FALSE(prepared(sql).busy);
  EXPECT_EQ(prepared(sql).count, 1);  // the private copy is gone
  for (int way = 0; way < 3; ++way) {
    Cursor cursor = connection_.cursor();
    cursor.execute(sql).fetchone();
    if (way == 0) cursor.execute("SELECT 1");
    if (way == 1) cursor.close();
    if (way == 2) cursor = std::move(two);
    EXPECT_FALSE(prepared(sql).busy) << way;
  }
  { connection_.cursor().execute(sql); }
  EXPECT_FALSE(prepared(sql).busy);

  // A statement evicted while its cursor is mid-run stays usable until that cursor is done.
  Cursor held = connection_.cursor();
  held.execute(sql).fetchone();
  for (int i = 0; i < 60; ++i) cursor_.execute("SELECT " + std::to_string(1000 + i));
  EXPECT_EQ(held.fetchall().size(), 2U);
  held.close();
  EXPECT_EQ(prepared(sql).count, 0);
}

TEST_F(CursorTest, AMovedCursorKeepsItsPlaceAlsoWhenMovedOntoItself) {
  cursor_.execute("SELECT name FROM t ORDER BY id").fetchone();
  Cursor& same = cursor_;
  cursor_ = std::move(same);
  EXPECT_EQ(cursor_.fetchone().value()[0], Value("b"));
  Cursor moved(std::move(cursor_));
  EXPECT_EQ(moved.fetchone().value()[0], Value("c"));
  EXPECT_THROW(cursor_.fetchone(), ProgrammingError);
}

TEST_F(CursorTest, FetchallStepsAStatementUntilItIsDone) {
  // incremental_vacuum releases one page per step: fetching every row must release them all.
  Connection fresh(dir_ / "vacuum.db");
  auto cursor = fresh.cursor();
  cursor.execute("PRAGMA auto_vacuum=INCREMENTAL");
  cursor.execute("CREATE TABLE big (b BLOB)");
  cursor.execute("INSERT INTO big VALUES (zeroblob(800000))");
  cursor.execute("DELETE FROM big");
  const auto free_pages = [&] {
    return cursor.execute("PRAGMA freelist_count").fetchone().value()[0].as_int();
  };
  const std::int64_t before = free_pages();
  ASSERT_GE(before, 150);
  cursor.execute("PRAGMA incremental_vacuum(100)").fetchall();
  EXPECT_EQ(free_pages(), before - 100);
}

TEST_F(CursorTest, BadStatementsRaiseTheirKindAndLeaveNothingMidRun) {
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
  for (const char* two : {"SELECT 1; SELECT 2", "SELECT 1;/**/x", "SELECT 1;--\nx"}) {
    EXPECT_EQ(error_of<ProgrammingError>([&] { cursor_.execute(two); }),
              "You can only execute one statement at a time.")
        << two;
  }
  EXPECT_THROW(cursor_.executemany("SELECT ?", {{1}}), ProgrammingError);
  // Trailing semicolons and comments are no second statement; empty text runs nothing.
  EXPECT_EQ(first("SELECT 1; -- done\n ;/**/"), Value(1));
  EXPECT_FALSE(cursor_.execute("  /* nothing */").fetchone());
  for (const char* sql : {"SELECT * FROM t", "INSERT INTO t (name) VALUES (?)"}) {
    EXPECT_FALSE(prepared(sql).busy) << sql;
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
