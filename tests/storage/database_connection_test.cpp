// The connections to an index file: the writer, its transactions, the reader pool and the
// reads beside them, also on other threads and in other processes.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/database_test_peer.h"
#include "support/error_of.h"
#include "support/index_builder.h"
#include "support/other_user.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/reader_pool.h"
#include "quilma/utils/path_filter.h"

namespace quilma::storage {
namespace {

using Peer = DatabaseTestPeer;
using sqlite::Cursor;
using testing::error_of;
using Strings = std::vector<std::string>;
using namespace std::chrono_literals;

TEST(ParsersTest, ReaderCountAndReadStatements) {
  const std::string big(23, '9'), small = "-" + big;  // beyond any integer type
  const char* values[] = {nullptr, "   ", " 4 ", "12",        "+31",
                          "100",   "-3",  "4.5", big.c_str(), small.c_str()};
  const int counts[] = {6, 6, 4, 12, 31, 32, 0, 6, 32, 0};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    testing::ScopedEnv env("QUILMA_DB_READERS", values[i]);
    EXPECT_EQ(reader_count(), counts[i]) << (values[i] != nullptr ? values[i] : "(unset)");
  }
  const char* statements[] = {"SELECT 1", "  \n\tselect 1", "with x AS (SELECT 1) SELECT * FROM x",
                              " pragma USER_VERSION ; ", "PRAGMA user_version;;",
                              // not reads from here on
                              "PRAGMA user_version = 3", "PRAGMA journal_mode", "", "SELEC 1",
                              "INSERT INTO t VALUES (1)", "PRAGMA user_version; ;"};
  for (std::size_t i = 0; i < std::size(statements); ++i)
    EXPECT_EQ(detail::is_read_statement(statements[i]), i < 5) << statements[i];
}

class DatabaseTest : public ::testing::Test {
 protected:
  void open() {
    db_.connect();
    db_.execute("CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, v TEXT)");
  }
  std::int64_t rows() { return Peer::count(db_, "SELECT COUNT(*) FROM t"); }
  static std::int64_t count(Cursor& cursor) {
    return cursor.execute("SELECT COUNT(*) FROM t").fetchone().value()[0].as_int();
  }
  bool in_transaction() { return sqlite3_get_autocommit(db_.connection().handle()) == 0; }
  // Records the statements that start on the writer from now on, on any thread.
  void trace_writer() {
    const auto record = [](unsigned, void* self, void* statement, void*) {
      auto* test = static_cast<DatabaseTest*>(self);
      const char* sql = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
      const std::lock_guard hold(test->traced_mutex_);
      test->traced_.emplace_back(sql != nullptr ? sql : "");
      return 0;
    };
    sqlite3_trace_v2(db_.connection().handle(), SQLITE_TRACE_STMT, record, this);
  }
  // What the writer ran since the trace began or was last cleared.
  Strings traced(bool clear = false) {
    const std::lock_guard hold(traced_mutex_);
    return clear ? std::exchange(traced_, {}) : traced_;
  }

