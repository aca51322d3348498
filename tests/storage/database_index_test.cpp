// What the index holds: statistics, error records, clearing it and swapping in a staging build.
#include <fstream>
#include <functional>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/error_of.h"
#include "support/fault_vfs.h"
#include "support/index_builder.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/errors.h"

namespace quilma::storage {
namespace {

using ::testing::ElementsAre;
using testing::error_of;
using ::testing::HasSubstr;
using testing::open_fully;
using ::testing::Pair;
using Strings = std::vector<std::string>;

// Everything a swap or a clear may change, as text, to compare before and after.
std::string snapshot(Database& db) {
  std::string text;
  for (const char* sql :
       {"SELECT * FROM components", "SELECT * FROM files", "SELECT * FROM symbols",
        "SELECT * FROM edges", "SELECT * FROM external_imports", "SELECT * FROM index_errors",
        "SELECT rowid, * FROM code_chunks", "SELECT * FROM schema_info",
        "SELECT * FROM pending_references", "SELECT * FROM memories", "PRAGMA user_version",
        "SELECT name FROM pragma_database_list WHERE name != 'temp'"}) {
    text += sql;
    for (const sqlite::Row& row : db.fetchall(sql)) {
      text += "\n";
      for (const sqlite::Value& value : row.values()) {
        text += (value.is_null() ? std::string("NULL") : value.as_text()) + "|";
      }
    }
    text += "\n";
  }
  return text;
}

// A staging build at `path` of files 100..102 tagged "new"; `adjust` runs on it last.
void build_staging(const std::filesystem::path& path,
                   const std::function<void(sqlite::Cursor&)>& adjust = {}) {
  std::filesystem::remove(path);
  Database staging(path);
  open_fully(staging);
  staging.transaction([&](sqlite::Cursor& cursor) {
    testing::fill_index(cursor, "new", 100, 3);
    if (adjust) adjust(cursor);
  });
}

class DatabaseIndexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    open_fully(db_);
    db_.transaction([](sqlite::Cursor& cursor) {
      testing::fill_index(cursor, "old", 10, 3);
      cursor.execute("INSERT INTO pending_references (source_id, target_name) VALUES (1, 'x')");
      cursor.execute("CREATE TABLE memories (note TEXT)");
      cursor.execute("INSERT INTO memories VALUES ('kept')");
    });
  }
  std::int64_t rows(const std::string& table) {
    return testing::number(db_, "SELECT COUNT(*) FROM " + table);
  }
  Strings errors() {
    Strings rows;
    for (const sqlite::Row& row : db_.fetchall(
             "SELECT file_path || ' ' || error_type || ' ' || ifnull(message, '-') || ' ' || "
             "ifnull(line, '-') FROM index_errors WHERE file_path NOT LIKE 'old%' ORDER BY id")) {
      rows.push_back(row[0].as_text());
    }
    return rows;
  }
  // Runs `operation` with the disk filling after 0 bytes, then `step` more each time, until
  // it succeeds. After every failure the live index must be as it was, whole, nothing attached,
  // and nothing logged. Returns how many times it failed.
  int fill_the_disk_during(testing::FaultVfs& vfs, std::int64_t step,
                           const std::function<void()>& operation) {
    const std::string before = snapshot(db_);
    for (int failures = 0;; ++failures) {
      const testing::LogCapture log;
      vfs.fail_writes_after(failures * step);
      try {
        operation();
        vfs.heal();
        return failures;
      } catch (const sqlite::OperationalError& error) {
        vfs.heal();
        EXPECT_THAT(error.what(), HasSubstr("database or disk is full"));
        EXPECT_EQ(snapshot(db_), before) << "after " << failures * step << " bytes";
        EXPECT_TRUE(db_.check_integrity());
        EXPECT_TRUE(log.texts(spdlog::level::info).empty());
        if (HasFailure()) return failures;
      }
    }
  }

  testing::TempDir dir_;
  Database db_{dir_ / "index.db"};
  std::filesystem::path staging_ = dir_ / "staging.db";
};

