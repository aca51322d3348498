#include <cstdint>
#include <filesystem>
#include <future>
#include <latch>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/database_test_peer.h"
#include "support/error_of.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/migrations.h"

namespace quilma::storage {
namespace {

using Peer = DatabaseTestPeer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::LogCapture;
using namespace std::string_literals;

// Runs `sql` on its own connection and returns the first column of the first row as text.
std::string value_of(const std::filesystem::path& path, const std::string& sql) {
  sqlite::Connection connection(path);
  const std::optional<sqlite::Row> row = connection.cursor().execute(sql).fetchone();
  if (!row) return "(no row)";
  return (*row)[0].is_null() ? "NULL" : (*row)[0].as_text();
}

// The first column of the first row of a query through `db`, as text.
std::string scalar(Database& db, const std::string& sql) {
  return db.fetchone(sql).value()[0].as_text();
}

void run(const std::filesystem::path& path, const std::string& sql) {
  sqlite::Connection connection(path);
  sqlite::Cursor cursor = connection.cursor();
  migrations::run_ddl(cursor, sql);
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
                                   file_id INTEGER NOT NULL REFERENCES files (id),
                                   module TEXT NOT NULL);
    CREATE TABLE index_errors (id INTEGER PRIMARY KEY, file_path TEXT NOT NULL,
                               error_type TEXT NOT NULL, message TEXT);
    CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line UNINDEXED);
    INSERT INTO files (id, path, language, hash) VALUES (1, 'a.py', 'python', 'h1'),
                                                        (2, 'b.go', 'go', 'h2');
    INSERT INTO symbols (file_id, name, kind, line) VALUES (1, 'a.py', 'file', 1),
                                                           (1, 'main', 'function', 3);
    INSERT INTO code_chunks (rowid, text, start_line, end_line)
      VALUES (1048576, 'def main(): pass', 1, 1);
  )sql");
  if (release == Release::V2_0) return;
  run(path, R"sql(
    ALTER TABLE index_errors ADD COLUMN line INTEGER;
    DROP TABLE code_chunks;
    CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line UNINDEXED,
                                                exact UNINDEXED);
    INSERT INTO code_chunks (rowid, text, start_line, end_line, exact)
      VALUES (1048576, 'def main(): pass', 1, 1, 1);
    CREATE TABLE schema_info (key TEXT PRIMARY KEY, value TEXT);
    INSERT INTO schema_info VALUES ('version', '2.12.0');
  )sql");
  if (release == Release::V2_12) return;
  run(path, R"sql(
    ALTER TABLE symbols ADD COLUMN qualified_name TEXT;
    UPDATE schema_info SET value = 3 WHERE key = 'version';
  )sql");
}

void open_sequence(Database& db) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

bool has_column(const std::filesystem::path& path, const std::string& table,
                const std::string& column) {
  return value_of(path, "SELECT COUNT(*) FROM pragma_table_info('" + table + "') WHERE name = '" +
                            column + "'") == "1";
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
    open_sequence(db);
    EXPECT_TRUE(db.check_integrity());
    EXPECT_EQ(scalar(db, "SELECT COUNT(*) FROM files"), "2");
    EXPECT_NE(Peer::readers(db), nullptr);  // opened again after the rewrite
  }
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("Schema version 3.1.0 (recorded " + GetParam().recorded + ")"));
  EXPECT_EQ(value_of(path, "SELECT value FROM schema_info WHERE key = 'version'"), "3.1.0");
  EXPECT_EQ(value_of(path, "PRAGMA page_size"), "8192");
  EXPECT_EQ(value_of(path, "PRAGMA auto_vacuum"), "2");  // the rewrite converts it too
  EXPECT_EQ(value_of(path, "PRAGMA journal_mode"), "wal");
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
  open_sequence(again);
  EXPECT_THAT(log.texts(spdlog::level::info), ElementsAre("Schema version 3.1.0 (recorded 3.1.0)"));
}

INSTANTIATE_TEST_SUITE_P(Releases, OpenReleaseFileTest,
                         ::testing::Values(ReleaseCase{Release::V2_0, "2.0.0", false},
                                           ReleaseCase{Release::V2_12, "2.12.0", true},
                                           ReleaseCase{Release::V3_AS_INTEGER, "3", true}));

