// How the index's tokenizer (unicode61) takes characters, and the words it folds out of reach
// of a search for a part of them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quilma::cli {

// How the tokenizer takes a character: part of a word (letters and digits), a separator, or,
// for the scripts this list does not know, neither for sure.
enum class CharKind { Token, Separator, Unknown };

CharKind kind_of(char32_t c);

// The tool's list of the words of the indexed texts in which a character beyond ASCII stands
// right before an ASCII letter or digit ("déjàvu", "一次commit"). The tokenizer keeps each as one
// word, folded ("dejavu"), so that the index cannot tell which of its words hold "vu" or
// "commit" after a letter that grep -w takes as a boundary; this list can. Each word is kept
// as the text spells it, ASCII letters in lower case. Rows are added, never removed: a word
// that no text holds any more only widens a search.
inline constexpr std::string_view MIXED_WORDS_TABLE = "mixed_words";
inline constexpr std::string_view MIXED_WORDS_DDL =
    "CREATE TABLE IF NOT EXISTS mixed_words (word TEXT PRIMARY KEY) WITHOUT ROWID";

// The words of `text` that belong in that list, each once, sorted. A word here is a
// run of characters that are not known separators; invalid UTF-8 ends one.
std::vector<std::string> mixed_words(std::string_view text);

}  // namespace quilma::cli
