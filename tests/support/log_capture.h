// Captures what one of the storage layer's loggers writes, for the life of the object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <spdlog/sinks/ringbuffer_sink.h>
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
    std::erase(logger_->sinks(), sink_);
    logger_->set_level(old_level_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines since the capture began or was last cleared.
  std::vector<LogLine> lines() const {
    std::vector<LogLine> lines;
    for (const auto& message : sink_->last_raw()) {
      lines.push_back({message.level, std::string(message.payload.begin(), message.payload.end())});
    }
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(cleared_));
    return lines;
  }
  // The texts of the lines at `level`.
  std::vector<std::string> texts(spdlog::level::level_enum level) const {
    std::vector<std::string> texts;
    for (const LogLine& line : lines())
      if (line.level == level) texts.push_back(line.text);
    return texts;
  }
  void clear() { cleared_ = sink_->last_raw().size(); }

 private:
  std::shared_ptr<spdlog::logger> logger_;
  // More lines than any test logs, so none is pushed out.
  std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink_ =
      std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(4096);
  spdlog::level::level_enum old_level_;
  std::size_t cleared_ = 0;
};

}  // namespace quilma::testing
