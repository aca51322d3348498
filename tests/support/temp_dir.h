// A fresh directory for one test, removed with everything in it when the test ends; an
// environment variable set for the life of an object.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkdtemp, setenv

namespace quilma::testing {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quilma-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Sets (or, for nullptr, unsets) an environment variable, and restores it when destroyed.
// NOLINTBEGIN(concurrency-mt-unsafe): tests change the environment before threads start.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    old_ = old != nullptr ? std::optional<std::string>(old) : std::nullopt;
    set(value);
  }
  ~ScopedEnv() { set(old_ ? old_->c_str() : nullptr); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void set(const char* value) {
    value != nullptr ? ::setenv(name_.c_str(), value, 1) : ::unsetenv(name_.c_str());
  }

  std::string name_;
  std::optional<std::string> old_;
};
// NOLINTEND(concurrency-mt-unsafe)

}  // namespace quilma::testing
