// The writer connection's lock and its hand-over to waiting threads.
#include "quilma/storage/connection_lock.h"

#include <chrono>
#include <thread>

namespace quilma::storage {

void ConnectionLock::lock() {
  if (mutex_.try_lock()) return;
  waiting_.fetch_add(1, std::memory_order_acq_rel);
  try {
    mutex_.lock();
  } catch (...) {  // std::system_error: the count must not claim a waiter that gave up
    waiting_.fetch_sub(1, std::memory_order_acq_rel);
    throw;
  }
  waiting_.fetch_sub(1, std::memory_order_acq_rel);
  handoffs_.fetch_add(1, std::memory_order_acq_rel);
}

bool ConnectionLock::try_lock() { return mutex_.try_lock(); }

void ConnectionLock::unlock() { mutex_.unlock(); }

void ConnectionLock::let_waiters_in() {
  if (waiting() == 0) return;
  const std::uint64_t seen = handoffs_.load(std::memory_order_acquire);
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
  while (handoffs_.load(std::memory_order_acquire) == seen && waiting() > 0 &&
         std::chrono::steady_clock::now() < give_up) {
    std::this_thread::yield();
  }
}

}  // namespace quilma::storage
