// The storage layer's logger.
#include "quilma/storage/database.h"
#include "quilma/storage/log.h"

namespace quilma::storage {

// Looked up at each use, so that a logger the application registers in its place (after
// dropping this one from spdlog's registry) is the one written to.
std::shared_ptr<spdlog::logger> database_logger() {
  return detail::module_logger(detail::DATABASE_LOGGER);
}

}  // namespace quilma::storage
