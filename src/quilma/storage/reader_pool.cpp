#include "quilma/storage/reader_pool.h"

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "quilma/sqlite/error.h"

namespace quilma::storage {

ReaderPool::ReaderPool(std::filesystem::path db_path, int count, Configure configure,
                       std::chrono::milliseconds lease_wait)
    : db_path_(std::move(db_path)),
      count_(count),
      configure_(std::move(configure)),
      lease_wait_(lease_wait),
      slots_(count > 0 ? std::make_unique<Slot[]>(static_cast<std::size_t>(count)) : nullptr) {
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
    : pool_(std::exchange(other.pool_, nullptr)), slot_(std::exchange(other.slot_, nullptr)) {}

ReaderPool::Lease& ReaderPool::Lease::operator=(Lease&& other) noexcept {
  if (this != &other) {
    if (pool_ != nullptr) pool_->give_back(slot_);
    pool_ = std::exchange(other.pool_, nullptr);
    slot_ = std::exchange(other.slot_, nullptr);
  }
  return *this;
}

ReaderPool::Lease::~Lease() {
  if (pool_ != nullptr) pool_->give_back(slot_);
}

ReaderPool::Slot* ReaderPool::try_claim() noexcept {
  for (int i = 0; i < count_; ++i) {
    Slot& slot = slots_[static_cast<std::size_t>(i)];
    // Sequentially consistent even for the look before the exchange: a waiter that has
    // counted itself in waiting_ must not miss a slot that give_back() freed before reading
    // waiting_ (free on x86, where such loads are plain moves).
    if (!slot.taken.load(std::memory_order_seq_cst) &&
        !slot.taken.exchange(true, std::memory_order_seq_cst)) {
      return &slot;
    }
  }
  return nullptr;
}

void ReaderPool::raise_closed() const {
  throw ReaderUnavailable("the read connections of " + db_path_.string() + " are closed");
}

ReaderPool::Lease ReaderPool::lease() {
  if (Slot* slot = try_claim()) return lease_slot(slot);
  if (closed_.load(std::memory_order_seq_cst)) raise_closed();

  std::unique_lock lock(mutex_);
  waiting_.fetch_add(1, std::memory_order_seq_cst);
  Slot* slot = nullptr;
  const bool settled = returned_.wait_until(
      lock, std::chrono::steady_clock::now() + lease_wait_,
      [&] { return closed_.load(std::memory_order_seq_cst) || (slot = try_claim()) != nullptr; });
  waiting_.fetch_sub(1, std::memory_order_seq_cst);
  lock.unlock();
  if (slot != nullptr) return lease_slot(slot);
  if (settled) raise_closed();
  throw ReaderUnavailable("all " + std::to_string(count_) + " read connections of " +
                          db_path_.string() + " stayed in use for " +
                          std::to_string(lease_wait_.count()) + " ms");
}

ReaderPool::Lease ReaderPool::lease_slot(Slot* slot) {
  // Seen after the claim: either close() has not begun (and will wait for this lease), or
  // this lease sees the pool closed and lets go.
  if (closed_.load(std::memory_order_seq_cst)) {
    give_back(slot);
    raise_closed();
  }
  if (!slot->connection) {
    try {
      auto opened = std::make_unique<sqlite::Connection>(
          db_path_,
          sqlite::OpenOptions{.read_only = true, .busy_timeout = std::chrono::seconds(5)});
      if (configure_) configure_(*opened);
      slot->connection = std::move(opened);
    } catch (const sqlite::Error& error) {
      give_back(slot);
      throw ReaderUnavailable("cannot open a read connection on " + db_path_.string() + ": " +
                              error.what());
    } catch (...) {
      give_back(slot);
      throw;
    }
  }
  return {this, slot};
}

void ReaderPool::give_back(Slot* slot) noexcept {
  slot->taken.store(false, std::memory_order_seq_cst);
  if (waiting_.load(std::memory_order_seq_cst) > 0) {
    // Taking the mutex orders this wake-up after the waiter's look at the slots.
    { const std::lock_guard lock(mutex_); }
    returned_.notify_all();
  }
}

void ReaderPool::close() {
  std::vector<std::unique_ptr<sqlite::Connection>> to_close;
  {
    std::unique_lock lock(mutex_);
    if (closed_.load(std::memory_order_seq_cst)) {  // another close() ran or is running
      waiting_.fetch_add(1, std::memory_order_seq_cst);
      returned_.wait(lock, [this] { return shut_; });
      waiting_.fetch_sub(1, std::memory_order_seq_cst);
      return;
    }
    closed_.store(true, std::memory_order_seq_cst);
    returned_.notify_all();  // waiting leases see the pool closed
    // Claim every slot, waiting for the leases in use to end; the slots stay taken, so no
    // later lease gets one.
    waiting_.fetch_add(1, std::memory_order_seq_cst);
    for (int i = 0; i < count_; ++i) {
      Slot& slot = slots_[static_cast<std::size_t>(i)];
      returned_.wait(lock,
                     [&slot] { return !slot.taken.exchange(true, std::memory_order_seq_cst); });
      if (slot.connection) to_close.push_back(std::move(slot.connection));
    }
    waiting_.fetch_sub(1, std::memory_order_seq_cst);
    shut_ = true;
  }
  returned_.notify_all();
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
