// The open sequence (creation, migration, the page rewrite), the index generation and the
// extractor stamp.
#include <cstdint>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/database_test_peer.h"
#include "support/error_of.h"
#include "support/index_builder.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/log.h"
#include "quilma/storage/migrations.h"

namespace quilma::storage {
namespace {

using Peer = DatabaseTestPeer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::LogCapture;
using testing::open_fully;
using namespace std::string_literals;

// The first column of the first row of `sql`, run on a connection of its own, as text.
std::string value_of(const std::filesystem::path& path, const std::string& sql) {
  sqlite::Connection connection(path);
  const std::optional<sqlite::Row> row = connection.cursor().execute(sql).fetchone();
  return !row ? "(no row)" : (*row)[0].is_null() ? "NULL" : (*row)[0].as_text();
}

void run(const std::filesystem::path& path, const std::string& sql) {
  sqlite::Connection connection(path);
  sqlite::Cursor cursor = connection.cursor();
  migrations::run_ddl(cursor, sql);
}

bool has_column(const std::filesystem::path& path, const std::string& table,
                const std::string& column) {
  return value_of(path, "SELECT COUNT(*) FROM pragma_table_info('" + table + "') WHERE name = '" +
                            column + "'") == "1";
}

// The index files that earlier releases made: 4096-byte pages, no auto-vacuum, rollback
// journal, and the tables of their release with a few rows.
enum class Release { V2_0, V2_12, V3_AS_INTEGER };

void make_release_file(const std::filesystem::path& path, Release release) {
  run(path, R"sql(
    PRAGMA page_size = 4096;
    CREATE TABLE components (id INTEGER PRIMARY KEY, name TEXT NOT NULL, layer TEXT);
    CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT,
      hash TEXT, component_id INTEGER REFERENCES components (id));
    CREATE TABLE symbols (id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files (id),
      name TEXT NOT NULL, kind TEXT NOT NULL, line INTEGER);
    CREATE TABLE edges (id INTEGER PRIMARY KEY, source_id INTEGER NOT NULL REFERENCES symbols (id),
      target_id INTEGER REFERENCES symbols (id), kind TEXT NOT NULL);
    CREATE TABLE external_imports (id INTEGER PRIMARY KEY,
      file_id INTEGER NOT NULL REFERENCES files (id), module TEXT NOT NULL);
    CREATE TABLE index_errors (id INTEGER PRIMARY KEY, file_path TEXT NOT NULL,
      error_type TEXT NOT NULL, message TEXT);
    CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line UNINDEXED);
    INSERT INTO files (id, path, language, hash) VALUES (1, 'a.py', 'python', 'h1'), (2, 'b.go', 'go', 'h2');
    INSERT INTO symbols (file_id, name, kind, line) VALUES (1, 'a.py', 'file', 1), (1, 'main', 'function', 3);
    INSERT INTO code_chunks (rowid, text, start_line, end_line) VALUES (1048576, 'def main(): pass', 1, 1);
  )sql");
  if (release == Release::V2_0) return;
  run(path, R"sql(
    ALTER TABLE index_errors ADD COLUMN line INTEGER;
    DROP TABLE code_chunks;
    CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line UNINDEXED, exact UNINDEXED);
    INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (1048576, 'def main(): pass', 1, 1, 1);
    CREATE TABLE schema_info (key TEXT PRIMARY KEY, value TEXT);
    INSERT INTO schema_info VALUES ('version', '2.12.0');
  )sql");
  if (release == Release::V2_12) return;
  run(path, "ALTER TABLE symbols ADD COLUMN qualified_name TEXT; UPDATE schema_info SET value = 3");
}

struct ReleaseCase {
  Release release;
  std::string recorded;
  bool chunks_kept;  // whether the file's chunks survive (only 2.12.0 re-creates the table)
};

class OpenReleaseFileTest : public ::testing::TestWithParam<ReleaseCase> {};

