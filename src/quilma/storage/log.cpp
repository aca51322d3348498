// Logger registration and the printf-style rendering of log lines.
#include "quilma/storage/log.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <typeinfo>
#include <variant>

#include <cxxabi.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "quilma/utils/utf8.h"

namespace quilma::storage::detail {

namespace {

// Characters outside ASCII that a log line shows escaped: controls, separators, invisible
// formatting characters and private-use characters, which would break or hide text.
bool is_printable(char32_t code) {
  return !(code <= 0xA0 || code == 0xAD || (code >= 0x2000 && code <= 0x200F) ||
           (code >= 0x2028 && code <= 0x202F) || (code >= 0x205F && code <= 0x206F) ||
           code == 0x3000 || (code >= 0xE000 && code <= 0xF8FF) || code == 0xFEFF ||
           (code >= 0xFFF9 && code <= 0xFFFB) || code >= 0xF0000);
}

}  // namespace

std::shared_ptr<spdlog::logger> module_logger(std::string_view name) {
  static std::mutex creating;
  const std::lock_guard hold(creating);
  const std::string key(name);
  if (std::shared_ptr<spdlog::logger> existing = spdlog::get(key)) return existing;
  auto to_stderr = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  to_stderr->set_level(spdlog::level::warn);
  auto created = std::make_shared<spdlog::logger>(key, std::move(to_stderr));
  created->set_level(spdlog::level::info);
  spdlog::register_logger(created);
  return created;
}

std::string repr(std::optional<std::string_view> text) {
  if (!text) return "NULL";
  // Like a debug representation in most languages: single quotes unless the text holds a
  // single quote and no double quote.
  const char quote =
      text->find('\'') != std::string_view::npos && text->find('"') == std::string_view::npos
          ? '"'
          : '\'';
  std::string out(1, quote);
  for (std::size_t i = 0; i < text->size();) {
    const char c = (*text)[i];
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\' || c == quote) {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (byte >= 0x20 && byte < 0x7F) {
      out += c;
    } else if (byte >= 0x80) {
      char32_t code = 0;
      const std::size_t length = utils::decode_utf8(*text, i, code);
      if (length == 0) {
        out += fmt::format("\\x{:02x}", byte);  // not UTF-8: the byte itself
      } else if (is_printable(code)) {
        out.append(*text, i, length);
      } else if (code <= 0xFF) {
        out += fmt::format("\\x{:02x}", static_cast<std::uint32_t>(code));
      } else if (code <= 0xFFFF) {
        out += fmt::format("\\u{:04x}", static_cast<std::uint32_t>(code));
      } else {
        out += fmt::format("\\U{:08x}", static_cast<std::uint32_t>(code));
      }
      i += std::max<std::size_t>(length, 1);
      continue;
    } else {
      out += fmt::format("\\x{:02x}", byte);
    }
    ++i;
  }
  out += quote;
  return out;
}

std::string printf_format(std::string_view format) {
  std::string out;
  out.reserve(format.size());
  for (std::size_t i = 0; i < format.size(); ++i) {
    out += format[i];
    if (format[i] != '%' || i + 1 == format.size()) continue;
    // "%%" stays as it is; "%r" becomes "%s".
    const char next = format[++i];
    out += next == 'r' ? 's' : next;
  }
  return out;
}

namespace {
std::atomic<std::shared_ptr<RecordSink>> installed_sink;  // NOLINT: the one process-wide hook
}  // namespace

std::shared_ptr<RecordSink> record_sink() { return installed_sink.load(std::memory_order_acquire); }

void emit_record(RecordSink& sink, std::string_view logger, spdlog::level::level_enum level,
                 std::string_view format, std::span<LogValue> values, std::exception_ptr error) {
  constexpr std::string_view ERROR_TAIL = "\n%s";
  if (error && !values.empty() && format.ends_with(ERROR_TAIL) &&
      std::holds_alternative<std::string_view>(values.back())) {
    format.remove_suffix(ERROR_TAIL.size());
    values = values.first(values.size() - 1);
  }
  sink.emit(LogRecord{logger, level, format, values, std::move(error)});
}

CurrentError describe_current_error() {
  std::exception_ptr error = std::current_exception();
  std::string kind = "unknown error";
  if (const std::type_info* type = abi::__cxa_current_exception_type()) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), &std::free);
    kind = status == 0 && name ? name.get() : type->name();
  }
  try {
    throw;
  } catch (const std::exception& caught) {
    return {kind + ": " + caught.what(), std::move(error)};
  } catch (...) {
    return {kind, std::move(error)};
  }
}

}  // namespace quilma::storage::detail

namespace quilma::storage {

std::shared_ptr<RecordSink> set_record_sink(std::shared_ptr<RecordSink> sink) {
  return detail::installed_sink.exchange(std::move(sink), std::memory_order_acq_rel);
}

}  // namespace quilma::storage
