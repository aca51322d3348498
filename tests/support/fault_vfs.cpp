#include "support/fault_vfs.h"

#include <stdexcept>

#include <sqlite3.h>

namespace quilma::testing {

// The wrapper's file: our methods first, the real VFS's file right behind it.
struct FaultVfs::File {
  sqlite3_file base;
  FaultVfs* owner;
  sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  static File* of(sqlite3_file* file) { return reinterpret_cast<File*>(file); }
  static sqlite3_file* real_of(sqlite3_file* file) { return of(file)->real(); }
};

namespace {

using File = FaultVfs::File;

// Forwards a method of a file or of the VFS to the real VFS's, with the same arguments.
template <auto Method>
struct ToRealFile;
template <class R, class... Args, R (*sqlite3_io_methods::*Method)(sqlite3_file*, Args...)>
struct ToRealFile<Method> {
  static R call(sqlite3_file* file, Args... args) {
    sqlite3_file* real = File::real_of(file);
    return (real->pMethods->*Method)(real, args...);
  }
};

}  // namespace

int FaultVfs::write(sqlite3_file* file, const void* data, int amount, long long offset) {
  if (!File::of(file)->owner->allow_write(amount)) return SQLITE_FULL;
  return ToRealFile<&sqlite3_io_methods::xWrite>::call(file, data, amount, offset);
}

FaultVfs& FaultVfs::of(sqlite3_vfs* vfs) { return *static_cast<FaultVfs*>(vfs->pAppData); }

int FaultVfs::open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags,
                   int* out_flags) {
  static const sqlite3_io_methods methods = {
      .iVersion = 3,
      .xClose = &ToRealFile<&sqlite3_io_methods::xClose>::call,
      .xRead = &ToRealFile<&sqlite3_io_methods::xRead>::call,
      .xWrite = &FaultVfs::write,
      .xTruncate = &ToRealFile<&sqlite3_io_methods::xTruncate>::call,
      .xSync = &ToRealFile<&sqlite3_io_methods::xSync>::call,
      .xFileSize = &ToRealFile<&sqlite3_io_methods::xFileSize>::call,
      .xLock = &ToRealFile<&sqlite3_io_methods::xLock>::call,
      .xUnlock = &ToRealFile<&sqlite3_io_methods::xUnlock>::call,
      .xCheckReservedLock = &ToRealFile<&sqlite3_io_methods::xCheckReservedLock>::call,
      .xFileControl = &ToRealFile<&sqlite3_io_methods::xFileControl>::call,
      .xSectorSize = &ToRealFile<&sqlite3_io_methods::xSectorSize>::call,
      .xDeviceCharacteristics = &ToRealFile<&sqlite3_io_methods::xDeviceCharacteristics>::call,
      .xShmMap = &ToRealFile<&sqlite3_io_methods::xShmMap>::call,
      .xShmLock = &ToRealFile<&sqlite3_io_methods::xShmLock>::call,
      .xShmBarrier = &ToRealFile<&sqlite3_io_methods::xShmBarrier>::call,
      .xShmUnmap = &ToRealFile<&sqlite3_io_methods::xShmUnmap>::call,
      .xFetch = &ToRealFile<&sqlite3_io_methods::xFetch>::call,
      .xUnfetch = &ToRealFile<&sqlite3_io_methods::xUnfetch>::call,
  };
  FaultVfs& self = of(vfs);
  auto* wrapper = File::of(file);
  wrapper->base.pMethods = nullptr;
  wrapper->owner = &self;
  wrapper->real()->pMethods = nullptr;
  const int rc = self.real_->xOpen(self.real_, name, wrapper->real(), flags, out_flags);
  // SQLite closes a file whose open failed only when its methods are set.
  if (wrapper->real()->pMethods != nullptr) wrapper->base.pMethods = &methods;
  return rc;
}

FaultVfs::FaultVfs() : vfs_(std::make_unique<sqlite3_vfs>()), real_(sqlite3_vfs_find(nullptr)) {
  if (real_ == nullptr) throw std::runtime_error("no default SQLite VFS");
  // The same capabilities and methods: the default VFS's own do not depend on the object they
  // are called through; only its files are wrapped.
  *vfs_ = *real_;
  vfs_->szOsFile = static_cast<int>(sizeof(File)) + real_->szOsFile;
  vfs_->pNext = nullptr;
  vfs_->zName = NAME;
  vfs_->pAppData = this;
  vfs_->xOpen = &FaultVfs::open;
  if (sqlite3_vfs_register(vfs_.get(), 1) != SQLITE_OK) {
    throw std::runtime_error("cannot register the fault VFS");
  }
}

FaultVfs::~FaultVfs() {
  sqlite3_vfs_unregister(vfs_.get());
  sqlite3_vfs_register(real_, 1);
}

void FaultVfs::fail_writes_after(std::int64_t budget) {
  written_.store(0);
  budget_.store(budget);
}

bool FaultVfs::allow_write(int amount) {
  const std::int64_t total = written_.fetch_add(amount) + amount;
  const std::int64_t budget = budget_.load();
  if (budget < 0 || total <= budget) return true;
  written_.fetch_sub(amount);
  return false;
}

}  // namespace quilma::testing
