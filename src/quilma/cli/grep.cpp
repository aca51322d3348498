// Patterns matched as git grep matches them, the candidate chunks the full-text index gives for
// them, and the scan of the candidate files on every core, printed in path order as they come.
#include "quilma/cli/grep.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <span>
#include <thread>

#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <fmt/format.h>
#include <fnmatch.h>
#include <re2/re2.h>

#include "quilma/cli/file_rows.h"
#include "quilma/cli/mixed_words.h"
#include "quilma/cli/search.h"
#include "quilma/cli/source_file.h"
#include "quilma/storage/core_schema.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {

namespace {

// More words than this, found in the vocabulary for the end of a word, and the index no longer
// narrows the search: reading every chunk costs less than such a query.
constexpr std::size_t MAX_VOCABULARY_WORDS = 64;
// A word in more chunks than one in this many files is common: the index does not narrow it.
// In no more chunks than MIN_COMMON, it is never common: so few cost little to gather.
constexpr std::int64_t COMMON_SHARE = 4;
constexpr std::int64_t MIN_COMMON = 64;
// Files a scanning thread takes at a time, and how far the threads may run ahead of the file
// being printed, in such batches.
constexpr std::size_t BATCH_FILES = 16;
constexpr std::size_t BATCHES_AHEAD = 64;
// Up to this many candidate files are looked up one by one; more, and all files are listed.
constexpr std::size_t FEW_FILES = 2000;

// A character of an identifier, as grep -w counts them: bytes of other characters are not.
bool is_word_byte(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

// The line breaks in [from, to) of `text`. Lines are short: a search of memchr's per line costs
// five times as much as comparing 16 bytes at a time.
std::int64_t count_lines(std::string_view text, std::size_t from, std::size_t to) {
  std::int64_t count = 0;
  const char* at = text.data() + from;
  const char* const end = text.data() + to;
#ifdef __SSE2__
  const __m128i newline = _mm_set1_epi8('\n');
  while (end - at >= 16) {
    // Each byte of `sums` counts the line breaks in its lane, over at most 255 blocks.
    __m128i sums = _mm_setzero_si128();
    for (int blocks = 0; blocks < 255 && end - at >= 16; ++blocks, at += 16) {
      const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
      sums = _mm_sub_epi8(sums, _mm_cmpeq_epi8(bytes, newline));
    }
    const __m128i total = _mm_sad_epu8(sums, _mm_setzero_si128());
    count += _mm_cvtsi128_si64(total) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(total, total));
  }
#endif
  while (at < end) {
    const void* found = std::memchr(at, '\n', static_cast<std::size_t>(end - at));
    if (found == nullptr) break;
    ++count;
    at = static_cast<const char*>(found) + 1;
  }
  return count;
}

// Where `needle` next occurs in `text` from `from` on; npos when nowhere.
std::size_t find_bytes(std::string_view text, std::string_view needle, std::size_t from) {
  if (from > text.size()) return std::string_view::npos;
  const void* found =
      ::memmem(text.data() + from, text.size() - from, needle.data(), needle.size());
  return found == nullptr ? std::string_view::npos
                          : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

char fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string folded(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), fold);
  return out;
}

// Letters whose case orbit reaches beyond ASCII: 'k' (the Kelvin sign), 's' (the long s). In
// either case they match those under -i, in git (a UTF-8 locale) as in RE2; a byte compare does
// not, nor a folded needle.
bool folds_beyond_ascii(char c) { return fold(c) == 'k' || fold(c) == 's'; }

// The longest part of a needle folded for -i that a folded byte compare finds in every match:
// ASCII, without letters whose case reaches beyond it.
std::string byte_needle(std::string_view needle) {
  std::string_view best;
  for (std::size_t begin = 0; begin < needle.size();) {
    std::size_t end = begin;
    while (end < needle.size() && (needle[end] & 0x80) == 0 && !folds_beyond_ascii(needle[end])) {
      ++end;
    }
    if (end - begin > best.size()) best = needle.substr(begin, end - begin);
    begin = end + 1;
  }
  return std::string(best);
}

// A word of a literal text, as the index's tokenizer cuts it, and whether the text could run on
// past it in a line: the word is at the text's start (or end) and a character of the line may
// join it.
struct TextWord {
  std::string word;
  bool open_before = false;
  bool open_after = false;
};

