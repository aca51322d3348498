#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/database_test_peer.h"
#include "support/fault_vfs.h"
#include "support/log_capture.h"
#include "support/statement_trace.h"
#include "support/temp_dir.h"

#include "quilma/runtime/event_loop.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"

namespace quilma::storage {
namespace {

using ::testing::ElementsAre;
using testing::LogLine;
using ::testing::MatchesRegex;

constexpr auto INFO = spdlog::level::info;
constexpr auto DEBUG = spdlog::level::debug;
constexpr auto WARN = spdlog::level::warn;
constexpr std::string_view RELEASE_STEP = "PRAGMA incremental_vacuum(";

// The pages each release step asked for, in order.
std::vector<std::int64_t> release_steps(const std::vector<std::string>& statements) {
  std::vector<std::int64_t> steps;
  for (const std::string& sql : statements) {
    if (sql.starts_with(RELEASE_STEP)) steps.push_back(std::stoll(sql.substr(RELEASE_STEP.size())));
  }
  return steps;
}

Compaction skipped(const std::string& reason) {
  return Compaction{.converted = false, .pages_released = 0, .skipped = reason};
}

Compaction released(std::int64_t pages) {
  return Compaction{.converted = false, .pages_released = pages, .skipped = std::nullopt};
}

std::int64_t free_list(Database& db) {
  return (*db.fetchone("SELECT freelist_count FROM pragma_freelist_count"))[0].as_int();
}

// Brings the free list up to exactly `pages` pages: a row whose record keeps 1003 bytes in
// its leaf and fills `pages` overflow pages of 8188 usable bytes (taking the free ones
// first), deleted again.
void free_pages(Database& db, std::int64_t pages) {
  db.execute("CREATE TABLE IF NOT EXISTS bulk (b BLOB)");
  db.execute("INSERT INTO bulk VALUES (zeroblob(?))", {1003 + (pages * 8188) - 5});
  db.execute("DELETE FROM bulk");
  ASSERT_EQ(free_list(db), pages);
}

// A file made without auto-vacuum, as older releases made them.
void make_plain_file(const std::filesystem::path& path) {
  sqlite::Connection raw(path);
  sqlite::Cursor cursor = raw.cursor();
  cursor.execute("PRAGMA page_size=8192");
  cursor.execute("PRAGMA auto_vacuum=NONE");
  cursor.execute("PRAGMA journal_mode=WAL");
  cursor.execute("CREATE TABLE kept (n INTEGER)");
  cursor.execute("INSERT INTO kept VALUES (42)");
}

std::int64_t mode_of(Database& db) {
  return (*db.fetchone("SELECT auto_vacuum FROM pragma_auto_vacuum"))[0].as_int();
}

// Calls `on_statement` with the SQL of every statement that starts on a connection, on the
// thread that runs it. Never detaches: it must outlive the connection.
class StatementHook {
 public:
  explicit StatementHook(std::function<void(std::string_view)> on_statement)
      : on_statement_(std::move(on_statement)) {}
  void attach(sqlite3* db) {
    sqlite3_trace_v2(
        db, SQLITE_TRACE_STMT,
        [](unsigned /*type*/, void* self, void* /*statement*/, void* sql) {
          static_cast<StatementHook*>(self)->on_statement_(static_cast<const char*>(sql));
          return 0;
        },
        this);
  }

