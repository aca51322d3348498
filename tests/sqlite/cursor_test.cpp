// The SQLite binding: values, connections, cursors and the statement cache behind them.
#include "quilma/sqlite/cursor.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/error_of.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"
#include "quilma/sqlite/value.h"

namespace quilma::sqlite {
namespace {

using testing::error_of;

class CursorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cursor_.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT UNIQUE)");
    cursor_.executemany("INSERT INTO t (name) VALUES (?)", {{"a"}, {"b"}, {"c"}});
  }
  // The prepared statements with text `sql` (all when empty): how many, how many are mid-run
  // (which would pin an old snapshot of the file), how often they ran.
  static std::array<int, 3> prepared(const Connection& connection, const std::string& sql = {}) {
    std::array<int, 3> found{};
    for (sqlite3_stmt* stmt = nullptr; (stmt = sqlite3_next_stmt(connection.handle(), stmt));) {
      if (!sql.empty() && sql != sqlite3_sql(stmt)) continue;
      found = {found[0] + 1, found[1] + sqlite3_stmt_busy(stmt),
               found[2] + sqlite3_stmt_status(stmt, SQLITE_STMTSTATUS_RUN, 0)};
    }
    return found;
  }

  testing::TempDir dir_;
  Connection connection_{dir_ / "cursor.db"};
  Cursor cursor_ = connection_.cursor();
};

