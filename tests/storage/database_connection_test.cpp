#include <chrono>
#include <future>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/database_test_peer.h"
#include "support/log_capture.h"
#include "support/statement_trace.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"

namespace quilma::storage {
namespace {

using ::testing::HasSubstr;
using Peer = DatabaseTestPeer;
using namespace std::chrono_literals;

// Whether an operation that must block is still blocked after a pause long enough for an
// unblocked one to finish. Never fails spuriously: a correct operation cannot finish at all.
template <class T>
bool still_blocked(std::future<T>& pending) {
  return pending.wait_for(200ms) == std::future_status::timeout;
}

template <class Call>
std::string runtime_error_of(Call&& call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "(no error)";
}

struct MarkedError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class DatabaseTest : public ::testing::Test {
 protected:
  void open() {
    db_.connect();
    db_.execute("CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, v TEXT)");
  }
  std::int64_t rows() { return Peer::count(db_, "SELECT COUNT(*) FROM t"); }

  testing::ScopedEnv readers_env_{"QUILMA_DB_READERS", nullptr};
  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "repo" / "memory" / "codebase-index" / "index.db";
  Database db_{path_};
};

TEST(ReaderCountTest, ParsesTheEnvironmentAndClamps) {
  const std::pair<const char*, int> cases[] = {{nullptr, 6},
                                               {"", 6},
                                               {"   ", 6},
                                               {"4", 4},
                                               {" 4 ", 4},
                                               {"+4", 4},
                                               {"32", 32},
                                               {"100", 32},
                                               {"0", 0},
                                               {"-3", 0},
                                               {"-0", 0},
                                               {"4.5", 6},
                                               {"abc", 6},
                                               {"4 readers", 6},
                                               {"- 4", 6},
                                               {"99999999999999999999999", 32},
                                               {"-99999999999999999999999", 0}};
  for (const auto& [value, expected] : cases) {
    testing::ScopedEnv env("QUILMA_DB_READERS", value);
    EXPECT_EQ(reader_count(), expected) << (value != nullptr ? value : "(unset)");
  }
}

TEST(ReadStatementTest, OnlyPlainReadsAndTheGenerationReadQualify) {
  for (const char* sql :
       {"SELECT 1", "  \n\tselect 1", "with x AS (SELECT 1) SELECT * FROM x", "PRAGMA user_version",
        " pragma USER_VERSION ; ", "PRAGMA user_version;;"}) {
    EXPECT_TRUE(detail::is_read_statement(sql)) << sql;
  }
  for (const char* sql : {"PRAGMA user_version = 3", "PRAGMA integrity_check",
                          "PRAGMA journal_mode", "INSERT INTO t VALUES (1)", "", "   ", "SELEC 1",
                          "EXPLAIN SELECT 1", "PRAGMA user_version; ;"}) {
    EXPECT_FALSE(detail::is_read_statement(sql)) << sql;
  }
  EXPECT_TRUE(detail::reader_cannot_serve(
      sqlite::OperationalError(SQLITE_READONLY, "attempt to write a READONLY DATABASE")));
  EXPECT_TRUE(detail::reader_cannot_serve(
      sqlite::OperationalError(SQLITE_CANTOPEN, "Unable to open database file")));
  EXPECT_FALSE(
      detail::reader_cannot_serve(sqlite::OperationalError(SQLITE_ERROR, "no such table: t")));
}

TEST_F(DatabaseTest, ConnectCreatesTheDirectoryAndSetsUpTheWriter) {
  open();
  EXPECT_TRUE(std::filesystem::exists(path_));
  auto pragma = [&](const char* name) {
    return db_.execute(std::string("PRAGMA ") + name).fetchone().value()[0];
  };
  EXPECT_EQ(pragma("journal_mode"), sqlite::Value("wal"));
  EXPECT_EQ(pragma("foreign_keys"), sqlite::Value(1));
  EXPECT_EQ(pragma("synchronous"), sqlite::Value(1));
  EXPECT_EQ(pragma("page_size"), sqlite::Value(8192));
  EXPECT_EQ(pragma("auto_vacuum"), sqlite::Value(2));
  // The path functions are there on the writer and on the read connections alike.
  EXPECT_EQ(db_.execute("SELECT path_under('a/b', 'a')").fetchone().value()[0], sqlite::Value(1));
  EXPECT_EQ(db_.fetchone("SELECT path_glob('**/b', 'a/b')").value()[0], sqlite::Value(1));
  EXPECT_NE(Peer::readers(db_), nullptr);
}

TEST_F(DatabaseTest, AnExistingFileKeepsItsPageSizeAndVacuumMode) {
  std::filesystem::create_directories(path_.parent_path());
  {
    sqlite::Connection old(path_);
    auto cursor = old.cursor();
    cursor.execute("PRAGMA page_size=4096");
    cursor.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT)");
  }
  open();
  EXPECT_EQ(db_.execute("PRAGMA page_size").fetchone().value()[0], sqlite::Value(4096));
  EXPECT_EQ(db_.execute("PRAGMA auto_vacuum").fetchone().value()[0], sqlite::Value(0));
}

TEST_F(DatabaseTest, LifecycleStatesAndTheirMessages) {
  const std::string not_connected = "Database not connected. Call connect() first.";
  EXPECT_EQ(runtime_error_of([&] { db_.connection(); }), not_connected);
  EXPECT_EQ(runtime_error_of([&] { db_.execute("SELECT 1"); }), not_connected);
  EXPECT_EQ(runtime_error_of([&] { db_.executemany("SELECT 1", {}); }), not_connected);
  EXPECT_EQ(runtime_error_of([&] { db_.transaction([](sqlite::Cursor&) {}); }), not_connected);
  EXPECT_EQ(runtime_error_of([&] { db_.fetchone("SELECT 1"); }), not_connected);
  db_.close();
  EXPECT_FALSE(db_.closed());

  open();
  EXPECT_FALSE(db_.closed());
  db_.close();
  EXPECT_TRUE(db_.closed());
  db_.close();
  const std::string closed = "Database is closed.";
  EXPECT_EQ(runtime_error_of([&] { db_.connection(); }), closed);
  EXPECT_EQ(runtime_error_of([&] { db_.execute("SELECT 1"); }), closed);
  EXPECT_EQ(runtime_error_of([&] { db_.executemany("SELECT 1", {}); }), closed);
  EXPECT_EQ(runtime_error_of([&] { db_.transaction([](sqlite::Cursor&) {}); }), closed);
  // A query finds the closed pool unable to lease, then the writer closed.
  EXPECT_EQ(runtime_error_of([&] { db_.fetchone("SELECT 1"); }), closed);
  EXPECT_EQ(runtime_error_of([&] { db_.fetchall("SELECT 1"); }), closed);

  open();
  EXPECT_FALSE(db_.closed());
  EXPECT_NE(db_.connection().handle(), nullptr);
  EXPECT_EQ(db_.fetchone("SELECT 7").value()[0], sqlite::Value(7));
}

TEST_F(DatabaseTest, NoPoolWithoutReadersOrOutsideWal) {
  {
    testing::ScopedEnv none("QUILMA_DB_READERS", "0");
    open();
    EXPECT_EQ(Peer::readers(db_), nullptr);
    db_.execute("INSERT INTO t (v) VALUES ('x')");
    EXPECT_EQ(rows(), 1);  // every query runs on the writer
  }
  Database memory(":memory:");
  memory.connect();
  EXPECT_EQ(Peer::readers(memory), nullptr);
  EXPECT_EQ(memory.fetchone("SELECT 1").value()[0], sqlite::Value(1));
}

TEST_F(DatabaseTest, NestedLevelsSendOneBeginAndOneCommit) {
  open();
  testing::StatementTrace trace(db_.connection().handle());
  std::vector<int> depths;
  const int result = db_.transaction([&](sqlite::Cursor& outer) {
    depths.push_back(Peer::tx_depth(db_));
    outer.execute("INSERT INTO t (v) VALUES ('a')");
    return db_.transaction([&](sqlite::Cursor&) {
      depths.push_back(Peer::tx_depth(db_));
      return db_.transaction([&](sqlite::Cursor& inner) {
        depths.push_back(Peer::tx_depth(db_));
        inner.execute("INSERT INTO t (v) VALUES ('b')");
        return 42;
      });
    });
  });
  EXPECT_EQ(result, 42);
  EXPECT_EQ(depths, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(Peer::tx_depth(db_), 0);
  EXPECT_EQ(Peer::tx_owner(db_), std::thread::id());
  EXPECT_EQ(trace.count("BEGIN"), 1);
  EXPECT_EQ(trace.count("COMMIT"), 1);
  EXPECT_EQ(trace.count("ROLLBACK"), 0);
  EXPECT_EQ(rows(), 2);
}

TEST_F(DatabaseTest, AnErrorFromTheBodyRollsBackAndArrivesUnchanged) {
  open();
  try {
    db_.transaction([&](sqlite::Cursor& cursor) {
      cursor.execute("INSERT INTO t (v) VALUES ('a')");
      db_.execute("INSERT INTO t (v) VALUES ('through execute')");  // joins the transaction
      throw MarkedError("body failed");
    });
    FAIL() << "no error";
  } catch (const MarkedError& error) {
    EXPECT_STREQ(error.what(), "body failed");
  }
  EXPECT_EQ(rows(), 0);
  EXPECT_EQ(Peer::tx_depth(db_), 0);
  EXPECT_EQ(Peer::tx_owner(db_), std::thread::id());
  EXPECT_NE(sqlite3_get_autocommit(db_.connection().handle()), 0);
}

TEST_F(DatabaseTest, AnInnerErrorCaughtOutsideKeepsWhatSucceeded) {
  open();
  db_.transaction([&](sqlite::Cursor& outer) {
    outer.execute("INSERT INTO t (v) VALUES ('a')");
    try {
      db_.transaction([&](sqlite::Cursor& inner) {
        inner.execute("INSERT INTO t (v) VALUES ('b')");
        inner.execute("INSERT INTO missing VALUES (1)");
      });
    } catch (const sqlite::OperationalError&) {
      EXPECT_EQ(Peer::tx_depth(db_), 1);
    }
    outer.execute("INSERT INTO t (v) VALUES ('c')");
  });
  const auto values = db_.fetchall("SELECT v FROM t ORDER BY id");
  ASSERT_EQ(values.size(), 3U);
  EXPECT_EQ(values[1][0], sqlite::Value("b"));
}

TEST_F(DatabaseTest, AFailedBeginLeavesNoTransactionOrLockBehind) {
  open();
  {
    const std::lock_guard hold(Peer::lock(db_));
    db_.connection().cursor().execute("BEGIN");  // someone began behind the layer's back
  }
  EXPECT_THROW(db_.transaction([](sqlite::Cursor&) { FAIL() << "body ran"; }),
               sqlite::OperationalError);
  EXPECT_EQ(Peer::tx_depth(db_), 0);
  EXPECT_EQ(Peer::tx_owner(db_), std::thread::id());
  EXPECT_TRUE(std::async(std::launch::async, [&] {
                auto& lock = Peer::lock(db_);
                const bool free = lock.try_lock();
                if (free) lock.unlock();
                return free;
              }).get());
}

TEST_F(DatabaseTest, AFailedCommitRollsBackAndReportsTheCommitsError) {
  open();
  db_.execute("CREATE TABLE parent (id INTEGER PRIMARY KEY)");
  db_.execute(
      "CREATE TABLE child (pid INTEGER REFERENCES parent (id) DEFERRABLE INITIALLY DEFERRED)");
  testing::StatementTrace trace(db_.connection().handle());
  try {
    db_.transaction([](sqlite::Cursor& cursor) {
      cursor.execute("INSERT INTO child VALUES (99)");  // checked only at COMMIT
    });
    FAIL() << "committed a dangling reference";
  } catch (const sqlite::IntegrityError& error) {
    EXPECT_STREQ(error.what(), "FOREIGN KEY constraint failed");
  }
  EXPECT_EQ(trace.count("ROLLBACK"), 1);
  EXPECT_EQ(Peer::count(db_, "SELECT COUNT(*) FROM child"), 0);
  EXPECT_NE(sqlite3_get_autocommit(db_.connection().handle()), 0);
}

TEST_F(DatabaseTest, AnotherThreadsWriteWaitsForTheTransactionAndCommitsOnItsOwn) {
  open();
  std::latch started(1);
  std::future<void> other;
  try {
    db_.transaction([&](sqlite::Cursor& cursor) {
      cursor.execute("INSERT INTO t (v) VALUES ('mine')");
      other = std::async(std::launch::async, [&] {
        started.count_down();
        db_.execute("INSERT INTO t (v) VALUES ('theirs')");
      });
      started.wait();
      EXPECT_TRUE(still_blocked(other));
      throw MarkedError("roll back mine");
    });
  } catch (const MarkedError&) {
  }
  other.get();
  const auto values = db_.fetchall("SELECT v FROM t");
  ASSERT_EQ(values.size(), 1U);
  EXPECT_EQ(values[0][0], sqlite::Value("theirs"));
}

TEST_F(DatabaseTest, ReadsDoNotWaitForAWriteAndSeeOnlyCommittedRows) {
  open();
  db_.execute("INSERT INTO t (v) VALUES ('committed')");
  db_.transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('pending')");
    db_.execute("PRAGMA user_version = 9");
    // This thread sees its own writes...
    EXPECT_EQ(rows(), 2);
    EXPECT_EQ(db_.fetchone("PRAGMA user_version").value()[0], sqlite::Value(9));
    // ...another thread, at once, the state from before the transaction.
    auto reader = std::async(std::launch::async, [&] {
      return std::pair{rows(), db_.fetchone("PRAGMA user_version").value()[0].as_int()};
    });
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready) << "the read waited for the write";
    EXPECT_EQ(reader.get(), (std::pair<std::int64_t, std::int64_t>{1, 0}));
  });
  EXPECT_EQ(rows(), 2);
}

