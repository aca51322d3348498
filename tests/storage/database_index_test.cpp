#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/error_of.h"
#include "support/fault_vfs.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"
#include "quilma/storage/core_schema.h"
#include "quilma/storage/database.h"
#include "quilma/storage/errors.h"

namespace quilma::storage {
namespace {

using ::testing::ElementsAre;
using testing::error_of;
using ::testing::HasSubstr;
using ::testing::Pair;

// One small index: `tag` tells the rows of two builds apart, and ids start at `base`.
void fill_index(sqlite::Cursor& cursor, const std::string& tag, std::int64_t base) {
  const auto id = [base](int n) { return std::to_string(base + n); };
  cursor.execute("INSERT INTO components (id, name) VALUES (" + id(0) + ", ?)", {tag});
  for (int f = 1; f <= 3; ++f) {
    cursor.execute("INSERT INTO files (id, path, language, hash, component_id) VALUES (" + id(f) +
                       ", ?, 'python', 'h', " + id(0) + ")",
                   {tag + std::to_string(f) + ".py"});
    cursor.execute("INSERT INTO symbols (id, file_id, name, kind, line) VALUES (" + id(10 + f) +
                       ", " + id(f) + ", ?, 'function', ?)",
                   {tag + "_fn", f});
    cursor.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
        "VALUES (?, ?, 1, 9, ?)",
        {core_schema::chunk_rowid(base + f, 0), "def " + tag + "_fn(): pass", tag});
  }
  cursor.execute("INSERT INTO edges (source_id, target_id, kind) VALUES (" + id(11) + ", " +
                 id(12) + ", 'calls')");
  cursor.execute("INSERT INTO external_imports (file_id, module) VALUES (" + id(1) + ", 'os')");
  cursor.execute("INSERT INTO index_errors (file_path, error_type) VALUES (?, 'io_error')",
                 {tag + "9.py"});
}

// Everything a swap or a clear may change, as text, to compare before and after.
std::string snapshot(Database& db) {
  std::string text;
  for (const char* sql :
       {"SELECT * FROM components", "SELECT * FROM files", "SELECT * FROM symbols",
        "SELECT * FROM edges", "SELECT * FROM external_imports", "SELECT * FROM index_errors",
        "SELECT rowid, * FROM code_chunks", "SELECT * FROM schema_info",
        "SELECT * FROM pending_references", "PRAGMA user_version"}) {
    text += sql;
    for (const sqlite::Row& row : db.fetchall(sql)) {
      text += "\n";
      for (std::size_t i = 0; i < row.size(); ++i) {
        text += (i > 0 ? "|" : "") + (row[i].is_null() ? std::string("NULL") : row[i].as_text());
      }
    }
    text += "\n";
  }
  return text;
}

std::string bytes_of(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The databases attached to the writer, besides SQLite's own "temp".
std::vector<std::string> attached(Database& db) {
  std::vector<std::string> names;
  for (const sqlite::Row& row : db.fetchall("PRAGMA database_list")) {
    if (row[1].as_text() != "temp") names.push_back(row[1].as_text());
  }
  return names;
}

void open_fully(Database& db) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

// A staging build at `path` with the rows of fill_index(tag "new", ids from 100); `adjust`
// runs on it last, to take it apart.
void build_staging(const std::filesystem::path& path,
                   const std::function<void(sqlite::Cursor&)>& adjust = {}) {
  Database staging(path);
  open_fully(staging);
  staging.transaction([&](sqlite::Cursor& cursor) {
    fill_index(cursor, "new", 100);
    if (adjust) adjust(cursor);
  });
}

class DatabaseIndexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db_.connect();
    db_.create_schema();
    db_.migrate_schema();
  }
  std::vector<std::string> errors() {
    std::vector<std::string> rows;
    for (const sqlite::Row& row : db_.fetchall(
             "SELECT file_path, error_type, message, line FROM index_errors ORDER BY id")) {
      std::string text;
      for (std::size_t i = 0; i < row.size(); ++i) {
        text += (i > 0 ? " " : "") + (row[i].is_null() ? std::string("NULL") : row[i].as_text());
      }
      rows.push_back(text);
    }
    return rows;
  }

  testing::TempDir dir_;
  Database db_{dir_ / "index.db"};
};

