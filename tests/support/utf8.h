// A code point's UTF-8 bytes, for tests that walk ranges of characters.
#pragma once

#include <string>

namespace quilma::testing {

inline std::string utf8(char32_t code) {
  if (code < 0x80) return {static_cast<char>(code)};
  if (code < 0x800) {
    return {static_cast<char>(0xC0 | code >> 6), static_cast<char>(0x80 | (code & 0x3F))};
  }
  if (code < 0x10000) {
    return {static_cast<char>(0xE0 | code >> 12), static_cast<char>(0x80 | (code >> 6 & 0x3F)),
            static_cast<char>(0x80 | (code & 0x3F))};
  }
  return {static_cast<char>(0xF0 | code >> 18), static_cast<char>(0x80 | (code >> 12 & 0x3F)),
          static_cast<char>(0x80 | (code >> 6 & 0x3F)), static_cast<char>(0x80 | (code & 0x3F))};
}

}  // namespace quilma::testing
