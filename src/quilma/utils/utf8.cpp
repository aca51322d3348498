// Strict UTF-8 decoding, with a fast path over runs of ASCII.
#include "quilma/utils/utf8.h"

#include <cstdint>
#include <cstring>

namespace quilma::utils {

std::size_t decode_utf8(std::string_view text, std::size_t at, char32_t& code) {
  const auto lead = static_cast<unsigned char>(text[at]);
  std::size_t length = 0;
  char32_t minimum = 0;
  if (lead < 0x80) {
    code = lead;
    return 1;
  }
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
  char32_t decoded = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return 0;
    decoded = (decoded << 6) | (next & 0x3FU);
  }
  if (decoded < minimum || decoded > 0x10FFFF || (decoded >= 0xD800 && decoded <= 0xDFFF)) {
    return 0;
  }
  code = decoded;
  return length;
}

std::optional<std::size_t> find_invalid_utf8(std::string_view text) {
  constexpr std::uint64_t HIGH_BITS = 0x8080808080808080ULL;
  std::size_t at = 0;
  while (at < text.size()) {
    if (at + 8 <= text.size()) {
      std::uint64_t word = 0;
      std::memcpy(&word, text.data() + at, sizeof word);
      if ((word & HIGH_BITS) == 0) {
        at += 8;
        continue;
      }
    }
    char32_t code = 0;
    const std::size_t length = decode_utf8(text, at, code);
    if (length == 0) return at;
    at += length;
  }
  return std::nullopt;
}

std::string replace_invalid_utf8(std::string_view text) {
  std::string replaced;
  replaced.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    char32_t code = 0;
    const std::size_t length = decode_utf8(text, at, code);
    if (length == 0) {
      replaced += "\xEF\xBF\xBD";
      ++at;
    } else {
      replaced.append(text, at, length);
      at += length;
    }
  }
  return replaced;
}

}  // namespace quilma::utils
