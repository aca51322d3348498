// Captures what one of the storage layer's loggers writes, for the life of the object.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include "quilma/storage/log.h"

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
  explicit LogCapture(const std::string& name = "quilma.storage.database")
      : logger_(storage::detail::module_logger(name)), old_level_(logger_->level()) {
    logger_->sinks().push_back(sink_);
    logger_->set_level(spdlog::level::debug);
  }
  ~LogCapture() {
    auto& sinks = logger_->sinks();
    sinks.erase(std::remove(sinks.begin(), sinks.end(), sink_), sinks.end());
    logger_->set_level(old_level_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const {
    const std::lock_guard hold(sink_->lock());
    return sink_->lines;
  }
  // The texts of the lines at `level`.
  std::vector<std::string> texts(spdlog::level::level_enum level) const {
    std::vector<std::string> texts;
    for (const LogLine& line : lines()) {
      if (line.level == level) texts.push_back(line.text);
    }
    return texts;
  }
  void clear() {
    const std::lock_guard hold(sink_->lock());
    sink_->lines.clear();
  }

 private:
  struct Sink : spdlog::sinks::base_sink<std::mutex> {
    std::mutex& lock() { return mutex_; }
    void sink_it_(const spdlog::details::log_msg& message) override {
      lines.push_back({message.level, std::string(message.payload.begin(), message.payload.end())});
    }
    void flush_() override {}
    std::vector<LogLine> lines;  // guarded by base_sink's mutex_
  };

  std::shared_ptr<spdlog::logger> logger_;
  std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
  spdlog::level::level_enum old_level_;
};

}  // namespace quilma::testing
