// A SQLite VFS that fails on demand: writes with SQLITE_FULL once a byte budget is spent. It
// forwards everything else to the default VFS.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

struct sqlite3_vfs;
struct sqlite3_file;

namespace quilma::testing {

// Registered as "quilma-fault" and made the default VFS for the object's life, so every
// connection opened meanwhile (the writer, the readers, a VACUUM's temporary file) goes
// through it. Connections opened through it must be closed before it is destroyed. Until a
// fault is armed it changes nothing.
class FaultVfs {
 public:
  static constexpr const char* NAME = "quilma-fault";

  FaultVfs();
  ~FaultVfs();
  FaultVfs(const FaultVfs&) = delete;
  FaultVfs& operator=(const FaultVfs&) = delete;

  // From now on, a write that would take the bytes written past `budget` fails, and so does
  // every write after it.
  void fail_writes_after(std::int64_t budget);
  // Disarms the fault.
  void heal() { budget_.store(-1); }

  struct File;  // a file opened through this VFS

 private:
  static FaultVfs& of(sqlite3_vfs* vfs);
  static int open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags,
                  int* out_flags);
  static int write(sqlite3_file* file, const void* data, int amount, long long offset);
  bool allow_write(int amount);

  std::unique_ptr<sqlite3_vfs> vfs_;
  sqlite3_vfs* real_;
  std::atomic<std::int64_t> budget_{-1};  // -1: no limit
  std::atomic<std::int64_t> written_{0};
};

}  // namespace quilma::testing
