// Test-only access to the internals of Database.
#pragma once

#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "quilma/storage/database.h"
#include "quilma/storage/database_detail.h"

namespace quilma::storage {

class DatabaseTestPeer {
 public:
  static int tx_depth(Database& db) {
    const std::lock_guard hold(db.lock_);
    return db.tx_depth_;
  }
  static std::thread::id tx_owner(const Database& db) { return db.tx_owner_.load(); }
  static ReaderPool* readers(const Database& db) { return db.readers_.load(); }
  static ReaderPool* set_readers(Database& db, std::shared_ptr<ReaderPool> pool) {
    ReaderPool* raw = pool.get();
    db.readers_.exchange(std::move(pool));
    return raw;
  }
  static ConnectionLock& lock(Database& db) { return db.lock_; }
  static std::int64_t count(Database& db, std::string_view sql) { return db.count(sql); }
  static std::int64_t release_free_pages(Database& db) { return db.release_free_pages(); }
  static bool shrink_file(Database& db) { return db.shrink_file(); }
};

}  // namespace quilma::storage