TEST_P(OpenReleaseFileTest, MigratesToTheCurrentSchemaAndPageSizeKeepingTheIndex) {
  testing::TempDir dir;
  const std::filesystem::path path = dir / "index.db";
  make_release_file(path, GetParam().release);
  LogCapture log;
  {
    Database db(path);
    open_fully(db);
    EXPECT_TRUE(db.check_integrity());
    EXPECT_EQ(testing::number(db, "SELECT COUNT(*) FROM files"), 2);
    EXPECT_NE(Peer::readers(db), nullptr);  // opened again after the rewrite
  }
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("Schema version 3.1.0 (recorded " + GetParam().recorded + ")"));
  EXPECT_EQ(value_of(path, "SELECT value FROM schema_info WHERE key = 'version'"), "3.1.0");
  EXPECT_EQ(value_of(path,
                     "SELECT page_size || auto_vacuum || journal_mode FROM "
                     "pragma_page_size, pragma_auto_vacuum, pragma_journal_mode"),
            "81922wal");
  EXPECT_TRUE(has_column(path, "index_errors", "line"));
  EXPECT_TRUE(has_column(path, "symbols", "qualified_name"));
  EXPECT_TRUE(has_column(path, "code_chunks", "exact"));
  EXPECT_EQ(value_of(path,
                     "SELECT COUNT(*) FROM sqlite_schema WHERE name IN "
                     "('idx_symbols_name', 'files_delete_chunks', 'pending_references')"),
            "3");
  // Text that an older table could not hold is parsed again at the next pass.
  EXPECT_EQ(value_of(path, "SELECT COUNT(*) FROM code_chunks"), GetParam().chunks_kept ? "1" : "0");
  EXPECT_EQ(value_of(path, "SELECT hash FROM files WHERE id = 1"),
            GetParam().chunks_kept ? "h1"s : std::string(REINDEX_SENTINEL_HASH));

  log.clear();
  Database again(path);
  open_fully(again);
  EXPECT_THAT(log.texts(spdlog::level::info), ElementsAre("Schema version 3.1.0 (recorded 3.1.0)"));
}

INSTANTIATE_TEST_SUITE_P(Releases, OpenReleaseFileTest,
                         ::testing::Values(ReleaseCase{Release::V2_0, "2.0.0", false},
                                           ReleaseCase{Release::V2_12, "2.12.0", true},
                                           ReleaseCase{Release::V3_AS_INTEGER, "3", true}));

TEST(OpenSequenceTest, ANewFileIsCreatedCurrentAndCheckedWhole) {
  testing::TempDir dir;
  LogCapture size_log("quilma.storage.storage_size");
  Database db(dir / "sub" / "index.db");
  db.connect();
  ReaderPool* readers = Peer::readers(db);
  db.create_schema();
  db.migrate_schema();
  EXPECT_EQ(Peer::readers(db), readers);  // no rewrite, so the pool stays
  EXPECT_EQ(db.fetchone("SELECT value FROM schema_info WHERE key = 'version'").value()[0],
            sqlite::Value(migrations::SCHEMA_VERSION));
  EXPECT_THAT(size_log.lines(), IsEmpty());
  db.execute("INSERT INTO files (path) VALUES ('a'), ('b'), ('c')");
  EXPECT_TRUE(db.check_integrity());
  // An index entry that points at no row: what a torn write leaves behind.
  db.execute("PRAGMA writable_schema = ON");
  db.execute(
      "UPDATE sqlite_schema SET sql = 'CREATE INDEX idx_files_language ON files (path)' "
      "WHERE name = 'idx_files_language'");
  db.execute("PRAGMA writable_schema = OFF");
  db.close();
  Database reopened(dir / "sub" / "index.db");
  reopened.connect();
  EXPECT_FALSE(reopened.check_integrity());
}

