// The open sequence (creation, migration, the page rewrite) and the extractor stamp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/database_test_peer.h"
#include "support/error_of.h"
#include "support/index_builder.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include "quilma/storage/database_detail.h"
#include "quilma/storage/migrations.h"

namespace quilma::storage {
namespace {

using Peer = DatabaseTestPeer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::LogCapture;
using testing::open_fully;

// The first row of `sql`, run on a connection of its own, its columns joined by '|'.
std::string value_of(const std::filesystem::path& path, const std::string& sql) {
  sqlite::Connection connection(path);
  const sqlite::Row row = connection.cursor().execute(sql).fetchone().value();
  std::string text;
  for (const sqlite::Value& value : row.values()) {
    text += (text.empty() ? "" : "|") + (value.is_null() ? "NULL" : value.as_text());
  }
  return text;
}

void run(const std::filesystem::path& path, const std::string& sql) {
  sqlite::Connection connection(path);
  sqlite::Cursor cursor = connection.cursor();
  migrations::run_ddl(cursor, sql);
}

// An index file as release 2.0.0 made it (4096-byte pages, no auto-vacuum, rollback journal),
// taken `later` releases on: 2.12.0, then 3 recorded as an integer.
void make_release_file(const std::filesystem::path& path, int later) {
  run(path, R"sql(PRAGMA page_size = 4096;
    CREATE TABLE components (id INTEGER PRIMARY KEY, name TEXT NOT NULL, layer TEXT);
    CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT, hash TEXT, component_id INTEGER REFERENCES components (id));
    CREATE TABLE symbols (id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files (id), name TEXT NOT NULL, kind TEXT NOT NULL, line INTEGER);
    CREATE TABLE edges (id INTEGER PRIMARY KEY, source_id INTEGER NOT NULL REFERENCES symbols (id), target_id INTEGER REFERENCES symbols (id), kind TEXT NOT NULL);
    CREATE TABLE external_imports (id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files (id), module TEXT NOT NULL);
    CREATE TABLE index_errors (id INTEGER PRIMARY KEY, file_path TEXT NOT NULL, error_type TEXT NOT NULL, message TEXT);
    CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line UNINDEXED);
    INSERT INTO files (id, path, language, hash) VALUES (1, 'a.py', 'python', 'h1'), (2, 'b.go', 'go', 'h2');
    INSERT INTO symbols (file_id, name, kind, line) VALUES (1, 'a.py', 'file', 1), (1, 'main', 'function', 3);
    INSERT INTO code_chunks (rowid, text, start_line, end_line) VALUES (1048576, 'def main(): pass', 1, 1);)sql");
  if (later == 0) return;
  run(path, R"sql(ALTER TABLE index_errors ADD COLUMN line INTEGER; DROP TABLE code_chunks;
    CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line UNINDEXED, exact UNINDEXED);
    INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (1048576, 'def main(): pass', 1, 1, 1);
    CREATE TABLE schema_info (key TEXT PRIMARY KEY, value TEXT); INSERT INTO schema_info VALUES ('version', '2.12.0');)sql");
  if (later == 1) return;
  run(path, "ALTER TABLE symbols ADD COLUMN qualified_name TEXT; UPDATE schema_info SET value = 3");
}

// The names of a file's tables, indexes and triggers, whether it has the columns that releases
// since 2.0.0 added, and the version it records.
std::string schema_of(const std::filesystem::path& path) {
  return value_of(
      path,
      "SELECT group_concat(name), (SELECT COUNT(*) FROM pragma_table_info('index_errors') "
      "WHERE name = 'line') + (SELECT COUNT(*) FROM pragma_table_info('symbols') WHERE "
      "name = 'qualified_name') + (SELECT COUNT(*) FROM pragma_table_info('code_chunks') "
      "WHERE name = 'exact'), (SELECT value FROM schema_info WHERE key = 'version') FROM (SELECT "
      "name FROM sqlite_schema ORDER BY 1)");
}

