// Errors of the storage layer that are not SQLite's own.
#pragma once

#include <memory>
#include <string>
#include <system_error>

namespace quilma::storage {

// A file the caller named does not exist. what() is the message given, with nothing of the
// error code's own text appended.
class FileNotFoundError : public std::system_error {
 public:
  explicit FileNotFoundError(const std::string& message)
      : std::system_error(std::make_error_code(std::errc::no_such_file_or_directory)),
        message_(std::make_shared<const std::string>(message)) {}

  const char* what() const noexcept override { return message_->c_str(); }

 private:
  // Shared, so that copying the error (as throwing does) cannot throw.
  std::shared_ptr<const std::string> message_;
};

}  // namespace quilma::storage
