#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/database_test_peer.h"
#include "support/error_of.h"
#include "support/statement_trace.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"

namespace quilma::storage {
namespace {

using Peer = DatabaseTestPeer;
using testing::error_of;
using Strings = std::vector<std::string>;
using namespace std::chrono_literals;

// Whether an operation that must block is still blocked after a pause long enough for an
// unblocked one to finish. Never fails spuriously: a correct operation cannot finish at all.
template <class T>
bool still_blocked(std::future<T>& pending) {
  return pending.wait_for(200ms) == std::future_status::timeout;
}

struct MarkedError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

TEST(ParsersTest, ReaderCountAndReadStatements) {
  const std::pair<const char*, int> counts[] = {{nullptr, 6},
                                                {"   ", 6},
                                                {" 4 ", 4},
                                                {"12", 12},
                                                {"+31", 31},
                                                {"100", 32},
                                                {"0", 0},
                                                {"-3", 0},
                                                {"4.5", 6},
                                                {"4 readers", 6},
                                                {"99999999999999999999999", 32},
                                                {"-99999999999999999999999", 0}};
  for (const auto& [value, expected] : counts) {
    testing::ScopedEnv env("QUILMA_DB_READERS", value);
    EXPECT_EQ(reader_count(), expected) << (value != nullptr ? value : "(unset)");
  }
  for (const char* sql : {"SELECT 1", "  \n\tselect 1", "with x AS (SELECT 1) SELECT * FROM x",
                          " pragma USER_VERSION ; ", "PRAGMA user_version;;"}) {
    EXPECT_TRUE(detail::is_read_statement(sql)) << sql;
  }
  for (const char* sql : {"PRAGMA user_version = 3", "PRAGMA journal_mode", "", "SELEC 1",
                          "INSERT INTO t VALUES (1)", "PRAGMA user_version; ;"}) {
    EXPECT_FALSE(detail::is_read_statement(sql)) << sql;
  }
  using sqlite::OperationalError;
  EXPECT_TRUE(
      detail::reader_cannot_serve(OperationalError(8, "attempt to write a READONLY DATABASE")));
  EXPECT_TRUE(detail::reader_cannot_serve(OperationalError(14, "Unable to open database file")));
  EXPECT_FALSE(detail::reader_cannot_serve(OperationalError(1, "no such table: t")));
}

class DatabaseTest : public ::testing::Test {
 protected:
  void open() {
    db_.connect();
    db_.execute("CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, v TEXT)");
  }
  std::int64_t rows() { return Peer::count(db_, "SELECT COUNT(*) FROM t"); }
  bool in_transaction() { return sqlite3_get_autocommit(db_.connection().handle()) == 0; }

  // Runs `call` on another thread while this one holds a transaction that inserts a row and
  // rolls back: `call` must wait for the end of the transaction. Returns what it returned.
  template <class Call>
  auto waits_for_a_transaction(Call call) {
    std::latch started(1);
    std::future<decltype(call())> other;
    EXPECT_THROW(db_.transaction([&](sqlite::Cursor& cursor) {
      cursor.execute("INSERT INTO t (v) VALUES ('rolled back')");
      other = std::async(std::launch::async, [&] {
        started.count_down();
        return call();
      });
      started.wait();
      EXPECT_TRUE(still_blocked(other));
      throw MarkedError("roll back");
    }),
                 MarkedError);
    return other.get();
  }

  // Opens a transaction on another thread that stays open until `release` is counted down.
  std::thread hold_transaction(std::latch& release) {
    auto holding = std::make_shared<std::latch>(1);
    std::thread holder([this, holding, &release] {
      db_.transaction([&](sqlite::Cursor&) {
        holding->count_down();
        release.wait();
      });
    });
    holding->wait();
    return holder;
  }

