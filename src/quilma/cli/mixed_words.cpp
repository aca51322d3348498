// Character kinds of the index's tokenizer, and the words it folds beyond a search's reach.
#include "quilma/cli/mixed_words.h"

#include <algorithm>
#include <iterator>

#include "quilma/utils/utf8.h"

namespace quilma::cli {

namespace {

struct KindRange {
  char32_t first;
  char32_t last;
  CharKind kind;
};

constexpr CharKind T = CharKind::Token;
constexpr CharKind S = CharKind::Separator;

// The characters beyond ASCII whose kind is known, as this SQLite's tokenizer takes them (its
// Unicode tables are older than the standard's latest: a few characters that are symbols now
// were unassigned then, and count as word characters): Latin-1, Latin, combining diacritics,
// Greek, Cyrillic, Armenian; general punctuation, arrows, mathematical and technical symbols,
// box drawing, shapes, miscellaneous symbols and dingbats (but for the circled digits); kana,
// CJK, Hangul. Sorted, without gaps inside a block. The tests hold it against the tokenizer.
constexpr KindRange KNOWN_KINDS[] = {
    {0x0080, 0x00A9, S}, {0x00AA, 0x00AA, T}, {0x00AB, 0x00B1, S}, {0x00B2, 0x00B3, T},
    {0x00B4, 0x00B4, S}, {0x00B5, 0x00B5, T}, {0x00B6, 0x00B8, S}, {0x00B9, 0x00BA, T},
    {0x00BB, 0x00BB, S}, {0x00BC, 0x00BE, T}, {0x00BF, 0x00BF, S}, {0x00C0, 0x00D6, T},
    {0x00D7, 0x00D7, S}, {0x00D8, 0x00F6, T}, {0x00F7, 0x00F7, S}, {0x00F8, 0x02C1, T},
    {0x02C2, 0x02C5, S}, {0x02C6, 0x02D1, T}, {0x02D2, 0x02DF, S}, {0x02E0, 0x02E4, T},
    {0x02E5, 0x02EB, S}, {0x02EC, 0x02EC, T}, {0x02ED, 0x02ED, S}, {0x02EE, 0x02EE, T},
    {0x02EF, 0x02FF, S}, {0x0300, 0x0304, T}, {0x0305, 0x0305, S}, {0x0306, 0x030C, T},
    {0x030D, 0x030E, S}, {0x030F, 0x030F, T}, {0x0310, 0x0310, S}, {0x0311, 0x0311, T},
    {0x0312, 0x031A, S}, {0x031B, 0x031B, T}, {0x031C, 0x0322, S}, {0x0323, 0x0328, T},
    {0x0329, 0x032C, S}, {0x032D, 0x032E, T}, {0x032F, 0x032F, S}, {0x0330, 0x0331, T},
    {0x0332, 0x036F, S}, {0x0370, 0x0374, T}, {0x0375, 0x0375, S}, {0x0376, 0x037D, T},
    {0x037E, 0x037E, S}, {0x037F, 0x0383, T}, {0x0384, 0x0385, S}, {0x0386, 0x0386, T},
    {0x0387, 0x0387, S}, {0x0388, 0x03F5, T}, {0x03F6, 0x03F6, S}, {0x03F7, 0x0481, T},
    {0x0482, 0x0489, S}, {0x048A, 0x052F, T}, {0x2000, 0x2064, S}, {0x2065, 0x2069, T},
    {0x206A, 0x206F, S}, {0x2190, 0x23F3, S}, {0x23F4, 0x23FF, T}, {0x2500, 0x26FF, S},
    {0x2700, 0x2700, T}, {0x2701, 0x2775, S}, {0x2794, 0x27BF, S}, {0x3040, 0x3098, T},
    {0x3099, 0x309C, S}, {0x309D, 0x309F, T}, {0x30A0, 0x30A0, S}, {0x30A1, 0x30FA, T},
    {0x30FB, 0x30FB, S}, {0x30FC, 0x30FF, T}, {0x4E00, 0x9FFF, T}, {0xAC00, 0xD7A3, T}};

}  // namespace

CharKind kind_of(char32_t c) {
  if (c < 0x80) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')
               ? CharKind::Token
               : CharKind::Separator;
  }
  const auto* range =
      std::upper_bound(std::begin(KNOWN_KINDS), std::end(KNOWN_KINDS), c,
                       [](char32_t code, const KindRange& known) { return code < known.first; });
  if (range == std::begin(KNOWN_KINDS) || c > std::prev(range)->last) return CharKind::Unknown;
  return std::prev(range)->kind;
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
