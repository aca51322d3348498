// A watcher keeps a repository's index up to date while it runs, and tells a search whether
// the index stands for the files as they are now. When it does, the search need not look at
// every file to find those changed since the index was built.
//
// The watcher watches each directory of the repository with inotify. A change marks the index
// stale; once changes settle, it runs the index's update and, when that ends with nothing
// changed since it began, fresh again. A search asks through a Unix socket, named after the
// index, and the watcher reads every event the kernel has queued before it answers: a change
// that was written before the question is never missed. What inotify does not see (a write
// through a shared memory mapping, a file system mounted from another machine) it cannot
// report: for such trees `search` without a watcher looks at every file.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <ostream>

namespace quilma::cli {

struct WatchRequest {
  std::filesystem::path repo;               // an existing directory
  std::filesystem::path database;           // its index; built by the first update when missing
  const std::atomic<bool>* stop = nullptr;  // once set, the watcher ends; required
  std::chrono::milliseconds settle{100};    // how long changes must pause before an update
  bool quiet = false;                       // no line about each update
};

// Watches until `request.stop` is set: brings the index up to date at once, then after each
// change. Says on `log` what each update changed, and each failure (it tries again later).
// Throws std::runtime_error when another watcher already runs for the same index, and when
// the repository is removed or moved away.
void watch(const WatchRequest& request, std::ostream& log);

// Whether a watcher of `database` runs and vouches that the index stands for every file as it
// is now: its last update ended with no change after it began, no file changed since, and no
// other program wrote the index since. False when none runs, or none answers at once.
bool watcher_vouches(const std::filesystem::path& database);

}  // namespace quilma::cli
