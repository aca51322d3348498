#include "support/log_capture.h"

#include <algorithm>
#include <mutex>

#include <spdlog/sinks/base_sink.h>

#include "quilma/storage/log.h"

namespace quilma::testing {

class LogCapture::Sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<LogLine> lines() {
    const std::lock_guard hold(mutex_);
    return lines_;
  }
  void clear() {
    const std::lock_guard hold(mutex_);
    lines_.clear();
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    lines_.push_back({message.level, std::string(message.payload.begin(), message.payload.end())});
  }
  void flush_() override {}

 private:
  std::vector<LogLine> lines_;  // guarded by base_sink's mutex_
};

LogCapture::LogCapture(const std::string& name)
    : logger_(storage::detail::module_logger(name)), sink_(std::make_shared<Sink>()) {
  old_level_ = logger_->level();
  logger_->sinks().push_back(sink_);
  logger_->set_level(spdlog::level::debug);
}

LogCapture::~LogCapture() {
  auto& sinks = logger_->sinks();
  sinks.erase(std::remove(sinks.begin(), sinks.end(), sink_), sinks.end());
  logger_->set_level(old_level_);
}

std::vector<LogLine> LogCapture::lines() const { return sink_->lines(); }

std::vector<std::string> LogCapture::texts(spdlog::level::level_enum level) const {
  std::vector<std::string> texts;
  for (const LogLine& line : sink_->lines()) {
    if (line.level == level) texts.push_back(line.text);
  }
  return texts;
}

void LogCapture::clear() { sink_->clear(); }

}  // namespace quilma::testing
