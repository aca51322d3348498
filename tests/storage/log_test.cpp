// The storage layer's log lines: values in their debug form, printf formats, errors by kind.
#include "quilma/storage/log.h"

#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "quilma/sqlite/error.h"

namespace quilma::storage::detail {
namespace {

TEST(LogTest, ValuesFormatsAndErrorsRenderAsAPythonCallerWouldWriteThem) {
  const std::pair<std::optional<std::string_view>, std::string_view> reprs[] = {
      {std::nullopt, "NULL"},
      {"src/a.py", "'src/a.py'"},
      {"it's", R"("it's")"},
      {R"(it's "x")", R"('it\'s "x"')"},
      {"a\\b\n\t\x01", R"('a\\b\n\t\x01')"},
      // Printable letters as they are; C1 controls, format characters, private use and bytes
      // that are not UTF-8 escaped.
      {"\xc3\xa9\xc2\x85\xe2\x80\x8b\xff\xf3\xb0\x80\x81", R"('é\x85\u200b\xff\U000f0001')"},
  };
  for (const auto& [text, shown] : reprs) EXPECT_EQ(repr(text), shown);

  EXPECT_EQ(printf_format("%r of %d: 100%% done at 5%"), "%s of %d: 100%% done at 5%");

  const auto described = [](auto&& raise) {
    try {
      raise();
    } catch (...) {
      return describe_current_error().text;
    }
    return std::string();
  };
  EXPECT_EQ(described([] { sqlite::raise_error(SQLITE_BUSY, "database is locked"); }),
            "quilma::sqlite::OperationalError: database is locked");
  EXPECT_EQ(described([] { throw 7; }), "int");
}

}  // namespace
}  // namespace quilma::storage::detail
