// A shared_ptr that some threads replace while others take copies of it.
#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace quilma::storage::detail {

// std::atomic<std::shared_ptr<T>> would do, but libstdc++ 12 releases its internal lock bit
// with relaxed ordering after a load, so ThreadSanitizer reports every load against the next
// store. A mutex costs the same on the uncontended path and is plainly correct.
template <class T>
class SharedSlot {
 public:
  std::shared_ptr<T> load() const {
    const std::lock_guard hold(mutex_);
    return value_;
  }

  // Returns the previous value, so that the caller, not the lock holder, may destroy it.
  std::shared_ptr<T> exchange(std::shared_ptr<T> value) {
    const std::lock_guard hold(mutex_);
    return std::exchange(value_, std::move(value));
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<T> value_;
};

}  // namespace quilma::storage::detail
