// Databases as the service opens them, and index rows that tell one build from another: shared
// by the storage, crash and stress tests.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <sqlite3.h>

#include "quilma/storage/core_schema.h"
#include "quilma/storage/database.h"

namespace quilma::testing {

inline void open_fully(storage::Database& db) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

// The first column of the first row of `sql`, as an integer.
inline std::int64_t number(storage::Database& db, const std::string& sql) {
  return db.fetchone(sql).value()[0].as_int();
}

inline std::string bytes_of(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Rows of every index table for the files with ids [first, first + count), told apart from
// other builds by `tag`: a component per 50 files, four symbols, three edges, an import and two
// chunks per file, an error record per ten.
inline void fill_index(sqlite::Cursor& cursor, const std::string& tag, std::int64_t first,
                       std::int64_t count) {
  std::vector<sqlite::Params> components, files, symbols, edges, imports, errors, chunks;
  for (std::int64_t f = first; f < first + count; ++f) {
    const std::string name = tag + "_" + std::to_string(f);
    const std::int64_t component = f - (f - first) % 50;
    if (component == f) components.push_back({f, name + "_component"});
    files.push_back({f, fmt::format("{}/dir{}/{}.py", tag, f % 17, name), tag, component});
    for (std::int64_t s = 0; s < 4; ++s) {
      symbols.push_back({f * 4 + s, f, s == 0 ? name + ".py" : name + "_fn" + std::to_string(s),
                         s == 0 ? "file" : "function", s * 20 + 1});
      if (s > 0) edges.push_back({f * 4, f * 4 + s, "contains", s * 20 + 1});
    }
    imports.push_back({f, "module_" + std::to_string(f % 31)});
    if (f % 10 == 0) errors.push_back({name + "_broken.py", "partial_parse", name, f % 100});
    for (std::int64_t c = 0; c < 2; ++c) {
      std::string text;
      for (std::int64_t line = 0; line < 12; ++line) {
        const std::string n = std::to_string((f * 13 + line) % 4999);
        text += fmt::format("def {}_fn{}(arg):\n    return helper_{}(arg)\n", tag, n, n);
      }
      chunks.push_back({storage::core_schema::chunk_rowid(f, c), text, c * 24 + 1, c * 24 + 24});
    }
  }
  cursor.executemany("INSERT INTO components (id, name) VALUES (?, ?)", components);
  cursor.executemany("INSERT INTO files (id, path, language, component_id) VALUES (?, ?, ?, ?)",
                     files);
  cursor.executemany("INSERT INTO symbols (id, file_id, name, kind, line) VALUES (?, ?, ?, ?, ?)",
                     symbols);
  cursor.executemany("INSERT INTO edges (source_id, target_id, kind, line) VALUES (?, ?, ?, ?)",
                     edges);
  cursor.executemany("INSERT INTO external_imports (file_id, module) VALUES (?, ?)", imports);
  cursor.executemany(
      "INSERT INTO index_errors (file_path, error_type, message, line) VALUES (?, ?, ?, ?)",
      errors);
  cursor.executemany(
      "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, 1)",
      chunks);
}

// A pragma that a connection is kept from setting: its statements are ignored (SQLITE_IGNORE)
// or refused (SQLITE_DENY); reading the pragma stays allowed. Outlives the connection.
struct PragmaVeto {
  std::string_view name;
  int verdict;

  void apply(sqlite3* db) const {
    sqlite3_set_authorizer(
        db,
        [](void* self, int action, const char* pragma, const char* value, const char*,
           const char*) {
          const auto& veto = *static_cast<const PragmaVeto*>(self);
          return action == SQLITE_PRAGMA && value != nullptr && veto.name == pragma ? veto.verdict
                                                                                    : SQLITE_OK;
        },
        const_cast<PragmaVeto*>(this));
  }
};

}  // namespace quilma::testing