TEST(OpenReleaseFileTest, MigratesKeepingTheIndexStopsOnAFailedStepAndRewritesPagesOnce) {
  testing::TempDir dir;
  // A new file is created current, without a rewrite: its pool stays.
  Database created(dir / "new.db");
  created.connect();
  ReaderPool* readers = Peer::readers(created);
  created.create_schema();
  created.migrate_schema();
  EXPECT_EQ(Peer::readers(created), readers);
  EXPECT_THAT(schema_of(dir / "new.db"), ::testing::EndsWith("|3|3.1.0"));
  // How many later releases touched the file, the version it recorded, and what becomes of its
  // chunks and hashes (only 2.12.0 made the chunk table the current one: older text is parsed
  // again).
  const std::tuple<int, std::string, std::string> releases[] = {
      {0, "2.0.0", "0|reindex-pending"}, {1, "2.12.0", "1|h1"}, {2, "3", "1|h1"}};
  for (const auto& [later, recorded, chunks_and_hash] : releases) {
    const std::filesystem::path path = dir / (recorded + ".db");
    make_release_file(path, later);
    LogCapture log;
    Database db(path);
    open_fully(db);
    EXPECT_TRUE(db.check_integrity());
    EXPECT_NE(Peer::readers(db), nullptr);  // opened again after the rewrite
    EXPECT_THAT(log.texts(spdlog::level::info),
                ElementsAre("Schema version 3.1.0 (recorded " + recorded + ")"));
    EXPECT_EQ(value_of(path,
                       "SELECT value, page_size, auto_vacuum, journal_mode, (SELECT COUNT(*) FROM "
                       "files), (SELECT COUNT(*) FROM code_chunks), (SELECT hash FROM files WHERE "
                       "id = 1) FROM schema_info, pragma_page_size, pragma_auto_vacuum, "
                       "pragma_journal_mode WHERE key = 'version'"),
              "3.1.0|8192|2|wal|2|" + chunks_and_hash);
    EXPECT_EQ(schema_of(path), schema_of(dir / "new.db"));
  }
  // The check is whole: it finds an index entry that points at no row, as a torn write leaves.
  run(dir / "3.db",
      "PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = 'CREATE INDEX "
      "idx_files_language ON files (path)' WHERE name = 'idx_files_language'");
  Database reopened(dir / "3.db");
  reopened.connect();
  EXPECT_FALSE(reopened.check_integrity());
  // A version that cannot be migrated stops the open and keeps the steps before.
  const std::string cases[][3] = {
      // recorded version, error, version after
      {"'banana'", "is not a dotted version number", "banana"},
      {"'3.10.0'", "(no error)", "3.10.0"},  // a newer release's file is left alone
      {"X'332E312E30'", "'' is not a dotted version number", "3.1.0"},  // a blob has no text
      // A table in the way of an index that step 3.1.0 creates.
      {"'2.12.0'", "from 3.0.0 to 3.1.0 failed", "3.0.0"}};
  for (const auto& [stored, error, after] : cases) {
    const std::filesystem::path path = dir / (after + "-stopped.db");
    make_release_file(path, 1);
    run(path, "UPDATE schema_info SET value = " + stored + "; CREATE TABLE idx_symbols_name (x)");
    LogCapture log;
    Database db(path);
    db.connect();
    db.create_schema();
    EXPECT_THAT(testing::error_of<migrations::SchemaMigrationError>([&] { db.migrate_schema(); }),
                HasSubstr(error));
    EXPECT_EQ(
        value_of(path, "SELECT CAST(value AS TEXT), page_size FROM schema_info, pragma_page_size"),
        after + "|4096");
    EXPECT_TRUE(log.lines().empty());  // neither the version line nor a rewrite
  }
  // The page rewrite runs once with room, on a file whose pages are smaller. Each open checks
  // that it closed the pool it found and opened a new one, whatever became of the file, and
  // returns the page size and journal mode it left.
  const std::filesystem::path path = dir / "index.db";
  make_release_file(path, 2);
  const auto open_replacing_pool = [&](const testing::PragmaVeto* veto = nullptr) {
    Database db(path);
    db.connect();
    db.create_schema();
    if (veto != nullptr) veto->apply(db.connection().handle());
    ReaderPool* before = Peer::readers(db);
    db.fetchone("SELECT 1");  // a read connection that must be let go for the rewrite
    // A failure goes on to the caller.
    EXPECT_EQ(
        testing::error_of<sqlite::DatabaseError>([&] { db.migrate_schema(); }) == "(no error)",
        veto == nullptr);
    EXPECT_THROW(before->lease(), ReaderUnavailable);
    ReaderPool* after = Peer::readers(db);
    EXPECT_TRUE(after != nullptr && after != before);
    if (after != nullptr) after->lease();  // throws when it has nothing to lend
    db.execute("INSERT INTO components (name) VALUES ('writable')");
    return value_of(path,
                    "SELECT page_size, journal_mode FROM pragma_page_size, pragma_journal_mode");
  };
  LogCapture log("quilma.storage.storage_size");
  detail::replace_free_space_query([](const std::filesystem::path&) { return 0; });
  EXPECT_EQ(open_replacing_pool(), "4096|wal");
  detail::replace_free_space_query({});
  static constexpr testing::PragmaVeto refused{"page_size", SQLITE_DENY};
  EXPECT_EQ(open_replacing_pool(&refused), "4096|wal");
  {
    sqlite::Connection other(path, {.read_only = true});
    other.cursor().execute("SELECT COUNT(*) FROM files").fetchall();  // open, idle
    EXPECT_EQ(open_replacing_pool(), "4096|wal");
  }
  EXPECT_THAT(log.texts(spdlog::level::warn),
              ElementsAre(HasSubstr("Not rewriting " + path.string() +
                                    " with 8192-byte pages: not enough disk space"),
                          HasSubstr("cannot leave WAL mode")));
  EXPECT_EQ(open_replacing_pool(), "8192|wal");
  EXPECT_EQ(value_of(path, "SELECT COUNT(*) FROM files"), "2");
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("Rewrote " + path.string() + " with 8192-byte pages"));
  log.clear();
  Database again(path);
  open_fully(again);
  EXPECT_TRUE(log.lines().empty());
}

