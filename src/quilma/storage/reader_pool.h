// A pool of read-only connections on one database file, leased to one thread at a time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

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
class ReaderPool {
 public:
  using Configure = std::function<void(sqlite::Connection&)>;

  // How long lease() waits for a connection to come back when every one is leased. A query
  // holds its lease for microseconds (a point lookup) to tens of milliseconds (a broad
  // search), so under a burst a connection comes back well within this. A pool still
  // exhausted after it is busy with long queries, and the caller is better served by its
  // fallback (the writer connection) than by an unbounded queue.
  static constexpr std::chrono::milliseconds LEASE_WAIT{100};

  ReaderPool(std::filesystem::path db_path, int count, Configure configure = {});
  ~ReaderPool();  // closes; never throws
  ReaderPool(const ReaderPool&) = delete;
  ReaderPool& operator=(const ReaderPool&) = delete;

  // One read connection for the holder's use alone; given back when the lease is destroyed,
  // also during stack unwinding. A lease must end before its pool is destroyed.
  class Lease {
   public:
    Lease(Lease&& other) noexcept;
    Lease& operator=(Lease&& other) noexcept;
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease();

    sqlite::Connection& connection() { return *connection_; }

   private:
    friend class ReaderPool;
    Lease(ReaderPool* pool, sqlite::Connection* connection)
        : pool_(pool), connection_(connection) {}

    ReaderPool* pool_;
    sqlite::Connection* connection_;
  };

  Lease lease();  // throws ReaderUnavailable
  // Waits for the leases in use to end, then closes every connection; every later lease()
  // raises ReaderUnavailable. Idempotent.
  void close();

  const std::filesystem::path& db_path() const noexcept { return db_path_; }
  int capacity() const noexcept { return count_; }

 private:
  void give_back(sqlite::Connection* connection) noexcept;
  sqlite::Connection* open_one();  // called without mutex_; may throw

  const std::filesystem::path db_path_;
  const int count_;
  const Configure configure_;

  std::mutex mutex_;
  std::condition_variable returned_;  // a connection came back, or an open ended
  std::vector<std::unique_ptr<sqlite::Connection>> connections_;  // every one opened
  std::vector<sqlite::Connection*> idle_;
  int leased_ = 0;
  int opening_ = 0;  // connections being opened outside the mutex, counted against count_
  bool closed_ = false;
};

}  // namespace quilma::storage
