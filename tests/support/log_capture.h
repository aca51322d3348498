// Records what the storage layer's logger writes while the object lives.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <spdlog/common.h>

namespace quilma::testing {

struct LogRecord {
  spdlog::level::level_enum level;
  std::string message;
};

class LogCapture {
 public:
  LogCapture();  // attaches a sink and lowers the logger's level to debug
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> records() const;

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
  spdlog::level::level_enum old_level_;
};

}  // namespace quilma::testing
