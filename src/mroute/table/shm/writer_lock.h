// Mem::WriterLock: keeps a second writer process off a table's files.
//
// The lock is an exclusive flock() on the file "writer.lock" (mode 0600) in
// the table directory. The kernel drops it when the holding descriptor is
// closed, including when the process dies, so a crashed writer never leaves
// the table locked. flock() locks belong to the open file description, so two
// WriterLock objects exclude each other even inside one process.
//
// The lock file is never removed: removing it would let a newcomer lock a new
// file while an old holder still holds the unlinked one.
//
// Thread-safety: a WriterLock is used by one thread.
#pragma once

#include <string>

#include "mroute/table/shm/shm_file.h"

namespace Mem {

class WriterLock {
 public:
  static constexpr const char* kFileName = "writer.lock";

  explicit WriterLock(std::string directory, ShmFs& fs = systemShmFs());
  ~WriterLock() { unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

  // Takes the lock without waiting. False when another writer holds it
  // (error() is then "held by another writer (pid <pid>): <path>") or the lock file
  // cannot be made.
  bool tryLock();
  // Takes the lock, waiting for the holder to release it or die.
  bool lock();
  void unlock();
  bool locked() const { return fd_ >= 0; }
  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }
  // The pid of the writer that held the lock when tryLock() last failed (0
  // when unknown).
  long holder() const { return holder_; }

  // Holds the lock (tryLock) for the lifetime of the object.
  class AutoLock {
   public:
    explicit AutoLock(WriterLock& lock);
    ~AutoLock();
    AutoLock(const AutoLock&) = delete;
    AutoLock& operator=(const AutoLock&) = delete;
    bool locked() const { return locked_; }

   private:
    WriterLock& lock_;
    bool locked_;
  };

 private:
  bool acquire(bool wait);
  static long holderPid(int fd);

  ShmFs* fs_;
  std::string path_;
  std::string error_;
  int fd_ = -1;
  long holder_ = 0;
};

}  // namespace Mem
