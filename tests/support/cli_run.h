// Running quilma-db's command line in the test's own process, a shell command, and writing the
// files of a repository.
#pragma once

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "quilma/cli/app.h"

namespace quilma::testing {

// A run's exit status and standard error, as "STATUS ERR", and its standard output.
struct Result {
  std::string told;
  std::string out;
};

inline Result quilma_db(const std::vector<std::string>& args,
                        const std::atomic<bool>* stop = nullptr) {
  std::ostringstream out;
  std::ostringstream err;
  std::vector<const char*> argv{"quilma-db"};
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  const int code =
      cli::run(static_cast<int>(argv.size()), argv.data(), {out, err, false, false, stop});
  return {std::to_string(code) + " " + err.str(), out.str()};
}

// What a shell command prints, after its wait status.
inline std::string shell(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  std::string out;
  for (int c = 0; (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
  return std::to_string(pclose(pipe)) + " " + out;
}

inline void write(const std::filesystem::path& path, const std::string& content) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace quilma::testing