TEST(OpenSequenceTest, NewFileIsCreatedCurrentAndOpensWithoutRewriting) {
  testing::TempDir dir;
  LogCapture size_log("quilma.storage.storage_size");
  Database db(dir / "sub" / "index.db");
  db.connect();
  ReaderPool* readers = Peer::readers(db);
  db.create_schema();
  db.migrate_schema();
  EXPECT_EQ(Peer::readers(db), readers);  // no rewrite, so the pool stays
  EXPECT_EQ(scalar(db, "SELECT value FROM schema_info WHERE key = 'version'"),
            migrations::SCHEMA_VERSION);
  EXPECT_THAT(size_log.lines(), IsEmpty());
  EXPECT_TRUE(db.check_integrity());
}

TEST(OpenSequenceTest, FailingStepKeepsTheStepsBeforeItAndStopsTheOpen) {
  testing::TempDir dir;
  const std::filesystem::path path = dir / "index.db";
  make_release_file(path, Release::V2_12);
  // A table in the way of an index that step 3.1.0 creates.
  run(path, "CREATE TABLE idx_symbols_name (x)");
  LogCapture log;
  LogCapture migrations_log("quilma.storage.migrations");
  Database db(path);
  db.connect();
  db.create_schema();
  try {
    db.migrate_schema();
    FAIL() << "the migration went through";
  } catch (const migrations::SchemaMigrationError& error) {
    EXPECT_THAT(error.what(), HasSubstr("from 3.0.0 to 3.1.0 failed"));
    EXPECT_THAT(error.what(), HasSubstr("quilma::sqlite::OperationalError: there is already a "
                                        "table named idx_symbols_name"));
    EXPECT_THROW(std::rethrow_if_nested(error), sqlite::OperationalError);
  }
  EXPECT_EQ(migrations_log.texts(spdlog::level::warn).size(), 1U);
  EXPECT_THAT(log.lines(), IsEmpty());  // neither the version line nor a rewrite
  EXPECT_EQ(scalar(db, "SELECT value FROM schema_info WHERE key = 'version'"), "3.0.0");
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), "4096");
}

TEST(OpenSequenceTest, UnreadableVersionsStopTheOpenBeforeAnyStep) {
  testing::TempDir dir;
  for (const char* stored : {"'banana'", "'3.x'", "NULL", "'-1'"}) {
    const std::filesystem::path path = dir / (std::string("v") + stored + ".db");
    make_release_file(path, Release::V2_12);
    run(path, "UPDATE schema_info SET value = "s + stored);
    Database db(path);
    db.connect();
    db.create_schema();
    EXPECT_THAT(testing::error_of<migrations::SchemaMigrationError>([&] { db.migrate_schema(); }),
                HasSubstr("is not a dotted version number"))
        << stored;
    EXPECT_FALSE(has_column(path, "symbols", "qualified_name")) << stored;
  }
}

TEST(OpenSequenceTest, FileOfANewerReleaseIsLeftAlone) {
  testing::TempDir dir;
  const std::filesystem::path path = dir / "index.db";
  make_release_file(path, Release::V2_12);
  run(path, "UPDATE schema_info SET value = '3.10.0'");
  LogCapture log;
  Database db(path);
  open_sequence(db);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), "4096");
  EXPECT_FALSE(has_column(path, "symbols", "qualified_name"));
}

