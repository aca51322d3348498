// Logging for the storage layer's modules: one spdlog logger per module, and log lines whose
// texts are printf-style formats, rendered only when their level is enabled.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <fmt/printf.h>
#include <spdlog/spdlog.h>

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

template <class Arg>
decltype(auto) printf_arg(const Arg& arg) {
  if constexpr (std::is_same_v<Arg, Repr>) {
    return repr(arg.text);
  } else {
    return (arg);
  }
}

// Writes format % args at `level`; formats nothing when the logger would drop the line.
template <class... Args>
void log(spdlog::logger& logger, spdlog::level::level_enum level, std::string_view format,
         const Args&... args) {
  if (!logger.should_log(level)) return;
  logger.log(level, fmt::sprintf(printf_format(format), printf_arg(args)...));
}

// The kind and message of the error being handled, as log lines append it.
std::string describe_current_error();

}  // namespace quilma::storage::detail