// The words of `text`; std::nullopt when a character's kind is unknown or a word is not ASCII
// (the index keeps such words folded in ways this side does not repeat).
std::optional<std::vector<TextWord>> words_of(std::string_view text) {
  std::vector<TextWord> words;
  bool in_word = false;
  for (std::size_t at = 0; at < text.size();) {
    char32_t code = 0;
    const std::size_t length = utils::decode_utf8(text, at, code);
    if (length == 0) return std::nullopt;
    const CharKind kind = kind_of(code);
    if (kind == CharKind::Unknown || (kind == CharKind::Token && code >= 0x80)) {
      return std::nullopt;
    }
    if (kind == CharKind::Token) {
      if (!in_word) words.push_back({"", at == 0, false});
      words.back().word += fold(text[at]);
    }
    in_word = kind == CharKind::Token;
    at += length;
  }
  if (in_word) words.back().open_after = true;
  return words;
}

std::string phrase(std::string_view word) { return "\"" + std::string(word) + "\""; }

// The full-text query for the chunks that can hold `text` as a part of a line: the phrase of
// its words, where the last may be the start of a longer word of the index. The first may be
// the end of a longer word only when a letter stands before it; under -w (`word`) only a letter
// that is not ASCII can, and the index's words that start with one are few: they are looked up
// in its vocabulary. std::nullopt: every chunk can hold it.
std::optional<std::string> literal_query(sqlite::Cursor& cursor, std::string_view text, bool word,
                                         std::int64_t common) {
  const std::optional<std::vector<TextWord>> words = words_of(text);
  if (!words || words->empty()) return std::nullopt;
  // A word in more chunks than `common` narrows nothing: reading every file costs less than
  // gathering them all from the index.
  const auto longest = std::max_element(
      words->begin(), words->end(),
      [](const TextWord& a, const TextWord& b) { return a.word.size() < b.word.size(); });
  // Counted only as far as `common`: a common word's whole list of chunks is long to read.
  if (cursor
          .execute("SELECT COUNT(*) FROM (SELECT 1 FROM code_chunks WHERE code_chunks MATCH ? "
                   "LIMIT ?)",
                   {phrase(longest->word), common + 1})
          .fetchone()
          .value()[0]
          .as_int() > common) {
    return std::nullopt;
  }
  const TextWord& first = words->front();
  const bool open_end = words->back().open_after;
  std::string rest;  // the phrase after the first word
  for (std::size_t i = 1; i < words->size(); ++i) rest += " " + (*words)[i].word;
  const std::string star = open_end ? " *" : "";
  std::string query = phrase(first.word + rest) + star;
  if (!first.open_before) return query;
  if (!word) return std::nullopt;
  // The words of the index that start with a letter beyond ASCII and end with the first word
  // (or hold it, when it is also the last); then the words that the tool listed because they
  // hold a letter beyond ASCII before ASCII ones, folded in the index past recognition.
  const std::string glob = "*" + first.word + (words->size() == 1 && open_end ? "*" : "");
  const auto limit = static_cast<std::int64_t>(MAX_VOCABULARY_WORDS + 1);
  std::vector<sqlite::Row> found =
      cursor
          .execute(
              "SELECT term FROM temp.quilma_vocabulary WHERE term >= char(128) AND "
              "term GLOB ? LIMIT ?",
              {glob, limit})
          .fetchall();
  if (has_table(cursor, MIXED_WORDS_TABLE)) {
    std::vector<sqlite::Row> listed =
        cursor.execute("SELECT word FROM mixed_words WHERE word GLOB ? LIMIT ?", {glob, limit})
            .fetchall();
    found.insert(found.end(), std::make_move_iterator(listed.begin()),
                 std::make_move_iterator(listed.end()));
  }
  if (found.size() > MAX_VOCABULARY_WORDS) return std::nullopt;
  for (const sqlite::Row& row : found) {
    query += " OR " + phrase(row[0].as_text() + rest) + (words->size() > 1 ? star : "");
  }
  return query;
}