TEST(OpenSequenceTest, VersionReadWithoutSchemaInfoStartsFromTheOldest) {
  testing::TempDir dir;
  const std::filesystem::path path = dir / "index.db";
  make_release_file(path, Release::V2_0);
  LogCapture log;
  Database db(path);
  db.connect();  // no create_schema: schema_info is missing when the version is read
  // Step 2.4.0 runs, and fails only at recording its version.
  EXPECT_THAT(testing::error_of<migrations::SchemaMigrationError>([&] { db.migrate_schema(); }),
              HasSubstr("from 2.0.0 to 2.4.0 failed"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(CheckIntegrityTest, ReportsADamagedFile) {
  testing::TempDir dir;
  const std::filesystem::path path = dir / "index.db";
  Database db(path);
  open_sequence(db);
  db.execute("INSERT INTO files (path) VALUES ('a'), ('b'), ('c')");
  EXPECT_TRUE(db.check_integrity());
  // An index entry that points at no row: what a torn write leaves behind.
  db.execute("PRAGMA writable_schema = ON");
  db.execute(
      "UPDATE sqlite_schema SET sql = 'CREATE INDEX idx_files_language ON files (path)' "
      "WHERE name = 'idx_files_language'");
  db.execute("PRAGMA writable_schema = OFF");
  db.close();
  Database reopened(path);
  reopened.connect();
  EXPECT_FALSE(reopened.check_integrity());
}

// The page rewrite, on files at the current version whose pages are smaller.
class RewritePagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    run(path_, "PRAGMA page_size = 4096; PRAGMA journal_mode = WAL; CREATE TABLE keep (v)");
    Database db(path_);
    open_sequence(db);  // rewrites: undo that for the tests
    db.close();
    run(path_,
        "PRAGMA journal_mode = DELETE; PRAGMA page_size = 4096; VACUUM; "
        "PRAGMA journal_mode = WAL; INSERT INTO keep VALUES ('kept')");
    ASSERT_EQ(value_of(path_, "PRAGMA page_size"), "4096");
    size_log_.clear();
  }
  void TearDown() override { detail::replace_free_space_query({}); }

  // The open sequence, checking that the rewrite closed the pool it found and opened a new
  // one, whatever became of the file.
  void open_replacing_pool(Database& db) {
    db.connect();
    db.create_schema();
    ReaderPool* before = Peer::readers(db);
    ASSERT_NE(before, nullptr);
    db.fetchone("SELECT 1");  // a read connection that must be let go for the rewrite
    db.migrate_schema();
    ReaderPool* after = Peer::readers(db);
    ASSERT_NE(after, nullptr);
    EXPECT_NE(after, before);
    EXPECT_THROW(before->lease(), ReaderUnavailable);
    EXPECT_NO_THROW(after->lease());
  }

  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "index.db";
  LogCapture size_log_{"quilma.storage.storage_size"};
};

TEST_F(RewritePagesTest, WithRoomRewritesOnceWithTheReadersClosedAroundIt) {
  Database db(path_);
  open_replacing_pool(db);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), "8192");
  EXPECT_EQ(scalar(db, "SELECT v FROM keep"), "kept");
  EXPECT_THAT(size_log_.texts(spdlog::level::info),
              ElementsAre("Rewrote " + path_.string() + " with 8192-byte pages"));

  db.close();
  size_log_.clear();
  Database again(path_);
  open_sequence(again);
  EXPECT_THAT(size_log_.lines(), IsEmpty());
}

TEST_F(RewritePagesTest, WithoutRoomKeepsThePagesAndTriesAgainAtTheNextOpen) {
  detail::replace_free_space_query([](const std::filesystem::path&) { return 0; });
  {
    Database db(path_);
    open_replacing_pool(db);  // closed and opened again all the same
    EXPECT_EQ(scalar(db, "PRAGMA page_size"), "4096");
  }
  const std::vector<std::string> warnings = size_log_.texts(spdlog::level::warn);
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_THAT(warnings[0], HasSubstr("Not rewriting " + path_.string() +
                                     " with 8192-byte pages: not enough disk space"));
  EXPECT_EQ(value_of(path_, "PRAGMA journal_mode"), "wal");

  detail::replace_free_space_query({});
  Database db(path_);
  open_sequence(db);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), "8192");
}

TEST_F(RewritePagesTest, AnotherConnectionOnTheFileKeepsItAsItIs) {
  sqlite::Connection other(path_, {.read_only = true});
  other.cursor().execute("SELECT COUNT(*) FROM keep").fetchall();  // open, idle
  Database db(path_);
  open_replacing_pool(db);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), "4096");
  EXPECT_EQ(scalar(db, "PRAGMA journal_mode"), "wal");
  const std::vector<std::string> warnings = size_log_.texts(spdlog::level::warn);
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_THAT(warnings[0], HasSubstr("cannot leave WAL mode"));
  db.execute("INSERT INTO keep VALUES ('still writable')");
}

TEST_F(RewritePagesTest, WithoutAPoolOpensOneWhenTheFileIsInWalMode) {
  Database db(path_);
  db.connect();
  db.create_schema();
  Peer::set_readers(db, nullptr);  // every query on the writer, as before a rewrite to WAL
  db.migrate_schema();
  EXPECT_NE(Peer::readers(db), nullptr);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), "8192");
}

