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

const sqlite3_io_methods* real_methods(sqlite3_file* file) { return File::real_of(file)->pMethods; }

int file_close(sqlite3_file* file) { return real_methods(file)->xClose(File::real_of(file)); }
int file_read(sqlite3_file* file, void* data, int amount, sqlite3_int64 offset) {
  return real_methods(file)->xRead(File::real_of(file), data, amount, offset);
}
int file_truncate(sqlite3_file* file, sqlite3_int64 size) {
  return real_methods(file)->xTruncate(File::real_of(file), size);
}
int file_size(sqlite3_file* file, sqlite3_int64* size) {
  return real_methods(file)->xFileSize(File::real_of(file), size);
}
int file_lock(sqlite3_file* file, int level) {
  return real_methods(file)->xLock(File::real_of(file), level);
}
int file_unlock(sqlite3_file* file, int level) {
  return real_methods(file)->xUnlock(File::real_of(file), level);
}
int file_check_reserved(sqlite3_file* file, int* out) {
  return real_methods(file)->xCheckReservedLock(File::real_of(file), out);
}
int file_control(sqlite3_file* file, int op, void* arg) {
  return real_methods(file)->xFileControl(File::real_of(file), op, arg);
}
int file_sector_size(sqlite3_file* file) {
  return real_methods(file)->xSectorSize(File::real_of(file));
}
int file_device(sqlite3_file* file) {
  return real_methods(file)->xDeviceCharacteristics(File::real_of(file));
}
int file_shm_map(sqlite3_file* file, int page, int size, int extend, void volatile** out) {
  return real_methods(file)->xShmMap(File::real_of(file), page, size, extend, out);
}
int file_shm_lock(sqlite3_file* file, int offset, int n, int flags) {
  return real_methods(file)->xShmLock(File::real_of(file), offset, n, flags);
}
void file_shm_barrier(sqlite3_file* file) { real_methods(file)->xShmBarrier(File::real_of(file)); }
int file_shm_unmap(sqlite3_file* file, int remove) {
  return real_methods(file)->xShmUnmap(File::real_of(file), remove);
}
int file_fetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** out) {
  return real_methods(file)->xFetch(File::real_of(file), offset, amount, out);
}
int file_unfetch(sqlite3_file* file, sqlite3_int64 offset, void* page) {
  return real_methods(file)->xUnfetch(File::real_of(file), offset, page);
}

}  // namespace

int FaultVfs::write(sqlite3_file* file, const void* data, int amount, long long offset) {
  if (!File::of(file)->owner->allow_write(amount)) return SQLITE_FULL;
  return real_methods(file)->xWrite(File::real_of(file), data, amount, offset);
}

int FaultVfs::sync(sqlite3_file* file, int flags) {
  if (!File::of(file)->owner->allow_sync()) return SQLITE_IOERR_FSYNC;
  return real_methods(file)->xSync(File::real_of(file), flags);
}

FaultVfs& FaultVfs::of(sqlite3_vfs* vfs) { return *static_cast<FaultVfs*>(vfs->pAppData); }

int FaultVfs::open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags,
                   int* out_flags) {
  static const sqlite3_io_methods methods = {
      3,
      file_close,
      file_read,
      &FaultVfs::write,
      file_truncate,
      &FaultVfs::sync,
      file_size,
      file_lock,
      file_unlock,
      file_check_reserved,
      file_control,
      file_sector_size,
      file_device,
      file_shm_map,
      file_shm_lock,
      file_shm_barrier,
      file_shm_unmap,
      file_fetch,
      file_unfetch,
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
  *vfs_ = *real_;  // the same capabilities, with its calls forwarded below
  vfs_->szOsFile = static_cast<int>(sizeof(File)) + real_->szOsFile;
  vfs_->pNext = nullptr;
  vfs_->zName = NAME;
  vfs_->pAppData = this;
  vfs_->xOpen = &FaultVfs::open;
  vfs_->xDelete = [](sqlite3_vfs* vfs, const char* name, int sync_dir) {
    return of(vfs).real_->xDelete(of(vfs).real_, name, sync_dir);
  };
  vfs_->xAccess = [](sqlite3_vfs* vfs, const char* name, int flags, int* out) {
    return of(vfs).real_->xAccess(of(vfs).real_, name, flags, out);
  };
  vfs_->xFullPathname = [](sqlite3_vfs* vfs, const char* name, int size, char* out) {
    return of(vfs).real_->xFullPathname(of(vfs).real_, name, size, out);
  };
  vfs_->xRandomness = [](sqlite3_vfs* vfs, int size, char* out) {
    return of(vfs).real_->xRandomness(of(vfs).real_, size, out);
  };
  vfs_->xSleep = [](sqlite3_vfs* vfs, int micros) {
    return of(vfs).real_->xSleep(of(vfs).real_, micros);
  };
  vfs_->xCurrentTime = [](sqlite3_vfs* vfs, double* out) {
    return of(vfs).real_->xCurrentTime(of(vfs).real_, out);
  };
  vfs_->xGetLastError = [](sqlite3_vfs* vfs, int size, char* out) {
    return of(vfs).real_->xGetLastError(of(vfs).real_, size, out);
  };
  vfs_->xCurrentTimeInt64 = [](sqlite3_vfs* vfs, sqlite3_int64* out) {
    return of(vfs).real_->xCurrentTimeInt64(of(vfs).real_, out);
  };
  // No extensions are loaded, and the system-call overrides belong to the real VFS.
  vfs_->xDlOpen = nullptr;
  vfs_->xDlError = nullptr;
  vfs_->xDlSym = nullptr;
  vfs_->xDlClose = nullptr;
  vfs_->xSetSystemCall = nullptr;
  vfs_->xGetSystemCall = nullptr;
  vfs_->xNextSystemCall = nullptr;
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
  faults_.store(0);
  budget_.store(budget);
}

void FaultVfs::fail_sync(int k) {
  syncs_.store(0);
  faults_.store(0);
  sync_to_fail_.store(k);
}

void FaultVfs::heal() {
  budget_.store(-1);
  sync_to_fail_.store(0);
}

bool FaultVfs::allow_write(int amount) {
  const std::int64_t total = written_.fetch_add(amount) + amount;
  const std::int64_t budget = budget_.load();
  if (budget < 0 || total <= budget) return true;
  written_.fetch_sub(amount);
  faults_.fetch_add(1);
  return false;
}

bool FaultVfs::allow_sync() {
  const int k = sync_to_fail_.load();
  if (syncs_.fetch_add(1) + 1 != k) return true;
  faults_.fetch_add(1);
  return false;
}

}  // namespace quilma::testing