TEST(OpenSequenceTest, AVersionThatCannotBeMigratedStopsTheOpenAndKeepsTheStepsBefore) {
  testing::TempDir dir;
  const struct {
    const char* stored;  // the recorded version; NULL: no schema_info read
    const char* error;   // in the SchemaMigrationError; empty when the open goes through
    const char* version_after;
  } cases[] = {{"'banana'", "is not a dotted version number", "banana"},
               {"'3.x'", "is not a dotted version number", "3.x"},
               {"'-1'", "is not a dotted version number", "-1"},
               {"'3.10.0'", "", "3.10.0"},  // a newer release's file is left alone
               // A table in the way of an index that step 3.1.0 creates.
               {"'2.12.0'", "from 3.0.0 to 3.1.0 failed", "3.0.0"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stored);
    const std::filesystem::path path = dir / (std::string("v") + c.stored + ".db");
    make_release_file(path, Release::V2_12);
    run(path,
        "UPDATE schema_info SET value = "s + c.stored + "; CREATE TABLE idx_symbols_name (x)");
    LogCapture log;
    Database db(path);
    db.connect();
    db.create_schema();
    const std::string error =
        testing::error_of<migrations::SchemaMigrationError>([&] { db.migrate_schema(); });
    EXPECT_THAT(error, HasSubstr(c.error[0] == '\0' ? "(no error)" : c.error));
    EXPECT_THAT(log.lines(), IsEmpty());  // neither the version line nor a rewrite
    EXPECT_EQ(value_of(path, "SELECT value FROM schema_info"), c.version_after);
    EXPECT_EQ(value_of(path, "PRAGMA page_size"), "4096");
  }
  // Without schema_info, the version read finds nothing: the steps run from the oldest, and
  // 2.4.0 fails only at recording its version.
  make_release_file(dir / "old.db", Release::V2_0);
  Database old(dir / "old.db");
  old.connect();
  EXPECT_THAT(testing::error_of<migrations::SchemaMigrationError>([&] { old.migrate_schema(); }),
              HasSubstr("from 2.0.0 to 2.4.0 failed"));
}

// The page rewrite, on files at the current version whose pages are smaller.
class RewritePagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    run(path_, "PRAGMA page_size = 4096; PRAGMA journal_mode = WAL; CREATE TABLE keep (v)");
    Database db(path_);
    open_fully(db);  // rewrites: undo that for the tests
    db.close();
    run(path_,
        "PRAGMA journal_mode = DELETE; PRAGMA page_size = 4096; VACUUM; "
        "PRAGMA journal_mode = WAL; INSERT INTO keep VALUES ('kept')");
    ASSERT_EQ(value_of(path_, "PRAGMA page_size"), "4096");
    size_log_.clear();
  }
  void TearDown() override { detail::replace_free_space_query({}); }

  // The open sequence, checking that the rewrite closed the pool it found and opened a new
  // one, whatever became of the file; returns the page size it left.
  std::string open_replacing_pool(Database& db, const testing::PragmaVeto* veto = nullptr) {
    db.connect();
    db.create_schema();
    if (veto != nullptr) veto->apply(db.connection().handle());
    ReaderPool* before = Peer::readers(db);
    db.fetchone("SELECT 1");  // a read connection that must be let go for the rewrite
    if (veto != nullptr) {
      EXPECT_THROW(db.migrate_schema(), sqlite::DatabaseError);
    } else {
      db.migrate_schema();
    }
    ReaderPool* after = Peer::readers(db);
    EXPECT_NE(after, nullptr);
    EXPECT_NE(after, before);
    if (before != nullptr) {
      EXPECT_THROW(before->lease(), ReaderUnavailable);
    }
    if (after != nullptr) {
      EXPECT_NO_THROW(after->lease());
    }
    return db.fetchone("PRAGMA page_size").value()[0].as_text();
  }
  std::vector<std::string> warnings() { return size_log_.texts(spdlog::level::warn); }

  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "index.db";
  LogCapture size_log_{"quilma.storage.storage_size"};
};

TEST_F(RewritePagesTest, WithRoomRewritesOnceWithTheReadersClosedAroundIt) {
  Database db(path_);
  EXPECT_EQ(open_replacing_pool(db), "8192");
  EXPECT_EQ(db.fetchone("SELECT v FROM keep").value()[0], sqlite::Value("kept"));
  EXPECT_THAT(size_log_.texts(spdlog::level::info),
              ElementsAre("Rewrote " + path_.string() + " with 8192-byte pages"));
  db.close();
  size_log_.clear();
  Database again(path_);
  open_fully(again);
  EXPECT_THAT(size_log_.lines(), IsEmpty());
}

