// The lock that guards a Database's writer connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace quilma::storage {

// A reentrant lock that can let a waiting thread in. A plain mutex lets the thread that
// unlocks it take it again at once, before the kernel has woken a thread that waits for it;
// a thread that takes the lock step after step with no gap between (the page release) would
// then keep a writer waiting for all its steps instead of one.
class ConnectionLock {
 public:
  void lock();
  bool try_lock();
  void unlock();

  // Called between two holdings by a thread that does not hold the lock now: when other
  // threads are waiting for it, waits until one of them has had it (or a few milliseconds
  // have passed, should a caller break the rule and hold the lock still).
  void let_waiters_in();

  // How many threads are waiting to take the lock now.
  int waiting() const noexcept { return waiting_.load(std::memory_order_acquire); }

 private:
  std::recursive_mutex mutex_;
  std::atomic<int> waiting_{0};
  std::atomic<std::uint64_t> handoffs_{0};  // takings that had to wait
};

}  // namespace quilma::storage
