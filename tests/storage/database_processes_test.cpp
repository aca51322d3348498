// Several processes on one index file: another process's write makes this one's writes wait
// (never fail at once), and opening or reading a current file takes no write lock at all.
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/index_builder.h"
#include "support/temp_dir.h"

#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"

namespace quilma::storage {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using testing::bytes_of;
using testing::ChildProcess;
using testing::open_fully;

// A file at this release's schema with one indexed file whose path is `name`.
void make_index(const std::filesystem::path& path, const std::string& name) {
  Database db(path);
  open_fully(db);
  db.transaction([&](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO files (id, path, language) VALUES (1, ?, 'python')", {name});
    cursor.execute("INSERT INTO symbols (file_id, name, kind) VALUES (1, 'f', 'function')");
    cursor.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
        "VALUES (1048576, 'def f(): pass', 1, 1, 1)");
  });
  db.close();
}

class SeveralProcessesTest : public ::testing::Test {
 protected:
  void SetUp() override { make_index(path_, "live.py"); }

  // Another process that holds the file's write lock until told, or for `hold`.
  ChildProcess hold_write_lock(const std::string& hold = {}) {
    std::vector<std::string> args{testing::test_program("lock_holder").string(), path_.string()};
    if (!hold.empty()) args.push_back(hold);
    return ChildProcess(args);
  }

  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "index.db";
};

TEST_F(SeveralProcessesTest, WritesWaitForAnotherProcesssWriteToEnd) {
  const std::filesystem::path staging = dir_ / "staging.db";
  make_index(staging, "staged.py");
  Database db(path_);
  open_fully(db);
  const std::vector<std::pair<const char*, std::function<void()>>> writes = {
      {"swap", [&] { db.swap_index_from(staging); }},
      {"clear", [&] { db.clear_all(); }},
      {"read, then write", [&] {
         db.transaction([](sqlite::Cursor& cursor) {
           const std::int64_t files =
               cursor.execute("SELECT COUNT(*) FROM files").fetchone().value()[0].as_int();
           cursor.execute("INSERT INTO components (name) VALUES (?)", {files});
         });
       }}};
  for (const auto& [name, write] : writes) {
    SCOPED_TRACE(name);
    ChildProcess holder = hold_write_lock("300");  // well within the busy timeout
    ASSERT_EQ(holder.read_line(), "locked");
    const Clock::time_point started = Clock::now();
    EXPECT_NO_THROW(write());
    EXPECT_GE(Clock::now() - started, 150ms);  // it did wait for the other process
    EXPECT_EQ(holder.read_line(), "released");
    EXPECT_EQ(holder.wait(), 0);
  }
  EXPECT_EQ(db.fetchone("SELECT COUNT(*) FROM components").value()[0].as_int(), 1);
  EXPECT_EQ(db.index_generation(), 1);
}

TEST_F(SeveralProcessesTest, OpeningAndReadingACurrentFileTakeNoWriteLockAndChangeNoByte) {
  ChildProcess holder = hold_write_lock();  // past the busy timeout, until told
  ASSERT_EQ(holder.read_line(), "locked");
  const std::filesystem::path log = path_.string() + "-wal";
  const std::string file_before = bytes_of(path_);
  const std::string log_before = bytes_of(log);

  const Clock::time_point started = Clock::now();
  Database db(path_);
  open_fully(db);
  EXPECT_EQ(db.fetchone("SELECT path FROM files").value()[0].as_text(), "live.py");
  EXPECT_EQ(db.read([](sqlite::Cursor& cursor) {
    return cursor.execute("SELECT COUNT(*) FROM code_chunks").fetchone().value()[0].as_int();
  }),
            1);
  EXPECT_EQ(db.get_stats().front(), (std::pair<std::string, std::int64_t>("files", 1)));
  EXPECT_EQ(db.index_generation(), 0);
  db.close();
  EXPECT_LT(Clock::now() - started, detail::WRITER_BUSY_TIMEOUT / 2);  // nothing waited

  EXPECT_EQ(bytes_of(path_), file_before);
  EXPECT_EQ(bytes_of(log), log_before);
  holder.close_input();
  EXPECT_EQ(holder.read_line(), "released");
  EXPECT_EQ(holder.wait(), 0);
}

}  // namespace
}  // namespace quilma::storage