TEST_F(RewritePagesTest, WhatKeepsThePagesStillLeavesReadConnectionsOpen) {
  detail::replace_free_space_query([](const std::filesystem::path&) { return 0; });
  {
    Database db(path_);
    EXPECT_EQ(open_replacing_pool(db), "4096");
    ASSERT_EQ(warnings().size(), 1U);
    EXPECT_THAT(warnings()[0], HasSubstr("Not rewriting " + path_.string() +
                                         " with 8192-byte pages: not enough disk space"));
  }
  detail::replace_free_space_query({});
  size_log_.clear();
  {
    // The rewrite itself fails with an error that goes on to the caller.
    static constexpr testing::PragmaVeto refused{"page_size", SQLITE_DENY};
    Database db(path_);
    EXPECT_EQ(open_replacing_pool(db, &refused), "4096");
    EXPECT_EQ(db.fetchone("PRAGMA journal_mode").value()[0], sqlite::Value("wal"));
  }
  {
    sqlite::Connection other(path_, {.read_only = true});
    other.cursor().execute("SELECT COUNT(*) FROM keep").fetchall();  // open, idle
    Database db(path_);
    EXPECT_EQ(open_replacing_pool(db), "4096");
    ASSERT_EQ(warnings().size(), 1U);
    EXPECT_THAT(warnings()[0], HasSubstr("cannot leave WAL mode"));
    db.execute("INSERT INTO keep VALUES ('still writable')");
  }
}

class ExtractorStampTest : public ::testing::Test {
 protected:
  void SetUp() override {
    open_fully(db_);
    db_.executemany("INSERT INTO files (path, language, hash) VALUES (?, ?, 'h')",
                    {{"a.py", "python"}, {"b.py", "python"}, {"c.go", "go"}, {"d.rs", "rust"}});
  }
  std::optional<std::string> stamp() {
    const auto row =
        db_.fetchone("SELECT value FROM schema_info WHERE key = ?", {EXTRACTOR_VERSIONS_KEY});
    return row ? std::optional((*row)[0].as_text()) : std::nullopt;
  }
  void store(const sqlite::Value& raw) {
    db_.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                {EXTRACTOR_VERSIONS_KEY, raw});
  }
  std::int64_t stale() {
    return testing::number(db_, "SELECT COUNT(*) FROM files WHERE hash = '" +
                                    std::string(REINDEX_SENTINEL_HASH) + "'");
  }
  void unmark() { db_.execute("UPDATE files SET hash = 'h'"); }

  testing::TempDir dir_;
  Database db_{dir_ / "index.db"};
  LogCapture log_;
};

TEST_F(ExtractorStampTest, MarksTheLanguagesWhoseExtractorChanged) {
  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 1}, {"go", 2}}), 3);  // no stamp yet
  EXPECT_EQ(stamp(), R"({"go": 2, "python": 1})");
  unmark();
  const int before = sqlite3_total_changes(db_.connection().handle());
  EXPECT_EQ(db_.refresh_extractor_stamp({{"go", 2}, {"python", 1}}), 0);
  EXPECT_EQ(sqlite3_total_changes(db_.connection().handle()), before);  // nothing written
  log_.clear();
  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 2}, {"go", 2}, {"rust", 1}}), 3);
  EXPECT_EQ(stale(), 3);
  EXPECT_THAT(log_.texts(spdlog::level::info),
              ElementsAre("Extractor changed for python, rust: 3 files marked for re-indexing"));
  // A language no longer passed is dropped from the stamp, and marks nothing.
  unmark();
  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 2}, {"go", 2}}), 0);
  EXPECT_EQ(stamp(), R"({"go": 2, "python": 2})");
  EXPECT_EQ(stale(), 0);

  // A failure inside rolls back the marks and the stamp.
  db_.execute(
      "CREATE TRIGGER no_python BEFORE UPDATE ON files WHEN old.language = 'python' "
      "BEGIN SELECT RAISE(FAIL, 'disk full'); END");
  EXPECT_THROW(db_.refresh_extractor_stamp({{"python", 3}, {"go", 1}}), sqlite::IntegrityError);
  EXPECT_EQ(stale(), 0);
  EXPECT_EQ(stamp(), R"({"go": 2, "python": 2})");
}