TEST_F(DatabaseIndexTest, StatisticsAndErrorRecordsCountWhatAUserSees) {
  db_.clear_all();
  EXPECT_THAT(db_.get_stats(), ElementsAre(Pair("files", 0), Pair("symbols", 0), Pair("edges", 0),
                                           Pair("components", 0), Pair("errors", 0)));
  db_.transaction([](sqlite::Cursor& cursor) { testing::fill_index(cursor, "old", 10, 3); });
  db_.execute("INSERT INTO symbols (file_id, name, kind) VALUES (10, 'File', 'class')");
  db_.record_error("a.py", PARTIAL_PARSE_ERROR, "unexpected indent", 12);
  db_.record_error("a.py", PARTIAL_PARSE_ERROR, "unexpected indent", 12);  // kept twice
  db_.record_error("a.py", "io_error");
  db_.record_error("a.py", "");
  db_.record_error("b.py", PARTIAL_PARSE_ERROR);
  // Files, then symbols a user sees (the file symbols are not), edges, components, errors.
  EXPECT_THAT(db_.get_stats(), ElementsAre(Pair("files", 3), Pair("symbols", 10), Pair("edges", 9),
                                           Pair("components", 1), Pair("errors", 6)));
  EXPECT_EQ(db_.get_error_count(), 3);  // distinct files
  EXPECT_THAT(errors(), ElementsAre("a.py partial_parse unexpected indent 12",
                                    "a.py partial_parse unexpected indent 12", "a.py io_error - -",
                                    "a.py  - -", "b.py partial_parse - -"));
  db_.clear_file_errors("c.py");
  db_.clear_file_errors("a.py", std::string(PARTIAL_PARSE_ERROR));
  db_.clear_file_errors("a.py", "");  // an empty type is a type, not "every type"
  EXPECT_THAT(errors(), ElementsAre("a.py io_error - -", "b.py partial_parse - -"));
  db_.clear_file_errors("a.py");
  EXPECT_THAT(errors(), ElementsAre("b.py partial_parse - -"));
  // Inside a transaction, records go with its outcome.
  EXPECT_THROW(db_.transaction([&](sqlite::Cursor&) {
    db_.record_error("c.py", "parse_error");
    db_.clear_file_errors("b.py");
    throw std::runtime_error("index pass failed");
  }),
               std::runtime_error);
  EXPECT_THAT(errors(), ElementsAre("b.py partial_parse - -"));
  db_.execute("DROP TABLE edges");
  EXPECT_THROW(db_.get_stats(), sqlite::OperationalError);
}

TEST_F(DatabaseIndexTest, ClearAllEmptiesTheIndexTablesAndNothingElse) {
  testing::LogCapture log;
  const std::int64_t generation = db_.index_generation();
  db_.clear_all();
  for (const char* table : {"edges", "external_imports", "symbols", "files", "components",
                            "index_errors", "code_chunks"}) {
    EXPECT_EQ(rows(table), 0) << table;
  }
  EXPECT_EQ(rows("pending_references") + rows("memories"), 2);
  EXPECT_EQ(db_.index_generation(), generation);
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("clear_all: cleared all index data (rows removed: {'edges': 9, "
                          "'external_imports': 3, 'symbols': 12, 'files': 3, 'components': 1, "
                          "'index_errors': 1})"));
  // The chunk table is there again, with its trigger, ready for the next pass.
  db_.transaction([](sqlite::Cursor& cursor) { testing::fill_index(cursor, "old", 10, 3); });
  db_.execute("DELETE FROM files WHERE id = 11");
  EXPECT_EQ(rows("code_chunks"), 4);

  // A clear that fails leaves every table as it was.
  const std::string before = snapshot(db_);
  db_.execute(
      "CREATE TRIGGER keep BEFORE DELETE ON index_errors BEGIN SELECT RAISE(ABORT, 'kept'); END");
  log.clear();
  EXPECT_EQ(error_of<sqlite::IntegrityError>([&] { db_.clear_all(); }), "kept");
  EXPECT_EQ(snapshot(db_), before);
  EXPECT_TRUE(log.lines().empty());
  // An index whose chunks were dropped (which leaves their trigger behind) is cleared too.
  db_.execute("DROP TRIGGER keep");
  db_.execute("DROP TABLE code_chunks");
  db_.clear_all();
  EXPECT_EQ(rows("files") + rows("index_errors"), 0);
  EXPECT_EQ(rows("sqlite_master WHERE name = 'code_chunks'"), 0);
}