// The longest run of plain characters that every match of `expression` must hold, when its
// form makes that plain: no alternation, and the run outside groups, classes and repetition.
std::string required_literal(std::string_view expression) {
  // Alternation, and flags set inside the expression (such as "(?i)"), are not followed here.
  if (expression.find('|') != std::string_view::npos ||
      expression.find("(?") != std::string_view::npos) {
    return "";
  }
  std::string best;
  std::string run;
  int depth = 0;
  const auto end_run = [&] {
    if (run.size() > best.size()) best = run;
    run.clear();
  };
  for (std::size_t i = 0; i < expression.size(); ++i) {
    const char c = expression[i];
    const bool plain = is_word_byte(c) || c == ' ' || c == '-' || c == ':';
    if (depth == 0 && plain) {
      const char next = i + 1 < expression.size() ? expression[i + 1] : '\0';
      if (next == '?' || next == '*' || next == '{') {
        end_run();  // this character may be absent
        continue;
      }
      run += c;
      continue;
    }
    end_run();
    if (c == '\\') {
      ++i;  // an escape: its character is not taken literally here
    } else if (c == '(' || c == '[') {
      ++depth;
    } else if ((c == ')' || c == ']') && depth > 0) {
      --depth;
    }
  }
  end_run();
  return best;
}

}  // namespace

struct LineMatcher::Pattern {
  std::string text;              // a fixed string (folded under -i)
  std::unique_ptr<re2::RE2> re;  // or an expression
  // Text every match holds (folded under -i), as the index can look for it; empty when there
  // is none to look for.
  std::string literal;
  // Bytes every match holds, as a folded byte compare can find them; empty when none.
  std::string needle;
};

LineMatcher::LineMatcher(GrepPatterns patterns) : options_(std::move(patterns)) {
  for (const std::string& source : options_.patterns) {
    auto pattern = std::make_unique<Pattern>();
    // A fixed string with letters beyond ASCII, or whose case reaches beyond it, folds as git
    // does in a UTF-8 locale: as an expression that matches the string itself, in either case.
    const bool unicode_case = std::any_of(source.begin(), source.end(), [](char c) {
      return (c & 0x80) != 0 || folds_beyond_ascii(c);
    });
    if (options_.regex || (options_.ignore_case && unicode_case)) {
      re2::RE2::Options settings;
      settings.set_longest_match(true);  // POSIX's leftmost-longest, as git's regexec
      settings.set_case_sensitive(!options_.ignore_case);
      settings.set_log_errors(false);
      pattern->re = std::make_unique<re2::RE2>(
          options_.regex ? source : re2::RE2::QuoteMeta(source), settings);
      if (!pattern->re->ok()) {
        throw MalformedQuery(
            fmt::format("bad regular expression '{}': {}", source, pattern->re->error()));
      }
      pattern->literal = options_.regex ? required_literal(source) : source;
    } else {
      pattern->text = options_.ignore_case ? folded(source) : source;
      pattern->literal = pattern->text;
    }
    // (A literal's words beyond ASCII are the index's to fold: literal_query() reads every chunk
    // for them.)
    if (options_.ignore_case) pattern->literal = folded(pattern->literal);
    pattern->needle = options_.ignore_case ? byte_needle(pattern->literal) : pattern->literal;
    compiled_.push_back(std::move(pattern));
  }
}

LineMatcher::~LineMatcher() = default;

std::optional<Span> LineMatcher::first_match(const Pattern& pattern, std::string_view line,
                                             std::size_t from) const {
  while (from <= line.size()) {
    Span found;
    if (pattern.re) {
      re2::StringPiece group;
      if (!pattern.re->Match(line, from, line.size(), re2::RE2::UNANCHORED, &group, 1)) break;
      found = {static_cast<std::size_t>(group.data() - line.data()),
               static_cast<std::size_t>(group.data() - line.data()) + group.size()};
    } else {
      const std::size_t at = options_.ignore_case
                                 ? std::search(line.begin() + static_cast<std::ptrdiff_t>(from),
                                               line.end(), pattern.text.begin(), pattern.text.end(),
                                               [](char a, char b) { return fold(a) == b; }) -
                                       line.begin()
                                 : line.find(pattern.text, from);
      if (at == std::string_view::npos || at + pattern.text.size() > line.size()) break;
      found = {at, at + pattern.text.size()};
    }
    if (!options_.word) return found;
    const auto [begin, end] = found;
    if (begin != end && (begin == 0 || !is_word_byte(line[begin - 1])) &&
        (end == line.size() || !is_word_byte(line[end]))) {
      return found;
    }
    // As git does: on from the next character that follows one that is not a word's.
    from = begin + 1;
    while (from < line.size() && is_word_byte(line[from - 1])) ++from;
    if (from >= line.size()) break;
  }
  return std::nullopt;
}