TEST_F(DatabaseTest, WithoutAPoolReadsWaitForTheTransaction) {
  testing::ScopedEnv none("QUILMA_DB_READERS", "0");
  open();
  std::latch started(1);
  std::future<std::int64_t> reader;
  db_.transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('a')");
    reader = std::async(std::launch::async, [&] {
      started.count_down();
      return rows();
    });
    started.wait();
    EXPECT_TRUE(still_blocked(reader));
  });
  EXPECT_EQ(reader.get(), 1);
}

TEST_F(DatabaseTest, OnlyPlainReadsRunOnReadConnections) {
  open();
  testing::StatementTrace writer(db_.connection().handle());
  EXPECT_EQ(db_.fetchone("  \n select 5").value()[0], sqlite::Value(5));
  EXPECT_EQ(db_.fetchall("pragma user_version;").size(), 1U);
  EXPECT_EQ(writer.statements().size(), 0U);

  EXPECT_EQ(db_.fetchone("PRAGMA integrity_check").value()[0], sqlite::Value("ok"));
  db_.fetchone("PRAGMA user_version = 4");
  EXPECT_EQ(writer.statements(),
            (std::vector<std::string>{"PRAGMA integrity_check", "PRAGMA user_version = 4"}));
  EXPECT_EQ(db_.fetchone("PRAGMA user_version").value()[0], sqlite::Value(4));
}

