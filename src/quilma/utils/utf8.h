// Strict UTF-8: well-formed sequences only (no overlong forms, no surrogates, nothing past
// U+10FFFF).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quilma::utils {

// The length of the well-formed sequence that starts `text` at `at` (1 for ASCII), with its
// code point in `code`; 0 when none starts there.
std::size_t decode_utf8(std::string_view text, std::size_t at, char32_t& code);

// The offset of the first byte that does not begin a well-formed sequence, or std::nullopt
// when all of `text` is UTF-8.
std::optional<std::size_t> find_invalid_utf8(std::string_view text);

// `text` with each byte that does not begin a well-formed sequence replaced by U+FFFD.
std::string replace_invalid_utf8(std::string_view text);

}  // namespace quilma::utils
