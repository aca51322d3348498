#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/database_test_peer.h"
#include "support/temp_dir.h"

#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"

namespace quilma::storage {
namespace {

constexpr std::uintmax_t MiB = 1048576;

// Free space per directory, as the test declares it; any other directory is an error.
class FakeDisks {
 public:
  FakeDisks() {
    previous_ = detail::replace_free_space_query([this](const std::filesystem::path& directory) {
      asked_.push_back(directory);
      auto found = free_.find(directory);
      if (found == free_.end()) {
        throw std::filesystem::filesystem_error("no such volume", directory,
                                                std::make_error_code(std::errc::no_such_device));
      }
      return found->second;
    });
  }
  ~FakeDisks() { detail::replace_free_space_query(previous_); }
  FakeDisks(const FakeDisks&) = delete;
  FakeDisks& operator=(const FakeDisks&) = delete;

  void set(const std::filesystem::path& directory, std::uintmax_t bytes) {
    free_[directory] = bytes;
  }
  const std::vector<std::filesystem::path>& asked() const { return asked_; }

 private:
  detail::FreeSpaceQuery previous_;
  std::map<std::filesystem::path, std::uintmax_t> free_;
  std::vector<std::filesystem::path> asked_;
};

dev_t device_of(const std::filesystem::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_dev : 0;
}

TEST(SpaceTest, MeasuresPagesFreePagesAndMode) {
  testing::TempDir dir;
  testing::ScopedEnv readers("QUILMA_DB_READERS", nullptr);
  Database db(dir / "x.db");
  db.connect();
  db.execute("CREATE TABLE t (b BLOB)");
  const std::lock_guard hold(DatabaseTestPeer::lock(db));
  const detail::Space fresh = DatabaseTestPeer::space(db.connection());
  EXPECT_EQ(fresh.mode, detail::AUTO_VACUUM_INCREMENTAL);
  EXPECT_GE(fresh.pages, 1);
  EXPECT_EQ(fresh.free, 0);
  EXPECT_EQ(fresh.page_size, 8192);

  db.execute("INSERT INTO t SELECT zeroblob(100000) FROM (SELECT 1 UNION SELECT 2)");
  db.execute("DELETE FROM t");
  const detail::Space after = DatabaseTestPeer::space(db.connection());
  EXPECT_GT(after.free, 20);
  EXPECT_GT(after.pages, fresh.pages);
}

TEST(SpaceTest, ReadsEachFieldOfAnOlderFileAndFailsOnAClosedOne) {
  testing::TempDir dir;
  sqlite::Connection connection(dir / "old.db");
  auto cursor = connection.cursor();
  cursor.execute("PRAGMA page_size=4096");
  cursor.execute("PRAGMA auto_vacuum=NONE");
  cursor.execute("CREATE TABLE t (x)");
  cursor.close();
  const detail::Space space = DatabaseTestPeer::space(connection);
  EXPECT_EQ(space, (detail::Space{detail::AUTO_VACUUM_NONE, 2, 0, 4096}));
  connection.close();
  EXPECT_THROW(DatabaseTestPeer::space(connection), sqlite::Error);
}

TEST(SameVolumeTest, UnknownCountsAsOneVolume) {
  testing::TempDir dir;
  EXPECT_TRUE(detail::same_volume(dir.path(), dir.path()));
  EXPECT_TRUE(detail::same_volume(dir.path(), dir / "missing"));
  EXPECT_TRUE(detail::same_volume(dir / "missing", dir.path()));
  if (device_of("/proc") != device_of(dir.path())) {
    EXPECT_FALSE(detail::same_volume(dir.path(), "/proc"));
  }
}

TEST(TempDirectoryTest, FollowsSqlitesOwnLookup) {
  testing::TempDir dir;
  {
    testing::ScopedEnv configured("SQLITE_TMPDIR", (dir / "missing").c_str());
    EXPECT_EQ(detail::temp_directory(), dir / "missing");  // used as set, even when missing
  }
  testing::ScopedEnv empty("SQLITE_TMPDIR", "");
  {
    testing::ScopedEnv tmpdir("TMPDIR", dir.path().c_str());
    EXPECT_EQ(detail::temp_directory(), dir.path());
  }
  struct stat status {};
  if (::stat("/var/tmp", &status) == 0 && S_ISDIR(status.st_mode) &&
      ::access("/var/tmp", W_OK | X_OK) == 0) {
    testing::ScopedEnv not_a_directory("TMPDIR", "/dev/null");
    EXPECT_EQ(detail::temp_directory(), "/var/tmp");  // the next place SQLite looks
  }
}

class DiskShortfallTest : public ::testing::Test {
 protected:
  // The temporary directory lies on the database's volume unless a test moves it.
  testing::TempDir db_dir_;
  testing::ScopedEnv tmp_{"SQLITE_TMPDIR", (db_dir_ / "tmp").c_str()};
  FakeDisks disks_;

