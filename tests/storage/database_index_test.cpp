// What the index holds: statistics, error records, clearing it and swapping in a staging build.
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/error_of.h"
#include "support/fault_vfs.h"
#include "support/index_builder.h"
#include "support/log_capture.h"
#include "support/other_user.h"
#include "support/temp_dir.h"

#include "quilma/runtime/event_loop.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/errors.h"

namespace quilma::storage {
namespace {

using ::testing::ElementsAre;
using testing::error_of;
using ::testing::HasSubstr;
using ::testing::Pair;
using namespace std::string_literals;

// A staging build at `path` of files 100..102 tagged "new"; `adjust` runs on it last.
void build_staging(const std::filesystem::path& path,
                   const std::function<void(sqlite::Cursor&)>& adjust = {}) {
  std::filesystem::remove(path);
  Database staging(path);
  testing::open_fully(staging);
  staging.transaction([&](sqlite::Cursor& cursor) {
    testing::fill_index(cursor, "new", 100, 3);
    if (adjust) adjust(cursor);
  });
}

// A live index of files 10..12 tagged "old", and a row of a table that is not the index's, on
// a file made without auto-vacuum: compaction after a swap tries to convert it.
class DatabaseIndexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sqlite::Connection plain(dir_ / "index.db");
    for (const char* sql :
         {"PRAGMA auto_vacuum=NONE", "PRAGMA page_size=8192", "CREATE TABLE x (x)"}) {
      plain.cursor().execute(sql);
    }
    testing::open_fully(db_);
    db_.transaction([](sqlite::Cursor& cursor) {
      testing::fill_index(cursor, "old", 10, 3);
      cursor.execute("INSERT INTO pending_references (source_id, target_name) VALUES (1, 'x')");
    });
  }
  std::int64_t rows(const std::string& table) {
    return testing::number(db_, "SELECT COUNT(*) FROM " + table);
  }
  // The rows of `sql`, one line each, their columns followed by '|'.
  std::string text_of(const std::string& sql) {
    std::string text;
    for (const sqlite::Row& row : db_.fetchall(sql)) {
      for (const auto& value : row.values())
        text += (value.is_null() ? "NULL" : value.as_text()) + "|";
      text += "\n";
    }
    return text;
  }
  // Everything a swap or a clear may change.
  std::string snapshot() {
    std::string text = text_of("SELECT * FROM pragma_user_version, pragma_database_list");
    for (const char* table : {"components", "files", "symbols", "edges", "external_imports",
                              "index_errors", "code_chunks", "pending_references"}) {
      text += text_of("SELECT '"s + table + "', rowid, * FROM " + table);
    }
    return text;
  }

  testing::TempDir dir_;
  Database db_{dir_ / "index.db"};
  std::filesystem::path staging_ = dir_ / "staging.db";
};

