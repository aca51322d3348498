#include "quilma/storage/reader_pool.h"

#include <exception>
#include <string>
#include <utility>

#include "quilma/sqlite/error.h"

namespace quilma::storage {

ReaderPool::ReaderPool(std::filesystem::path db_path, int count, Configure configure)
    : db_path_(std::move(db_path)), count_(count), configure_(std::move(configure)) {
  if (count_ < 1) {
    throw std::invalid_argument("a reader pool needs at least one connection, not " +
                                std::to_string(count_));
  }
}

ReaderPool::~ReaderPool() {
  try {
    close();
  } catch (const sqlite::Error&) {  // a connection that failed to close was freed anyway
  }
}

ReaderPool::Lease::Lease(Lease&& other) noexcept
    : pool_(std::exchange(other.pool_, nullptr)),
      connection_(std::exchange(other.connection_, nullptr)) {}

ReaderPool::Lease& ReaderPool::Lease::operator=(Lease&& other) noexcept {
  if (this != &other) {
    if (pool_ != nullptr) pool_->give_back(connection_);
    pool_ = std::exchange(other.pool_, nullptr);
    connection_ = std::exchange(other.connection_, nullptr);
  }
  return *this;
}

ReaderPool::Lease::~Lease() {
  if (pool_ != nullptr) pool_->give_back(connection_);
}

ReaderPool::Lease ReaderPool::lease() {
  std::unique_lock lock(mutex_);
  const auto can_open = [this] {
    return connections_.size() + static_cast<std::size_t>(opening_) <
           static_cast<std::size_t>(count_);
  };
  const auto settled = [&] { return closed_ || !idle_.empty() || can_open(); };
  const bool ready = settled() || returned_.wait_until(
                                      lock, std::chrono::steady_clock::now() + LEASE_WAIT, settled);
  if (closed_)
    throw ReaderUnavailable("the read connections of " + db_path_.string() + " are closed");
  if (!ready) {
    throw ReaderUnavailable("all " + std::to_string(count_) + " read connections of " +
                            db_path_.string() + " stayed in use for " +
                            std::to_string(LEASE_WAIT.count()) + " ms");
  }
  if (!idle_.empty()) {
    sqlite::Connection* connection = idle_.back();
    idle_.pop_back();
    ++leased_;
    return {this, connection};
  }

  // Open a new connection outside the mutex: other leases and give-backs go on meanwhile.
  ++opening_;
  lock.unlock();
  std::unique_ptr<sqlite::Connection> opened;
  std::string failure;
  try {
    opened = std::make_unique<sqlite::Connection>(
        db_path_, sqlite::OpenOptions{.read_only = true, .busy_timeout = std::chrono::seconds(5)});
    if (configure_) configure_(*opened);
  } catch (const sqlite::Error& error) {
    failure = error.what();
  } catch (...) {
    lock.lock();
    --opening_;
    returned_.notify_all();
    throw;
  }
  lock.lock();
  --opening_;
  returned_.notify_all();
  if (!opened) {
    throw ReaderUnavailable("cannot open a read connection on " + db_path_.string() + ": " +
                            failure);
  }
  if (closed_) {  // closed while this one was opening; its destructor closes it
    throw ReaderUnavailable("the read connections of " + db_path_.string() + " are closed");
  }
  sqlite::Connection* connection = connections_.emplace_back(std::move(opened)).get();
  ++leased_;
  return {this, connection};
}

void ReaderPool::give_back(sqlite::Connection* connection) noexcept {
  {
    const std::lock_guard lock(mutex_);
    idle_.push_back(connection);
    --leased_;
  }
  returned_.notify_all();
}

void ReaderPool::close() {
  std::vector<std::unique_ptr<sqlite::Connection>> to_close;
  {
    std::unique_lock lock(mutex_);
    closed_ = true;
    returned_.notify_all();  // waiting leases see the pool closed
    returned_.wait(lock, [this] { return leased_ == 0 && opening_ == 0; });
    to_close.swap(connections_);
    idle_.clear();
  }
  std::exception_ptr first_error;
  for (auto& connection : to_close) {
    try {
      connection->close();
    } catch (const sqlite::Error&) {
      if (!first_error) first_error = std::current_exception();
    }
  }
  if (first_error) std::rethrow_exception(first_error);
}

}  // namespace quilma::storage