TEST_F(DatabaseIndexTest, StatisticsCountWhatAUserSeesInTheirOrder) {
  EXPECT_THAT(db_.get_stats(), ElementsAre(Pair("files", 0), Pair("symbols", 0), Pair("edges", 0),
                                           Pair("components", 0), Pair("errors", 0)));
  db_.transaction([](sqlite::Cursor& cursor) {
    cursor.execute("INSERT INTO components (id, name) VALUES (1, 'core')");
    cursor.execute(
        "INSERT INTO files (id, path, component_id) VALUES (1, 'a.py', 1), (2, 'b.py', 1)");
    cursor.execute(
        "INSERT INTO symbols (id, file_id, name, kind) VALUES (1, 1, 'a.py', 'file'), "
        "(2, 2, 'b.py', 'file'), (3, 1, 'main', 'function'), (4, 1, 'File', 'class')");
    cursor.execute("INSERT INTO edges (source_id, target_id, kind) VALUES (1, 3, 'contains')");
  });
  db_.record_error("a.py", "parse_error");
  db_.record_error("a.py", "parse_error");
  EXPECT_THAT(db_.get_stats(), ElementsAre(Pair("files", 2), Pair("symbols", 2), Pair("edges", 1),
                                           Pair("components", 1), Pair("errors", 2)));
  db_.execute("DROP TABLE edges");
  EXPECT_THROW(db_.get_stats(), sqlite::OperationalError);
}

TEST_F(DatabaseIndexTest, ErrorRecordsAreKeptClearedAndCountedByFile) {
  EXPECT_EQ(db_.get_error_count(), 0);
  db_.record_error("a.py", PARTIAL_PARSE_ERROR, "unexpected indent", 12);
  db_.record_error("a.py", PARTIAL_PARSE_ERROR, "unexpected indent", 12);  // kept twice
  db_.record_error("a.py", "io_error");
  db_.record_error("a.py", "");
  db_.record_error("b.py", PARTIAL_PARSE_ERROR);
  EXPECT_EQ(db_.get_error_count(), 2);
  EXPECT_THAT(errors(),
              ElementsAre("a.py partial_parse unexpected indent 12",
                          "a.py partial_parse unexpected indent 12", "a.py io_error NULL NULL",
                          "a.py  NULL NULL", "b.py partial_parse NULL NULL"));

  db_.clear_file_errors("c.py");
  db_.clear_file_errors("a.py", std::string(PARTIAL_PARSE_ERROR));
  db_.clear_file_errors("a.py", "");  // an empty type is a type, not "every type"
  EXPECT_THAT(errors(), ElementsAre("a.py io_error NULL NULL", "b.py partial_parse NULL NULL"));
  db_.clear_file_errors("a.py");
  EXPECT_THAT(errors(), ElementsAre("b.py partial_parse NULL NULL"));
  EXPECT_EQ(db_.get_error_count(), 1);

  // Inside a transaction, records go with its outcome.
  EXPECT_THROW(db_.transaction([&](sqlite::Cursor&) {
    db_.record_error("c.py", "parse_error");
    db_.clear_file_errors("b.py");
    throw std::runtime_error("index pass failed");
  }),
               std::runtime_error);
  EXPECT_THAT(errors(), ElementsAre("b.py partial_parse NULL NULL"));
}

class IndexContentsTest : public DatabaseIndexTest {
 protected:
  void SetUp() override {
    DatabaseIndexTest::SetUp();
    db_.transaction([](sqlite::Cursor& cursor) {
      fill_index(cursor, "old", 0);
      cursor.execute("INSERT INTO pending_references (source_id, target_name) VALUES (1, 'x')");
      cursor.execute("CREATE TABLE memories (note TEXT)");
      cursor.execute("INSERT INTO memories VALUES ('kept')");
    });
  }
  std::int64_t rows(const std::string& table) {
    return (*db_.fetchone("SELECT COUNT(*) FROM " + table))[0].as_int();
  }

  // Runs `operation` with the disk filling after 0 bytes, then `step` more each time, until
  // it succeeds. After every failure the live index must be as it was, whole, and with nothing
  // attached. Returns how many times it failed.
  int fill_the_disk_during(testing::FaultVfs& vfs, std::int64_t step,
                           const std::function<void()>& operation) {
    const std::string before = snapshot(db_);
    for (int failures = 0;; ++failures) {
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
        EXPECT_THAT(attached(db_), ElementsAre("main"));
        if (HasFailure()) return failures;
      }
    }
  }

  std::filesystem::path staging_ = dir_ / "staging.db";
};

