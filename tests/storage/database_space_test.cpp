// Whether the disks can hold a rewrite, and compaction: releasing free pages in steps, shrinking
// the file, converting files made without auto-vacuum.
#include <future>
#include <latch>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/database_test_peer.h"
#include "support/fault_vfs.h"
#include "support/index_builder.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include "quilma/runtime/event_loop.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/migrations.h"

namespace quilma::storage {
namespace {

using ::testing::ElementsAre;
using testing::LogLine;
using Peer = DatabaseTestPeer;
using Hook = std::function<void(std::string_view)>;
using namespace std::chrono_literals;

constexpr std::uintmax_t MiB = 1048576;
constexpr std::string_view RELEASE_STEP = "PRAGMA incremental_vacuum(";

Compaction skipped(const std::string& reason) {
  return Compaction{.converted = false, .pages_released = 0, .skipped = reason};
}

// Brings the free list up to exactly `pages` pages: a row whose record keeps 1003 bytes in
// its leaf and fills `pages` overflow pages of 8188 usable bytes, deleted again.
void free_pages(Database& db, std::int64_t pages) {
  db.execute("CREATE TABLE IF NOT EXISTS bulk (b BLOB)");
  db.execute("INSERT INTO bulk VALUES (zeroblob(?))", {1003 + (pages * 8188) - 5});
  db.execute("DELETE FROM bulk");
  ASSERT_EQ(testing::number(db, "PRAGMA freelist_count"), pages);
}

// Free space as a test declares it: plenty unless told.
class SpaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_ = detail::replace_free_space_query(
        [this](const std::filesystem::path&) { return free_.load(); });
  }
  void TearDown() override { detail::replace_free_space_query(previous_); }

  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "index.db";
  testing::ScopedEnv tmp_{"SQLITE_TMPDIR", dir_.path().c_str()};  // the same volume
  detail::FreeSpaceQuery previous_;
  std::atomic<std::uintmax_t> free_ = MiB * MiB;
};

TEST_F(SpaceTest, TheTemporaryDirectoryAndTheRoomAVacuumNeeds) {
  {
    // Used as set, even when missing; a volume that cannot be told counts as the file's, which
    // then holds both copies.
    testing::ScopedEnv configured("SQLITE_TMPDIR", (dir_ / "missing").c_str());
    EXPECT_EQ(detail::temp_directory(), dir_ / "missing");
    free_ = 1064 * MiB;  // 500 + 500 + 64: one volume holds both copies and one margin
    EXPECT_EQ(detail::disk_shortfall(dir_.path(), 500 * MiB), std::nullopt);
    free_ = 1064 * MiB - 1;
    EXPECT_NE(detail::disk_shortfall(dir_.path(), 500 * MiB), std::nullopt);
  }
  {
    testing::ScopedEnv configured("SQLITE_TMPDIR", dir_.path().c_str());  // the file's volume
    free_ = 1064 * MiB - 1;
    EXPECT_NE(detail::disk_shortfall(dir_.path(), 500 * MiB), std::nullopt);
  }
  // On two volumes, each needs room for one copy and the margin.
  if (!detail::same_volume(dir_.path(), "/dev/shm")) {
    testing::ScopedEnv configured("SQLITE_TMPDIR", "/dev/shm");
    for (const std::filesystem::path& short_of_room :
         {dir_.path(), std::filesystem::path("/dev/shm")}) {
      detail::replace_free_space_query([&](const std::filesystem::path& place) {
        return place == short_of_room ? 564 * MiB - 1 : 564 * MiB;
      });
      EXPECT_EQ(
          detail::disk_shortfall(dir_.path(), 500 * MiB),
          "not enough disk space: 563 MiB free in " + short_of_room.string() + ", 564 MiB needed");
    }
    detail::replace_free_space_query([](const std::filesystem::path&) { return 564 * MiB; });
    EXPECT_EQ(detail::disk_shortfall(dir_.path(), 500 * MiB), std::nullopt);
  }
  testing::ScopedEnv empty("SQLITE_TMPDIR", ""), not_a_directory("TMPDIR", "/dev/null");
  EXPECT_EQ(detail::temp_directory(), "/var/tmp");
}