TEST(IndexGenerationTest, BumpsAreSeenByOthersOnlyOnceCommitted) {
  testing::TempDir dir;
  Database db(dir / "index.db");
  open_sequence(db);
  EXPECT_EQ(db.index_generation(), 0);
  Peer::bump_index_generation(db);
  EXPECT_EQ(db.index_generation(), 1);

  Database other_process(dir / "index.db");
  other_process.connect();
  std::latch bumped(1);
  std::future<std::int64_t> seen_during = std::async(std::launch::async, [&] {
    bumped.wait();
    return db.index_generation();  // another thread of this process
  });
  db.transaction([&](sqlite::Cursor& cursor) {
    Peer::bump_index_generation(db, &cursor);
    EXPECT_EQ(db.index_generation(), 2);  // the transaction's own view
    EXPECT_EQ(other_process.index_generation(), 1);
    bumped.count_down();
    // On a read connection the other thread does not wait for this transaction.
    ASSERT_EQ(seen_during.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  });
  EXPECT_EQ(seen_during.get(), 1);
  EXPECT_EQ(other_process.index_generation(), 2);

  EXPECT_THROW(db.transaction([&](sqlite::Cursor& cursor) {
    Peer::bump_index_generation(db, &cursor);
    throw std::runtime_error("swap failed");
  }),
               std::runtime_error);
  EXPECT_EQ(db.index_generation(), 2);
  EXPECT_EQ(other_process.index_generation(), 2);
}

// The extractor stamp.
class ExtractorStampTest : public ::testing::Test {
 protected:
  void SetUp() override {
    open_sequence(db_);
    db_.executemany("INSERT INTO files (path, language, hash) VALUES (?, ?, 'h')",
                    {{"a.py", "python"}, {"b.py", "python"}, {"c.go", "go"}, {"d.rs", "rust"}});
    log_.clear();
  }
  std::optional<std::string> stamp() {
    const std::optional<sqlite::Row> row =
        db_.fetchone("SELECT value FROM schema_info WHERE key = ?", {EXTRACTOR_VERSIONS_KEY});
    if (!row) return std::nullopt;
    return (*row)[0].as_text();
  }
  void store(const sqlite::Value& raw) {
    db_.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                {EXTRACTOR_VERSIONS_KEY, raw});
  }
  std::int64_t stale() {
    return Peer::count(db_, "SELECT COUNT(*) FROM files WHERE hash = '" +
                                std::string(REINDEX_SENTINEL_HASH) + "'");
  }
  int changes() { return sqlite3_total_changes(db_.connection().handle()); }

  testing::TempDir dir_;
  Database db_{dir_ / "index.db"};
  LogCapture log_;
};

TEST_F(ExtractorStampTest, MarksTheLanguagesWhoseExtractorChanged) {
  db_.execute("DELETE FROM files");
  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 1}, {"go", 2}}), 0);  // no files yet
  EXPECT_EQ(stamp(), R"({"go": 2, "python": 1})");
  db_.executemany("INSERT INTO files (path, language, hash) VALUES (?, ?, 'h')",
                  {{"a.py", "python"}, {"b.py", "python"}, {"c.go", "go"}, {"d.rs", "rust"}});

  const int before = changes();
  EXPECT_EQ(db_.refresh_extractor_stamp({{"go", 2}, {"python", 1}}), 0);
  EXPECT_EQ(changes(), before);  // the same versions write nothing

  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 2}, {"go", 2}, {"rust", 1}}), 3);
  EXPECT_EQ(stale(), 3);
  EXPECT_EQ(scalar(db_, "SELECT hash FROM files WHERE language = 'go'"), "h");
  EXPECT_THAT(log_.texts(spdlog::level::info),
              ElementsAre("Extractor changed for python, rust: 3 files marked for re-indexing"));

  // A language that is no longer passed is dropped from the stamp, and marks nothing.
  log_.clear();
  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 2}, {"go", 2}}), 0);
  EXPECT_EQ(stamp(), R"({"go": 2, "python": 2})");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ExtractorStampTest, StampTextIsSortedOneLineAndAsciiOnly) {
  db_.refresh_extractor_stamp(
      {{"\xF0\x9F\x98\x80", 1}, {"z", -1}, {"\xC3\xA9", 9007199254740993}, {"a\"b\\", 2}});
  EXPECT_EQ(stamp(), R"({"a\"b\\": 2, "z": -1, "\u00e9": 9007199254740993, "\ud83d\ude00": 1})");
  // The stored text reads back as the same versions: nothing changes at the next call.
  EXPECT_EQ(
      db_.refresh_extractor_stamp(
          {{"a\"b\\", 2}, {"z", -1}, {"\xC3\xA9", 9007199254740993}, {"\xF0\x9F\x98\x80", 1}}),
      0);
  EXPECT_THAT(log_.texts(spdlog::level::warn), IsEmpty());

  EXPECT_THAT(testing::error_of<std::invalid_argument>([&] {
                db_.refresh_extractor_stamp({{"go", 1}, {"bad\xFF", 1}});
              }),
              HasSubstr("'bad\\xff' is not UTF-8"));
  EXPECT_EQ(stale(), 0);
}

