// The storage layer's logger.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "quilma/storage/database.h"

namespace quilma::storage {

std::shared_ptr<spdlog::logger> database_logger() {
  static const std::shared_ptr<spdlog::logger> logger = [] {
    constexpr const char* name = "quilma.storage.database";
    if (std::shared_ptr<spdlog::logger> existing = spdlog::get(name)) return existing;
    // Quiet by default: only warnings reach stderr until the application attaches its own
    // sinks or changes this one's level.
    auto to_stderr = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    to_stderr->set_level(spdlog::level::warn);
    auto created = std::make_shared<spdlog::logger>(name, std::move(to_stderr));
    created->set_level(spdlog::level::info);
    spdlog::register_logger(created);
    return created;
  }();
  return logger;
}

}  // namespace quilma::storage
