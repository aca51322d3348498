// Character kinds of the index's tokenizer, and the words it folds beyond a search's reach.
#include "quilma/cli/mixed_words.h"

#include <algorithm>

#include "quilma/utils/utf8.h"

namespace quilma::cli {

CharKind kind_of(char32_t c) {
  if (c < 0x80) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')
               ? CharKind::Token
               : CharKind::Separator;
  }
  if (c < 0xC0) {
    // Latin-1 punctuation and symbols, but for the letters and numbers among them.
    for (const char32_t letter : {0xAAU, 0xB2U, 0xB3U, 0xB5U, 0xB9U, 0xBAU, 0xBCU, 0xBDU, 0xBEU}) {
      if (c == letter) return CharKind::Token;
    }
    return CharKind::Separator;
  }
  if (c == 0xD7 || c == 0xF7) return CharKind::Separator;
  if (c < 0x0300 || (c >= 0x0370 && c < 0x0530) || (c >= 0x3040 && c < 0x3100) ||
      (c >= 0x4E00 && c < 0xA000) || (c >= 0xAC00 && c < 0xD7A4)) {
    return CharKind::Token;  // Latin, Greek, Cyrillic, Armenian, kana, CJK, Hangul
  }
  // General punctuation, arrows, mathematical and technical symbols, box drawing, shapes,
  // miscellaneous symbols and dingbats (but for the circled digits among them).
  if ((c >= 0x2000 && c < 0x2070) || (c >= 0x2190 && c < 0x2400) || (c >= 0x2500 && c < 0x2776) ||
      (c >= 0x2794 && c < 0x27C0)) {
    return CharKind::Separator;
  }
  return CharKind::Unknown;
}

std::vector<std::string> mixed_words(std::string_view text) {
  std::vector<std::string> found;
  std::string word;
  bool mixed = false;       // a character beyond ASCII right before an ASCII one in `word`
  bool after_wide = false;  // the last character of `word` is beyond ASCII
  const auto end_word = [&] {
    if (mixed) found.push_back(word);
    word.clear();
    mixed = false;
    after_wide = false;
  };
  for (std::size_t at = 0; at < text.size();) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x80) {
      if (kind_of(byte) == CharKind::Token) {
        mixed = mixed || after_wide;
        after_wide = false;
        word += static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte);
      } else {
        end_word();
      }
      ++at;
      continue;
    }
    char32_t code = 0;
    const std::size_t length = utils::decode_utf8(text, at, code);
    if (length == 0 || kind_of(code) == CharKind::Separator) {
      end_word();
      at += std::max<std::size_t>(length, 1);
      continue;
    }
    word.append(text, at, length);
    after_wide = true;
    at += length;
  }
  end_word();
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  return found;
}

}  // namespace quilma::cli