struct StoredStamp {
  sqlite::Value raw;
  std::string rendered;  // as the warning shows it
};

// Names the case by its rendered form; the default would dump the struct's bytes.
void PrintTo(const StoredStamp& stamp, std::ostream* out) { *out << stamp.rendered; }

class UnknownStampTest : public ExtractorStampTest,
                         public ::testing::WithParamInterface<StoredStamp> {};

TEST_P(UnknownStampTest, CountsAsNoStampWithAWarning) {
  store(GetParam().raw);
  log_.clear();
  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 1}, {"go", 1}}), 3);
  EXPECT_THAT(log_.texts(spdlog::level::warn),
              ElementsAre("Extractor stamp " + GetParam().rendered +
                          " has an unknown format; treating it as absent"));
  EXPECT_EQ(stamp(), R"({"go": 1, "python": 1})");
}

INSTANTIATE_TEST_SUITE_P(
    Formats, UnknownStampTest,
    ::testing::Values(
        StoredStamp{"not json", "'not json'"},
        StoredStamp{R"({"python": 1} x)", R"('{"python": 1} x')"}, StoredStamp{"[1]", "'[1]'"},
        StoredStamp{"null", "'null'"}, StoredStamp{std::int64_t{5}, "'5'"},
        StoredStamp{R"({"python": true})", R"('{"python": true}')"},
        StoredStamp{R"({"python": 1.0})", R"('{"python": 1.0}')"},
        StoredStamp{R"({"python": 1e3})", R"('{"python": 1e3}')"},
        StoredStamp{R"({"python": "1"})", R"('{"python": "1"}')"},
        StoredStamp{R"({"go": 1, "python": {"v": 1}})", R"('{"go": 1, "python": {"v": 1}}')"},
        StoredStamp{"it's \"\xC3\xA9\"\n\x01\xC2\x85\xE2\x80\xA8",
                    R"('it\'s "é"\n\x01\x85\u2028')"},
        StoredStamp{"\xEF\xBB\xBF{}", R"('\ufeff{}')"}, StoredStamp{sqlite::Value(), "NULL"}));

TEST_F(ExtractorStampTest, KnownFormatsIncludeEmptyAndWideIntegers) {
  store(R"( {"python": 123456789012345678901234567890, "go": 1, "go": 2} )");
  EXPECT_EQ(db_.refresh_extractor_stamp({{"python", 1}, {"go", 2}}), 2);  // the last "go" counts
  store("{}");
  EXPECT_EQ(db_.refresh_extractor_stamp({{"go", 2}}), 1);
  EXPECT_THAT(log_.texts(spdlog::level::warn), IsEmpty());

  // Empty versions against a missing stamp: equal, so nothing is written.
  db_.execute("DELETE FROM schema_info WHERE key = ?", {EXTRACTOR_VERSIONS_KEY});
  EXPECT_EQ(db_.refresh_extractor_stamp({}), 0);
  EXPECT_EQ(stamp(), std::nullopt);
}

TEST_F(ExtractorStampTest, FailureInsideRollsBackTheMarksAndTheStamp) {
  db_.refresh_extractor_stamp({{"python", 1}});
  db_.execute("UPDATE files SET hash = 'h'");
  log_.clear();
  // Marking fails half-way (after "go", at "python"), as a write to a full disk would.
  db_.execute(
      "CREATE TRIGGER no_python BEFORE UPDATE ON files WHEN old.language = 'python' "
      "BEGIN SELECT RAISE(FAIL, 'disk full'); END");
  EXPECT_THROW(db_.refresh_extractor_stamp({{"python", 2}, {"go", 1}}), sqlite::IntegrityError);
  EXPECT_EQ(stale(), 0);
  EXPECT_EQ(stamp(), R"({"python": 1})");
  EXPECT_THAT(log_.texts(spdlog::level::info), IsEmpty());
}

}  // namespace
}  // namespace quilma::storage
