#include "mroute/table/internal/writer_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "mroute/table/internal/brume_trace.h"

namespace Mem {

WriterLock::WriterLock(std::string directory, ShmFs& fs)
    : fs_(&fs), path_(joinPath(directory, kFileName)) {}

bool WriterLock::acquire(bool wait) {
  if (fd_ >= 0) return true;
  const int fd = fs_->open(path_.c_str(), O_RDWR | O_CREAT, kLockFileMode);
  if (fd < 0) {
    error_ = "open(" + path_ + "): " + std::strerror(errno);
    return false;
  }
  if (fs_->flock(fd, wait ? LOCK_EX : LOCK_EX | LOCK_NB) < 0) {
    const int err = errno;
    error_ = err == EWOULDBLOCK ? "held by another writer: " + path_
                                : "flock(" + path_ + "): " + std::strerror(err);
    fs_->close(fd);
    return false;
  }
  fd_ = fd;
  return true;
}

bool WriterLock::tryLock() { return acquire(false); }
bool WriterLock::lock() { return acquire(true); }

void WriterLock::unlock() {
  if (fd_ < 0) return;
  // Closing the only descriptor of the open file description drops the lock.
  fs_->close(std::exchange(fd_, -1));
}

WriterLock::AutoLock::AutoLock(WriterLock& lock) : lock_(lock), locked_(lock.tryLock()) {
  MROUTE_TRACE(Brume::brumeTrace(), Brume::kTraceInfo, "WriterLock::AutoLock lock:" << lock_.path() << " locked:" << locked_
                                                     << (locked_ ? "" : " reason:" + lock_.error()));
}

WriterLock::AutoLock::~AutoLock() {
  if (locked_) lock_.unlock();
}

}  // namespace Mem
