#include "mroute/table/shm/private_shm_fs.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace Mem {

PrivateShmFs::~PrivateShmFs() {
  for (const auto& [path, fd] : files_) ::close(fd);
}

int PrivateShmFs::open(const char* path, int flags, mode_t) {
  auto it = files_.find(path);
  if (it == files_.end()) {
    if ((flags & O_CREAT) == 0) {
      errno = ENOENT;
      return -1;
    }
    const int fd = ::memfd_create("BrumeTemp", MFD_CLOEXEC);
    if (fd < 0) return -1;
    it = files_.emplace(path, fd).first;
  } else if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
    errno = EEXIST;
    return -1;
  }
  if ((flags & O_TRUNC) != 0 && ::ftruncate(it->second, 0) < 0) return -1;
  // A new open file description of the same memory file (flock is per
  // description).
  const std::string self = "/proc/self/fd/" + std::to_string(it->second);
  return ::open(self.c_str(), (flags & O_ACCMODE) | O_CLOEXEC);
}

int PrivateShmFs::close(int fd) { return ::close(fd); }
int PrivateShmFs::fstat(int fd, struct stat* st) { return ::fstat(fd, st); }
int PrivateShmFs::fchmod(int, mode_t) { return 0; }
int PrivateShmFs::ftruncate(int fd, off_t length) { return ::ftruncate(fd, length); }
void* PrivateShmFs::mmap(size_t length, int prot, int fd) { return system_.mmap(length, prot, fd); }
void* PrivateShmFs::mremap(void* old, size_t oldLength, size_t newLength) {
  return system_.mremap(old, oldLength, newLength);
}
int PrivateShmFs::munmap(void* addr, size_t length) { return ::munmap(addr, length); }
int PrivateShmFs::populateWrite(void* addr, size_t length) { return system_.populateWrite(addr, length); }

int PrivateShmFs::unlink(const char* path) {
  const auto it = files_.find(path);
  if (it == files_.end()) {
    errno = ENOENT;
    return -1;
  }
  ::close(it->second);  // mappings and open descriptors keep the memory
  files_.erase(it);
  return 0;
}

int PrivateShmFs::mkdir(const char*, mode_t) { return 0; }
int PrivateShmFs::flock(int fd, int operation) { return system_.flock(fd, operation); }
int PrivateShmFs::fallocate(int fd, off_t offset, off_t length) { return system_.fallocate(fd, offset, length); }
int PrivateShmFs::punchHole(int fd, off_t offset, off_t length) { return system_.punchHole(fd, offset, length); }
ssize_t PrivateShmFs::pwrite(int fd, const void* data, size_t length, off_t offset) {
  return ::pwrite(fd, data, length, offset);
}

int PrivateShmFs::rename(const char* from, const char* to) {
  const auto it = files_.find(from);
  if (it == files_.end()) {
    errno = ENOENT;
    return -1;
  }
  const int fd = it->second;
  files_.erase(it);
  if (const auto old = files_.find(to); old != files_.end()) {
    ::close(old->second);
    files_.erase(old);
  }
  files_.emplace(to, fd);
  return 0;
}

}  // namespace Mem
