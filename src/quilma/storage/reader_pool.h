// A pool of read-only connections on one database file, leased to one thread at a time.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "quilma/sqlite/connection.h"

namespace quilma::storage {

// The pool cannot provide a read connection: it is closed, every connection stayed leased
// for the whole wait, or a new one could not be opened.
class ReaderUnavailable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Connections are opened on demand, up to `count`, with SQLite's read-only flag and the
// 5-second busy timeout, and `configure` is applied to each. In WAL mode a read connection
// sees what was committed before its statement began and never waits for a writer.
//
// Each connection sits in a slot that a lease claims with one atomic exchange and gives back
// with one atomic store, so the common lease takes no lock; the mutex is only for threads
// that have to wait (every slot taken) and for close().
class ReaderPool {
 public:
  using Configure = std::function<void(sqlite::Connection&)>;

  // How long lease() waits for a connection to come back when every one is leased. A query
  // holds its lease for microseconds (a point lookup) to tens of milliseconds (a broad
  // search), so under a burst a connection comes back well within this. A pool still
  // exhausted after it is busy with long queries, and the caller is better served by its
  // fallback (the writer connection) than by an unbounded queue.
  static constexpr std::chrono::milliseconds LEASE_WAIT{100};

  ReaderPool(std::filesystem::path db_path, int count, Configure configure = {},
             std::chrono::milliseconds lease_wait = LEASE_WAIT);
  ~ReaderPool();  // closes; never throws
  ReaderPool(const ReaderPool&) = delete;
  ReaderPool& operator=(const ReaderPool&) = delete;

 private:
  struct Slot {
    // Whether a lease (or close()) holds the slot. The holder alone touches `connection`;
    // claiming with acquire and giving back with release hands it from holder to holder.
    std::atomic<bool> taken{false};
    std::unique_ptr<sqlite::Connection> connection;  // opened by the first lease of the slot
  };

 public:
  // One read connection for the holder's use alone; given back when the lease is destroyed,
  // also during stack unwinding. A lease must end before its pool is destroyed.
  class Lease {
   public:
    Lease(Lease&& other) noexcept;
    Lease& operator=(Lease&& other) noexcept;
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease();

    sqlite::Connection& connection() { return *slot_->connection; }

   private:
    friend class ReaderPool;
    Lease(ReaderPool* pool, Slot* slot) : pool_(pool), slot_(slot) {}

    ReaderPool* pool_;
    Slot* slot_;
  };

  Lease lease();  // throws ReaderUnavailable
  // Waits for the leases in use to end, then closes every connection; every later lease()
  // raises ReaderUnavailable. Idempotent.
  void close();

 private:
  Slot* try_claim() noexcept;    // a free slot, now taken by the caller, or nullptr
  Lease lease_slot(Slot* slot);  // opens the slot's connection if needed; checks closed_
  void give_back(Slot* slot) noexcept;
  [[noreturn]] void raise_closed() const;

  const std::filesystem::path db_path_;
  const int count_;
  const Configure configure_;
  const std::chrono::milliseconds lease_wait_;
  const std::unique_ptr<Slot[]> slots_;

  std::atomic<bool> closed_{false};
  // Threads blocked on returned_. Written under mutex_; give_back() reads it after freeing
  // its slot (both sequentially consistent), so a waiter either sees the free slot when it
  // looks again or is woken.
  std::atomic<int> waiting_{0};
  std::mutex mutex_;
  std::condition_variable returned_;
  bool shut_ = false;  // close() has claimed every slot and closed the connections
};

}  // namespace quilma::storage
