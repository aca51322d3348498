// The rows of the crash suite's indexes, written by the test's setup and by the child's long
// transaction alike.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "quilma/sqlite/cursor.h"
#include "quilma/storage/core_schema.h"

namespace quilma::testing {

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
    files.push_back(
        {f, tag + "/dir" + std::to_string(f % 17) + "/" + name + ".py", tag, component});
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
        text += "def " + tag + "_fn" + n + "(arg):\n    return helper_" + n + "(arg)\n";
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

}  // namespace quilma::testing