 private:
  std::function<void(std::string_view)> on_statement_;
};

TEST(ReleaseTest, FreePagesGoBackInStepsSizedToTheirPace) {
  testing::TempDir dir;
  Database db(dir / "index.db");
  std::vector<std::string> statements;  // one trace per connection: the hook records them too
  // The first step is made to take 60 ms: the next one asks for half its pages or fewer.
  StatementHook hook([&](std::string_view sql) {
    statements.emplace_back(sql);
    if (sql.starts_with(RELEASE_STEP) && release_steps(statements).size() == 1) {
      std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
  });
  db.connect();
  free_pages(db, 3000);
  hook.attach(db.connection().handle());
  EXPECT_EQ(DatabaseTestPeer::release_free_pages(db), 3000);
  const std::vector<std::int64_t> steps = release_steps(statements);
  ASSERT_GE(steps.size(), 4U);
  EXPECT_EQ(steps[0], 256);
  EXPECT_LE(steps[1], 128);
  for (const std::int64_t step : steps) {
    EXPECT_GE(step, 16);
    EXPECT_LE(step, COMPACT_STEP_PAGES);
  }
  // Each step reads the free list before and after; the last finds it empty.
  EXPECT_EQ(std::count(statements.begin(), statements.end(), "PRAGMA freelist_count"),
            static_cast<std::ptrdiff_t>(2 * steps.size() + 1));
  EXPECT_EQ(free_list(db), 0);
  statements.clear();
  EXPECT_EQ(DatabaseTestPeer::release_free_pages(db), 0);
  EXPECT_TRUE(release_steps(statements).empty());
}

TEST(ReleaseTest, AFileWithoutIncrementalModeReleasesNothing) {
  testing::TempDir dir;
  make_plain_file(dir / "plain.db");
  Database db(dir / "plain.db");
  db.connect();
  free_pages(db, 10);
  testing::StatementTrace trace(db.connection().handle());
  EXPECT_EQ(DatabaseTestPeer::release_free_pages(db), 0);
  EXPECT_EQ(release_steps(trace.statements()).size(), 1U);
  EXPECT_EQ(free_list(db), 10);
}

TEST(ReleaseTest, ADatabaseClosedBetweenStepsEndsTheRelease) {
  testing::TempDir dir;
  std::thread closer;
  Database db(dir / "index.db");
  std::atomic<bool> first_step{true};
  StatementHook hook([&](std::string_view sql) {
    if (!sql.starts_with(RELEASE_STEP) || !first_step.exchange(false)) return;
    closer = std::thread([&db] { db.close(); });
    // The close waits for the lock that this step holds.
    while (DatabaseTestPeer::lock(db).waiting() == 0) std::this_thread::yield();
  });
  db.connect();
  free_pages(db, 3000);
  hook.attach(db.connection().handle());
  EXPECT_EQ(DatabaseTestPeer::release_free_pages(db), 256);  // the first step's
  closer.join();
  EXPECT_TRUE(db.closed());
  EXPECT_EQ(db.compact(), skipped("the database is closed"));
}

TEST(ReleaseTest, AWriterWaitsForOneStepAtMost) {
  testing::TempDir dir;
  Database db(dir / "index.db");
  std::mutex mutex;
  std::vector<std::string> order;  // the writer connection's statements, as they start
  std::latch releasing(1);
  StatementHook hook([&](std::string_view sql) {
    const std::lock_guard hold(mutex);
    // Every release step is recorded under one name.
    order.emplace_back(sql.starts_with(RELEASE_STEP) ? RELEASE_STEP : sql);
    if (order.back() == RELEASE_STEP && std::count(order.begin(), order.end(), RELEASE_STEP) == 1) {
      releasing.count_down();
    }
  });
  db.connect();
  db.execute("CREATE TABLE work (n INTEGER)");
  free_pages(db, 3000);
  hook.attach(db.connection().handle());

  std::chrono::steady_clock::duration longest{};
  std::thread writer([&] {
    releasing.wait();
    for (int n = 0; n < 20; ++n) {
      const auto asked = std::chrono::steady_clock::now();
      db.execute("INSERT INTO work VALUES (?)", {n});
      longest = std::max(longest, std::chrono::steady_clock::now() - asked);
    }
  });
  const Compaction result = db.compact();
  writer.join();
  EXPECT_GT(result.pages_released, 0);
  EXPECT_FALSE(result.skipped);

  const std::lock_guard hold(mutex);
  const auto first_step = std::find(order.begin(), order.end(), RELEASE_STEP);
  const auto last_step = std::find(order.rbegin(), order.rend(), RELEASE_STEP).base() - 1;
  const auto first_write = std::find(order.begin(), order.end(), "INSERT INTO work VALUES (?)");
  ASSERT_NE(first_write, order.end());
  EXPECT_LT(first_step, first_write);
  EXPECT_LT(first_write, last_step) << "the writer waited for the whole release";
  ::testing::Test::RecordProperty(
      "longest_writer_wait_us",
      static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(longest).count()));
}

TEST(ShrinkTest, WaitsForReadersOnOlderSnapshotsWithTheWriterFree) {
  using namespace std::chrono_literals;
  testing::TempDir dir;
  Database db(dir / "index.db");
  db.connect();
  db.execute("CREATE TABLE t (n INTEGER)");
  const testing::LogCapture log;
  sqlite::Connection reader(dir / "index.db", {.read_only = true});
  sqlite::Cursor snapshot = reader.cursor();
  const auto hold_snapshot = [&] {
    snapshot.execute("BEGIN");
    snapshot.execute("SELECT COUNT(*) FROM t").fetchall();
    db.execute("INSERT INTO t VALUES (1)");  // a frame the reader must not see copied over
  };

  hold_snapshot();  // for about a second
  std::future<bool> shrunk =
      std::async(std::launch::async, [&] { return DatabaseTestPeer::shrink_file(db, 5s); });
  std::this_thread::sleep_for(300ms);
  db.execute("INSERT INTO t VALUES (2)");  // the writer is free while the shrink waits
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ(shrunk.wait_for(0s), std::future_status::timeout);
  snapshot.execute("ROLLBACK");
  EXPECT_TRUE(shrunk.get());
  EXPECT_EQ(std::filesystem::file_size(dir / "index.db-wal"), 0U);
  EXPECT_TRUE(log.lines().empty());

  hold_snapshot();  // past the patience
  EXPECT_FALSE(DatabaseTestPeer::shrink_file(db, 100ms));
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{INFO, "Compaction of " + (dir / "index.db").string() +
                                            ": a reader still uses an older snapshot, so the "
                                            "file shrinks at a later checkpoint"}));
}

