#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"

namespace quilma::storage {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

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

}  // namespace
}  // namespace quilma::storage