void LineMatcher::match(std::string_view line, std::vector<Span>& spans) const {
  spans.clear();
  for (const auto& pattern : compiled_) {
    for (std::size_t from = 0; from <= line.size();) {
      const std::optional<Span> found = first_match(*pattern, line, from);
      if (!found) break;
      spans.push_back(*found);
      from = found->second > found->first ? found->second : found->first + 1;
    }
  }
  if (compiled_.size() > 1) {
    // Matches of several patterns, in order, without overlaps.
    std::sort(spans.begin(), spans.end());
    std::vector<Span> kept;
    for (const Span& span : spans) {
      if (kept.empty() || span.first >= kept.back().second) kept.push_back(span);
    }
    spans = std::move(kept);
  }
}

void LineMatcher::scan(
    std::string_view text,
    const std::function<bool(std::size_t, std::size_t, std::vector<Span>&)>& found) const {
  // The next place each pattern's needle occurs; a pattern without one makes every line a
  // candidate.
  std::vector<std::size_t> next(compiled_.size(), 0);
  std::vector<bool> stale(compiled_.size(), true);
  std::vector<Span> matches;  // reused from line to line
  const auto find_needle = [&](const Pattern& pattern, std::size_t from) -> std::size_t {
    if (pattern.needle.empty()) return from;
    if (!options_.ignore_case) return find_bytes(text, pattern.needle, from);
    const auto at = std::search(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(),
                                pattern.needle.begin(), pattern.needle.end(),
                                [](char a, char b) { return fold(a) == b; });
    return at == text.end() ? std::string_view::npos : static_cast<std::size_t>(at - text.begin());
  };
  for (std::size_t line_begin = 0; line_begin < text.size();) {
    std::size_t candidate = std::string_view::npos;
    for (std::size_t i = 0; i < compiled_.size(); ++i) {
      if (stale[i] || (next[i] != std::string_view::npos && next[i] < line_begin)) {
        next[i] = find_needle(*compiled_[i], line_begin);
        stale[i] = false;
      }
      candidate = std::min(candidate, next[i]);
    }
    if (candidate == std::string_view::npos) return;
    const std::size_t previous =
        candidate == line_begin ? std::string_view::npos : text.rfind('\n', candidate - 1);
    const std::size_t begin =
        previous == std::string_view::npos || previous < line_begin ? line_begin : previous + 1;
    const std::size_t end = std::min(text.find('\n', candidate), text.size());
    match(text.substr(begin, end - begin), matches);
    if (!matches.empty() && !found(begin, end, matches)) return;
    line_begin = end + 1;
  }
}

std::optional<std::string> LineMatcher::chunk_query(sqlite::Cursor& cursor) const {
  std::string query;
  std::optional<std::int64_t> common;
  for (const auto& pattern : compiled_) {
    if (pattern->literal.empty()) return std::nullopt;
    if (!common) {
      cursor.execute(
          "CREATE VIRTUAL TABLE IF NOT EXISTS temp.quilma_vocabulary USING "
          "fts5vocab(main, code_chunks, 'row')");
      common = std::max(
          MIN_COMMON, cursor.execute("SELECT COUNT(*) FROM files").fetchone().value()[0].as_int() /
                          COMMON_SHARE);
    }
    const std::optional<std::string> part =
        literal_query(cursor, pattern->literal, options_.word && !options_.regex, *common);
    if (!part) return std::nullopt;
    query += (query.empty() ? "(" : " OR (") + *part + ")";
  }
  if (query.empty()) return std::nullopt;
  return query;
}

