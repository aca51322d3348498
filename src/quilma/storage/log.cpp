// Logger registration and the printf-style rendering of log lines.
#include "quilma/storage/log.h"

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <typeinfo>

#include <cxxabi.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace quilma::storage::detail {

namespace {

// The length of the UTF-8 sequence that starts `text` at `at`, or 0 when none does.
std::size_t utf8_length(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  std::size_t length = 0;
  std::uint32_t minimum = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    minimum = 0x10000;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  std::uint32_t code = lead & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3F);
  }
  if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  // C1 controls and the line and paragraph separators break a log line as much as ASCII
  // controls do: escape them.
  if (code < 0xA0 || code == 0x2028 || code == 0x2029) return 0;
  return length;
}

}  // namespace

std::shared_ptr<spdlog::logger> module_logger(const std::string& name) {
  static std::mutex creating;
  const std::lock_guard hold(creating);
  if (std::shared_ptr<spdlog::logger> existing = spdlog::get(name)) return existing;
  auto to_stderr = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  to_stderr->set_level(spdlog::level::warn);
  auto created = std::make_shared<spdlog::logger>(name, std::move(to_stderr));
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
    } else if (const std::size_t length = byte >= 0x80 ? utf8_length(*text, i) : 0; length > 0) {
      out.append(*text, i, length);
      i += length;
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

std::string describe_current_error() {
  std::string kind = "unknown error";
  if (const std::type_info* type = abi::__cxa_current_exception_type()) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), &std::free);
    kind = status == 0 && name ? name.get() : type->name();
  }
  try {
    throw;
  } catch (const std::exception& error) {
    return kind + ": " + error.what();
  } catch (...) {
    return kind;
  }
}

}  // namespace quilma::storage::detail
