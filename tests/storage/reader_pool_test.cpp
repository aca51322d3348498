#include "quilma/storage/reader_pool.h"

#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/error_of.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"
#include "quilma/utils/path_filter.h"

namespace quilma::storage {
namespace {

using namespace std::chrono_literals;
using testing::error_of;

class ReaderPoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writer_.cursor().execute("PRAGMA journal_mode=WAL").fetchall();
    writer_.cursor().execute("CREATE TABLE t (x)");
    writer_.cursor().execute("INSERT INTO t VALUES ('src/a.py')");
  }
  static std::int64_t count(ReaderPool::Lease& lease) {
    return lease.connection()
        .cursor()
        .execute("SELECT count(*) FROM t")
        .fetchone()
        ->values()[0]
        .as_int();
  }

  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "pool.db";
  sqlite::Connection writer_{path_};
};

TEST_F(ReaderPoolTest, LeasesWaitTheirBoundForAConnectionToComeBack) {
  ReaderPool pool(path_, 1, &utils::register_path_functions, 5s);
  std::optional<ReaderPool::Lease> held(pool.lease());
  auto cursor = held->connection().cursor();
  EXPECT_EQ(cursor.execute("SELECT path_glob('**/*.py', x) FROM t").fetchone()->values()[0],
            sqlite::Value(1));
  EXPECT_EQ(error_of<sqlite::OperationalError>([&] { cursor.execute("INSERT INTO t VALUES (1)"); }),
            "attempt to write a readonly database");
  cursor.close();
  std::latch waiting(1);
  auto waiter = std::async(std::launch::async, [&] {
    waiting.count_down();
    auto lease = pool.lease();
    return count(lease);
  });
  waiting.wait();
  ASSERT_EQ(waiter.wait_for(100ms), std::future_status::timeout);
  held.reset();  // the waiter, blocked in lease(), gets this connection
  EXPECT_EQ(waiter.get(), 1);

  ReaderPool small(path_, 1, {}, 50ms);
  auto taken = small.lease();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(error_of<ReaderUnavailable>([&] { small.lease(); }),
            "all 1 read connections of " + path_.string() + " stayed in use for 50 ms");
  EXPECT_GE(std::chrono::steady_clock::now() - started, 50ms);
}

TEST_F(ReaderPoolTest, ConnectionsServeOneThreadAtATimeAndCloseWaitsForAllThenRefuses) {
  ReaderPool pool(path_, 2);
  std::mutex mutex;
  std::set<sqlite::Connection*> in_use;
  std::atomic<int> shared{0}, active{0}, served{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (;;) {
        try {
          auto lease = pool.lease();
          ++active;
          if (const std::lock_guard hold(mutex); !in_use.insert(&lease.connection()).second)
            ++shared;
          served += count(lease) == 1 ? 1 : 0;
          if (const std::lock_guard hold(mutex); in_use.erase(&lease.connection()) == 1) --active;
        } catch (const ReaderUnavailable& error) {
          if (std::string(error.what()).ends_with("are closed")) return;
        }
      }
    });
  }
  while (served.load() < 400) std::this_thread::yield();
  pool.close();
  EXPECT_EQ(active.load(), 0);  // close() returned only after every lease had ended
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(shared.load(), 0);
  pool.close();
  EXPECT_EQ(error_of<ReaderUnavailable>([&] { pool.lease(); }),
            "the read connections of " + path_.string() + " are closed");

  ReaderPool missing(dir_ / "missing.db", 1);
  EXPECT_EQ(error_of<ReaderUnavailable>([&] { missing.lease(); }),
            "cannot open a read connection on " + (dir_ / "missing.db").string() +
                ": unable to open database file");
  EXPECT_THROW(ReaderPool(path_, 0), std::invalid_argument);
}

}  // namespace
}  // namespace quilma::storage