  testing::ScopedEnv readers_env_{"QUILMA_DB_READERS", nullptr};
  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "repo" / "codebase-index" / "index.db";
  Database db_{path_};
};

TEST_F(DatabaseTest, ConnectSetsUpTheWriterAndCloseAndReconnectChangeState) {
  const std::vector<std::function<void()>> uses = {
      [&] { db_.connection(); }, [&] { db_.execute("SELECT 1"); },
      [&] { db_.fetchone("SELECT 1"); }, [&] { db_.read([](sqlite::Cursor&) {}); }};
  for (const auto& use : uses) {
    EXPECT_EQ(error_of<std::runtime_error>(use), "Database not connected. Call connect() first.");
  }
  db_.close();
  EXPECT_FALSE(db_.closed());
  open();
  EXPECT_EQ(db_.execute("SELECT *, path_under('a/b', 'a') FROM pragma_journal_mode, "
                        "pragma_foreign_keys, pragma_page_size, pragma_auto_vacuum")
                .fetchone()
                ->values(),
            (std::vector<sqlite::Value>{"wal", 1, 8192, 2, 1}));
  EXPECT_EQ(db_.fetchone("SELECT path_glob('**/b', 'a/b')").value()[0], sqlite::Value(1));
  EXPECT_NE(Peer::readers(db_), nullptr);
  db_.close();
  db_.close();
  EXPECT_TRUE(db_.closed());
  for (const auto& use : uses) EXPECT_EQ(error_of<std::runtime_error>(use), "Database is closed.");
  open();
  EXPECT_FALSE(db_.closed());
  EXPECT_EQ(db_.fetchone("SELECT 7").value()[0], sqlite::Value(7));

  Database memory(":memory:");  // no pool outside WAL mode
  memory.connect();
  EXPECT_EQ(Peer::readers(memory), nullptr);
}

TEST_F(DatabaseTest, NestedLevelsSendOneBeginAndOneCommitAndErrorsRollBack) {
  open();
  testing::StatementTrace trace(db_.connection().handle());
  const int result = db_.transaction([&](sqlite::Cursor& outer) {
    outer.execute("INSERT INTO t (v) VALUES ('a')");
    try {
      db_.transaction([&](sqlite::Cursor& inner) {
        EXPECT_EQ(Peer::tx_depth(db_), 2);
        inner.execute("INSERT INTO t (v) VALUES ('b')");
        inner.execute("INSERT INTO missing VALUES (1)");
      });
    } catch (const sqlite::OperationalError&) {  // caught by the outer level: it goes on
      EXPECT_EQ(Peer::tx_depth(db_), 1);
    }
    return db_.transaction([&](sqlite::Cursor&) { return 42; });
  });
  EXPECT_EQ(result, 42);
  EXPECT_EQ(trace.statements(), (Strings{"BEGIN IMMEDIATE", "INSERT INTO t (v) VALUES ('a')",
                                         "INSERT INTO t (v) VALUES ('b')", "COMMIT"}));
  EXPECT_EQ(rows(), 2);

  EXPECT_THROW(db_.transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('gone')");
    db_.execute("INSERT INTO t (v) VALUES ('gone too')");  // joins the transaction
    throw MarkedError("body failed");
  }),
               MarkedError);
  EXPECT_EQ(rows(), 2);
  EXPECT_FALSE(in_transaction());
  EXPECT_EQ(Peer::tx_depth(db_), 0);
  EXPECT_EQ(Peer::tx_owner(db_), std::thread::id());
}

TEST_F(DatabaseTest, AFailedBeginOrCommitOrALostCursorLeavesNoTransactionBehind) {
  open();
  db_.execute("CREATE TABLE parent (id INTEGER PRIMARY KEY)");
  db_.execute(
      "CREATE TABLE child (pid INTEGER REFERENCES parent (id) DEFERRABLE INITIALLY DEFERRED)");
  EXPECT_EQ(error_of<sqlite::IntegrityError>([&] {
              db_.transaction([](sqlite::Cursor& cursor) {
                cursor.execute("INSERT INTO child VALUES (99)");  // checked at COMMIT
              });
            }),
            "FOREIGN KEY constraint failed");
  EXPECT_FALSE(in_transaction());
  EXPECT_EQ(Peer::count(db_, "SELECT COUNT(*) FROM child"), 0);

  {
    const std::lock_guard hold(Peer::lock(db_));
    db_.connection().cursor().execute("BEGIN");  // begun behind the layer's back
  }
  EXPECT_THROW(db_.transaction([](sqlite::Cursor&) { FAIL() << "body ran"; }),
               sqlite::OperationalError);
  EXPECT_EQ(Peer::tx_depth(db_), 0);
  EXPECT_EQ(Peer::tx_owner(db_), std::thread::id());
  std::async(std::launch::async, [&] { db_.execute("SELECT 1"); }).get();  // the lock is free
  EXPECT_THROW(db_.transaction([](sqlite::Cursor& cursor) {
    cursor.close();
    throw MarkedError("after closing the cursor");
  }),
               MarkedError);
  EXPECT_FALSE(in_transaction());
  db_.transaction([](sqlite::Cursor& cursor) { sqlite::Cursor taken = std::move(cursor); });
  EXPECT_FALSE(in_transaction());
}