TEST_F(DatabaseTest, AReadConnectionsRefusalSendsTheStatementToTheWriter) {
  open();
  testing::StatementTrace writer(db_.connection().handle());
  const std::string sql = "WITH x(v) AS (VALUES ('w')) INSERT INTO t (v) SELECT v FROM x";
  EXPECT_TRUE(db_.fetchall(sql).empty());
  EXPECT_EQ(writer.count(sql), 1);
  EXPECT_EQ(rows(), 1);
}

TEST_F(DatabaseTest, OtherReadErrorsAreNotRetriedOnTheWriter) {
  open();
  testing::StatementTrace writer(db_.connection().handle());
  // Another thread holds the writer: a retry there would wait for it.
  std::latch holding(1);
  std::latch done(1);
  std::thread holder([&] {
    db_.transaction([&](sqlite::Cursor&) {
      holding.count_down();
      done.wait();
    });
  });
  holding.wait();
  writer.clear();
  auto failures = std::async(std::launch::async, [&] {
    std::vector<std::string> messages;
    for (const char* sql :
         {"SELECT * FROM missing", "SELECT FROM", "SELECT abs(-9223372036854775808)"}) {
      try {
        db_.fetchone(sql);
        messages.emplace_back("(no error)");
      } catch (const sqlite::OperationalError& error) {
        messages.emplace_back(error.what());
      }
    }
    return messages;
  });
  const bool answered = failures.wait_for(10s) == std::future_status::ready;
  done.count_down();
  holder.join();
  ASSERT_TRUE(answered) << "a failed read waited for the writer";
  EXPECT_EQ(failures.get(),
            (std::vector<std::string>{"no such table: missing", "near \"FROM\": syntax error",
                                      "integer overflow"}));
  EXPECT_EQ(writer.statements(), (std::vector<std::string>{"COMMIT"}));
}

