// What the commands share: finding the index, opening it, and printing.
#include "quilma/cli/command.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "quilma/cli/indexer.h"
#include "quilma/utils/utf8.h"

namespace quilma::cli {

namespace fs = std::filesystem;

fs::path Command::repo() const { return fs::absolute(options_.repo).lexically_normal(); }

fs::path Command::database() const {
  return options_.db.empty() ? repo() / DEFAULT_DATABASE
                             : fs::absolute(options_.db).lexically_normal();
}

fs::path Command::index_database() const {
  if (!options_.db.empty()) return database();
  for (fs::path at = repo(); !at.empty(); at = at.parent_path()) {
    if (fs::exists(at / DEFAULT_DATABASE)) return at / DEFAULT_DATABASE;
    if (at == at.root_path()) break;
  }
  return database();
}

void Command::open_existing(storage::Database& db) const {
  if (!fs::exists(db.db_path())) {
    throw std::runtime_error("no index at " + db.db_path().string() +
                             "; run 'quilma-db index' first");
  }
  open_database(db);
}

int Command::print_json(const json& value) const {
  io_.out << value.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
  return 0;
}

void Command::print_line(const json& value) const {
  io_.out << value.dump(-1, ' ', false, json::error_handler_t::replace) << '\n';
}

void Command::notice_cut(std::size_t shown, std::string_view what) const {
  if (options_.quiet) return;
  fmt::print(io_.err, "quilma-db: showing the first {} {}; more match (--limit N, or --all)\n",
             shown, what);
}

bool Command::colour() const {
  if (options_.color != "auto") return options_.color == "always";
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this process sets the environment
  return io_.out_is_terminal && std::getenv("NO_COLOR") == nullptr;
}

std::string shown(std::string_view name) {
  std::string text;
  for (std::size_t at = 0; at < name.size();) {
    char32_t code = 0;
    const std::size_t length = utils::decode_utf8(name, at, code);
    if (length == 0) {
      text += fmt::format("\\x{:02x}", static_cast<unsigned char>(name[at++]));
    } else {
      text.append(name, at, length);
      at += length;
    }
  }
  return text;
}

std::string quoted_path(std::string_view path) {
  const auto plain = [](unsigned char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; };
  if (std::all_of(path.begin(), path.end(), [&](char c) { return plain(c); })) {
    return std::string(path);
  }
  std::string text = "\"";
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (plain(byte)) {
      text += c;
      continue;
    }
    text += '\\';
    if (byte == '"' || byte == '\\') {
      text += c;
    } else if (byte >= '\a' && byte <= '\r') {
      text += "abtnvfr"[byte - '\a'];
    } else {
      text += fmt::format("{:03o}", byte);
    }
  }
  return text + '"';
}

json counts_json(const storage::Counts& counts) {
  json object = json::object();
  for (const auto& [name, count] : counts) object[name] = count;
  return object;
}

std::string counts_text(const storage::Counts& counts) {
  std::string text;
  for (const auto& [name, count] : counts) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name, count);
  }
  return text;
}

}  // namespace quilma::cli