TEST_F(DatabaseTest, WritesCloseAndQueriesOnTheWriterWaitForAnotherThreadsTransaction) {
  open();
  waits_for_a_transaction([&] { return db_.execute("INSERT INTO t (v) VALUES ('theirs')"); });
  EXPECT_EQ(db_.fetchone("SELECT v FROM t").value()[0], sqlite::Value("theirs"));
  {
    testing::ScopedEnv none("QUILMA_DB_READERS", "0");
    db_.connect();
    ASSERT_EQ(Peer::readers(db_), nullptr);
    EXPECT_EQ(waits_for_a_transaction([&] { return rows(); }), 1);
    EXPECT_EQ(waits_for_a_transaction([&] {
                return db_.read([](sqlite::Cursor& cursor) {
                  return cursor.execute("SELECT COUNT(*) FROM t").fetchone().value()[0].as_int();
                });
              }),
              1);
  }
  waits_for_a_transaction([&] {
    db_.close();
    return 0;
  });
  EXPECT_TRUE(db_.closed());
  open();
  EXPECT_EQ(rows(), 1);

  // Closed by the thread inside its own transaction: the COMMIT finds no connection.
  EXPECT_THROW(db_.transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('lost')");
    db_.close();
  }),
               sqlite::ProgrammingError);
  EXPECT_EQ(Peer::tx_depth(db_), 0);
  open();
  EXPECT_EQ(rows(), 1);
}

TEST_F(DatabaseTest, CloseAlsoClosesAPoolInstalledWhileItWaited) {
  open();
  std::future<void> closer;
  ReaderPool* installed = nullptr;
  db_.transaction([&](sqlite::Cursor&) {
    closer = std::async(std::launch::async, [&] { db_.close(); });
    while (Peer::lock(db_).waiting() == 0) std::this_thread::yield();
    // What a page rewrite under the lock does: a new pool.
    installed = Peer::set_readers(db_, std::make_shared<ReaderPool>(path_, 1));
  });
  closer.get();
  EXPECT_THROW(installed->lease(), ReaderUnavailable);
}

TEST_F(DatabaseTest, QueriesUseReadConnectionsAndTheWriterOnlyWhenTheyMust) {
  open();
  db_.execute("INSERT INTO t (v) VALUES ('committed')");
  testing::StatementTrace writer(db_.connection().handle());
  EXPECT_EQ(db_.fetchone("  \n select 5").value()[0], sqlite::Value(5));
  EXPECT_EQ(db_.fetchall("pragma user_version;").size(), 1U);
  EXPECT_TRUE(writer.statements().empty());

  // Another thread's query does not wait for this one's transaction, nor sees inside it;
  // the thread itself sees its own writes.
  db_.transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('pending')");
    db_.execute("PRAGMA user_version = 9");
    EXPECT_EQ(rows(), 2);
    EXPECT_EQ(db_.fetchone("PRAGMA user_version").value()[0], sqlite::Value(9));
    auto reader = std::async(std::launch::async, [&] {
      return std::pair{rows(), db_.fetchone("PRAGMA user_version").value()[0].as_int()};
    });
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready) << "the read waited for the write";
    EXPECT_EQ(reader.get(), (std::pair<std::int64_t, std::int64_t>{1, 0}));
  });
  writer.clear();
  const std::string with_insert = "WITH x(v) AS (VALUES ('w')) INSERT INTO t (v) SELECT v FROM x";
  EXPECT_TRUE(db_.fetchall(with_insert).empty());  // refused by a read connection
  db_.fetchone("PRAGMA integrity_check");
  EXPECT_EQ(writer.statements(), (Strings{with_insert, "PRAGMA integrity_check"}));
  EXPECT_EQ(rows(), 3);

  // Every read connection leased, or none to be had: queries and reads go to the writer.
  for (const bool closed : {false, true}) {
    auto pool = std::make_shared<ReaderPool>(path_, 1, ReaderPool::Configure{}, 10ms);
    auto lease = std::make_optional(pool->lease());
    if (closed) {
      lease.reset();
      pool->close();
    }
    Peer::set_readers(db_, pool);
    writer.clear();
    EXPECT_EQ(rows(), 3);
    EXPECT_EQ(db_.read([](sqlite::Cursor& cursor) {
      EXPECT_THROW(cursor.execute("DELETE FROM t"), sqlite::OperationalError);
      return cursor.execute("SELECT COUNT(*) FROM t").fetchone().value()[0].as_int();
    }),
              3);
    EXPECT_EQ(writer.count("SELECT COUNT(*) FROM t"), 2) << closed;
    EXPECT_FALSE(in_transaction());
    db_.execute("INSERT INTO t (v) VALUES ('x')");  // writable again after the read
    db_.execute("DELETE FROM t WHERE v = 'x'");
  }
}