  std::mutex traced_mutex_;  // declared before db_, which may run statements until it goes
  Strings traced_;           // guarded by traced_mutex_
  testing::ScopedEnv readers_env_{"QUILMA_DB_READERS", nullptr};
  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "repo" / "codebase-index" / "index.db";
  Database db_{path_};
};

TEST_F(DatabaseTest, NestedLevelsSendOneBeginAndOneCommitAndFailuresLeaveNoTransaction) {
  open();
  db_.execute("CREATE TABLE child (id INTEGER REFERENCES t (id) DEFERRABLE INITIALLY DEFERRED)");
  trace_writer();
  const int depth = db_.transaction([&](Cursor& outer) {
    outer.execute("INSERT INTO t (v) VALUES ('a')");
    EXPECT_THROW(db_.transaction([&](Cursor& inner) {  // the outer level goes on
      inner.execute("INSERT INTO t (v) VALUES ('b')");
      inner.execute("INSERT INTO missing VALUES (1)");
    }),
                 sqlite::OperationalError);
    return db_.transaction([&](Cursor&) { return Peer::tx_depth(db_); });
  });
  EXPECT_EQ(depth, 2);
  EXPECT_EQ(traced(), (Strings{"BEGIN IMMEDIATE", "INSERT INTO t (v) VALUES ('a')",
                               "INSERT INTO t (v) VALUES ('b')", "COMMIT"}));
  // A failing body (with what joined it), a failing COMMIT, a lost cursor.
  const std::vector<std::function<void(Cursor&)>> bodies = {
      [&](Cursor& cursor) {
        cursor.execute("INSERT INTO t (v) VALUES ('gone')");
        db_.executemany("INSERT INTO t (v) VALUES (?)", {{"gone too"}});
        throw std::runtime_error(std::to_string(rows()));
      },
      [](Cursor& cursor) { cursor.execute("INSERT INTO child VALUES (99)"); },
      [](Cursor& cursor) { Cursor taken = std::move(cursor); }};
  Strings errors;
  for (const auto& body : bodies) {
    errors.push_back(error_of<std::exception>([&] { db_.transaction(body); }));
    EXPECT_FALSE(in_transaction());
  }
  EXPECT_EQ(errors, (Strings{"4", "FOREIGN KEY constraint failed", "(no error)"}));
  EXPECT_EQ(rows(), 2);
  {
    const std::lock_guard hold(Peer::lock(db_));
    db_.connection().cursor().execute("BEGIN");  // begun behind the layer's back
  }
  EXPECT_THROW(db_.transaction([](Cursor&) { FAIL() << "body ran"; }), sqlite::OperationalError);
  EXPECT_EQ(Peer::tx_depth(db_), 0);
  EXPECT_EQ(Peer::tx_owner(db_), std::thread::id());
  std::async(std::launch::async, [&] { db_.execute("SELECT 1"); }).get();  // the lock is free
}

TEST_F(DatabaseTest, CloseAndPoolLessQueriesWaitForAnotherThreadsTransaction) {
  const auto refusal = [&] {
    std::string message = error_of<std::runtime_error>([&] { db_.execute("SELECT 1"); });
    EXPECT_EQ(error_of<std::runtime_error>([&] { db_.read(count); }), message);
    return message;
  };
  EXPECT_EQ(refusal(), "Database not connected. Call connect() first.");
  db_.close();
  EXPECT_FALSE(db_.closed());
  testing::ScopedEnv none("QUILMA_DB_READERS", "0");
  open();
  ASSERT_EQ(Peer::readers(db_), nullptr);
  EXPECT_EQ(db_.fetchone("SELECT path_glob('src/*', 'src/a.py')").value()[0].as_int(), 1);
  // On the writer, a read() inside a read() joins it, and neither can lift query_only.
  const auto attempts = [&](Cursor& cursor) {
    return Strings{
        std::to_string(count(cursor)),
        error_of<sqlite::Error>([&] { cursor.execute("PRAGMA query_only=OFF"); }),
        error_of<sqlite::Error>([&] { cursor.execute("INSERT INTO t (v) VALUES ('w')"); })};
  };
  const Strings refused{"0", "not authorized", "attempt to write a readonly database"};
  EXPECT_EQ(db_.read([&](Cursor& outer) {
    EXPECT_EQ(db_.read(attempts), refused);
    return attempts(outer);
  }),
            refused);
  // One that cannot begin (the caller's own BEGIN is open) leaves the writer as it was.
  db_.execute("BEGIN");
  EXPECT_THROW(db_.read(count), sqlite::Error);
  db_.execute("INSERT INTO t (v) VALUES ('written')");
  db_.execute("ROLLBACK");
  std::future<std::int64_t> other;
  EXPECT_THROW(db_.transaction([&](Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('rolled back')");
    other = std::async(std::launch::async, [&] { return rows() + db_.read(count); });
    // Never fails spuriously: a correct query cannot finish at all meanwhile.
    EXPECT_EQ(other.wait_for(200ms), std::future_status::timeout);
    throw std::out_of_range("roll back");
  }),
               std::out_of_range);
  EXPECT_EQ(other.get(), 0);
  // Closed by the thread inside its own transaction: the COMMIT finds no connection.
  EXPECT_THROW(db_.transaction([&](Cursor&) { db_.close(); }), sqlite::ProgrammingError);
  EXPECT_EQ(refusal(), "Database is closed.");
  EXPECT_EQ(Peer::tx_depth(db_), 0);
}

// Queries on other threads while the database is connected anew, and a close that races a
// connect while a body on a pool's lease writes through the writer.
TEST_F(DatabaseTest, ReconnectsAndClosesWhileOtherThreadsQueryAndWrite) {
  open();
  db_.execute("INSERT INTO t (v) VALUES ('a')");
  std::atomic<bool> done{false};
  std::latch started(3);
  const auto query = [&] {
    started.count_down();
    while (!done) EXPECT_EQ(rows() + db_.read(count), 2);
  };
  {
    const std::jthread first(query), second(query);
    started.arrive_and_wait();
    for (int i = 0; i < 20; ++i) db_.connect();
    done = true;
  }
  // The close loads a pool (none leased), then waits for the lock; meanwhile a connect (or a
  // page rewrite) puts in a pool that a body leases, which then writes once the close has shut
  // the writer. The close closes that pool too, without holding the lock meanwhile.
  auto installed = std::make_shared<ReaderPool>(path_, 1);
  std::latch leased(1);
  std::future<std::string> body = std::async(std::launch::async, [&] {
    const ReaderPool::Lease lease = installed->lease();
    leased.count_down();
    const auto give_up = std::chrono::steady_clock::now() + 10s;
    while (!db_.closed()) {
      if (std::chrono::steady_clock::now() > give_up)
        return std::string("close() waited under the lock");
      std::this_thread::yield();
    }
    return error_of<std::runtime_error>([&] { db_.execute("INSERT INTO t (v) VALUES ('b')"); });
  });
  leased.wait();
  std::future<void> closed;
  {
    const std::lock_guard hold(Peer::lock(db_));
    closed = std::async(std::launch::async, [&] { db_.close(); });
    while (Peer::lock(db_).waiting() == 0) std::this_thread::yield();
    Peer::set_readers(db_, installed);
  }
  EXPECT_EQ(body.get(), "Database is closed.");
  closed.get();
  EXPECT_THROW(installed->lease(), ReaderUnavailable);  // closed with the rest
}

// A file this process may not write, with no process holding it open to share its log, is not
// read as if nothing could change it.
TEST_F(DatabaseTest, AReadOnlyOpenThatCannotShareTheLogIsRefused) {
  open();
  db_.close();
  for (auto dir = path_.parent_path(); dir != dir_.path().parent_path(); dir = dir.parent_path())
    std::filesystem::permissions(dir, std::filesystem::perms::owner_all |
                                          std::filesystem::perms::group_exec |
                                          std::filesystem::perms::others_exec);
  EXPECT_EQ(testing::exit_status_as_nobody([&] {
              Database db(path_);
              return error_of<sqlite::OperationalError>([&] { db.connect(); })
                  .starts_with("Cannot read " + path_.string() + " safely");
            }),
            0);
}

TEST_F(DatabaseTest, ReadsSeeOneStateWithoutWaitingForWritesAndUseTheWriterOnlyWhenTheyMust) {
  open();
  db_.execute("INSERT INTO t (v) VALUES ('committed')");
  // What execute() returns holds its rows: the writer goes on without the statement.
  Cursor unread = db_.execute("SELECT v FROM t");
  db_.execute("INSERT INTO t (v) VALUES ('after')");
  EXPECT_EQ(unread.fetchall().size(), 1U);
  db_.execute("DELETE FROM t WHERE v = 'after'");
  trace_writer();
  EXPECT_EQ(db_.fetchall("  \n select 5").size() + db_.fetchall("pragma user_version;").size(), 2U);
  EXPECT_TRUE(traced().empty());

  // Another thread neither waits for this one's transaction nor sees inside it, and its read
  // keeps the state it began with past a commit; this thread sees its own writes.
  std::promise<void> counted;
  std::latch committed(1);
  std::future<Strings> other;
  db_.transaction([&](Cursor& cursor) {
    cursor.execute("INSERT INTO t (v) VALUES ('pending')");
    EXPECT_EQ(rows() + db_.read(count), 4);
    other = std::async(std::launch::async, [&] {
      Strings seen{std::to_string(rows())};
      db_.read([&](Cursor& snapshot) {
        seen.push_back(std::to_string(count(snapshot)));
        counted.set_value();
        committed.wait();
        seen.push_back(std::to_string(count(snapshot)));
        seen.push_back(error_of<sqlite::OperationalError>(
            [&] { snapshot.execute("INSERT INTO t (v) VALUES ('c')"); }));
      });
      return seen;
    });
    EXPECT_EQ(counted.get_future().wait_for(10s), std::future_status::ready) << "a read waited";
  });
  committed.count_down();
  EXPECT_EQ(other.get(), (Strings{"1", "1", "1", "attempt to write a readonly database"}));
  traced(true);
  const std::string with_insert = "WITH x(v) AS (VALUES ('w')) INSERT INTO t (v) SELECT v FROM x";
  EXPECT_TRUE(db_.fetchall(with_insert).empty());  // refused by a read connection
  EXPECT_EQ(traced(), Strings{with_insert});

  // Every read connection leased, or none to be had: queries and reads go to the writer.
  for (const bool closed : {false, true}) {
    auto pool = std::make_shared<ReaderPool>(path_, 1, ReaderPool::Configure{}, 10ms);
    std::optional<ReaderPool::Lease> lease;
    if (closed) pool->close();
    if (!closed) lease.emplace(pool->lease());
    Peer::set_readers(db_, pool);
    traced(true);
    EXPECT_EQ(rows() + db_.read(count), 6);
    EXPECT_EQ(std::ranges::count(traced(), "SELECT COUNT(*) FROM t"), 2) << closed;
    db_.execute("DELETE FROM t WHERE v = 'x'");  // writable again after the read
  }

  // Other read errors are not retried on the writer.
  Peer::set_readers(db_, std::make_shared<ReaderPool>(path_, 1));
  traced(true);
  EXPECT_EQ(error_of<sqlite::OperationalError>([&] { db_.fetchone("SELECT abs(-1 << 63)"); }),
            "integer overflow");  // fails as it runs: a retry on the writer would be traced
  EXPECT_TRUE(traced().empty());
  // Nor is a read whose read connection fails to begin for another reason.
  const auto begun = [](sqlite::Connection& reader) { reader.cursor().execute("BEGIN"); };
  Peer::set_readers(db_, std::make_shared<ReaderPool>(path_, 1, begun));
  EXPECT_EQ(error_of<sqlite::OperationalError>([&] { db_.read(count); }),
            "cannot start a transaction within a transaction");
  // A read connection that cannot serve once the read has begun (its file's shared-memory
  // index cannot be opened): the read runs on the writer instead.
  sqlite::Connection(dir_ / "other.db").cursor().execute("PRAGMA journal_mode=WAL");
  std::filesystem::create_symlink("nowhere", dir_ / "other.db-shm");
  Peer::set_readers(db_, std::make_shared<ReaderPool>(dir_ / "other.db", 1));
  db_.execute("INSERT INTO t (v) VALUES ('on the writer')");
  EXPECT_EQ(db_.read(count), 4);
}

TEST_F(DatabaseTest, PoolLeasesWaitForAConnectionAndCloseWaitsForAllLeasesThenRefuses) {
  open();
  db_.execute("INSERT INTO t (v) VALUES ('src/a.py')");
  // Four threads on two connections: each lease waits for a connection and finds it
  // configured.
  ReaderPool pool(path_, 2, &utils::register_path_functions);
  std::atomic<int> active{0}, served{0}, refused{0};
  const auto work = [&] {
    for (;;) {
      try {
        auto lease = pool.lease();
        ++active;
        auto cursor = lease.connection().cursor();
        served += static_cast<int>(
            (*cursor.execute("SELECT path_glob('*/*', v) FROM t").fetchone())[0].as_int());
        --active;
      } catch (const ReaderUnavailable& error) {
        if (std::string(error.what()).ends_with("are closed")) return;
        ++refused;
      }
    }
  };
  {
    const std::jthread a(work), b(work), c(work), d(work);
    while (served.load() < 400) std::this_thread::yield();
    pool.close();
    EXPECT_EQ(active.load(), 0);  // close() returned only after every lease had ended
  }
  EXPECT_EQ(refused.load(), 0);
  pool.close();
  EXPECT_EQ(error_of<ReaderUnavailable>([&] { pool.lease(); }),
            "the read connections of " + path_.string() + " are closed");
  EXPECT_THROW(ReaderPool(dir_ / "missing.db", 1).lease(), ReaderUnavailable);
  // A connection whose set-up throws goes back to the pool unmade: the next lease tries anew.
  ReaderPool unmade(
      path_, 1, [](sqlite::Connection&) { throw std::logic_error("set-up"); }, 10ms);
  for (int i = 0; i < 2; ++i) EXPECT_THROW(unmade.lease(), std::logic_error);
  // A waiting lease is served once a connection comes back, not when its wait runs out.
  const auto started = std::chrono::steady_clock::now();
  {
    ReaderPool one(path_, 1, {}, std::chrono::seconds(60));
    std::optional<ReaderPool::Lease> held(one.lease());
    const std::jthread waiter([&] { const ReaderPool::Lease lease = one.lease(); });
    std::this_thread::sleep_for(50ms);  // the waiter is waiting by now, most often
    held.reset();
  }  // joined: the waiter was served
  EXPECT_LT(std::chrono::steady_clock::now() - started, 30s);
  {  // A lease moved onto another gives that one's connection back.
    ReaderPool two(path_, 2, {}, 10ms);
    ReaderPool::Lease first = two.lease();
    ReaderPool::Lease second = two.lease();
    first = std::move(second);
    EXPECT_NO_THROW(const ReaderPool::Lease third = two.lease());
  }
  // A read connection that fails to close (a statement made outside the binding holds it)
  // is reported once the pool has closed them all.
  std::mutex holding;
  std::vector<sqlite3_stmt*> held;
  ReaderPool failing(path_, 2, [&](sqlite::Connection& reader) {
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(reader.handle(), "SELECT 1", -1, &statement, nullptr), SQLITE_OK);
    const std::lock_guard hold(holding);
    held.push_back(statement);
  });
  {
    const ReaderPool::Lease first = failing.lease();
    const ReaderPool::Lease second = failing.lease();
  }
  EXPECT_EQ(error_of<sqlite::OperationalError>([&] { failing.close(); }),
            "unable to close due to unfinalized statements or unfinished backups");
  for (sqlite3_stmt* statement : held) sqlite3_finalize(statement);
}