TEST_F(DatabaseIndexTest, SwapReplacesTheIndexWithTheStagingBuild) {
  // The staging build's merge setting stays behind: only the full-text index is copied whole.
  build_staging(staging_, [](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('automerge', 0)");
  });
  const testing::LogCapture log;
  EXPECT_THAT(
      db_.swap_index_from(staging_),
      ElementsAre(Pair("components", 1), Pair("files", 3), Pair("symbols", 12), Pair("edges", 9),
                  Pair("external_imports", 3), Pair("index_errors", 1), Pair("code_chunks", 6)));
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre(HasSubstr("replaced live index from " + staging_.string())));
  {
    // A reader on an older snapshot keeps the log; a swap whose compaction declines does not
    // wait for it, nor says that it did.
    sqlite::Connection reader(dir_ / "index.db", {.read_only = true});
    sqlite::Cursor snapshot = reader.cursor();
    snapshot.execute("BEGIN");
    snapshot.execute("SELECT * FROM files").fetchall();
    const runtime::EventLoopScope loop;
    const auto started = std::chrono::steady_clock::now();
    db_.swap_index_from(staging_);
    EXPECT_LT(std::chrono::steady_clock::now() - started, detail::WRITER_BUSY_TIMEOUT);
    EXPECT_THAT(log.texts(spdlog::level::info),
                ::testing::Not(::testing::Contains(HasSubstr("older snapshot"))));
  }
  // Detached again, with foreign keys back on.
  EXPECT_EQ(text_of("SELECT name FROM pragma_database_list") + text_of("PRAGMA foreign_keys"),
            "main|\n1|\n");
  // The staging build's ids and chunk rowids, so the chunks still belong to their files.
  EXPECT_EQ(text_of("SELECT id, path FROM files ORDER BY id"),
            "100|new/dir15/new_100.py|\n101|new/dir16/new_101.py|\n102|new/dir0/new_102.py|\n");
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'new_fn1313' AND rowid / 1048576 = 101") +
                rows("code_chunks_config WHERE k = 'automerge'"),
            2);
  db_.execute("INSERT INTO code_chunks (code_chunks) VALUES ('integrity-check')");
  db_.execute("DELETE FROM files WHERE id = 102");  // the chunk trigger is back
  EXPECT_EQ(rows("code_chunks WHERE rowid / 1048576 = 102") + rows("pending_references"), 1);

  // Staging columns beyond the live ones are left out; chunks defined otherwise are tokenised
  // again, into the live definition (which folds the accent the staging tokenizer kept).
  build_staging(staging_, [](sqlite::Cursor& cursor) {
    cursor.execute("ALTER TABLE symbols ADD COLUMN doc TEXT DEFAULT 'extra'");
    cursor.execute("DROP TABLE code_chunks");
    cursor.execute(
        "CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line "
        "UNINDEXED, exact UNINDEXED, tokenize = 'ascii')");
    cursor.execute("INSERT INTO code_chunks (rowid, text) VALUES (105906176, 'other_Élan')");
  });
  EXPECT_THAT(db_.swap_index_from(staging_).back(), Pair("code_chunks", 1));
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'elan'") +
                rows("sqlite_master WHERE sql LIKE '%ascii%'"),
            1);
  db_.execute("INSERT INTO code_chunks (code_chunks) VALUES ('integrity-check')");
  // A staging build without chunks leaves the live table empty; a live index whose chunks were
  // dropped, leaving their trigger behind, gets none.
  build_staging(staging_, [](sqlite::Cursor& cursor) { cursor.execute("DROP TABLE code_chunks"); });
  EXPECT_THAT(db_.swap_index_from(staging_).back(), Pair("index_errors", 1));
  EXPECT_EQ(rows("code_chunks"), 0);
  db_.execute("DROP TABLE code_chunks");
  build_staging(staging_);
  EXPECT_EQ(db_.swap_index_from(staging_).size(), 6U);
  db_.clear_all();
  EXPECT_EQ(rows("files") + rows("sqlite_master WHERE name = 'code_chunks'"), 0);
  EXPECT_EQ(db_.index_generation(), 5);

  // Afterwards the swap compacts, here failing to convert the file (its disk's free space
  // cannot be asked), which does not fail the swap.
  db_.execute(
      "INSERT INTO index_errors (file_path, error_type, message) "
      "VALUES ('big.py', 'io_error', zeroblob(20000000))");
  const auto previous =
      detail::replace_free_space_query([](const std::filesystem::path&) -> std::uintmax_t {
        throw std::system_error(EIO, std::generic_category(), "statvfs");
      });
  EXPECT_EQ(db_.swap_index_from(staging_).size(), 6U);
  detail::replace_free_space_query(previous);
  EXPECT_THAT(log.texts(spdlog::level::warn),
              ElementsAre(HasSubstr("skipped: failed: statvfs: Input/output error")));
}

TEST_F(DatabaseIndexTest, AStagingFileThisProcessMayNotWriteIsCheckedWithoutWritingIt) {
  db_.close();
  build_staging(staging_);
  // A fault that only the chunks' check would find: unchecked, the chunks are tokenised again.
  sqlite::Connection(staging_).cursor().execute(
      "UPDATE code_chunks_content SET c0 = 'changed' WHERE id = 105906176");
  std::filesystem::permissions(dir_.path(), std::filesystem::perms::all);
  const std::filesystem::path live = dir_ / "index.db";
  testing::give_to_nobody(dir_.path());
  ::chown(staging_.c_str(), 0, 0);  // root's, readable by all
  EXPECT_EQ(testing::exit_status_as_nobody([&] {
              Database db(live);
              testing::open_fully(db);
              return db.swap_index_from(staging_).back() == std::pair{"code_chunks"s, 6L} &&
                     testing::number(db,
                                     "SELECT COUNT(*) FROM code_chunks WHERE code_chunks "
                                     "MATCH 'changed'") > 0;
            }),
            0);
  testing::open_fully(db_);
  EXPECT_EQ(rows("files WHERE path LIKE 'new/%'"), 3);
}

