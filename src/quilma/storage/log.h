// Logging for the storage layer's modules: one spdlog logger per module, and log lines whose
// texts are printf-style formats, rendered only when their level is enabled. While a
// RecordSink is installed, lines go to it as records, format and values apart, instead.
#pragma once

#include <array>
#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <fmt/printf.h>
#include <spdlog/spdlog.h>

#include "quilma/storage/log_record.h"

namespace quilma::storage::detail {

// The names that the modules' loggers are registered under.
inline constexpr std::string_view DATABASE_LOGGER = "quilma.storage.database";
inline constexpr std::string_view MIGRATIONS_LOGGER = "quilma.storage.migrations";
inline constexpr std::string_view STORAGE_SIZE_LOGGER = "quilma.storage.storage_size";
inline constexpr std::array MODULE_LOGGERS{DATABASE_LOGGER, MIGRATIONS_LOGGER, STORAGE_SIZE_LOGGER};

// The logger registered under `name` in spdlog's registry, created on first use. A logger
// created here writes warnings to stderr and nothing below them, until the application
// attaches sinks of its own or changes the levels.
std::shared_ptr<spdlog::logger> module_logger(std::string_view name);

// A debug representation of `text`: in quotes, with backslashes, quotes, control characters
// and bytes that are not UTF-8 escaped; std::nullopt (a stored NULL) renders as NULL.
std::string repr(std::optional<std::string_view> text);

// An argument that a "%r" in a log format renders with repr().
struct Repr {
  std::optional<std::string_view> text;
};

// "%r" has no printf meaning: it becomes "%s" of the argument's repr().
std::string printf_format(std::string_view format);

// The error being handled, described by its kind and message as log lines append it. A line
// that ends with "\n%s" of it carries the error: a record sink gets the error itself instead.
struct CurrentError {
  std::string text;
  std::exception_ptr error;
  operator const std::string&() const noexcept { return text; }  // NOLINT: used as its text
};

CurrentError describe_current_error();

template <class Arg>
decltype(auto) printf_arg(const Arg& arg) {
  if constexpr (std::is_same_v<Arg, Repr>) {
    return repr(arg.text);
  } else if constexpr (std::is_same_v<Arg, CurrentError>) {
    return (arg.text);
  } else {
    return (arg);
  }
}

// The installed record sink, or null.
std::shared_ptr<RecordSink> record_sink();

template <class Arg>
LogValue log_value(const Arg& arg) {
  if constexpr (std::is_same_v<Arg, Repr>) {
    return ReprText{arg.text};
  } else if constexpr (std::is_same_v<Arg, CurrentError>) {
    return std::string_view(arg.text);
  } else if constexpr (std::is_integral_v<Arg>) {
    return static_cast<std::int64_t>(arg);
  } else if constexpr (std::is_floating_point_v<Arg>) {
    return static_cast<double>(arg);
  } else {
    return std::string_view(arg);
  }
}

template <class Arg>
std::exception_ptr carried_error(const Arg& arg) {
  if constexpr (std::is_same_v<Arg, CurrentError>) {
    return arg.error;
  } else {
    return nullptr;
  }
}

// Hands the line to `sink`; a carried error leaves the values and the format's tail.
void emit_record(RecordSink& sink, std::string_view logger, spdlog::level::level_enum level,
                 std::string_view format, std::span<LogValue> values, std::exception_ptr error);

// Writes format % args at `level`: to the record sink when one is installed, else through
// spdlog. Formats and builds nothing when the line would be dropped.
template <class... Args>
void log(spdlog::logger& logger, spdlog::level::level_enum level, std::string_view format,
         const Args&... args) {
  if (const std::shared_ptr<RecordSink> sink = record_sink()) {
    if (!sink->enabled(logger.name(), level)) return;
    std::array<LogValue, sizeof...(Args)> values{log_value(args)...};
    std::exception_ptr error;
    ((error = error ? error : carried_error(args)), ...);
    emit_record(*sink, logger.name(), level, format, values, std::move(error));
    return;
  }
  if (!logger.should_log(level)) return;
  logger.log(level, fmt::sprintf(printf_format(format), printf_arg(args)...));
}

}  // namespace quilma::storage::detail

template <>
struct fmt::formatter<quilma::storage::detail::CurrentError> : fmt::formatter<std::string_view> {
  auto format(const quilma::storage::detail::CurrentError& error,
              fmt::format_context& context) const {
    return fmt::formatter<std::string_view>::format(error.text, context);
  }
};