TEST_F(SpaceTest, FreePagesGoBackInPacedStepsThatAWriterWaitsForOneAtMostAndACloseEnds) {
  const auto worth = [](std::int64_t free, std::int64_t pages) {
    return detail::worth_compacting({.mode = 2, .pages = pages, .free = free, .page_size = 8192});
  };
  EXPECT_TRUE(!worth(2047, 10000) && worth(2048, 20480) && !worth(2048, 20481));
  std::mutex mutex;
  std::vector<std::string> order;  // the writer connection's statements, as they start
  std::vector<std::int64_t> steps;
  std::latch releasing(1);
  std::thread closer;
  bool close_at_first = false;
  Hook hook;
  Database db(path_);
  // The first step lets a writer go and takes 60 ms: the next asks for what fits the target at
  // that pace. Later, the first step lets a close go instead.
  hook = [&](std::string_view sql) {
    const std::lock_guard hold(mutex);
    order.emplace_back(sql);
    if (!sql.starts_with(RELEASE_STEP)) return;
    steps.push_back(std::stoll(std::string(sql.substr(RELEASE_STEP.size()))));
    if (steps.size() > 1) return;
    if (!close_at_first) {
      releasing.count_down();
      return std::this_thread::sleep_for(60ms);
    }
    closer = std::thread([&db] { db.close(); });
    while (Peer::lock(db).waiting() == 0) std::this_thread::yield();  // for this step's lock
  };
  db.connect();
  const testing::LogCapture log;
  free_pages(db, 2047);
  EXPECT_EQ(db.compact(), Compaction{});  // too little to gain: nothing done, nothing said
  free_pages(db, 5000);
  const auto size_before = std::filesystem::file_size(path_);
  // Calls `hook` with the SQL of every statement that starts on the writer, on its thread.
  const auto call = [](unsigned, void* self, void*, void* sql) {
    return (*static_cast<Hook*>(self))(static_cast<const char*>(sql)), 0;
  };
  sqlite3_trace_v2(db.connection().handle(), SQLITE_TRACE_STMT, call, &hook);
  std::thread writer([&] {
    releasing.wait();
    for (int n = 0; n < 20; ++n) db.execute("INSERT INTO bulk VALUES (?)", {n});
  });
  EXPECT_EQ(db.compact(), (Compaction{.pages_released = 5000, .skipped = {}}));
  writer.join();
  EXPECT_LT(std::filesystem::file_size(path_), size_before - std::uintmax_t{5000} * 8192);
  EXPECT_THAT(
      log.texts(spdlog::level::info),
      ElementsAre(::testing::MatchesRegex("Compacted .*/index.db: 5000 free pages released "
                                          "\\([0-9]+ -> [0-9]+ MiB\\) in [0-9]+\\.[0-9]s")));
  {
    const std::lock_guard hold(mutex);
    ASSERT_GE(steps.size(), 5U);
    EXPECT_EQ(steps[0], detail::COMPACT_FIRST_STEP_PAGES);
    EXPECT_LE(steps[1],
              detail::COMPACT_FIRST_STEP_PAGES * detail::COMPACT_STEP_TARGET.count() / 60);
    EXPECT_TRUE(std::ranges::all_of(
        steps, [](auto step) { return step >= 16 && step <= COMPACT_STEP_PAGES; }));
    const auto is_step = [](const std::string& sql) { return sql.starts_with(RELEASE_STEP); };
    const auto first_write = std::ranges::find(order, "INSERT INTO bulk VALUES (?)");
    EXPECT_LT(std::ranges::find_if(order, is_step), first_write);
    EXPECT_LT(first_write, std::find_if(order.rbegin(), order.rend(), is_step).base() - 1)
        << "the writer waited for the whole release";
    steps.clear();
    close_at_first = true;
  }
  free_pages(db, 5000);
  // The first step, then the database was closed.
  EXPECT_EQ(Peer::release_free_pages(db), detail::COMPACT_FIRST_STEP_PAGES);
  closer.join();
  EXPECT_TRUE(db.closed());
}

