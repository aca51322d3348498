// SQL functions on repository-relative paths ("src/app/main.cpp"), registered on every
// connection of the storage layer:
//
//   path_glob(pattern, path)     1 when `path` matches the glob `pattern`, else 0
//   path_under(path, directory)  1 when `path` is `directory` or lies below it, else 0
//
// Both are deterministic and work on UTF-8 characters; a NULL argument gives NULL, an
// argument that is not text, or a pattern longer than 1024 bytes, gives an SQL error that
// names the function.
#pragma once

#include <string_view>

namespace quilma::sqlite {
class Connection;
}

namespace quilma::utils {

// Glob over '/'-separated paths: `*` matches any run of characters within one segment, `?`
// one character other than '/', `[abc]`, `[a-z]` and `[!abc]` (or `[^abc]`) one character of
// a set, and a segment that is exactly `**` matches zero or more whole segments. A backslash
// makes the next character literal. '/' always separates segments, also inside brackets. The
// whole path must match; it costs at most about |pattern| x |path| steps.
bool glob_match(std::string_view pattern, std::string_view path);

// Whether `path` equals `directory` or lies below it. Trailing slashes of `directory` are
// ignored; an empty directory or "." is the repository root, which holds every path.
bool path_under(std::string_view path, std::string_view directory);

// Registers path_glob and path_under on the connection. Throws sqlite::Error on failure.
void register_path_functions(sqlite::Connection& connection);

}  // namespace quilma::utils