TEST_F(DatabaseTest, OtherReadErrorsAreNotRetriedOnTheWriter) {
  open();
  testing::StatementTrace writer(db_.connection().handle());
  std::latch release(1);
  std::thread holder = hold_transaction(release);  // a retry on the writer would wait for it
  writer.clear();
  auto failures = std::async(std::launch::async, [&] {
    Strings messages;
    for (const char* sql :
         {"SELECT * FROM missing", "SELECT FROM", "SELECT abs(-9223372036854775808)"}) {
      messages.push_back(error_of<sqlite::OperationalError>([&] { db_.fetchone(sql); }));
    }
    return messages;
  });
  const bool answered = failures.wait_for(10s) == std::future_status::ready;
  release.count_down();
  holder.join();
  ASSERT_TRUE(answered) << "a failed read waited for the writer";
  EXPECT_EQ(failures.get(),
            (Strings{"no such table: missing", "near \"FROM\": syntax error", "integer overflow"}));
  EXPECT_EQ(writer.statements(), Strings{"COMMIT"});
  // Nor is a read whose read connection fails to begin for another reason.
  Peer::set_readers(db_, std::make_shared<ReaderPool>(path_, 1, [](sqlite::Connection& reader) {
                      reader.cursor().execute("BEGIN");
                    }));
  EXPECT_EQ(error_of<sqlite::OperationalError>([&] { db_.read([](sqlite::Cursor&) {}); }),
            "cannot start a transaction within a transaction");
  // A read connection that cannot serve once the read has begun (its file's shared-memory
  // index cannot be opened): the read runs on the writer instead.
  {
    sqlite::Connection other(dir_ / "other.db");
    other.cursor().execute("PRAGMA journal_mode=WAL");
    other.cursor().execute("CREATE TABLE t (v)");
  }
  std::filesystem::create_symlink("nowhere", dir_ / "other.db-shm");
  Peer::set_readers(db_, std::make_shared<ReaderPool>(dir_ / "other.db", 1));
  db_.execute("INSERT INTO t (v) VALUES ('on the writer')");
  EXPECT_EQ(db_.read([](sqlite::Cursor& cursor) {
    return cursor.execute("SELECT COUNT(*) FROM t").fetchone().value()[0].as_int();
  }),
            1);
}

TEST_F(DatabaseTest, AReadSeesOneStateWithoutWaitingForWrites) {
  open();
  db_.execute("INSERT INTO t (v) VALUES ('a')");
  std::latch release(1);
  std::thread holder = hold_transaction(release);  // a read never waits for it
  const auto [first, second] = db_.read([&](sqlite::Cursor& cursor) {
    const auto count = [&] {
      return cursor.execute("SELECT COUNT(*) FROM t").fetchone().value()[0].as_int();
    };
    const std::int64_t before = count();
    release.count_down();
    holder.join();
    std::async(std::launch::async, [&] { db_.execute("INSERT INTO t (v) VALUES ('b')"); }).get();
    EXPECT_EQ(error_of<sqlite::OperationalError>(
                  [&] { cursor.execute("INSERT INTO t (v) VALUES ('c')"); }),
              "attempt to write a readonly database");
    return std::pair(before, count());
  });
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);  // the other thread's commit came after the snapshot
  EXPECT_EQ(rows(), 2);
  db_.transaction([&](sqlite::Cursor& cursor) {  // inside its own transaction: its own state
    cursor.execute("INSERT INTO t (v) VALUES ('mine')");
    EXPECT_EQ(db_.read([](sqlite::Cursor& inner) {
      return inner.execute("SELECT COUNT(*) FROM t").fetchone().value()[0].as_int();
    }),
              3);
    cursor.execute("INSERT INTO t (v) VALUES ('more')");
  });
  EXPECT_EQ(rows(), 4);
}

// A caller that reconnects while other threads query gets errors from those queries, never
// a crash: run under AddressSanitizer and ThreadSanitizer.
class ReconnectTest : public DatabaseTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(ReconnectTest, UnderRunningQueriesFailsCleanly) {
  testing::ScopedEnv readers("QUILMA_DB_READERS", GetParam());
  open();
  db_.execute("INSERT INTO t (v) VALUES ('a')");
  std::atomic<bool> stop{false};
  std::atomic<int> answered{0};
  std::vector<std::thread> queries(2);
  for (std::thread& query : queries) {
    query = std::thread([&] {
      while (!stop.load()) {
        try {
          EXPECT_EQ(db_.fetchone("SELECT COUNT(*) FROM t").value()[0].as_int(), 1);
          EXPECT_EQ(db_.read([](sqlite::Cursor& cursor) {
            return cursor.execute("SELECT v FROM t").fetchone().value()[0].as_text();
          }),
                    "a");
          ++answered;
        } catch (const std::runtime_error& error) {
          EXPECT_STREQ(error.what(), "Database is closed.");
        }
      }
    });
  }
  for (int round = 0; round < 100; ++round) {
    if (round % 2 == 0) db_.close();
    db_.connect();
  }
  while (answered.load() < 10) std::this_thread::yield();
  stop = true;
  for (std::thread& query : queries) query.join();
}

INSTANTIATE_TEST_SUITE_P(Readers, ReconnectTest, ::testing::Values("2", "0"),
                         [](const auto& info) { return std::string("pool_") + info.param; });

}  // namespace
}  // namespace quilma::storage
