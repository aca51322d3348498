// The storage layer's logger.
#include "quilma/storage/database.h"
#include "quilma/storage/log.h"

namespace quilma::storage {

std::shared_ptr<spdlog::logger> database_logger() {
  static const std::shared_ptr<spdlog::logger> logger =
      detail::module_logger("quilma.storage.database");
  return logger;
}

}  // namespace quilma::storage
