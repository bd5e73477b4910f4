// Mem::PrivateShmFs: table files in this process's private memory.
//
// Each file is an anonymous memory file (memfd) known only by its path in
// this object; directories are implied by the paths. The table code runs on
// it unchanged (mapping, growth, locks, the ember file), but nothing appears
// in the shared-memory file system and nothing outlives the object. Opening
// a file gives a new open file description, so two writer locks on one
// table still exclude each other.
//
// Thread-safety: one thread, like the table on it.
#pragma once

#include <map>
#include <string>

#include "mroute/table/shm/shm_file.h"

namespace Mem {

class PrivateShmFs : public ShmFs {
 public:
  PrivateShmFs() = default;
  ~PrivateShmFs() override;
  PrivateShmFs(const PrivateShmFs&) = delete;
  PrivateShmFs& operator=(const PrivateShmFs&) = delete;

  int open(const char* path, int flags, mode_t mode) override;
  int close(int fd) override;
  int fstat(int fd, struct stat* st) override;
  int fchmod(int fd, mode_t mode) override;
  int ftruncate(int fd, off_t length) override;
  void* mmap(size_t length, int prot, int fd) override;
  void* mremap(void* old, size_t oldLength, size_t newLength) override;
  int munmap(void* addr, size_t length) override;
  int unlink(const char* path) override;
  int mkdir(const char* path, mode_t mode) override;
  int flock(int fd, int operation) override;
  int fallocate(int fd, off_t offset, off_t length) override;
  int punchHole(int fd, off_t offset, off_t length) override;
  ssize_t pwrite(int fd, const void* data, size_t length, off_t offset) override;
  int rename(const char* from, const char* to) override;
  int populateWrite(void* addr, size_t length) override;

  // Paths of the files it holds.
  size_t files() const { return files_.size(); }

 private:
  SystemShmFs system_;
  std::map<std::string, int> files_;  // path -> the memfd that keeps the file
};

}  // namespace Mem
