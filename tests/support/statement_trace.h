// Records the statements that start on one SQLite connection, in order.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace quilma::testing {

class StatementTrace {
 public:
  explicit StatementTrace(sqlite3* db) : db_(db) {
    sqlite3_trace_v2(db_, SQLITE_TRACE_STMT, &StatementTrace::on_trace, this);
  }
  ~StatementTrace() { sqlite3_trace_v2(db_, 0, nullptr, nullptr); }
  StatementTrace(const StatementTrace&) = delete;
  StatementTrace& operator=(const StatementTrace&) = delete;

  // The SQL texts, as prepared.
  std::vector<std::string> statements() const {
    const std::lock_guard hold(mutex_);
    return statements_;
  }
  // How often exactly `sql` ran.
  int count(const std::string& sql) const {
    const std::lock_guard hold(mutex_);
    return static_cast<int>(std::count(statements_.begin(), statements_.end(), sql));
  }
  void clear() {
    const std::lock_guard hold(mutex_);
    statements_.clear();
  }

 private:
  static int on_trace(unsigned /*type*/, void* self, void* statement, void* /*sql*/) {
    auto* trace = static_cast<StatementTrace*>(self);
    const char* text = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
    const std::lock_guard hold(trace->mutex_);
    trace->statements_.emplace_back(text != nullptr ? text : "");
    return 0;
  }

  sqlite3* db_;
  mutable std::mutex mutex_;
  std::vector<std::string> statements_;  // guarded by mutex_
};

}  // namespace quilma::testing
