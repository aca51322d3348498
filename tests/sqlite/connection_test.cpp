#include "quilma/sqlite/connection.h"

#include <chrono>
#include <fstream>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/error_of.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"

namespace quilma::sqlite {
namespace {

using testing::error_of;

TEST(ConnectionTest, OpenAndAccessFailuresRaiseSqlitesErrors) {
  testing::TempDir dir;
  EXPECT_EQ(error_of<OperationalError>([&] { Connection(dir / "missing" / "x.db"); }),
            "unable to open database file");
  EXPECT_THROW(Connection(dir / "absent.db", {.read_only = true}), OperationalError);
  std::ofstream(dir / "text.db") << "this is not a database, just some text that is long enough";
  Connection text(dir / "text.db");
  EXPECT_EQ(error_of<DatabaseError>([&] { text.cursor().execute("SELECT * FROM sqlite_master"); }),
            "file is not a database");

  Connection writer(dir / "x.db");
  writer.cursor().execute("CREATE TABLE t (x)");
  Connection reader(dir / "x.db", {.read_only = true});
  EXPECT_EQ(
      error_of<OperationalError>([&] { reader.cursor().execute("INSERT INTO t VALUES (1)"); }),
      "attempt to write a readonly database");
}

TEST(ConnectionTest, BusyTimeoutBoundsTheWaitForAnotherWriter) {
  testing::TempDir dir;
  Connection holder(dir / "x.db");
  auto hold = holder.cursor();
  hold.execute("CREATE TABLE t (x)");
  hold.execute("BEGIN IMMEDIATE");
  Connection other(dir / "x.db", {.busy_timeout = std::chrono::milliseconds(100)});
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(error_of<OperationalError>([&] { other.cursor().execute("INSERT INTO t VALUES (1)"); }),
            "database is locked");
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(90));
}

TEST(ConnectionTest, CloseFinalizesEveryStatementEvenWhenSqliteRefuses) {
  testing::TempDir dir;
  Connection connection(dir / "x.db");
  auto cursor = connection.cursor();
  cursor.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, b BLOB)");
  cursor.executemany("INSERT INTO t (b) VALUES (?)", {{Blob{1}}, {Blob{2}}});
  cursor.execute("SELECT id FROM t");  // stands on its first row
  Connection clean(dir / "x.db");
  clean.cursor().execute("SELECT id FROM t");
  clean.close();  // sqlite3_close itself fails while any statement is unfinalized
  EXPECT_EQ(clean.handle(), nullptr);
  clean.close();

  sqlite3_blob* blob = nullptr;  // opened behind the binding's back
  ASSERT_EQ(sqlite3_blob_open(connection.handle(), "main", "t", "b", 1, 0, &blob), SQLITE_OK);
  EXPECT_EQ(error_of<OperationalError>([&] { connection.close(); }),
            "unable to close due to unfinalized statements or unfinished backups");
  EXPECT_EQ(connection.handle(), nullptr);  // closed all the same, nothing half-open
  EXPECT_THROW(cursor.fetchone(), ProgrammingError);
  sqlite3_blob_close(blob);  // SQLite frees the handle now; the leak checker would see it
}

}  // namespace
}  // namespace quilma::sqlite
