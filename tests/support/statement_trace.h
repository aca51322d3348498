// Records the statements that start on one SQLite connection, in order.
#pragma once

#include <mutex>
#include <string>
#include <vector>

struct sqlite3;

namespace quilma::testing {

class StatementTrace {
 public:
  explicit StatementTrace(sqlite3* db);
  ~StatementTrace();
  StatementTrace(const StatementTrace&) = delete;
  StatementTrace& operator=(const StatementTrace&) = delete;

  std::vector<std::string> statements() const;  // the SQL texts, as prepared
  int count(const std::string& sql) const;      // how often exactly `sql` ran
  void clear();

 private:
  static int on_trace(unsigned type, void* self, void* statement, void* sql);

  sqlite3* db_;
  mutable std::mutex mutex_;
  std::vector<std::string> statements_;
};

}  // namespace quilma::testing
