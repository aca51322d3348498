#include "support/statement_trace.h"

#include <algorithm>

#include <sqlite3.h>

namespace quilma::testing {

StatementTrace::StatementTrace(sqlite3* db) : db_(db) {
  sqlite3_trace_v2(db_, SQLITE_TRACE_STMT, &StatementTrace::on_trace, this);
}

StatementTrace::~StatementTrace() { sqlite3_trace_v2(db_, 0, nullptr, nullptr); }

int StatementTrace::on_trace(unsigned /*type*/, void* self, void* statement, void* /*sql*/) {
  auto* trace = static_cast<StatementTrace*>(self);
  const char* text = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
  const std::lock_guard hold(trace->mutex_);
  trace->statements_.emplace_back(text != nullptr ? text : "");
  return 0;
}

std::vector<std::string> StatementTrace::statements() const {
  const std::lock_guard hold(mutex_);
  return statements_;
}

int StatementTrace::count(const std::string& sql) const {
  const std::lock_guard hold(mutex_);
  return static_cast<int>(std::count(statements_.begin(), statements_.end(), sql));
}

void StatementTrace::clear() {
  const std::lock_guard hold(mutex_);
  statements_.clear();
}

}  // namespace quilma::testing