TEST_F(CursorTest, CachedStatementsValuesRowsMovesAndRefusalsOfBadStatementsAndClosedObjects) {
  const std::string hot = "SELECT name FROM t WHERE name >= ?";
  for (int i = 0; i < 100; ++i) {  // 100 other texts between
    ASSERT_EQ(cursor_.execute(hot, {"a"}).fetchall().size(), 3U);
    cursor_.execute("SELECT " + std::to_string(i));
  }
  EXPECT_EQ(prepared(connection_, hot), (std::array{1, 0, 100}));  // never evicted in use
  EXPECT_LE(prepared(connection_)[0], 49);  // the cache, and the cursor's statement
  // With the cache full, each new text evicts the oldest, which is asked for again at once.
  Connection fresh(dir_ / "cursor.db");
  Cursor other = fresh.cursor();
  for (int i = 0; i < 68; ++i) {
    other.execute("SELECT " + std::to_string(i));
    if (const int again = 2 * (i - 48); again >= 0) {
      EXPECT_EQ(other.execute("SELECT " + std::to_string(again)).fetchone()->values()[0], again);
    }
  }
  // Whichever way a cursor lets go (another statement, close, assignment, destruction), its
  // statement is no longer mid-run; a statement evicted mid-run lives until its cursor is done.
  const std::string sql = "SELECT name FROM t ORDER BY id";
  for (int way = 0; way < 5; ++way) {
    std::optional<Cursor> cursor = connection_.cursor();
    if (way < 4) cursor_.execute(sql).fetchone();  // the cursor gets a private copy
    EXPECT_EQ(cursor->execute(sql).fetchone().value()[0], Value("a"));
    cursor_.execute("SELECT 1");
    if (way == 0) cursor->execute("SELECT 1");
    if (way == 1) cursor->close();
    if (way == 2) cursor = connection_.cursor();
    if (way == 3) cursor.reset();
    if (way == 4) {  // evicted while mid-run: it lives until its cursor is done
      for (int i = 0; i < 60; ++i) cursor_.execute("SELECT " + std::to_string(1000 + i));
      EXPECT_EQ(cursor->fetchall().size(), 2U);
      cursor.reset();
    }
    const auto found = prepared(connection_, sql);  // none mid-run, the private copy gone
    EXPECT_EQ(std::pair(found[0], found[1]), std::pair(way == 4 ? 0 : 1, 0)) << way;
  }

  // A version recorded as a number must read back as it was written.
  for (const char* text : {"2.0", "-0.0", "0.30000000000000004", "1000000000000000.0", "1.5e+16",
                           "0.0001", "-1e-05", "1e+100"})
    EXPECT_EQ(Value(std::stod(text)).as_text(), text);
  EXPECT_EQ(Value(-0x1p63).as_int(), INT64_MIN);
  EXPECT_THROW((void)Value("12").as_int(), ProgrammingError);
  EXPECT_THROW(Value(std::uint64_t{1} << 63), ProgrammingError);  // not wrapped to negative
  EXPECT_NE(Value(1), Value(1.0));  // equal by type and value, as SQLite compares
  const Params sent{nullptr, INT64_MIN, 2.5, std::string("a\0b", 3), "", Blob{}, Blob{0, 255}};
  cursor_.execute("SELECT ?, ?, ?, ?, ?, ?, ? AS Last UNION ALL SELECT 1, 2, 3, 4, 5, 6, 7", sent);
  Cursor& same = cursor_;  // a cursor moved, also onto itself, keeps its place
  cursor_ = std::move(same);
  const Row row = *cursor_.fetchone();
  Cursor moved = connection_.cursor();
  moved = std::move(cursor_);  // the moved-from cursor is closed
  EXPECT_EQ(moved.fetchall().size(), 1U);
  EXPECT_THROW(cursor_.fetchone(), ProgrammingError);
  cursor_ = connection_.cursor();
  EXPECT_EQ(row.values(), sent);
  EXPECT_EQ(row["last"], sent.back());
  EXPECT_THROW((void)row[7], std::out_of_range);
  EXPECT_THROW((void)row["missing"], std::out_of_range);
  const std::pair<const char*, std::int64_t> changes[] = {
      {"UPDATE t SET name = name || 'x' WHERE id > 1", 2},
      {"-- a comment\nDELETE FROM t WHERE id = 3", 1},
      {"/* a comment */DELETE FROM t WHERE id = 2", 1},
      {"\f\r REPLACE INTO t (id, name) VALUES (1, 'z')", 1},
      {"WITH n(x) AS (VALUES ('d'), ('e')) INSERT INTO t (name) SELECT x FROM n", 2},
      {"WITH n(x) AS (VALUES (1)) SELECT x FROM n", -1},
      {"CREATE TABLE u (x)", -1}};
  for (const auto& [sql, count] : changes) EXPECT_EQ(cursor_.execute(sql).rowcount(), count) << sql;
  EXPECT_EQ(cursor_.executemany("INSERT INTO u VALUES (?)", {{1}, {2}, {3}}).rowcount(), 3);
  EXPECT_THROW(cursor_.execute("SELEC 1"), OperationalError);
  EXPECT_THROW(cursor_.execute("INSERT INTO t (name) VALUES ('z')"), IntegrityError);
  EXPECT_THROW(cursor_.execute("SELECT ?, ?", {1}), ProgrammingError);
  EXPECT_THROW(cursor_.executemany("SELECT ?", {{1}}), ProgrammingError);
  for (const char* two : {"SELECT 1; SELECT 2", "SELECT 1;/**/x", "SELECT 1;--\nx"})
    EXPECT_EQ(error_of<ProgrammingError>([&] { cursor_.execute(two); }),
              "You can only execute one statement at a time.");
  // Trailing semicolons and comments are no second statement; empty text runs nothing.
  EXPECT_EQ(cursor_.execute("SELECT 1; -- done\n ;/**/").fetchone().value()[0], Value(1));
  EXPECT_FALSE(cursor_.execute("  /* nothing */").fetchone());
  EXPECT_EQ(prepared(connection_)[1], 0);
  // Closing finalizes every statement, and closed objects refuse work.
  Cursor live = connection_.cursor();
  live.execute("SELECT name FROM t");  // stands on its first row
  cursor_.close();
  EXPECT_EQ(error_of<ProgrammingError>([&] { cursor_.fetchone(); }),
            "Cannot operate on a closed cursor.");
  connection_.close();
  EXPECT_EQ(connection_.handle(), nullptr);
  EXPECT_EQ(error_of<ProgrammingError>([&] { live.fetchone(); }),
            "Cannot operate on a closed database.");
  EXPECT_THROW(connection_.cursor(), ProgrammingError);
}

}  // namespace
}  // namespace quilma::sqlite