TEST_F(DatabaseTest, AnUnavailablePoolSendsQueriesToTheWriter) {
  open();
  db_.execute("INSERT INTO t (v) VALUES ('x')");
  Peer::set_readers(db_, std::make_unique<ReaderPool>(path_, 1))->close();
  testing::StatementTrace writer(db_.connection().handle());
  EXPECT_EQ(db_.fetchone("SELECT v FROM t").value()[0], sqlite::Value("x"));
  EXPECT_EQ(writer.count("SELECT v FROM t"), 1);
}

TEST_F(DatabaseTest, ABodyThatClosesItsCursorStillEndsTheTransaction) {
  open();
  EXPECT_THROW(db_.transaction([](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('a')");
    cursor.close();
    throw MarkedError("after closing the cursor");
  }),
               MarkedError);
  EXPECT_NE(sqlite3_get_autocommit(db_.connection().handle()), 0);
  db_.transaction([](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('b')");
    sqlite::Cursor taken = std::move(cursor);
  });
  EXPECT_NE(sqlite3_get_autocommit(db_.connection().handle()), 0);
  EXPECT_EQ(rows(), 1);
}

TEST_F(DatabaseTest, QueriesWithoutRowsGiveNothing) {
  open();
  EXPECT_FALSE(db_.fetchone("SELECT v FROM t"));
  EXPECT_TRUE(db_.fetchall("SELECT v FROM t").empty());
  EXPECT_EQ(Peer::count(db_, "SELECT 1 WHERE 0"), 0);
}