TEST_F(DatabaseIndexTest, SwapReplacesTheIndexWithTheStagingBuild) {
  build_staging(staging_);
  const std::string staging_bytes = testing::bytes_of(staging_);
  const std::int64_t generation = db_.index_generation();
  const testing::LogCapture log;
  EXPECT_THAT(
      db_.swap_index_from(staging_),
      ElementsAre(Pair("components", 1), Pair("files", 3), Pair("symbols", 12), Pair("edges", 9),
                  Pair("external_imports", 3), Pair("index_errors", 1), Pair("code_chunks", 6)));
  EXPECT_EQ(db_.index_generation(), generation + 1);
  EXPECT_EQ(testing::bytes_of(staging_), staging_bytes);
  EXPECT_EQ(rows("pragma_database_list"), 1);  // detached again
  EXPECT_EQ(testing::number(db_, "PRAGMA foreign_keys"), 1);
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("swap_index_from: replaced live index from " + staging_.string() +
                          " (rows inserted: {'components': 1, 'files': 3, 'symbols': 12, "
                          "'edges': 9, 'external_imports': 3, 'index_errors': 1, "
                          "'code_chunks': 6})"));
  // The staging build's ids and chunk rowids, so the chunks still belong to their files.
  EXPECT_EQ(rows("files WHERE id = 101 AND path = 'new/dir16/new_101.py'"), 1);
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'new_fn1313' AND rowid / 1048576 = 101"), 2);
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'old_fn130'"), 0);
  db_.execute("DELETE FROM files WHERE id = 102");  // the chunk trigger is back
  EXPECT_EQ(rows("code_chunks WHERE rowid / 1048576 = 102"), 0);
  EXPECT_EQ(rows("pending_references") + rows("memories"), 2);

  // Staging columns beyond the live ones are left out; a staging build without chunks leaves
  // the live table empty; a live index without the table gets none.
  build_staging(staging_, [](sqlite::Cursor& cursor) {
    cursor.execute("ALTER TABLE symbols ADD COLUMN doc TEXT DEFAULT 'extra'");
    cursor.execute("DROP TABLE code_chunks");
  });
  EXPECT_THAT(db_.swap_index_from(staging_).back(), Pair("index_errors", 1));
  EXPECT_EQ(rows("symbols") + rows("code_chunks"), 12);
  db_.execute("DROP TABLE code_chunks");
  build_staging(staging_);
  EXPECT_EQ(db_.swap_index_from(staging_).size(), 6U);
  EXPECT_EQ(rows("sqlite_master WHERE name = 'code_chunks'"), 0);
  EXPECT_EQ(db_.index_generation(), generation + 3);
}

TEST_F(DatabaseIndexTest, TheStagingFullTextIndexIsCopiedWholeWhenBothFilesDefineItAlike) {
  // The staging build's merge setting stays behind; its index answers in the live file.
  build_staging(staging_, [](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('automerge', 0)");
  });
  EXPECT_THAT(db_.swap_index_from(staging_).back(), Pair("code_chunks", 6));
  EXPECT_EQ(rows("code_chunks_config WHERE k = 'automerge'"), 0);
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'new_fn1313'"), 2);
  db_.execute("INSERT INTO code_chunks (code_chunks) VALUES ('integrity-check')");

  // Defined otherwise, the staging chunks are tokenised again, into the live definition.
  build_staging(staging_, [](sqlite::Cursor& cursor) {
    cursor.execute("DROP TABLE code_chunks");
    cursor.execute(
        "CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line "
        "UNINDEXED, exact UNINDEXED, tokenize = 'ascii')");
    cursor.execute("INSERT INTO code_chunks (rowid, text) VALUES (?, 'other_words')",
                   {std::int64_t{101} << 20});
  });
  EXPECT_THAT(db_.swap_index_from(staging_).back(), Pair("code_chunks", 1));
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'words'"), 1);
  EXPECT_EQ(rows("sqlite_master WHERE name = 'code_chunks' AND sql LIKE '%ascii%'"), 0);
  db_.execute("INSERT INTO code_chunks (code_chunks) VALUES ('integrity-check')");
}

