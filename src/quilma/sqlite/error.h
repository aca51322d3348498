// Errors raised by SQLite, sorted into the kinds that callers catch.
#pragma once

#include <exception>
#include <string>

namespace quilma::sqlite {

// Every error raised by SQLite itself. what() is SQLite's own message, unchanged.
class Error : public std::exception {
 public:
  Error(int extended_code, std::string message);

  int code() const noexcept { return extended_code_ & 0xff; }  // primary result code
  int extended_code() const noexcept { return extended_code_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  int extended_code_;
  std::string message_;
};

// CORRUPT, NOTADB, and any code not listed under a more specific kind.
class DatabaseError : public Error {
 public:
  using Error::Error;
};

// ERROR, PERM, ABORT, BUSY, LOCKED, READONLY, INTERRUPT, IOERR, FULL, CANTOPEN, PROTOCOL,
// EMPTY, SCHEMA and their extended codes: a statement failed, or the file could not serve it.
class OperationalError : public DatabaseError {
 public:
  using DatabaseError::DatabaseError;
};

// CONSTRAINT, MISMATCH.
class IntegrityError : public DatabaseError {
 public:
  using DatabaseError::DatabaseError;
};

// MISUSE, RANGE, and misuse of this binding (a closed cursor, a wrong number of values).
class ProgrammingError : public DatabaseError {
 public:
  using DatabaseError::DatabaseError;
};

// TOOBIG: a string or blob larger than SQLite accepts.
class DataError : public DatabaseError {
 public:
  using DatabaseError::DatabaseError;
};

// INTERNAL, NOTFOUND: a fault inside SQLite.
class InternalError : public DatabaseError {
 public:
  using DatabaseError::DatabaseError;
};

// Throws the kind of error that `extended_code` maps to, with `message` as its text.
// This is the one place where result codes are sorted into kinds.
[[noreturn]] void raise_error(int extended_code, std::string message);

}  // namespace quilma::sqlite