// The refresh's result, how many files it marked for re-indexing (unmarked again after), and the
// stamp it left; then a stamp of an unknown format, as the warning shows it (a debug
// representation of its text).
TEST(ExtractorStampTest, MarksChangedLanguagesReadsItsStampBackAndCountsUnknownFormatsAsNone) {
  testing::TempDir dir;
  Database db(dir / "index.db");
  open_fully(db);
  db.executemany("INSERT INTO files (path, language, hash) VALUES (?, ?, 'h')",
                 {{"a.py", "python"}, {"b.py", "python"}, {"c.go", "go"}, {"d.rs", "rust"}});
  LogCapture log;
  const auto refresh = [&](const std::map<std::string, std::int64_t>& versions) {
    const std::int64_t marked = db.refresh_extractor_stamp(versions);
    const std::string state = value_of(
        dir / "index.db",
        "SELECT (SELECT COUNT(*) FROM files WHERE hash = 'reindex-pending'), ifnull((SELECT "
        "value FROM schema_info WHERE key = 'extractor_versions'), 'none')");
    db.execute("UPDATE files SET hash = 'h'");
    return std::to_string(marked) + "|" + state;
  };
  EXPECT_EQ(refresh({{"python", 1}, {"go", 2}}), R"(3|3|{"go": 2, "python": 1})");  // no stamp yet
  EXPECT_EQ(refresh({{"go", 2}, {"python", 1}}), R"(0|0|{"go": 2, "python": 1})");
  log.clear();
  EXPECT_EQ(refresh({{"python", 2}, {"go", 2}, {"rust", 1}}),
            R"(3|3|{"go": 2, "python": 2, "rust": 1})");
  EXPECT_THAT(log.texts(spdlog::level::info),
              ElementsAre("Extractor changed for python, rust: 3 files marked for re-indexing"));
  // A language no longer passed is dropped from the stamp, and marks nothing.
  EXPECT_EQ(refresh({{"python", 2}, {"go", 2}}), R"(0|0|{"go": 2, "python": 2})");
  const std::map<std::string, std::int64_t> odd = {
      {"\xF0\x9F\x98\x80", 1}, {"z", -1}, {"\xC3\xA9", 9007199254740993}, {"a\"b\\", 2}};
  EXPECT_EQ(refresh(odd),
            R"(0|0|{"a\"b\\": 2, "z": -1, "\u00e9": 9007199254740993, "\ud83d\ude00": 1})");
  EXPECT_TRUE(log.texts(spdlog::level::warn).empty());
  db.execute("DELETE FROM schema_info WHERE key = ?", {EXTRACTOR_VERSIONS_KEY});
  EXPECT_EQ(refresh({}), "0|0|none");  // equal to no stamp: nothing written

  const std::pair<sqlite::Value, std::string> stamps[] = {
      {R"({"python": 1} x)", R"('{"python": 1} x')"},
      {R"({"python": true})", R"('{"python": true}')"},
      {R"({"go": 1, "python": null})", R"('{"go": 1, "python": null}')"},
      {R"({"python": 1.0})", R"('{"python": 1.0}')"},
      {R"({"python": "1"})", R"('{"python": "1"}')"},
      {R"({"go": 1, "python": {"v": 1}})", R"('{"go": 1, "python": {"v": 1}}')"},
      {std::int64_t{5}, "'5'"},
      {sqlite::Value(), "NULL"},
      {sqlite::Blob{'{', '}'}, "'{}'"},
      {"it's", R"("it's")"},
      {"it's \"q\" a\\b\n\r\t\x01\x7f\x84", R"('it\'s "q" a\\b\n\r\t\x01\x7f\x84')"},
      {"\xEF\xBB\xBF\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xC2\x85\xC2\xA0\xC2\xAD\xE2\x80\x8F\xE2"
       "\x80\xA8\xEE\x80\x80"
       "\xEF\xBF\xBB\xEF\xBF\xBC\xF3\xB0\x80\x80\xFF",
       "'\\ufeff\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\\x85\\xa0\\xad\\u200f\\u2028\\ue000\\ufffb\xEF"
       "\xBF\xBC\\U000f0000\\xff'"}};
  for (const auto& [raw, shown] : stamps) {
    db.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
               {EXTRACTOR_VERSIONS_KEY, raw});
    log.clear();
    EXPECT_EQ(refresh({{"python", 1}, {"go", 1}}), R"(3|3|{"go": 1, "python": 1})") << shown;
    EXPECT_THAT(
        log.texts(spdlog::level::warn),
        ElementsAre("Extractor stamp " + shown + " has an unknown format; treating it as absent"));
  }
}

}  // namespace
}  // namespace quilma::storage
