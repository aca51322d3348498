// The storage layer's log lines: values in their debug form, printf formats, errors by kind.
#include "quilma/storage/log.h"

#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/utf8.h"

#include "quilma/sqlite/error.h"

namespace quilma::storage::detail {
namespace {

using testing::utf8;

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
  // Each end of each range that is escaped, and a printable character beside it.
  for (const char32_t code : {0xA0, 0xAD, 0x2000, 0x200F, 0x2028, 0x202F, 0x205F, 0x206F, 0x3000,
                              0xE000, 0xF8FF, 0xFEFF, 0xFFF9, 0xFFFB, 0xF0000}) {
    const std::string escaped = code <= 0xFF     ? fmt::format("\\x{:02x}", +code)
                                : code <= 0xFFFF ? fmt::format("\\u{:04x}", +code)
                                                 : fmt::format("\\U{:08x}", +code);
    EXPECT_EQ(repr(utf8(code)), "'" + escaped + "'") << +code;
  }
  for (const char32_t code : {0xA1, 0xAC, 0xAE, 0x1FFE, 0x2010, 0x2027, 0x2030, 0x205E, 0x2070,
                              0x3001, 0xF900, 0xFEFC, 0xFFFC}) {
    EXPECT_EQ(repr(utf8(code)), "'" + utf8(code) + "'") << +code;
  }

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

TEST(LogTest, OnlyWarningsAndErrorsReachStandardError) {
  ::testing::internal::CaptureStderr();
  module_logger("quilma.test.quiet")->info("an info line");
  module_logger("quilma.test.quiet")->warn("a warning line");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              ::testing::AllOf(::testing::HasSubstr("a warning line"),
                               ::testing::Not(::testing::HasSubstr("an info line"))));
}

}  // namespace
}  // namespace quilma::storage::detail