TEST_F(DatabaseIndexTest, AStagingBuildThatCannotBeSwappedInLeavesTheLiveIndexAsItWas) {
  const std::string refused = "Staging database " + staging_.string();
  const auto damage = [&](std::streamoff at, const std::string& bytes) {
    build_staging(staging_);
    std::fstream file(staging_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(at);
    file << bytes;
  };
  const auto adjusted = [&](const char* sql) {
    return [&, sql] {
      build_staging(staging_);
      sqlite::Connection(staging_).cursor().execute(sql);  // with foreign keys off
    };
  };
  const std::filesystem::path through_a_file = dir_ / "index.db" / "x.db";
  const struct {
    std::function<void()> make;
    std::string message;  // all of it, or the start followed by "..."
  } cases[] = {
      {[] {}, "Staging database not found: " + staging_.string()},
      {[] {}, "Staging database not found: " + through_a_file.string()},
      {[&] { std::ofstream(staging_) << std::string(200, 'x'); },
       refused + " is damaged: file is not a database"},
      {[&] { damage(std::streamoff{2} * 8192, std::string(8192, '\xff')); },
       refused + " is damaged: ..."},
      {adjusted("INSERT INTO symbols (id, file_id, name, kind) VALUES (7, 999, 'x', 'function')"),
       refused +
           " has 1 row(s) that refer to missing rows, the first in symbols (rowid 7, to files)"},
      {adjusted("UPDATE code_chunks_content SET c0 = 'changed' WHERE id = 105906176"),
       refused + " is damaged: database disk image is malformed"},
      {adjusted("ALTER TABLE edges DROP COLUMN line"), "no such column: line"},
      {adjusted("DROP TABLE external_imports"), "no such table: stg.external_imports"},
      {[&] { build_staging(staging_); }, "cannot ATTACH database within transaction"}};
  const std::string before = snapshot(db_);
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    std::filesystem::remove(staging_);
    cases[i].make();
    const auto swap = [&] { db_.swap_index_from(i == 1 ? through_a_file : staging_); };
    const std::string message = i == 0 || i == 1 ? error_of<FileNotFoundError>(swap)
                                : i + 1 < std::size(cases)
                                    ? error_of<sqlite::DatabaseError>(swap)
                                    : db_.transaction([&](sqlite::Cursor&) {
                                        return error_of<sqlite::DatabaseError>(swap);
                                      });
    const std::string& expected = cases[i].message;
    EXPECT_EQ(
        message.substr(0, expected.ends_with("...") ? expected.size() - 3 : std::string::npos),
        expected.substr(0, expected.ends_with("...") ? expected.size() - 3 : std::string::npos));
    EXPECT_EQ(snapshot(db_), before) << expected;
  }
  db_.close();
  EXPECT_EQ(error_of<std::runtime_error>([&] { db_.swap_index_from(staging_); }),
            "Database is closed.");
}

TEST_F(DatabaseIndexTest, ClearAndSwapSurviveTheDiskFillingAtAnyPoint) {
  db_.close();
  build_staging(staging_);
  const std::string staging_bytes = testing::bytes_of(staging_);
  testing::FaultVfs vfs;
  open_fully(db_);
  EXPECT_GT(fill_the_disk_during(vfs, 4096, [&] { db_.swap_index_from(staging_); }), 0);
  EXPECT_EQ(rows("files WHERE path LIKE 'new%'"), 3);
  EXPECT_EQ(testing::bytes_of(staging_), staging_bytes);
  EXPECT_GT(fill_the_disk_during(vfs, 2048, [&] { db_.clear_all(); }), 0);
  EXPECT_EQ(rows("files"), 0);
  db_.close();
}

TEST_F(DatabaseIndexTest, ASwapCompactsAfterwardsAndAFailedCompactionDoesNotFailIt) {
  // A live index of about 20 MiB, on a file made without auto-vacuum, and a disk whose free
  // space cannot be asked: the conversion that compaction tries after the swap fails.
  db_.close();
  std::filesystem::remove(dir_ / "index.db");
  {
    sqlite::Connection plain(dir_ / "index.db");
    plain.cursor().execute("PRAGMA auto_vacuum=NONE");
    plain.cursor().execute("PRAGMA page_size=8192");
    plain.cursor().execute("CREATE TABLE padding (x)");
  }
  open_fully(db_);
  db_.execute(
      "INSERT INTO index_errors (file_path, error_type, message) "
      "VALUES ('big.py', 'io_error', zeroblob(20000000))");
  build_staging(staging_);
  const auto previous =
      detail::replace_free_space_query([](const std::filesystem::path&) -> std::uintmax_t {
        throw std::system_error(EIO, std::generic_category(), "statvfs");
      });
  const testing::LogCapture log;
  EXPECT_EQ(db_.swap_index_from(staging_).size(), 7U);
  detail::replace_free_space_query(previous);
  EXPECT_EQ(db_.index_generation(), 1);
  EXPECT_THAT(log.texts(spdlog::level::warn),
              ElementsAre(HasSubstr("skipped: failed: statvfs: Input/output error")));
}

}  // namespace
}  // namespace quilma::storage