TEST(CompactTest, EnoughFreePagesByCountAndByShare) {
  const auto worth = [](std::int64_t free, std::int64_t pages) {
    return detail::worth_compacting({.mode = 2, .pages = pages, .free = free, .page_size = 8192});
  };
  EXPECT_FALSE(worth(2047, 10000));
  EXPECT_TRUE(worth(2048, 20480));
  EXPECT_FALSE(worth(2048, 20481));
  EXPECT_TRUE(worth(5000, 20000));
}

TEST(CompactTest, ReleasesInStepsAndShrinksTheFile) {
  testing::TempDir dir;
  Database db(dir / "index.db");
  db.connect();
  free_pages(db, 2047);
  const testing::LogCapture log;
  EXPECT_EQ(db.compact(), Compaction{});  // too little to gain: nothing done, nothing said
  free_pages(db, 5000);
  const auto size_before = std::filesystem::file_size(dir / "index.db");
  EXPECT_EQ(db.compact(), released(5000));
  EXPECT_LT(std::filesystem::file_size(dir / "index.db"),
            size_before - (std::uintmax_t{5000} * 8192));
  EXPECT_EQ(std::filesystem::file_size(dir.path() / "index.db-wal"), 0U);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_THAT(log.lines()[0].text, MatchesRegex("Compacted .*/index.db: 5000 free pages released "
                                                "\\([0-9]+ -> [0-9]+ MiB\\) in [0-9]+\\.[0-9]s"));
}

TEST(CompactTest, RefusalsAreLoggedAtTheirLevelOnceThenAtDebug) {
  testing::TempDir dir;
  const std::string path = (dir / "index.db").string();
  const testing::LogCapture log;
  Database db(dir / "index.db");
  Database other(dir / "index.db");
  EXPECT_EQ(db.compact(), skipped("the database is closed"));
  db.connect();
  other.connect();
  {
    const runtime::EventLoopScope loop;
    { const runtime::EventLoopScope nested; }
    EXPECT_TRUE(runtime::on_event_loop());
    std::thread([] { EXPECT_FALSE(runtime::on_event_loop()); }).join();
    EXPECT_EQ(db.compact(), skipped("called on the event loop: a pool thread compacts"));
    EXPECT_EQ(db.compact(), skipped("called on the event loop: a pool thread compacts"));
    EXPECT_EQ(other.compact(), skipped("called on the event loop: a pool thread compacts"));
  }
  EXPECT_FALSE(runtime::on_event_loop());
  db.transaction(
      [&](sqlite::Cursor&) { EXPECT_EQ(db.compact(), skipped("called inside a transaction")); });
  db.close();
  EXPECT_EQ(db.compact(), skipped("the database is closed"));
  const std::string loop = "Compaction of " + path +
                           " skipped: called on the event loop: a pool "
                           "thread compacts";
  EXPECT_THAT(
      log.lines(),
      ElementsAre(LogLine{INFO, "Compaction of " + path + " skipped: the database is closed"},
                  LogLine{INFO, loop}, LogLine{DEBUG, loop}, LogLine{INFO, loop},
                  LogLine{INFO, "Compaction of " + path + " skipped: called inside a transaction"},
                  LogLine{DEBUG, "Compaction of " + path + " skipped: the database is closed"}));
}

TEST(CompactTest, ThreadsRefusingAtOnceLogTheKindOnce) {
  testing::TempDir dir;
  const testing::LogCapture log;
  Database db(dir / "index.db");
  constexpr int THREADS = 8;
  std::latch start(THREADS);
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int i = 0; i < THREADS; ++i) {
    threads.emplace_back([&] {
      const runtime::EventLoopScope loop;
      start.arrive_and_wait();
      db.compact();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(log.texts(INFO).size(), 1U);
  EXPECT_EQ(log.texts(DEBUG).size(), THREADS - 1U);
}

class ConversionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    make_plain_file(path_);
    // Free space is the test's to decide, whatever the machine has.
    previous_ = detail::replace_free_space_query(
        [this](const std::filesystem::path&) { return available_.load(); });
  }
  void TearDown() override { detail::replace_free_space_query(previous_); }

  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "index.db";
  std::atomic<std::uintmax_t> available_{std::uintmax_t{1} << 40};
  detail::FreeSpaceQuery previous_;
};

