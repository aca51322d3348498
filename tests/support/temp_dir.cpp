#include "support/temp_dir.h"

#include <stdexcept>
#include <string>
#include <system_error>

#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkdtemp, setenv

namespace quilma::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "quilma-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  // NOLINTBEGIN(concurrency-mt-unsafe): tests change the environment before threads start.
  if (const char* old = std::getenv(name)) {
    had_value_ = true;
    old_value_ = old;
  }
  if (value != nullptr) {
    ::setenv(name, value, 1);
  } else {
    ::unsetenv(name);
  }
}

ScopedEnv::~ScopedEnv() {
  if (had_value_) {
    ::setenv(name_.c_str(), old_value_.c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
  // NOLINTEND(concurrency-mt-unsafe)
}

}  // namespace quilma::testing
