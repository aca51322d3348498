#include "support/log_capture.h"

#include <algorithm>
#include <mutex>

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include "quilma/storage/database.h"

namespace quilma::testing {

class LogCapture::Sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<LogRecord> records() {
    const std::lock_guard hold(mutex_);
    return records_;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    records_.push_back(
        {message.level, std::string(message.payload.begin(), message.payload.end())});
  }
  void flush_() override {}

 private:
  std::vector<LogRecord> records_;
};

LogCapture::LogCapture() : sink_(std::make_shared<Sink>()) {
  auto logger = storage::database_logger();
  old_level_ = logger->level();
  logger->sinks().push_back(sink_);
  logger->set_level(spdlog::level::debug);
}

LogCapture::~LogCapture() {
  auto logger = storage::database_logger();
  auto& sinks = logger->sinks();
  sinks.erase(std::remove(sinks.begin(), sinks.end(), sink_), sinks.end());
  logger->set_level(old_level_);
}

std::vector<LogRecord> LogCapture::records() const { return sink_->records(); }

}  // namespace quilma::testing
