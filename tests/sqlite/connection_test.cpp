#include "quilma/sqlite/connection.h"

#include <chrono>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"

namespace quilma::sqlite {
namespace {

using ::testing::HasSubstr;

template <class Kind>
bool raises_kind(int code) {
  try {
    raise_error(code, "message");
  } catch (const Kind& error) {
    return error.extended_code() == code && std::string(error.what()) == "message";
  } catch (const Error&) {
    return false;
  }
}

TEST(ErrorTest, ResultCodesMapToTheirKinds) {
  for (int code : {SQLITE_ERROR, SQLITE_BUSY, SQLITE_LOCKED, SQLITE_READONLY, SQLITE_IOERR_WRITE,
                   SQLITE_FULL, SQLITE_CANTOPEN, SQLITE_SCHEMA, SQLITE_BUSY_SNAPSHOT}) {
    EXPECT_TRUE(raises_kind<OperationalError>(code)) << code;
  }
  for (int code : {SQLITE_CONSTRAINT_FOREIGNKEY, SQLITE_MISMATCH}) {
    EXPECT_TRUE(raises_kind<IntegrityError>(code)) << code;
  }
  for (int code : {SQLITE_MISUSE, SQLITE_RANGE}) {
    EXPECT_TRUE(raises_kind<ProgrammingError>(code)) << code;
  }
  EXPECT_TRUE(raises_kind<InternalError>(SQLITE_INTERNAL));
  EXPECT_TRUE(raises_kind<DataError>(SQLITE_TOOBIG));
  for (int code : {SQLITE_CORRUPT, SQLITE_NOTADB}) {
    EXPECT_TRUE(raises_kind<DatabaseError>(code) && !raises_kind<OperationalError>(code)) << code;
  }
}

TEST(ConnectionTest, OpeningFailuresRaiseOperationalErrors) {
  testing::TempDir dir;
  try {
    Connection connection(dir / "missing" / "x.db");
    FAIL() << "opened";
  } catch (const OperationalError& error) {
    EXPECT_EQ(error.code(), SQLITE_CANTOPEN);
    EXPECT_STREQ(error.what(), "unable to open database file");
  }
  EXPECT_THROW(Connection(dir / "absent.db", {.read_only = true}), OperationalError);

  std::ofstream(dir / "text.db") << "this is not a database, just some text that is long enough";
  Connection text(dir / "text.db");
  try {
    text.cursor().execute("SELECT * FROM sqlite_master");
    FAIL() << "read a text file";
  } catch (const DatabaseError& error) {
    EXPECT_EQ(error.code(), SQLITE_NOTADB);
    EXPECT_STREQ(error.what(), "file is not a database");
  }
}

TEST(ConnectionTest, ReadOnlyConnectionsRefuseWrites) {
  testing::TempDir dir;
  Connection writer(dir / "x.db");
  writer.cursor().execute("CREATE TABLE t (x)");
  Connection reader(dir / "x.db", {.read_only = true});
  try {
    reader.cursor().execute("INSERT INTO t VALUES (1)");
    FAIL() << "wrote";
  } catch (const OperationalError& error) {
    EXPECT_THAT(error.what(), HasSubstr("readonly database"));
  }
  EXPECT_FALSE(reader.cursor().execute("SELECT * FROM t").fetchone());
}

TEST(ConnectionTest, BusyTimeoutBoundsTheWaitForAnotherWriter) {
  testing::TempDir dir;
  Connection holder(dir / "x.db");
  auto hold = holder.cursor();
  hold.execute("CREATE TABLE t (x)");
  hold.execute("BEGIN IMMEDIATE");
  Connection other(dir / "x.db", {.busy_timeout = std::chrono::milliseconds(100)});
  const auto started = std::chrono::steady_clock::now();
  try {
    other.cursor().execute("INSERT INTO t VALUES (1)");
    FAIL() << "wrote under another writer's lock";
  } catch (const OperationalError& error) {
    EXPECT_EQ(error.code(), SQLITE_BUSY);
    EXPECT_STREQ(error.what(), "database is locked");
  }
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(90));
  hold.execute("COMMIT");
  // Not bound to the opening thread: another thread may use it (one at a time).
  std::thread([&] { other.cursor().execute("INSERT INTO t VALUES (2)"); }).join();
  EXPECT_EQ(holder.cursor().execute("SELECT x FROM t").fetchone().value()[0], Value(2));
}

TEST(ConnectionTest, CloseFinalizesEveryStatementAndIsIdempotent) {
  testing::TempDir dir;
  Connection connection(dir / "x.db");
  auto cursor = connection.cursor();
  cursor.execute("CREATE TABLE t (x)");
  cursor.executemany("INSERT INTO t VALUES (?)", {{1}, {2}});
  cursor.execute("SELECT x FROM t");  // left mid-run
  auto other = connection.cursor();
  for (int i = 0; i < 5; ++i) other.execute("SELECT " + std::to_string(i));
  connection.close();  // sqlite3_close would fail with SQLITE_BUSY on any unfinalized one
  EXPECT_EQ(connection.handle(), nullptr);
  connection.close();
  Connection moved = std::move(connection);
  EXPECT_EQ(moved.handle(), nullptr);
}

TEST(ConnectionTest, AFailedCloseStillClosesAndLeavesNoHalfOpenCursor) {
  testing::TempDir dir;
  Connection connection(dir / "x.db");
  auto cursor = connection.cursor();
  cursor.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, b BLOB)");
  cursor.executemany("INSERT INTO t (b) VALUES (?)", {{Blob{1}}, {Blob{2}}});
  cursor.execute("SELECT id FROM t");  // stands on its first row
  sqlite3_blob* blob = nullptr;        // opened behind the binding's back
  ASSERT_EQ(sqlite3_blob_open(connection.handle(), "main", "t", "b", 1, 0, &blob), SQLITE_OK);
  try {
    connection.close();
    FAIL() << "closed under an open blob";
  } catch (const OperationalError& error) {
    EXPECT_EQ(error.code(), SQLITE_BUSY);
  }
  EXPECT_EQ(connection.handle(), nullptr);
  EXPECT_THROW(cursor.fetchone(), ProgrammingError);
  EXPECT_THROW(connection.cursor(), ProgrammingError);
  sqlite3_blob_close(blob);  // SQLite frees the handle now; the leak checker would see it
}

}  // namespace
}  // namespace quilma::sqlite
