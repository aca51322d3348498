// Database: the schema and what the index records of itself: creation and migration, the
// page-size rewrite at open, the index generation and the extractor stamp.
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "quilma/sqlite/error.h"
#include "quilma/storage/core_schema.h"
#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"
#include "quilma/storage/log.h"
#include "quilma/storage/storage_size.h"

namespace quilma::storage {

namespace {

// Reads a stamp's JSON as parser events, so that an integer is told from a number written
// with a fraction or an exponent by its text, whatever its width. Stops at the first value
// that is not an integer member of the top-level object.
class StampReader {
 public:
  using json = nlohmann::json;

  detail::ExtractorStamp& stamp() { return stamp_; }

  bool start_object(std::size_t /*size*/) { return depth_++ == 0; }
  bool end_object() {
    --depth_;
    return true;
  }
  bool key(std::string& name) {
    key_ = std::move(name);
    return true;
  }
  bool number_integer(json::number_integer_t value) { return member(std::to_string(value)); }
  bool number_unsigned(json::number_unsigned_t value) { return member(std::to_string(value)); }
  bool number_float(json::number_float_t /*value*/, const std::string& text) {
    // The parser hands integers too wide for 64 bits over as floating point, with their text
    // (up to about 300 digits; past that it reports an overflow, and the stamp is unknown).
    if (text.find_first_of(".eE") != std::string::npos) return false;
    return member(text);
  }
  bool null() { return false; }
  bool boolean(bool /*value*/) { return false; }
  bool string(std::string& /*value*/) { return false; }
  bool binary(json::binary_t& /*value*/) { return false; }
  bool start_array(std::size_t /*size*/) { return false; }
  bool end_array() { return false; }
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) {
    return false;
  }

 private:
  bool member(std::string version) {
    if (depth_ != 1) return false;      // a bare number is not a stamp
    stamp_[key_] = std::move(version);  // a repeated name: the last one counts
    return true;
  }

  int depth_ = 0;
  std::string key_;
  detail::ExtractorStamp stamp_;
};

}  // namespace

namespace detail {

std::optional<ExtractorStamp> parse_extractor_stamp(const std::optional<sqlite::Value>& raw) {
  if (!raw) return std::nullopt;
  std::optional<std::string> text;
  if (raw->type() == sqlite::Value::Type::Blob) {
    text.emplace(raw->as_blob().begin(), raw->as_blob().end());
  } else if (!raw->is_null()) {
    text = raw->as_text();
  }
  // A stored NULL or BLOB is never a stamp in the known format, nor is text behind a
  // byte-order mark, which JSON does not allow.
  if (text && raw->type() != sqlite::Value::Type::Blob && !text->starts_with("\xEF\xBB\xBF")) {
    StampReader reader;
    if (nlohmann::json::sax_parse(*text, &reader)) return std::move(reader.stamp());
  }
  log(*database_logger(), spdlog::level::warn,
      "Extractor stamp %r has an unknown format; treating it as absent", Repr{text});
  return std::nullopt;
}

std::string extractor_stamp_text(const std::map<std::string, std::int64_t>& versions) {
  std::string text = "{";
  for (const auto& [language, version] : versions) {
    if (text.size() > 1) text += ", ";
    try {
      text += nlohmann::json(language).dump(-1, ' ', /*ensure_ascii=*/true);
    } catch (const nlohmann::json::type_error&) {
      throw std::invalid_argument("Extractor stamp: language name " + repr(language) +
                                  " is not UTF-8");
    }
    text += ": ";
    text += std::to_string(version);
  }
  return text + "}";
}

}  // namespace detail

void Database::create_schema() {
  {
    // A file that has every table needs no write lock, so opening it never waits for
    // another process's write.
    const std::lock_guard hold(lock_);
    sqlite::Cursor cursor = connection().cursor();
    if (core_schema::missing_tables(cursor).empty()) return;
  }
  transaction([](sqlite::Cursor& cursor) { core_schema::create_tables(cursor); });
}

void Database::migrate_schema() {
  std::optional<sqlite::Row> row;
  try {
    row = fetchone("SELECT value FROM schema_info WHERE key = 'version'");
  } catch (const sqlite::OperationalError&) {  // no schema_info: a file that records nothing
  }
  std::string version(migrations::OLDEST_VERSION);
  if (row) {
    // NULL and BLOB have no text form; as "" they make the registry refuse the version.
    const sqlite::Value& value = (*row)[0];
    const bool textual = !value.is_null() && value.type() != sqlite::Value::Type::Blob;
    version = textual ? value.as_text() : std::string();
  }

  const std::string reached = migrations::migrate(
      [this](const std::function<void(sqlite::Cursor&)>& body) { transaction(body); }, version);
  if (reached != migrations::SCHEMA_VERSION) return;
  detail::log(*database_logger(), spdlog::level::info, "Schema version %s (recorded %s)", reached,
              version);
  rewrite_pages();
}