// Below its threshold a commit leaves the log alone: it grows commit by commit, and is copied
// back in one checkpoint later.
TEST_F(SpaceTest, CommitsLeaveTheLogToACheckpointPastItsThreshold) {
  Database db(path_);
  db.connect();
  db.execute("CREATE TABLE t (n)");
  for (int i = 0; i < 100; ++i) db.execute("INSERT INTO t VALUES (?)", {i});
  EXPECT_GE(std::filesystem::file_size(path_.string() + "-wal"), std::uintmax_t{100} * 8192);
}

TEST_F(SpaceTest, TheLogIsShrunkWithoutWaitingAndRestartedByAWriterWhenReadersNeverPause) {
  Database db(path_);
  db.connect();
  free_pages(db, 3000);
  const testing::LogCapture log;
  sqlite::Connection reader(path_, {.read_only = true});
  sqlite::Cursor snapshot = reader.cursor();
  snapshot.execute("BEGIN");
  snapshot.execute("SELECT COUNT(*) FROM bulk").fetchall();
  EXPECT_EQ(Peer::release_free_pages(db), 3000);  // into the log, behind the reader
  const auto size_before = std::filesystem::file_size(path_);
  EXPECT_FALSE(Peer::shrink_file(db));  // at once
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("Compaction of " + path_.string() +
                          ": a reader still uses an older snapshot, so the file shrinks at a "
                          "later checkpoint"));
  snapshot.execute("ROLLBACK");
  EXPECT_TRUE(Peer::shrink_file(db));
  EXPECT_LT(std::filesystem::file_size(path_), size_before - std::uintmax_t{3000} * 8192);

  const auto wal = [&] { return std::filesystem::file_size(path_.string() + "-wal"); };
  const auto write_mib = [&](int commits) {
    std::uintmax_t largest = 0;
    for (int i = 0; i < commits; ++i) {
      db.execute("INSERT INTO bulk VALUES (zeroblob(1048576))");
      largest = std::max(largest, wal());
    }
    db.execute("DELETE FROM bulk");
    return largest;
  };
  // Two compactions at once, round after round, leave the automatic checkpoint on.
  for (int round = 0; round < 4; ++round) {
    free_pages(db, 6000);
    std::latch both(2);
    const auto compact = [&] { both.arrive_and_wait(), db.compact(); };
    const std::jthread first(compact), second(compact);
  }
  EXPECT_LT(write_mib(24), 16 * MiB);

  // A reader that lets go while the committing writer waits for it: the log, past its bound,
  // starts again from its beginning before it is twice as large.
  snapshot.execute("BEGIN");
  snapshot.execute("SELECT COUNT(*) FROM bulk").fetchall();
  for (int i = 0; i < 15; ++i) db.execute("INSERT INTO bulk VALUES (zeroblob(1048576))");
  const std::jthread release([&snapshot] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    snapshot.execute("COMMIT");
  });
  write_mib(2);
  EXPECT_LT(wal(), 4 * MiB);

  // Two readers that take turns so that one always has a snapshot: the automatic checkpoint
  // never finishes, and the writer that finds the log past its bound restarts it.
  std::atomic<int> turn{0};
  std::atomic<bool> done{false};
  const auto read = [&](int me) {
    sqlite::Connection connection(path_, {.read_only = true});
    sqlite::Cursor cursor = connection.cursor();
    while (!done) {
      while (turn != me && !done) std::this_thread::yield();
      cursor.execute("BEGIN");
      cursor.execute("SELECT COUNT(*) FROM sqlite_schema").fetchall();
      turn = 1 - me;  // the other begins; this one ends once it has
      while (turn != me && !done) std::this_thread::yield();
      cursor.execute("COMMIT");
    }
  };
  std::uintmax_t largest = 0;
  {
    const std::jthread first(read, 0), second(read, 1);
    largest = write_mib(48);
    done = true;
  }
  // Past its bound it is restarted at once, or (a reader held up longer than the writer waits)
  // before it is twice as large.
  EXPECT_LT(largest, 2 * detail::LOG_RESTART_BYTES + 2 * MiB);
  // The writer waits for other processes' locks as long as before the restarts, and the
  // restarts left no statement behind that would keep it from closing.
  EXPECT_EQ(db.execute("PRAGMA busy_timeout").fetchone().value()[0].as_int(),
            detail::WRITER_BUSY_TIMEOUT.count());
  EXPECT_NO_THROW(db.close());
}