// The chunks' check, the longest, is spared a build that this process noted as its own and that
// nobody changed since: a fault that only that check finds goes through.
TEST_F(DatabaseIndexTest, AStagingBuildOfThisProcessIsSparedTheChunkCheck) {
  build_staging(staging_);
  sqlite::Connection(staging_).cursor().execute(
      "UPDATE code_chunks_content SET c0 = 'changed' WHERE id = 105906176");
  storage::note_built_here(staging_);
  EXPECT_EQ(db_.swap_index_from(staging_).back(), (std::pair{std::string("code_chunks"), 6L}));
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'changed'"), 0);  // copied, not tokenised
}

TEST_F(DatabaseIndexTest,
       ARefusedOrFailedSwapOrClearLeavesTheIndexAsItWasAndClearAllEmptiesOnlyTheIndex) {
  const std::string refused = "Staging database " + staging_.string();
  bool within = false;  // the swap is called inside the caller's transaction
  const auto adjusted = [&](const char* sql) {
    return [&, sql] {
      build_staging(staging_);
      sqlite::Connection staging(staging_);  // with foreign keys off
      sqlite::Cursor cursor = staging.cursor();
      migrations::run_ddl(cursor, sql);
    };
  };
  const std::pair<std::function<void()>, std::string> cases[] = {
      // the start of the error
      {[] {}, "Staging database not found: " + staging_.string()},
      {[&] { std::filesystem::create_symlink(staging_, staging_); }, "Staging database not found"},
      {[&] { std::ofstream(staging_) << std::string(200, 'x'); },
       refused + " is damaged: file is not a database"},
      {[&] {
         build_staging(staging_);
         std::fstream(staging_, std::ios::in | std::ios::out | std::ios::binary).seekp(16384)
             << std::string(8192, '\xff');
       },
       refused + " is damaged: "},
      // A count of free pages in the header that the file's pages belie: SQLite's check alone.
      {[&] {
         build_staging(staging_);
         std::fstream(staging_, std::ios::in | std::ios::out | std::ios::binary).seekp(36)
             << std::string("\0\0\0\3", 4);
       },
       refused + " is damaged: *** in database main ***"},
      {adjusted("INSERT INTO symbols (id, file_id, name, kind) VALUES (7, 999, 'x', 'function')"),
       refused +
           " has 1 row(s) that refer to missing rows, the first in symbols (rowid 7, to files)"},
      {adjusted("UPDATE code_chunks_content SET c0 = 'changed' WHERE id = 105906176"),
       refused + " is damaged: database disk image is malformed"},
      // Tables that declare no keys: the live ones' keys are checked.
      {adjusted("CREATE TABLE s AS SELECT * FROM external_imports; DROP TABLE external_imports; "
                "ALTER TABLE s RENAME TO external_imports; UPDATE external_imports SET file_id = "
                "999 WHERE id = 2"),
       refused + " has 1 row(s) in external_imports that refer to rows missing from files once "
                 "swapped in, the first rowid 2"},
      {adjusted("DROP TABLE code_chunks; CREATE VIRTUAL TABLE code_chunks USING fts5(text, "
                "start_line UNINDEXED, end_line UNINDEXED, exact UNINDEXED, content='')"),
       refused + ": its code_chunks does not keep the chunks' text, which the live index needs"},
      // A build this process noted as its own is checked whole once another file takes its place.
      {[&] {
         adjusted("UPDATE code_chunks_content SET c0 = 'changed' WHERE id = 105906176")();
         std::filesystem::copy_file(staging_, staging_.string() + ".copy");
         storage::note_built_here(staging_);
         std::filesystem::rename(staging_.string() + ".copy", staging_);
       },
       refused + " is damaged: database disk image is malformed"},
      {adjusted("ALTER TABLE edges DROP COLUMN line"), "no such column: line"},
      {[&] { std::filesystem::create_hard_link(dir_ / "index.db", staging_); },
       refused + " is the live database itself"},
      {[&] { std::ofstream(staging_) << std::string(200, 'x'), db_.close(); },
       "Database is closed."},
      // The caller's transaction goes on (what it wrote before is committed after).
      {[&] { build_staging(staging_), within = true; },
       "cannot ATTACH database within transaction"}};
  const std::string before = snapshot();
  for (const auto& [make, message] : cases) {
    std::filesystem::remove(staging_);
    within = false;
    make();
    const auto swap = [&, &message = message] {  // a binding, captured by name
      if (!within) return (void)db_.swap_index_from(staging_);
      db_.transaction([&](sqlite::Cursor& cursor) {
        cursor.execute("INSERT INTO x VALUES ('kept')");
        EXPECT_EQ(error_of<sqlite::OperationalError>([&] { db_.swap_index_from(staging_); }),
                  message);
      });
    };
    EXPECT_THAT(message.starts_with("Staging database not found")
                    ? error_of<FileNotFoundError>(swap)
                : message.starts_with("Database") ? error_of<std::runtime_error>(swap)
                : within                          ? (swap(), message)
                                                  : error_of<sqlite::DatabaseError>(swap),
                ::testing::StartsWith(message));
    if (db_.closed()) testing::open_fully(db_);
    EXPECT_EQ(snapshot(), before) << message;
  }
  EXPECT_EQ(rows("x"), 1);
  // A path that cannot be looked at is not a missing file: the system's error says why.
  EXPECT_THAT(error_of<std::filesystem::filesystem_error>(
                  [&] { db_.swap_index_from(dir_ / std::string(300, 'x')); }),
              ::testing::HasSubstr("cannot look at the staging database"));
  // Nor inside a transaction that a statement of the caller's own began.
  db_.execute("BEGIN");
  EXPECT_EQ(error_of<sqlite::OperationalError>([&] { db_.swap_index_from(staging_); }),
            "cannot ATTACH database within transaction");
  db_.execute("ROLLBACK");
  // Clearing and swapping survive the disk filling at any point.
  db_.close();
  build_staging(staging_);
  testing::FaultVfs vfs;
  testing::open_fully(db_);
  // The disk fills after 0 bytes, then a step more each time, until the operation goes through.
  const std::pair<std::int64_t, std::function<void()>> operations[] = {
      {2048, [&] { db_.clear_all(); }}, {4096, [&] { db_.swap_index_from(staging_); }}};
  for (const auto& [step, operation] : operations) {
    const std::string before = snapshot();
    for (std::int64_t failures = 0;; ++failures) {
      const testing::LogCapture log;
      vfs.fail_writes_after(failures * step);
      try {
        operation();
        EXPECT_GT(failures, 0);
        break;
      } catch (const sqlite::OperationalError& error) {
        EXPECT_THAT(error.what(), HasSubstr("database or disk is full"));
        EXPECT_TRUE(log.texts(spdlog::level::info).empty());
        vfs.heal();
        EXPECT_EQ(snapshot(), before) << "after " << failures * step << " bytes";
        ASSERT_TRUE(db_.check_integrity() && !HasFailure());
      }
    }
    vfs.heal();
  }
  // Error records count by file; clearing all empties only the index.
  db_.record_error("a.py", "io_error");
  db_.record_error("a.py", "");
  db_.record_error("b.py", PARTIAL_PARSE_ERROR, "unexpected indent", 12);
  EXPECT_EQ(db_.get_error_count(), 3);  // distinct files
  db_.clear_file_errors("a.py", "");    // an empty type is a type, not "every type"
  db_.clear_file_errors("b.py");
  EXPECT_EQ(rows("index_errors WHERE file_path = 'a.py' AND error_type = 'io_error'"), 1);
  EXPECT_EQ(rows("index_errors WHERE file_path IN ('a.py', 'b.py')"), 1);
  const testing::LogCapture log;
  db_.clear_all();
  EXPECT_THAT(db_.get_stats(), ::testing::Each(Pair(::testing::_, 0)));
  EXPECT_EQ(rows("symbols") + rows("external_imports") + rows("code_chunks"), 0);
  EXPECT_EQ(rows("pending_references") + db_.index_generation(), 2);  // the swap bumped it
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("clear_all: cleared all index data (rows removed: {'edges': 9, "
                          "'external_imports': 3, 'symbols': 12, 'files': 3, 'components': 1, "
                          "'index_errors': 2})"));
  db_.close();
}

}  // namespace
}  // namespace quilma::storage