TEST_F(IndexContentsTest, ClearAllEmptiesTheIndexTablesAndNothingElse) {
  const testing::LogCapture log;
  const std::int64_t generation = db_.index_generation();
  db_.clear_all();
  for (const char* table : {"edges", "external_imports", "symbols", "files", "components",
                            "index_errors", "code_chunks"}) {
    EXPECT_EQ(rows(table), 0) << table;
  }
  EXPECT_EQ(rows("pending_references"), 1);
  EXPECT_EQ(rows("memories"), 1);
  EXPECT_EQ(db_.index_generation(), generation);
  // The chunk table is there again, ready for the next pass.
  db_.execute("INSERT INTO code_chunks (rowid, text) VALUES (1, 'again')");
  db_.clear_all();
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("clear_all: cleared all index data (rows removed: {'edges': 1, "
                          "'external_imports': 1, 'symbols': 3, 'files': 3, 'components': 1, "
                          "'index_errors': 1})",
                          "clear_all: cleared all index data (rows removed: {'edges': 0, "
                          "'external_imports': 0, 'symbols': 0, 'files': 0, 'components': 0, "
                          "'index_errors': 0})"));
  EXPECT_EQ(rows("code_chunks"), 0);

  // An index whose chunks were dropped (which leaves their trigger behind) is cleared too.
  db_.execute("DROP TABLE code_chunks");
  db_.record_error("a.py", "io_error");
  db_.clear_all();
  EXPECT_EQ(rows("index_errors"), 0);
  EXPECT_TRUE(db_.fetchall("SELECT name FROM sqlite_master WHERE name = 'code_chunks'").empty());
}

TEST_F(IndexContentsTest, AFailedClearLeavesEveryTableAsItWas) {
  const std::string before = snapshot(db_);
  db_.execute(
      "CREATE TRIGGER keep_errors BEFORE DELETE ON index_errors BEGIN SELECT RAISE(ABORT, "
      "'kept'); END");
  const testing::LogCapture log;
  EXPECT_EQ(error_of<sqlite::IntegrityError>([&] { db_.clear_all(); }), "kept");
  EXPECT_EQ(snapshot(db_), before);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(IndexContentsTest, ClearAllSurvivesTheDiskFillingAtAnyPoint) {
  db_.close();
  testing::FaultVfs vfs;
  open_fully(db_);
  EXPECT_GT(fill_the_disk_during(vfs, 2048, [&] { db_.clear_all(); }), 0);
  EXPECT_EQ(rows("files"), 0);
  db_.close();
}

TEST_F(IndexContentsTest, SwapReplacesTheIndexWithTheStagingBuild) {
  build_staging(staging_);
  const std::string staging_bytes = bytes_of(staging_);
  const std::int64_t generation = db_.index_generation();
  const testing::LogCapture log;
  EXPECT_THAT(
      db_.swap_index_from(staging_),
      ElementsAre(Pair("components", 1), Pair("files", 3), Pair("symbols", 3), Pair("edges", 1),
                  Pair("external_imports", 1), Pair("index_errors", 1), Pair("code_chunks", 3)));
  EXPECT_EQ(db_.index_generation(), generation + 1);
  EXPECT_EQ(bytes_of(staging_), staging_bytes);
  EXPECT_THAT(attached(db_), ElementsAre("main"));
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("swap_index_from: replaced live index from " + staging_.string() +
                          " (rows inserted: {'components': 1, 'files': 3, 'symbols': 3, "
                          "'edges': 1, 'external_imports': 1, 'index_errors': 1, "
                          "'code_chunks': 3})"));
  // The staging build's ids and chunk rowids, so the chunks still belong to their files.
  EXPECT_EQ(rows("files WHERE id = 101 AND path = 'new1.py'"), 1);
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'new_fn' AND rowid / 1048576 = 102"), 1);
  EXPECT_EQ(rows("code_chunks WHERE code_chunks MATCH 'old_fn'"), 0);
  db_.execute("DELETE FROM files WHERE id = 102");  // the chunk trigger is back
  EXPECT_EQ(rows("code_chunks WHERE rowid / 1048576 = 102"), 0);
  EXPECT_EQ(rows("pending_references"), 1);
  EXPECT_EQ(rows("memories"), 1);
  EXPECT_EQ((*db_.fetchone("SELECT value FROM schema_info WHERE key = 'version'"))[0].as_text(),
            migrations::SCHEMA_VERSION);

  // A staging build without chunks leaves the live table empty; a live index without the
  // table gets none.
  std::filesystem::remove(staging_);
  build_staging(staging_, [](sqlite::Cursor& cursor) { cursor.execute("DROP TABLE code_chunks"); });
  EXPECT_THAT(db_.swap_index_from(staging_).back(), Pair("index_errors", 1));
  EXPECT_EQ(rows("code_chunks"), 0);
  db_.execute("DROP TABLE code_chunks");
  std::filesystem::remove(staging_);
  build_staging(staging_);
  EXPECT_EQ(db_.swap_index_from(staging_).size(), 6U);
  EXPECT_TRUE(db_.fetchall("SELECT name FROM sqlite_master WHERE name = 'code_chunks'").empty());
  EXPECT_EQ(db_.index_generation(), generation + 3);
}