// Several processes on one index file: opening or reading a current file takes no write lock
// at all, and another process's write makes this one's writes wait (never fail at once).
TEST_F(DatabaseTest, AnotherProcesssWriteLetsReadsThroughAndMakesWritesWait) {
  testing::open_fully(db_);
  db_.transaction([](Cursor& cursor) { testing::fill_index(cursor, "live", 1, 1); });
  db_.close();
  const std::string wal = path_.string() + "-wal";
  const std::string before = testing::bytes_of(path_) + testing::bytes_of(wal);
  // Another process holds the write lock until told (past the busy timeout), then for 300 ms,
  // and commits before it lets go: a snapshot taken before that cannot be written from after it.
  for (const bool until_told : {true, false}) {
    const std::filesystem::path release = dir_ / (until_told ? "release" : "never made");
    int said[2];  // the other process writes a byte once it holds the lock, one once it let go
    ASSERT_EQ(::pipe(said), 0);
    const pid_t other = ::fork();
    if (other == 0) {
      sqlite3* raw = nullptr;
      bool ok = sqlite3_open(path_.c_str(), &raw) == SQLITE_OK &&
                sqlite3_busy_timeout(raw, 5000) == SQLITE_OK &&
                sqlite3_exec(raw, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK &&
                ::write(said[1], "l", 1) == 1;
      for (int waited = 0; waited < (until_told ? 3000 : 30) && !exists(release); ++waited)
        std::this_thread::sleep_for(10ms);
      ok = ok && sqlite3_exec(raw, "CREATE TABLE IF NOT EXISTS holder (n); COMMIT", nullptr,
                              nullptr, nullptr) == SQLITE_OK;
      std::_Exit(ok && sqlite3_close(raw) == SQLITE_OK && ::write(said[1], "r", 1) == 1 ? 0 : 1);
    }
    ::close(said[1]);
    char byte = 0;
    ASSERT_EQ(::read(said[0], &byte, 1), 1) << "the other process took no lock";
    const auto started = std::chrono::steady_clock::now();
    Database db(path_);  // a process that opens the file afresh
    testing::open_fully(db);
    if (until_told) {
      EXPECT_EQ(Peer::count(db, "SELECT COUNT(*) FROM files") + db.read([](Cursor& cursor) {
        return cursor.execute("SELECT COUNT(*) FROM code_chunks").fetchone()->values()[0].as_int();
      }) + db.index_generation(),
                3);
      db.close();
      EXPECT_LT(std::chrono::steady_clock::now() - started, detail::WRITER_BUSY_TIMEOUT / 2);
      EXPECT_EQ(testing::bytes_of(path_) + testing::bytes_of(wal), before);
      std::ofstream{release};  // tells it to let go
    } else {
      db.transaction([](Cursor& cursor) {  // one that reads first, then writes
        cursor.execute("SELECT * FROM files").fetchall();
        cursor.execute("INSERT INTO components (name) VALUES ('x')");
      });
      EXPECT_GE(std::chrono::steady_clock::now() - started, 150ms);  // it did wait
    }
    EXPECT_EQ(::read(said[0], &byte, 1), 1);
    ::close(said[0]);
    int status = -1;
    EXPECT_EQ(::waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
  }
}

}  // namespace
}  // namespace quilma::storage