bool Database::check_integrity() {
  const std::optional<sqlite::Row> row = fetchone("PRAGMA integrity_check");
  return row && (*row)[0].type() == sqlite::Value::Type::Text && (*row)[0].as_text() == "ok";
}

std::vector<std::string> Database::integrity_problems() {
  std::vector<std::string> problems;
  for (const sqlite::Row& row : fetchall("PRAGMA integrity_check")) {
    if (!row[0].is_null()) problems.push_back(row[0].as_text());
  }
  if (problems == std::vector<std::string>{"ok"}) problems.clear();
  return problems;
}

PageUse Database::page_use() {
  const std::lock_guard hold(lock_);
  const detail::Space measured = space(connection());
  return {.pages = measured.pages, .free_pages = measured.free, .page_size = measured.page_size};
}

void Database::rewrite_pages() {
  const std::lock_guard hold(lock_);
  sqlite::Connection& writer = connection();
  const detail::Space measured = space(writer);
  // A file this process may not write is read with the pages it has.
  if (measured.page_size >= storage_size::PAGE_SIZE || detail::read_only(writer)) return;
  const std::int64_t used = (measured.pages - measured.free) * measured.page_size;
  const std::optional<std::string> why_not =
      detail::disk_shortfall(detail::directory_of(db_path_), used);

  // Leaving WAL needs the file to itself. With readers_ empty, a query that comes meanwhile
  // goes to the writer and waits for the lock.
  if (ReaderPool* readers = readers_.exchange(nullptr)) {
    readers->close();
  }
  std::exception_ptr failure;
  try {
    storage_size::rewrite_pages(writer, db_path_, why_not);
  } catch (...) {
    failure = std::current_exception();
  }
  sqlite::Cursor cursor = writer.cursor();
  const std::string mode = detail::journal_mode(cursor.execute("PRAGMA journal_mode").fetchone());
  cursor.close();
  readers_.exchange(open_readers(mode));
  if (failure) std::rethrow_exception(failure);
}

std::int64_t Database::index_generation() { return count("PRAGMA user_version"); }

void Database::bump_index_generation(sqlite::Cursor* cursor) {
  // The value is part of the text: PRAGMA takes no bound parameters.
  const std::string sql = "PRAGMA user_version = " + std::to_string(index_generation() + 1);
  if (cursor != nullptr) {
    cursor->execute(sql);
  } else {
    execute(sql);
  }
}

std::int64_t Database::refresh_extractor_stamp(
    const std::map<std::string, std::int64_t>& versions) {
  const std::map<std::string, std::int64_t> current = versions;
  const std::string stamp = detail::extractor_stamp_text(current);
  std::vector<std::string> changed;  // ascending, as the map is
  const std::int64_t marked = transaction([&](sqlite::Cursor& cursor) -> std::int64_t {
    std::optional<sqlite::Value> raw;
    if (std::optional<sqlite::Row> row =
            cursor.execute("SELECT value FROM schema_info WHERE key = ?", {EXTRACTOR_VERSIONS_KEY})
                .fetchone()) {
      raw = (*row)[0];
    }
    const detail::ExtractorStamp stored =
        detail::parse_extractor_stamp(raw).value_or(detail::ExtractorStamp{});
    for (const auto& [language, version] : current) {
      const auto found = stored.find(language);
      if (found == stored.end() || found->second != std::to_string(version)) {
        changed.push_back(language);
      }
    }
    if (changed.empty() && stored.size() == current.size()) return 0;  // the same stamp
    const std::int64_t count = changed.empty() ? 0 : migrations::mark_files_stale(cursor, changed);
    cursor.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                   {EXTRACTOR_VERSIONS_KEY, stamp});
    return count;
  });
  if (marked != 0) {
    std::string names;
    for (const std::string& language : changed) {
      if (!names.empty()) names += ", ";
      names += language;
    }
    detail::log(*database_logger(), spdlog::level::info,
                "Extractor changed for %s: %d files marked for re-indexing", names, marked);
  }
  return marked;
}

}  // namespace quilma::storage
