// Captures what one of the storage layer's loggers writes, for the life of the object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <spdlog/spdlog.h>

namespace quilma::testing {

struct LogLine {
  spdlog::level::level_enum level;
  std::string text;
  bool operator==(const LogLine&) const = default;
};

// Attaches a sink to the logger registered as `name` and lets everything from DEBUG up
// through; detaches it and restores the level when destroyed. Set up before the threads
// that log start.
class LogCapture {
 public:
  explicit LogCapture(const std::string& name = "quilma.storage.database");
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  std::vector<std::string> texts(spdlog::level::level_enum level) const;  // lines at `level`
  void clear();

 private:
  class Sink;
  std::shared_ptr<spdlog::logger> logger_;
  std::shared_ptr<Sink> sink_;
  spdlog::level::level_enum old_level_;
};

}  // namespace quilma::testing