namespace {

// A file to read: from the index (its id), or from disk when the index could not hold it.
struct Candidate {
  std::string path;     // relative to the repository
  std::int64_t id = 0;  // 0 for a file read from disk
};

// The texts of the indexed files among `files` (those with an id), from their chunks, into
// `texts` (one for each of `files`). Files whose ids lie close together, as a full build numbers
// them in path order, are read with one statement; others with one each.
void read_indexed(sqlite::Cursor& cursor, std::span<const Candidate> files,
                  std::vector<std::string>& texts) {
  using storage::core_schema::chunk_rowid;
  using storage::core_schema::CHUNKS_PER_FILE;
  // A chunk's text leaves out the '\n' that ends its last line: put back, the file's last line
  // stays a line even when it is empty.
  const auto append = [](std::string& text, std::string_view chunk) {
    text += chunk;
    text += '\n';
  };
  std::map<std::int64_t, std::size_t> at;  // file id -> index in `files`
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (files[i].id != 0) at.emplace(files[i].id, i);
  }
  if (at.empty()) return;
  const std::int64_t low = at.begin()->first;
  const std::int64_t high = at.rbegin()->first;
  if (std::cmp_less_equal(high - low, 2 * at.size())) {
    cursor.execute(
        "SELECT rowid, text FROM code_chunks WHERE rowid >= ? AND rowid < ? ORDER BY rowid",
        {chunk_rowid(low, 0), chunk_rowid(high + 1, 0)});
    while (const std::optional<sqlite::Row> row = cursor.fetchone()) {
      const auto file = at.find((*row)[0].as_int() / CHUNKS_PER_FILE);
      if (file != at.end()) append(texts[file->second], (*row)[1].text_view());
    }
    return;
  }
  for (const auto& [id, index] : at) {
    cursor.execute("SELECT text FROM code_chunks WHERE rowid >= ? AND rowid < ? ORDER BY rowid",
                   {chunk_rowid(id, 0), chunk_rowid(id + 1, 0)});
    while (const std::optional<sqlite::Row> row = cursor.fetchone()) {
      append(texts[index], (*row)[0].text_view());
    }
  }
}

// The text of a file read from disk; empty when it is binary as git takes it (a NUL among its
// first bytes) or cannot be read.
std::string disk_text(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (std::string_view(text).substr(0, BINARY_PROBE_BYTES).find('\0') != std::string_view::npos) {
    return "";
  }
  return text;
}

// The lines of `text` that match, with `context` lines around them.
void grep_text(const LineMatcher& matcher, std::string_view text, const GrepRequest& request,
               GrepFile& file) {
  const std::int64_t context = request.context;
  if (text.empty()) return;
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  const auto add = [&](std::int64_t number, std::size_t begin, std::size_t end,
                       std::vector<Span>& matches) {
    const std::string_view line = text.substr(begin, end - begin);
    const bool around = matches.empty();
    if (request.render) {
      const std::size_t at = file.rendered.size();
      request.render(file.rendered, file.path, number, line, matches);
      file.lines.push_back({.number = number,
                            .context = around,
                            .rendered_begin = at,
                            .rendered_size = file.rendered.size() - at});
    } else {
      file.lines.push_back({.number = number,
                            .context = around,
                            .text = std::string(line),
                            .matches = std::move(matches)});
    }
  };
  struct Found {
    std::int64_t line;
    std::size_t begin;
    std::size_t end;
    std::vector<Span> matches;
  };
  std::vector<Found> found;  // with context: the matches, before any line is added
  std::int64_t line = 1;
  std::size_t counted = 0;  // the offset where line `line` starts
  matcher.scan(text, [&](std::size_t begin, std::size_t end, std::vector<Span>& matches) {
    line += count_lines(text, counted, begin);
    counted = begin;
    ++file.matched;
    if (context == 0) {
      add(line, begin, end, matches);
    } else {
      found.push_back({line, begin, end, matches});
    }
    return true;
  });
  if (found.empty()) return;
  std::vector<std::size_t> starts{0};  // where each line begins; [0] is line 1
  for (std::size_t at = text.find('\n'); at != std::string_view::npos;
       at = text.find('\n', at + 1)) {
    starts.push_back(at + 1);
  }
  const auto last_line = static_cast<std::int64_t>(starts.size());
  const auto bounds = [&](std::int64_t number) {
    const auto index = static_cast<std::size_t>(number - 1);
    const std::size_t begin = starts[index];
    return std::pair{begin, index + 1 < starts.size() ? starts[index + 1] - 1 : text.size()};
  };
  std::int64_t printed = 0;
  std::vector<Span> none;  // a context line's matches
  for (std::size_t i = 0; i < found.size(); ++i) {
    for (std::int64_t n = std::max(printed + 1, found[i].line - context); n < found[i].line; ++n) {
      const auto [begin, end] = bounds(n);
      add(n, begin, end, none);
    }
    add(found[i].line, found[i].begin, found[i].end, found[i].matches);
    printed = found[i].line;
    const std::int64_t stop = std::min({found[i].line + context, last_line,
                                        i + 1 < found.size() ? found[i + 1].line - 1 : last_line});
    for (std::int64_t n = printed + 1; n <= stop; ++n) {
      const auto [begin, end] = bounds(n);
      add(n, begin, end, none);
      printed = n;
    }
  }
}

}  // namespace