  void SetUp() override { std::filesystem::create_directory(db_dir_ / "tmp"); }
};

TEST_F(DiskShortfallTest, OneVolumeNeedsBothCopiesAndOneMargin) {
  const std::int64_t used = 500 * MiB;
  disks_.set(db_dir_.path(), 1064 * MiB);  // exactly enough
  EXPECT_EQ(detail::disk_shortfall(db_dir_.path(), used), std::nullopt);
  EXPECT_EQ(disks_.asked(), (std::vector<std::filesystem::path>{db_dir_.path()}));

  disks_.set(db_dir_.path(), 1064 * MiB - 1);
  EXPECT_EQ(
      detail::disk_shortfall(db_dir_.path(), used),
      "not enough disk space: 1063 MiB free in " + db_dir_.path().string() + ", 1064 MiB needed");
  disks_.set(db_dir_.path(), 100 * MiB);
  EXPECT_EQ(
      detail::disk_shortfall(db_dir_.path(), used),
      "not enough disk space: 100 MiB free in " + db_dir_.path().string() + ", 1064 MiB needed");
  disks_.set(db_dir_.path(), MiB - 1);
  EXPECT_EQ(detail::disk_shortfall(db_dir_.path(), 0),
            "not enough disk space: 0 MiB free in " + db_dir_.path().string() + ", 64 MiB needed");
  disks_.set(db_dir_.path(), 64 * MiB);
  EXPECT_EQ(detail::disk_shortfall(db_dir_.path(), 0), std::nullopt);
}

TEST_F(DiskShortfallTest, AnUnreadableTemporaryDirectoryCountsAsTheSameVolume) {
  testing::ScopedEnv missing("SQLITE_TMPDIR", (db_dir_ / "gone").c_str());
  disks_.set(db_dir_.path(), 1063 * MiB);
  EXPECT_EQ(
      detail::disk_shortfall(db_dir_.path(), 500 * MiB),
      "not enough disk space: 1063 MiB free in " + db_dir_.path().string() + ", 1064 MiB needed");
  EXPECT_EQ(disks_.asked().size(), 1U);
}

TEST_F(DiskShortfallTest, TwoVolumesEachNeedOneCopyAndOneMargin) {
  // /dev/shm is a separate volume where it exists; elsewhere the case cannot be built.
  const std::filesystem::path other = "/dev/shm";
  if (device_of(other) == 0 || device_of(other) == device_of(db_dir_.path())) {
    GTEST_SKIP() << "no second volume";
  }
  testing::ScopedEnv tmp("SQLITE_TMPDIR", other.c_str());
  const std::int64_t used = 500 * MiB;
  disks_.set(db_dir_.path(), 564 * MiB);
  disks_.set(other, 564 * MiB);
  EXPECT_EQ(detail::disk_shortfall(db_dir_.path(), used), std::nullopt);

  disks_.set(other, 563 * MiB);
  EXPECT_EQ(detail::disk_shortfall(db_dir_.path(), used),
            "not enough disk space: 563 MiB free in /dev/shm, 564 MiB needed");
  disks_.set(db_dir_.path(), 10 * MiB);  // both short: the database's volume is reported
  EXPECT_EQ(
      detail::disk_shortfall(db_dir_.path(), used),
      "not enough disk space: 10 MiB free in " + db_dir_.path().string() + ", 564 MiB needed");

  // Found through the default lookup too: SQLITE_TMPDIR unset, TMPDIR on the other volume.
  testing::ScopedEnv unset("SQLITE_TMPDIR", nullptr);
  testing::ScopedEnv tmpdir("TMPDIR", other.c_str());
  disks_.set(db_dir_.path(), 564 * MiB);
  disks_.set(other, 564 * MiB);
  EXPECT_EQ(detail::disk_shortfall(db_dir_.path(), used), std::nullopt);
  EXPECT_EQ(disks_.asked().back(), other);
}

TEST(DiskShortfallErrorTest, AFailedFreeSpaceQueryRaises) {
  testing::TempDir dir;
  testing::ScopedEnv tmp("SQLITE_TMPDIR", dir.path().c_str());
  EXPECT_THROW(detail::disk_shortfall(dir / "missing", 0), std::system_error);
  // The real query answers for a directory that exists.
  EXPECT_GT(detail::available_bytes(dir.path()), 0U);
}

}  // namespace
}  // namespace quilma::storage
