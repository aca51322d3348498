// Log lines as records: the format and its values kept apart, for an application that hands
// them to a logging system of its own (a Python binding hands them to `logging`) instead of
// having spdlog render them.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <variant>

#include <spdlog/common.h>

namespace quilma::storage {

// A text that the format renders with "%r": its debug representation; std::nullopt stands
// for a stored NULL.
struct ReprText {
  std::optional<std::string_view> text;
};

// One value of a log line, as the line's code passed it.
using LogValue = std::variant<std::int64_t, double, std::string_view, ReprText>;

// One log line before formatting. Its views are valid only during RecordSink::emit().
struct LogRecord {
  std::string_view logger;  // the module logger's name ("quilma.storage.database")
  spdlog::level::level_enum level;
  std::string_view format;         // printf-style, "%r" included, as the line is written
  std::span<const LogValue> args;  // the values of its conversions, in order
  // The error being handled that the line reports, or null. When a line carries it, its text
  // is not among `args` and `format` has no conversion for it.
  std::exception_ptr error;
};

// Takes the storage layer's log lines in place of spdlog while it is installed. Called on the
// thread that logs, possibly with the layer's locks held; neither call may throw.
class RecordSink {
 public:
  virtual ~RecordSink() = default;
  // Whether a line of `level` on `logger` would be kept: nothing is formatted or built when not.
  virtual bool enabled(std::string_view logger, spdlog::level::level_enum level) noexcept = 0;
  virtual void emit(const LogRecord& record) noexcept = 0;
};

// Installs `sink` for every module logger of the layer, or removes the installed one (nullptr),
// and returns the sink it replaces. Lines already being written finish with the sink they found.
std::shared_ptr<RecordSink> set_record_sink(std::shared_ptr<RecordSink> sink);

}  // namespace quilma::storage
