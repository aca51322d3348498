#include "quilma/storage/reader_pool.h"

#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"
#include "quilma/utils/path_filter.h"

namespace quilma::storage {
namespace {

using ::testing::HasSubstr;

class ReaderPoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto cursor = writer_.cursor();
    cursor.execute("PRAGMA journal_mode=WAL").fetchall();
    cursor.execute("CREATE TABLE t (x)");
    cursor.execute("INSERT INTO t VALUES ('src/a.py')");
  }

  testing::TempDir dir_;
  sqlite::Connection writer_{dir_ / "pool.db"};
};

TEST_F(ReaderPoolTest, LeasesConfiguredReadOnlyConnections) {
  ReaderPool pool(dir_ / "pool.db", 2, &utils::register_path_functions);
  auto lease = pool.lease();
  auto cursor = lease.connection().cursor();
  EXPECT_EQ(cursor.execute("SELECT path_glob('**/*.py', x) FROM t").fetchone().value()[0],
            sqlite::Value(1));
  try {
    cursor.execute("INSERT INTO t VALUES ('b')");
    FAIL() << "a read connection wrote";
  } catch (const sqlite::OperationalError& error) {
    EXPECT_THAT(error.what(), HasSubstr("readonly database"));
  }
}

TEST_F(ReaderPoolTest, ALeaseComesBackWhenItsScopeUnwinds) {
  ReaderPool pool(dir_ / "pool.db", 1);
  try {
    auto lease = pool.lease();
    throw std::runtime_error("query failed");
  } catch (const std::runtime_error&) {
  }
  auto again = pool.lease();  // would time out if the first had not come back
  ReaderPool::Lease moved = std::move(again);
  EXPECT_FALSE(moved.connection().cursor().execute("SELECT x FROM t").fetchall().empty());
}

TEST_F(ReaderPoolTest, AnExhaustedPoolGivesUpAfterItsBoundedWait) {
  ReaderPool pool(dir_ / "pool.db", 1);
  auto held = pool.lease();
  const auto started = std::chrono::steady_clock::now();
  try {
    pool.lease();
    FAIL() << "leased a connection twice";
  } catch (const ReaderUnavailable& error) {
    EXPECT_THAT(error.what(), HasSubstr("stayed in use"));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - started, ReaderPool::LEASE_WAIT);
}

TEST_F(ReaderPoolTest, AWaitingLeaseTakesTheConnectionThatComesBack) {
  ReaderPool pool(dir_ / "pool.db", 1, {}, std::chrono::seconds(30));
  std::optional<ReaderPool::Lease> held(pool.lease());
  std::latch waiting(1);
  auto waiter = std::async(std::launch::async, [&] {
    waiting.count_down();
    auto lease = pool.lease();
    return lease.connection().cursor().execute("SELECT count(*) FROM t").fetchone().value()[0];
  });
  waiting.wait();
  ASSERT_EQ(waiter.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  held.reset();  // the waiter, blocked in lease(), gets this connection
  EXPECT_EQ(waiter.get(), sqlite::Value(1));
}

TEST_F(ReaderPoolTest, CloseWaitsForLeasesAndRefusesLaterOnes) {
  auto pool = std::make_unique<ReaderPool>(dir_ / "pool.db", 2);
  std::optional<ReaderPool::Lease> held(pool->lease());
  std::atomic<bool> closed{false};
  std::thread closer([&] {
    pool->close();
    closed = true;
  });
  // Once a new lease is refused as closed, close() has begun; it cannot finish while `held`
  // is out.
  while (true) {
    try {
      pool->lease();
    } catch (const ReaderUnavailable& error) {
      if (std::string(error.what()).find("closed") != std::string::npos) break;
    }
  }
  EXPECT_FALSE(closed.load());
  EXPECT_FALSE(held->connection().cursor().execute("SELECT x FROM t").fetchall().empty());
  held.reset();
  closer.join();
  EXPECT_TRUE(closed.load());
  EXPECT_THROW(pool->lease(), ReaderUnavailable);
  pool->close();  // a second close does nothing
}

TEST_F(ReaderPoolTest, UnopenableConnectionsAndBadSizesAreReported) {
  ReaderPool pool(dir_ / "missing.db", 1);
  try {
    pool.lease();
    FAIL() << "opened a missing file";
  } catch (const ReaderUnavailable& error) {
    EXPECT_THAT(error.what(), HasSubstr("unable to open database file"));
  }
  EXPECT_THROW(ReaderPool(dir_ / "pool.db", 0), std::invalid_argument);
}

TEST_F(ReaderPoolTest, EachConnectionServesOneThreadAtATime) {
  ReaderPool pool(dir_ / "pool.db", 2);
  std::mutex mutex;
  std::set<sqlite::Connection*> in_use;
  std::atomic<int> shared{0};
  std::atomic<int> served{0};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        try {
          auto lease = pool.lease();
          {
            const std::lock_guard hold(mutex);
            if (!in_use.insert(&lease.connection()).second) ++shared;
          }
          lease.connection().cursor().execute("SELECT x FROM t").fetchall();
          served += 1;
          const std::lock_guard hold(mutex);
          in_use.erase(&lease.connection());
        } catch (const ReaderUnavailable&) {  // a slow machine may exhaust the wait
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(shared.load(), 0);
  EXPECT_GT(served.load(), 0);
}

TEST_F(ReaderPoolTest, CloseRacingWithLeasesNeverClosesAConnectionInUse) {
  ReaderPool pool(dir_ / "pool.db", 2);
  std::atomic<int> active{0};
  std::atomic<int> broken{0};
  std::latch started(4);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      started.count_down();
      while (true) {
        try {
          auto lease = pool.lease();
          ++active;
          try {
            lease.connection().cursor().execute("SELECT x FROM t").fetchall();
          } catch (const sqlite::Error&) {
            ++broken;
          }
          --active;
        } catch (const ReaderUnavailable& error) {
          if (std::string(error.what()).find("closed") != std::string::npos) return;
        }
      }
    });
  }
  started.wait();
  pool.close();
  EXPECT_EQ(active.load(), 0);  // close() returned only after every lease had ended
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(broken.load(), 0);
}

}  // namespace
}  // namespace quilma::storage