TEST_F(ConversionTest, AFileWithoutAutoVacuumIsRewrittenOnceWhenItMay) {
  {
    const testing::ScopedEnv no_readers("QUILMA_DB_READERS", "0");
    Database without_readers(path_);
    without_readers.connect();
    free_pages(without_readers, 3000);
    EXPECT_EQ(without_readers.compact(), skipped("no read connections: a query would wait for "
                                                 "the lock the conversion holds"));
  }
  const testing::LogCapture log;
  Database db(path_);
  db.connect();
  available_ = 0;
  EXPECT_EQ(db.compact(), skipped("not enough disk space: 0 MiB free in " + dir_.path().string() +
                                  ", 64 MiB needed"));
  available_ = std::uintmax_t{1} << 40;  // a shortfall is not a failure: tried again
  const std::int64_t pages_before = (*db.fetchone("PRAGMA page_count"))[0].as_int();
  const Compaction converted = db.compact();
  EXPECT_TRUE(converted.converted);
  EXPECT_EQ(converted.pages_released,
            pages_before - (*db.fetchone("PRAGMA page_count"))[0].as_int());
  EXPECT_EQ(mode_of(db), detail::AUTO_VACUUM_INCREMENTAL);
  EXPECT_EQ((*db.fetchone("SELECT n FROM kept"))[0].as_int(), 42);
  EXPECT_THAT(log.texts(INFO).back(),
              MatchesRegex("Converted .*/index.db to incremental auto-vacuum: [0-9]+ free pages "
                           "released \\([0-9]+ -> 0 MiB\\) in [0-9]+\\.[0-9]s"));
  // From now on pages go back in steps.
  free_pages(db, 3000);
  EXPECT_EQ(db.compact(), released(3000));
}

TEST_F(ConversionTest, DataOverTheLimitIsNotConverted) {
  Database db(path_);
  db.connect();
  const std::int64_t limit_pages = COMPACT_CONVERT_MAX_BYTES / 8192;
  const detail::Space over{.mode = 0, .pages = limit_pages + 11, .free = 10, .page_size = 8192};
  EXPECT_EQ(DatabaseTestPeer::convert_to_incremental(db, over),
            skipped("too large to convert in place: 1024 MiB of data, the limit is 1024 MiB; its "
                    "free pages stay until the index file is rebuilt"));
  EXPECT_EQ(mode_of(db), detail::AUTO_VACUUM_NONE);
  const detail::Space at{.mode = 0, .pages = limit_pages + 10, .free = 10, .page_size = 8192};
  EXPECT_TRUE(DatabaseTestPeer::convert_to_incremental(db, at).converted);
  EXPECT_EQ(mode_of(db), detail::AUTO_VACUUM_INCREMENTAL);
  // Converted meanwhile by someone else: nothing to do, nothing to report.
  EXPECT_EQ(DatabaseTestPeer::convert_to_incremental(db, at), Compaction{});
}

TEST_F(ConversionTest, AFailedRewriteIsReportedAndNotTriedAgain) {
  testing::FaultVfs vfs;
  const testing::LogCapture log;
  Database db(path_);
  db.connect();
  free_pages(db, 3000);
  vfs.fail_writes_after(0);
  EXPECT_EQ(db.compact(), skipped("failed: database or disk is full"));
  vfs.heal();
  EXPECT_GT(vfs.faults(), 0);
  EXPECT_EQ(db.compact(), skipped("an earlier conversion failed or changed nothing: not retried"));
  EXPECT_EQ(mode_of(db), detail::AUTO_VACUUM_NONE);
  EXPECT_TRUE(db.check_integrity());
  const std::string prefix = "Compaction of " + path_.string() + " skipped: ";
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{WARN, prefix + "failed: database or disk is full\n"
                                                 "quilma::sqlite::OperationalError: database or "
                                                 "disk is full"},
                          LogLine{DEBUG, prefix + "an earlier conversion failed or changed "
                                                  "nothing: not retried"}));
  db.close();
}

TEST_F(ConversionTest, AFailedCheckpointIsReportedAndLeavesTheFileWhole) {
  testing::FaultVfs vfs;
  Database db(dir_ / "incremental.db");
  db.connect();
  free_pages(db, 3000);
  db.execute("PRAGMA wal_checkpoint(TRUNCATE)");
  vfs.fail_sync(1);
  EXPECT_EQ(db.compact(), skipped("failed: disk I/O error"));
  vfs.heal();
  EXPECT_EQ(vfs.faults(), 1);
  EXPECT_TRUE(db.check_integrity());
  db.execute("INSERT INTO bulk VALUES (1)");  // the lock was given back
  db.close();
}

}  // namespace
}  // namespace quilma::storage