bool pathspec_matches(const std::string& pathspec, const std::string& path) {
  std::string_view bare = pathspec;
  while (bare.ends_with('/')) bare.remove_suffix(1);
  if (bare.empty() || bare == ".") return true;
  if (path == bare || (path.starts_with(bare) && path[bare.size()] == '/')) return true;
  return ::fnmatch(pathspec.c_str(), path.c_str(), 0) == 0;
}

std::vector<std::string> grep(storage::Database& db, const GrepRequest& request,
                              const std::function<bool(GrepFile&)>& print) {
  const LineMatcher matcher(request.patterns);
  // One thread lists the candidate files in path order, the scanning threads take them in
  // batches as they are listed and scan them in any order, and this thread prints the batches
  // in theirs. A word the index does not narrow lists every file, and the first lines print
  // before the listing ends.
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Candidate> files;                            // guarded by mutex: those listed so far
  bool listed = false;                                     // guarded by mutex: all of them
  std::vector<std::optional<std::vector<GrepFile>>> done;  // guarded by mutex: each batch's
  std::size_t next_batch = 0;                              // guarded by mutex
  std::size_t printing = 0;                                // guarded by mutex
  bool stop = false;                                       // guarded by mutex
  std::exception_ptr failure;                              // guarded by mutex
  // The batches that may be taken: whole ones while the listing goes on. Called with the lock.
  const auto batches = [&] {
    return (files.size() + (listed ? BATCH_FILES - 1 : 0)) / BATCH_FILES;
  };
  const auto fail = [&] {
    const std::lock_guard hold(mutex);
    if (!failure) failure = std::current_exception();
    stop = true;
    changed.notify_all();
  };
  // Adds `more` (in path order, after those listed) to the files; false once the search stops.
  const auto publish = [&](std::vector<Candidate>& more, bool last) {
    const std::lock_guard hold(mutex);
    std::move(more.begin(), more.end(), std::back_inserter(files));
    more.clear();
    listed = last;
    done.resize(batches());
    changed.notify_all();
    return !stop;
  };

  std::vector<std::string> unmatched_specs;  // written by the listing thread, read once joined
  const auto list = [&] {
    try {
      db.read([&](sqlite::Cursor& cursor) {
        std::set<std::int64_t> wanted;  // file ids with a candidate chunk
        const std::optional<std::string> query = matcher.chunk_query(cursor);
        if (query) {
          for (const sqlite::Row& row :
               cursor.execute("SELECT rowid FROM code_chunks WHERE code_chunks MATCH ?", {*query})
                   .fetchall()) {
            wanted.insert(row[0].as_int() / storage::core_schema::CHUNKS_PER_FILE);
          }
        }
        std::vector<bool> spec_used(request.pathspecs.size(), false);
        const auto in_scope = [&](const std::string& path) {
          if (!path.starts_with(request.scope)) return false;
          if (request.pathspecs.empty()) return true;
          const std::string relative = path.substr(request.scope.size());
          bool any = false;
          for (std::size_t i = 0; i < request.pathspecs.size(); ++i) {
            if (pathspec_matches(request.pathspecs[i], relative)) any = spec_used[i] = true;
          }
          return any;
        };
        // Files too large to index, and those changed since they were indexed, are read whole
        // at search time.
        std::vector<Candidate> from_disk;
        for (const sqlite::Row& row : cursor
                                          .execute("SELECT DISTINCT file_path FROM index_errors "
                                                   "WHERE error_type = 'too_large'")
                                          .fetchall()) {
          std::string path = row[0].as_text();
          if (in_scope(path) && !request.stale.contains(path)) from_disk.push_back({path, 0});
        }
        for (const std::string& path : request.from_disk) {
          if (in_scope(path)) from_disk.push_back({path, 0});
        }
        const auto by_path = [](const Candidate& a, const Candidate& b) { return a.path < b.path; };
        std::sort(from_disk.begin(), from_disk.end(), by_path);
        std::vector<Candidate> more;
        const auto add_file = [&](std::int64_t id, std::string path) {
          if (in_scope(path) && !request.stale.contains(path))
            more.push_back({std::move(path), id});
        };
        if (query && wanted.size() < FEW_FILES) {
          for (const std::int64_t id : wanted) {
            if (const std::optional<sqlite::Row> row =
                    cursor.execute("SELECT id, path FROM files WHERE id = ?", {id}).fetchone()) {
              add_file(id, (*row)[1].as_text());
            }
          }
          std::move(from_disk.begin(), from_disk.end(), std::back_inserter(more));
          std::sort(more.begin(), more.end(), by_path);
        } else {
          // In path order as SQLite compares text (bytes, as std::string does), the files read
          // from disk merged in.
          auto disk = from_disk.begin();
          bool searching = true;  // once the search stops, the rest only tells the pathspecs
          cursor.execute("SELECT id, path FROM files ORDER BY path");
          while (const std::optional<sqlite::Row> row = cursor.fetchone()) {
            std::string path = (*row)[1].as_text();
            const std::int64_t id = (*row)[0].as_int();
            const bool candidate = !query || wanted.contains(id);
            if (!searching) {
              if (candidate) in_scope(path);
              continue;
            }
            for (; disk != from_disk.end() && disk->path < path; ++disk) {
              more.push_back(std::move(*disk));
            }
            if (candidate) add_file(id, std::move(path));
            if (more.size() >= BATCH_FILES && !publish(more, false)) {
              if (request.pathspecs.empty()) return;
              searching = false;
            }
          }
          std::move(disk, from_disk.end(), std::back_inserter(more));
        }
        for (std::size_t i = 0; i < spec_used.size(); ++i) {
          if (!spec_used[i]) unmatched_specs.push_back(request.pathspecs[i]);
        }
        publish(more, true);
      });
    } catch (...) {
      fail();
    }
  };
  const auto work = [&] {
    try {
      while (true) {
        std::size_t batch = 0;
        std::vector<Candidate> candidates;
        {
          std::unique_lock hold(mutex);
          changed.wait(hold, [&] {
            return stop || (next_batch < batches() && next_batch < printing + BATCHES_AHEAD) ||
                   (listed && next_batch >= batches());
          });
          if (stop || next_batch >= batches()) return;
          batch = next_batch++;
          const auto first = files.begin() + static_cast<std::ptrdiff_t>(batch * BATCH_FILES);
          candidates.assign(first,
                            first + std::min<std::ptrdiff_t>(files.end() - first, BATCH_FILES));
        }
        std::vector<std::string> texts(candidates.size());
        db.read([&](sqlite::Cursor& cursor) { read_indexed(cursor, candidates, texts); });
        std::vector<GrepFile> results;
        for (std::size_t i = 0; i < candidates.size(); ++i) {
          const std::string& text = candidates[i].id != 0
                                        ? texts[i]
                                        : (texts[i] = disk_text(request.root / candidates[i].path));
          GrepFile file;
          file.path = candidates[i].path.substr(request.scope.size());
          grep_text(matcher, text, request, file);
          if (file.matched > 0) results.push_back(std::move(file));
        }
        const std::lock_guard hold(mutex);
        done[batch] = std::move(results);
        changed.notify_all();
      }
    } catch (...) {
      fail();
    }
  };
  const unsigned cores = std::max(1U, std::thread::hardware_concurrency());
  const unsigned count = request.threads > 0 ? request.threads : std::min(cores, 4U);
  {
    std::vector<std::jthread> threads;
    // The threads may be waiting for the printer to move on: they are told to stop before they
    // are joined, however the printing ends.
    const auto finish = [&] {
      const std::lock_guard hold(mutex);
      stop = true;
      changed.notify_all();
    };
    try {
      threads.emplace_back(list);
      for (unsigned i = 0; i < count; ++i) threads.emplace_back(work);
      for (std::size_t batch = 0;; ++batch) {
        std::vector<GrepFile> results;
        {
          std::unique_lock hold(mutex);
          changed.wait(hold, [&] {
            return failure || (batch < done.size() && done[batch].has_value()) ||
                   (listed && batch >= batches());
          });
          if (failure || batch >= done.size()) break;
          results = std::move(*done[batch]);
          done[batch].reset();
          printing = batch + 1;
          changed.notify_all();
        }
        bool more = true;
        for (GrepFile& file : results) {
          if (!(more = print(file))) break;
        }
        if (!more) break;
      }
    } catch (...) {
      finish();
      throw;
    }
    finish();
  }
  if (failure) std::rethrow_exception(failure);
  return unmatched_specs;
}

}  // namespace quilma::cli
