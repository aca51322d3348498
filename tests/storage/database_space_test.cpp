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

dev_t device_of(const std::filesystem::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_dev : 0;
}

TEST(SpaceTest, MeasuresModePagesFreePagesAndPageSize) {
  testing::TempDir dir;
  Database db(dir / "new.db");
  db.connect();
  db.execute("CREATE TABLE t (b BLOB)");
  db.execute("INSERT INTO t VALUES (zeroblob(100000))");
  db.execute("DELETE FROM t");
  const std::lock_guard hold(DatabaseTestPeer::lock(db));
  const detail::Space space = DatabaseTestPeer::space(db.connection());
  EXPECT_EQ(space.mode, detail::AUTO_VACUUM_INCREMENTAL);
  EXPECT_EQ(space.page_size, 8192);
  EXPECT_GT(space.free, 10);
  EXPECT_GT(space.pages, space.free);
  sqlite::Connection closed(dir / "new.db");
  closed.close();
  EXPECT_THROW(DatabaseTestPeer::space(closed), sqlite::Error);
}

TEST(DiskLookupTest, VolumesAndTheTemporaryDirectory) {
  testing::TempDir dir;
  EXPECT_TRUE(detail::same_volume(dir.path(), dir.path()));
  EXPECT_TRUE(detail::same_volume(dir.path(), dir / "missing"));  // unknown counts as one
  {
    testing::ScopedEnv configured("SQLITE_TMPDIR", (dir / "missing").c_str());
    EXPECT_EQ(detail::temp_directory(), dir / "missing");  // used as set, even when missing
  }
  testing::ScopedEnv empty("SQLITE_TMPDIR", "");
  {
    testing::ScopedEnv tmpdir("TMPDIR", dir.path().c_str());
    EXPECT_EQ(detail::temp_directory(), dir.path());
  }
  if (::access("/var/tmp", W_OK | X_OK) == 0) {
    testing::ScopedEnv not_a_directory("TMPDIR", "/dev/null");
    EXPECT_EQ(detail::temp_directory(), "/var/tmp");  // the next place SQLite looks
  }
}

// Free space per directory, as a test declares it.
class DiskShortfallTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(db_dir_ / "tmp");
    previous_ = detail::replace_free_space_query([this](const std::filesystem::path& directory) {
      asked_.push_back(directory);
      return free_.at(directory);
    });
  }
  void TearDown() override { detail::replace_free_space_query(previous_); }
  std::optional<std::string> shortfall(std::int64_t used) {
    asked_.clear();
    return detail::disk_shortfall(db_dir_.path(), used);
  }
  std::string short_of(std::uintmax_t free_mib, const std::filesystem::path& where,
                       std::uintmax_t needed_mib) {
    return "not enough disk space: " + std::to_string(free_mib) + " MiB free in " + where.string() +
           ", " + std::to_string(needed_mib) + " MiB needed";
  }

  testing::TempDir db_dir_;
  testing::ScopedEnv tmp_{"SQLITE_TMPDIR", (db_dir_ / "tmp").c_str()};  // the same volume
  detail::FreeSpaceQuery previous_;
  std::map<std::filesystem::path, std::uintmax_t> free_;
  std::vector<std::filesystem::path> asked_;
};

TEST_F(DiskShortfallTest, OneVolumeNeedsBothCopiesAndOneMargin) {
  const std::filesystem::path& dir = db_dir_.path();
  free_[dir] = 1064 * MiB;  // 500 + 500 + 64: exactly enough
  EXPECT_EQ(shortfall(500 * MiB), std::nullopt);
  EXPECT_EQ(asked_, (std::vector<std::filesystem::path>{dir}));
  free_[dir] = 1064 * MiB - 1;
  EXPECT_EQ(shortfall(500 * MiB), short_of(1063, dir, 1064));
  free_[dir] = 100 * MiB;
  EXPECT_EQ(shortfall(500 * MiB), short_of(100, dir, 1064));
  free_[dir] = MiB - 1;
  EXPECT_EQ(shortfall(0), short_of(0, dir, 64));
  {
    testing::ScopedEnv missing("SQLITE_TMPDIR", (db_dir_ / "gone").c_str());
    EXPECT_EQ(shortfall(0), short_of(0, dir, 64));  // an unreadable one counts as this volume
    EXPECT_EQ(asked_.size(), 1U);
  }
  free_.clear();  // the query itself fails
  EXPECT_THROW(shortfall(0), std::out_of_range);
}

TEST_F(DiskShortfallTest, TwoVolumesEachNeedOneCopyAndOneMargin) {
  const std::filesystem::path other = "/dev/shm";  // a separate volume where it exists
  if (device_of(other) == 0 || device_of(other) == device_of(db_dir_.path())) {
    GTEST_SKIP() << "no second volume";
  }
  const std::filesystem::path& dir = db_dir_.path();
  testing::ScopedEnv tmp("SQLITE_TMPDIR", other.c_str());
  free_[dir] = 564 * MiB;
  free_[other] = 564 * MiB;
  EXPECT_EQ(shortfall(500 * MiB), std::nullopt);
  EXPECT_EQ(asked_, (std::vector<std::filesystem::path>{dir, other}));
  free_[other] = 563 * MiB;
  EXPECT_EQ(shortfall(500 * MiB), short_of(563, other, 564));
  free_[dir] = 10 * MiB;  // both short: the database's volume is reported
  EXPECT_EQ(shortfall(500 * MiB), short_of(10, dir, 564));

  testing::ScopedEnv unset("SQLITE_TMPDIR", nullptr);  // found by the default lookup too
  testing::ScopedEnv tmpdir("TMPDIR", other.c_str());
  EXPECT_EQ(shortfall(500 * MiB), short_of(10, dir, 564));
  EXPECT_EQ(asked_.size(), 1U);
  free_[dir] = 564 * MiB;
  EXPECT_EQ(shortfall(500 * MiB), short_of(563, other, 564));
}

TEST(DiskShortfallErrorTest, TheFileSystemsOwnQueryAnswersOrRaises) {
  testing::TempDir dir;
  testing::ScopedEnv tmp("SQLITE_TMPDIR", dir.path().c_str());
  EXPECT_GT(detail::available_bytes(dir.path()), 0U);
  EXPECT_THROW(detail::disk_shortfall(dir / "missing", 0), std::system_error);
}

}  // namespace
}  // namespace quilma::storage