TEST_F(IndexContentsTest, StagingColumnsBeyondTheLiveOnesAreLeftOut) {
  build_staging(staging_, [](sqlite::Cursor& cursor) {
    cursor.execute("ALTER TABLE symbols ADD COLUMN doc TEXT DEFAULT 'extra'");
  });
  db_.swap_index_from(staging_);
  EXPECT_EQ(rows("symbols WHERE name = 'new_fn'"), 3);
}

TEST_F(IndexContentsTest, AFailedSwapLeavesTheLiveIndexAsItWas) {
  const std::string before = snapshot(db_);
  const auto unchanged = [&] {
    EXPECT_EQ(snapshot(db_), before);
    EXPECT_THAT(attached(db_), ElementsAre("main"));
  };
  EXPECT_EQ(error_of<FileNotFoundError>([&] { db_.swap_index_from(staging_); }),
            "Staging database not found: " + staging_.string());
  unchanged();

  // Refused before the live file is touched: not a database, a damaged page, rows that refer
  // to rows the build lacks (the copy runs with foreign keys off).
  const std::string refused = "Staging database " + staging_.string();
  std::ofstream(staging_) << "not a database, but long enough to have a header of its own......";
  EXPECT_EQ(error_of<sqlite::DatabaseError>([&] { db_.swap_index_from(staging_); }),
            refused + " is damaged: file is not a database");
  unchanged();
  std::filesystem::remove(staging_);
  build_staging(staging_);
  {
    std::fstream damage(staging_, std::ios::in | std::ios::out | std::ios::binary);
    damage.seekp(std::streamoff{2} * 8192);  // the third page: a table's root
    damage << std::string(8192, '\xff');
  }
  EXPECT_THAT(error_of<sqlite::DatabaseError>([&] { db_.swap_index_from(staging_); }),
              HasSubstr(refused + " is damaged: "));
  unchanged();
  std::filesystem::remove(staging_);
  build_staging(staging_);
  sqlite::Connection(staging_).cursor().execute(
      "INSERT INTO symbols (id, file_id, name, kind) VALUES (7, 999, 'lost', 'function')");
  EXPECT_EQ(
      error_of<sqlite::IntegrityError>([&] { db_.swap_index_from(staging_); }),
      refused +
          " has 1 row(s) that refer to missing rows, the first in symbols (rowid 7, to files)");
  unchanged();

  std::filesystem::remove(staging_);
  build_staging(staging_, [](sqlite::Cursor& cursor) {
    cursor.execute("ALTER TABLE edges DROP COLUMN line");
  });
  EXPECT_THAT(error_of<sqlite::OperationalError>([&] { db_.swap_index_from(staging_); }),
              HasSubstr("line"));
  unchanged();

  // Inside the caller's transaction the swap refuses before attaching; the caller's own work
  // goes on and commits.
  db_.transaction([&](sqlite::Cursor& cursor) {
    EXPECT_EQ(error_of<sqlite::OperationalError>([&] { db_.swap_index_from(staging_); }),
              "cannot ATTACH database within transaction");
    EXPECT_THAT(attached(db_), ElementsAre("main"));
    cursor.execute("INSERT INTO memories VALUES ('written')");
  });
  EXPECT_EQ(rows("memories"), 2);
  db_.execute("DELETE FROM memories WHERE note = 'written'");
  unchanged();

  db_.close();
  EXPECT_EQ(error_of<std::runtime_error>([&] { db_.swap_index_from(staging_); }),
            "Database is closed.");
}

TEST_F(IndexContentsTest, SwapSurvivesTheDiskFillingAtAnyPoint) {
  db_.close();
  testing::FaultVfs vfs;
  open_fully(db_);
  build_staging(staging_);
  const std::string staging_bytes = bytes_of(staging_);
  EXPECT_GT(fill_the_disk_during(vfs, 4096, [&] { db_.swap_index_from(staging_); }), 0);
  EXPECT_EQ(rows("files WHERE path = 'new1.py'"), 1);
  EXPECT_EQ(bytes_of(staging_), staging_bytes);
  db_.close();
}

}  // namespace
}  // namespace quilma::storage