TEST_F(DatabaseTest, ExecuteResultsAreReadWithoutTheLock) {
  open();
  auto inserted = db_.executemany("INSERT INTO t (v) VALUES (?)", {{"a"}, {"b"}, {"c"}});
  EXPECT_EQ(inserted.rowcount(), 3);
  EXPECT_EQ(db_.execute("UPDATE t SET v = upper(v)").rowcount(), 3);
  auto cursor = db_.execute("SELECT v FROM t ORDER BY id");
  std::latch holding(1);
  std::latch done(1);
  std::thread holder([&] {
    db_.transaction([&](sqlite::Cursor&) {
      holding.count_down();
      done.wait();
    });
  });
  holding.wait();  // the writer's lock is now held by another thread
  EXPECT_EQ(cursor.fetchone().value()[0], sqlite::Value("A"));
  EXPECT_EQ(cursor.fetchall().size(), 2U);
  done.count_down();
  holder.join();
}

TEST_F(DatabaseTest, CloseWaitsForAnotherThreadsTransaction) {
  open();
  std::latch started(1);
  std::future<void> closer;
  db_.transaction([&](sqlite::Cursor& cursor) {
    closer = std::async(std::launch::async, [&] {
      started.count_down();
      db_.close();
    });
    started.wait();
    EXPECT_TRUE(still_blocked(closer));
    cursor.execute("INSERT INTO t (v) VALUES ('kept')");
  });
  closer.get();
  EXPECT_TRUE(db_.closed());
  open();
  EXPECT_EQ(rows(), 1);
}

