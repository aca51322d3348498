#include "quilma/sqlite/error.h"

#include <utility>

#include <sqlite3.h>

namespace quilma::sqlite {

Error::Error(int extended_code, std::string message)
    : extended_code_(extended_code), message_(std::move(message)) {}

void raise_error(int extended_code, std::string message) {
  switch (extended_code & 0xff) {
    case SQLITE_ERROR:
    case SQLITE_PERM:
    case SQLITE_ABORT:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_READONLY:
    case SQLITE_INTERRUPT:
    case SQLITE_IOERR:
    case SQLITE_FULL:
    case SQLITE_CANTOPEN:
    case SQLITE_PROTOCOL:
    case SQLITE_EMPTY:
    case SQLITE_SCHEMA:
      throw OperationalError(extended_code, std::move(message));
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
      throw IntegrityError(extended_code, std::move(message));
    case SQLITE_MISUSE:
    case SQLITE_RANGE:
      throw ProgrammingError(extended_code, std::move(message));
    case SQLITE_TOOBIG:
      throw DataError(extended_code, std::move(message));
    case SQLITE_INTERNAL:
    case SQLITE_NOTFOUND:
      throw InternalError(extended_code, std::move(message));
    default:
      throw DatabaseError(extended_code, std::move(message));
  }
}

}  // namespace quilma::sqlite