TEST_F(SpaceTest, RefusalsAreLoggedOnceAndAFileWithoutAutoVacuumIsConvertedOnceWhenItMay) {
  {
    sqlite::Connection plain(path_);  // as older releases made them
    sqlite::Cursor cursor = plain.cursor();
    migrations::run_ddl(cursor,
                        "PRAGMA page_size=8192; PRAGMA auto_vacuum=NONE; CREATE TABLE "
                        "kept (n); INSERT INTO kept VALUES (42)");
  }
  const Compaction not_retried =
      skipped("an earlier conversion failed or changed nothing: not retried");
  const testing::LogCapture log;
  {
    // Refusals, each logged at its level once, then at debug.
    const std::string prefix = "Compaction of " + path_.string() + " skipped: ";
    const std::string loop = "called on the event loop: a pool thread compacts";
    const std::string no_readers =
        "no read connections: a query would wait for the lock the conversion holds";
    const testing::ScopedEnv without_readers("QUILMA_DB_READERS", "0");
    Database db(path_);
    EXPECT_EQ(db.compact(), skipped("the database is closed"));
    db.connect();
    for (int twice = 0; twice < 2; ++twice) {
      const runtime::EventLoopScope scope;
      EXPECT_EQ(db.compact(), skipped(loop));
    }
    db.transaction(
        [&](sqlite::Cursor&) { EXPECT_EQ(db.compact(), skipped("called inside a transaction")); });
    free_pages(db, 3000);
    EXPECT_EQ(db.compact(), skipped(no_readers));
    db.close();
    EXPECT_EQ(db.compact(), skipped("the database is closed"));
    const auto info = spdlog::level::info;
    EXPECT_THAT(
        log.lines(),
        ElementsAre(LogLine{info, prefix + "the database is closed"}, LogLine{info, prefix + loop},
                    LogLine{spdlog::level::debug, prefix + loop},
                    LogLine{info, prefix + "called inside a transaction"},
                    LogLine{info, prefix + no_readers},
                    LogLine{spdlog::level::debug, prefix + "the database is closed"}));
  }
  {
    testing::FaultVfs vfs;
    Database db(path_);
    db.connect();
    vfs.fail_writes_after(0);
    EXPECT_EQ(db.compact(), skipped("failed: database or disk is full"));
    vfs.heal();
    EXPECT_EQ(db.compact(), not_retried);
    EXPECT_TRUE(db.check_integrity());
  }
  {
    // The mode pragma ignored: the VACUUM rewrites the file as it was.
    static constexpr testing::PragmaVeto ignored{"auto_vacuum", SQLITE_IGNORE};
    Database db(path_);
    db.connect();
    ignored.apply(db.connection().handle());
    EXPECT_EQ(db.compact(),
              skipped("the file was rewritten but is not in incremental auto-vacuum mode"));
    free_pages(db, 3000);
    EXPECT_EQ(db.compact(), not_retried);
  }
  EXPECT_THAT(log.texts(spdlog::level::warn),
              ElementsAre(::testing::HasSubstr("skipped: failed: database or disk is full")));
  Database db(path_);
  db.connect();
  free_ = 0;
  EXPECT_EQ(db.compact(), skipped("not enough disk space: 0 MiB free in " + dir_.path().string() +
                                  ", 64 MiB needed"));
  free_ = MiB * MiB;  // a shortfall is not a failure: tried again
  const std::int64_t pages_before = testing::number(db, "PRAGMA page_count");
  const Compaction converted = db.compact();
  EXPECT_TRUE(converted.converted);
  EXPECT_EQ(converted.pages_released, pages_before - testing::number(db, "PRAGMA page_count"));
  EXPECT_EQ(
      testing::number(db, "SELECT auto_vacuum + (SELECT n FROM kept) FROM pragma_auto_vacuum"),
      detail::AUTO_VACUUM_INCREMENTAL + 42);
  free_pages(db, 3000);  // from now on pages go back in steps
  EXPECT_EQ(db.compact(), (Compaction{.pages_released = 3000, .skipped = {}}));
}

}  // namespace
}  // namespace quilma::storage