TEST_F(DatabaseTest, ClosingInsideOwnTransactionEndsItCleanly) {
  open();
  EXPECT_THROW(db_.transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('lost')");
    db_.close();
    EXPECT_EQ(runtime_error_of([&] { db_.transaction([](sqlite::Cursor&) {}); }),
              "Database is closed.");
    EXPECT_EQ(Peer::tx_depth(db_), 1);
  }),
               sqlite::ProgrammingError);  // the COMMIT finds the connection gone
  EXPECT_EQ(Peer::tx_depth(db_), 0);
  EXPECT_EQ(runtime_error_of([&] { db_.transaction([](sqlite::Cursor&) {}); }),
            "Database is closed.");
  open();
  EXPECT_EQ(rows(), 0);
}

TEST_F(DatabaseTest, TwoDatabasesOnOneFileShareCommitsAndWaitForEachOther) {
  open();
  Database other(path_);
  other.connect();
  std::latch trying(1);
  std::future<void> write;
  db_.transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('first')");  // takes the file's write lock
    write = std::async(std::launch::async, [&] {
      trying.count_down();
      other.execute("INSERT INTO t (v) VALUES ('second')");  // waits on the busy timeout
    });
    trying.wait();
    EXPECT_TRUE(still_blocked(write));
  });
  write.get();
  EXPECT_EQ(Peer::count(other, "SELECT COUNT(*) FROM t"), 2);
  EXPECT_EQ(rows(), 2);
}

TEST_F(DatabaseTest, TheConnectionCoreLogsNothing) {
  testing::LogCapture log;
  open();
  db_.transaction([&](sqlite::Cursor& cursor) { cursor.execute("INSERT INTO t (v) VALUES (1)"); });
  EXPECT_THROW(db_.fetchone("SELECT * FROM missing"), sqlite::OperationalError);
  db_.fetchall("WITH x(v) AS (VALUES (1)) INSERT INTO t (v) SELECT v FROM x");
  db_.close();
  EXPECT_TRUE(log.records().empty());
}

TEST_F(DatabaseTest, ConcurrentWritersAndReadersStayConsistent) {
  open();
  constexpr int threads = 4;
  constexpr int rounds = 40;
  std::vector<std::thread> workers;
  workers.reserve(threads);
  std::atomic<int> went_back{0};
  for (int w = 0; w < threads; ++w) {
    workers.emplace_back([&, w] {
      std::int64_t last_seen = 0;
      for (int i = 0; i < rounds; ++i) {
        db_.transaction([&](sqlite::Cursor& cursor) {
          cursor.execute("INSERT INTO t (v) VALUES (?)", {w});
          db_.transaction(
              [&](sqlite::Cursor& inner) { inner.execute("INSERT INTO t (v) VALUES (?)", {w}); });
        });
        db_.execute("INSERT INTO t (v) VALUES (?)", {w});
        // Rows are only ever added, so a later query never sees fewer than an earlier one.
        const std::int64_t seen = rows();
        if (seen < last_seen + 3) ++went_back;
        last_seen = seen;
        db_.fetchall("SELECT v FROM t WHERE id > ?", {seen - 3});
      }
    });
  }
  for (auto& worker : workers) worker.join();
  EXPECT_EQ(went_back.load(), 0);
  EXPECT_EQ(rows(), threads * rounds * 3);
}

}  // namespace
}  // namespace quilma::storage
