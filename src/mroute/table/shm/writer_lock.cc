#include "mroute/table/shm/writer_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "mroute/table/shm/brume_trace.h"

namespace Mem {

WriterLock::WriterLock(std::string directory, ShmFs& fs)
    : fs_(&fs), path_(joinPath(directory, kFileName)) {}

bool WriterLock::acquire(bool wait) {
  if (fd_ >= 0) return true;
  const int fd = fs_->open(path_.c_str(), O_RDWR | O_CREAT, kLockFileMode);
  if (fd < 0) {
    error_ = callError("open", path_, errno);
    return false;
  }
  if (fs_->flock(fd, wait ? LOCK_EX : LOCK_EX | LOCK_NB) < 0) {
    const int err = errno;
    if (err == EWOULDBLOCK) {
      holder_ = holderPid(fd);
      error_ = "held by another writer" + (holder_ > 0 ? " (pid " + std::to_string(holder_) + ")" : std::string()) +
               ": " + path_;
    } else {
      error_ = "flock(" + path_ + "): " + std::strerror(err);
    }
    fs_->close(fd);
    return false;
  }
  fd_ = fd;
  holder_ = 0;
  // Tells a writer that finds the table locked who holds it. A writer that
  // died leaves its pid behind, but then the lock is free.
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (fs_->ftruncate(fd, 0) == 0) fs_->pwrite(fd, pid.data(), pid.size(), 0);
  return true;
}

long WriterLock::holderPid(int fd) {
  char text[24] = {};
  const ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
  if (n <= 0) return 0;
  char* end = nullptr;
  const long pid = std::strtol(text, &end, 10);
  return end != text && *end == '\n' && pid > 0 ? pid : 0;
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