TEST_F(ExtractorStampTest, TheStampReadsBackAsTheVersionsItRecords) {
  const std::map<std::string, std::int64_t> odd = {
      {"\xF0\x9F\x98\x80", 1}, {"z", -1}, {"\xC3\xA9", 9007199254740993}, {"a\"b\\", 2}};
  db_.refresh_extractor_stamp(odd);
  EXPECT_EQ(stamp(), R"({"a\"b\\": 2, "z": -1, "\u00e9": 9007199254740993, "\ud83d\ude00": 1})");
  EXPECT_EQ(db_.refresh_extractor_stamp(odd), 0);
  store(R"( {"python": 123456789012345678901234567890, "go": 1, "go": 2} )");
  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 1}, {"go", 2}}), 2);  // the last "go" counts
  store("{}");
  EXPECT_EQ(db_.refresh_extractor_stamp({{"go", 2}}), 1);
  EXPECT_THAT(log_.texts(spdlog::level::warn), IsEmpty());
  db_.execute("DELETE FROM schema_info WHERE key = ?", {EXTRACTOR_VERSIONS_KEY});
  EXPECT_EQ(db_.refresh_extractor_stamp({}), 0);  // equal to no stamp: nothing written
  EXPECT_EQ(stamp(), std::nullopt);
  unmark();
  EXPECT_THAT(testing::error_of<std::invalid_argument>([&] {
                db_.refresh_extractor_stamp({{"go", 1}, {"bad\xFF", 1}});
              }),
              HasSubstr("'bad\\xff' is not UTF-8"));
  EXPECT_EQ(stale(), 0);
}

TEST_F(ExtractorStampTest, AStampOfAnUnknownFormatCountsAsNoneWithAWarning) {
  const auto counts_as_none = [&](const sqlite::Value& raw, const std::string& rendered) {
    store(raw);
    log_.clear();
    EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 1}, {"go", 1}}), 3) << rendered;
    EXPECT_THAT(log_.texts(spdlog::level::warn),
                ElementsAre("Extractor stamp " + rendered +
                            " has an unknown format; treating it as absent"));
    EXPECT_EQ(stamp(), R"({"go": 1, "python": 1})");
  };
  const std::pair<const char*, const char*> texts[] = {
      {"not json", "'not json'"},
      {R"({"python": 1} x)", R"('{"python": 1} x')"},
      {R"({"python": true})", R"('{"python": true}')"},
      {R"({"python": 1.0})", R"('{"python": 1.0}')"},
      {R"({"python": "1"})", R"('{"python": "1"}')"},
      {R"({"go": 1, "python": {"v": 1}})", R"('{"go": 1, "python": {"v": 1}}')"},
      {"\xEF\xBB\xBF{}", R"('\ufeff{}')"}};
  for (const auto& [text, rendered] : texts) counts_as_none(text, rendered);
  counts_as_none(std::int64_t{5}, "'5'");
  counts_as_none(sqlite::Value(), "NULL");
  counts_as_none(sqlite::Blob{'{', '}'}, "'{}'");
}

TEST(ReprTest, ShowsTextAsADebugRepresentation) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain", "'plain'"},
      {"it's", R"("it's")"},
      {"it's \"q\"", R"('it\'s "q"')"},
      {"a\\b\n\r\t\x01\x7f", R"('a\\b\n\r\t\x01\x7f')"},
      {"\x84\x80\x80\x80", R"('\x84\x80\x80\x80')"},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "'\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80'"},
      {"\xC2\x85\xC2\xA0\xC2\xAD\xE2\x80\x8F\xE2\x80\xA8\xEE\x80\x80",
       R"('\x85\xa0\xad\u200f\u2028\ue000')"},
      {"\xEF\xBF\xBB\xEF\xBF\xBC\xF3\xB0\x80\x80\xFF", "'\\ufffb\xEF\xBF\xBC\\U000f0000\\xff'"}};
  for (const auto& [text, shown] : cases) EXPECT_EQ(detail::repr(text), shown) << shown;
  EXPECT_EQ(detail::repr(std::nullopt), "NULL");
}

}  // namespace
}  // namespace quilma::storage
