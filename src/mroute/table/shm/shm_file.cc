#include "mroute/table/shm/shm_file.h"

#include "mroute/table/shm/bus_guard.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Mem {

int SystemShmFs::open(const char* path, int flags, mode_t mode) {
  return ::open(path, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, mode);
}
int SystemShmFs::close(int fd) { return ::close(fd); }
int SystemShmFs::fstat(int fd, struct stat* st) { return ::fstat(fd, st); }
int SystemShmFs::fchmod(int fd, mode_t mode) { return ::fchmod(fd, mode); }
int SystemShmFs::ftruncate(int fd, off_t length) { return ::ftruncate(fd, length); }
void* SystemShmFs::mmap(size_t length, int prot, int fd) {
  return ::mmap(nullptr, length, prot, MAP_SHARED, fd, 0);
}
void* SystemShmFs::mremap(void* old, size_t oldLength, size_t newLength) {
  return ::mremap(old, oldLength, newLength, MREMAP_MAYMOVE);
}
int SystemShmFs::munmap(void* addr, size_t length) { return ::munmap(addr, length); }
int SystemShmFs::unlink(const char* path) { return ::unlink(path); }
int SystemShmFs::mkdir(const char* path, mode_t mode) { return ::mkdir(path, mode); }
int SystemShmFs::flock(int fd, int operation) {
  int rc;
  do {
    rc = ::flock(fd, operation);
  } while (rc < 0 && errno == EINTR);
  return rc;
}

int SystemShmFs::fallocate(int fd, off_t offset, off_t length) {
  const int rc = ::posix_fallocate(fd, offset, length);
  if (rc == 0) return 0;
  errno = rc;
  return -1;
}
int SystemShmFs::punchHole(int fd, off_t offset, off_t length) {
  return ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, length);
}
ssize_t SystemShmFs::pwrite(int fd, const void* data, size_t length, off_t offset) {
  return ::pwrite(fd, data, length, offset);
}
int SystemShmFs::rename(const char* from, const char* to) { return ::rename(from, to); }
int SystemShmFs::populateWrite(void* addr, size_t length) {
#ifdef MADV_POPULATE_WRITE
  return ::madvise(addr, length, MADV_POPULATE_WRITE);
#else
  (void)addr;
  (void)length;
  errno = EINVAL;
  return -1;
#endif
}

ShmFs& systemShmFs() {
  static SystemShmFs fs;
  return fs;
}

std::string callError(const char* call, const std::string& path, int err) {
  std::string text = std::string(call) + "(" + path + "): " + std::strerror(err);
  if (err == ENOSPC) text += " (the file system is full)";
  if (err == ELOOP) text += " (a symbolic link: table files are never links)";
  if (err == ENXIO) text += " (a FIFO or device, not a regular file)";
  return text;
}

namespace {

}  // namespace

ShmFile::ShmFile(ShmFile&& other) noexcept
    : fs_(other.fs_),
      fd_(std::exchange(other.fd_, -1)),
      access_(other.access_),
      base_(std::exchange(other.base_, nullptr)),
      mapped_(std::exchange(other.mapped_, 0)),
      watch_(std::exchange(other.watch_, -1)),
      shrank_(std::exchange(other.shrank_, false)),
      path_(std::move(other.path_)),
      error_(std::move(other.error_)) {}

ShmFile& ShmFile::operator=(ShmFile&& other) noexcept {
  if (this != &other) {
    close();
    fs_ = other.fs_;
    fd_ = std::exchange(other.fd_, -1);
    access_ = other.access_;
    base_ = std::exchange(other.base_, nullptr);
    mapped_ = std::exchange(other.mapped_, 0);
    watch_ = std::exchange(other.watch_, -1);
    shrank_ = std::exchange(other.shrank_, false);
    path_ = std::move(other.path_);
    error_ = std::move(other.error_);
  }
  return *this;
}

void ShmFile::watch() { watch_ = BusGuard::watch(base_, mapped_, writable()); }

void ShmFile::forget() {
  shrank_ = shrank_ || BusGuard::faulted(watch_);
  BusGuard::forget(std::exchange(watch_, -1));
}

bool ShmFile::shrankUnderMapping() const { return shrank_ || BusGuard::faulted(watch_); }

bool ShmFile::fail(const char* call) {
  error_ = callError(call, path_, errno);
  return false;
}

bool ShmFile::open(const std::string& path, ShmAccess access) {
  path_ = path;
  access_ = access;
  const int flags = access == ShmAccess::readWrite ? O_RDWR : O_RDONLY;
  fd_ = fs_->open(path.c_str(), flags, 0);
  if (fd_ < 0) {
    if (errno == ENOENT) {
      error_ = "no such file: " + path;
      return false;
    }
    return fail("open");
  }
  return requireRegular();
}

bool ShmFile::requireRegular() {
  struct stat st {};
  if (fs_->fstat(fd_, &st) < 0) {
    fail("fstat");
    close();
    return false;
  }
  if (S_ISREG(st.st_mode)) return true;
  const char* kind = S_ISDIR(st.st_mode) ? "a directory" : S_ISFIFO(st.st_mode) ? "a FIFO"
                     : S_ISSOCK(st.st_mode)                          ? "a socket"
                     : S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)     ? "a device"
                                                                     : "not a file";
  error_ = path_ + " is " + kind + ", not a regular file: another process put it in place of a table file";
  close();
  return false;
}

bool ShmFile::openOrCreate(const std::string& path, bool* created, mode_t mode) {
  path_ = path;
  access_ = ShmAccess::readWrite;
  *created = false;
  fd_ = fs_->open(path.c_str(), O_RDWR, 0);
  if (fd_ >= 0) return requireRegular();
  if (errno != ENOENT) return fail("open");
  // O_EXCL: of two writers racing to create, one loses and opens the file the
  // other made (the writer lock normally keeps the second one out anyway).
  fd_ = fs_->open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, mode);
  if (fd_ < 0) {
    if (errno == EEXIST) return open(path, ShmAccess::readWrite);
    return fail("open");
  }
  *created = true;
  // The umask may have taken away the group's read bit that readers need.
  if (fs_->fchmod(fd_, mode) < 0) {
    fail("fchmod");
    close();
    return false;
  }
  return true;
}

int64_t ShmFile::fileSize() const {
  struct stat st {};
  if (fd_ < 0 || fs_->fstat(fd_, &st) < 0) return -1;
  return st.st_size;
}

bool ShmFile::truncate(uint64_t bytes) {
  if (fs_->ftruncate(fd_, static_cast<off_t>(bytes)) < 0) return fail("ftruncate");
  return true;
}

bool ShmFile::reserve(uint64_t bytes) {
  if (bytes == 0) return true;
  if (fs_->fallocate(fd_, 0, static_cast<off_t>(bytes)) < 0) return fail("fallocate");
  return true;
}

bool ShmFile::release(uint64_t from) {
  const int64_t size = fileSize();
  if (size < 0) return fail("fstat");
  if (static_cast<uint64_t>(size) <= from) return true;
  if (fs_->punchHole(fd_, static_cast<off_t>(from), static_cast<off_t>(size - from)) < 0) return fail("fallocate");
  return true;
}

bool ShmFile::populate(uint64_t from, uint64_t bytes) {
  const uint64_t end = std::min<uint64_t>(from + bytes, mapped_);
  if (base_ == nullptr || from >= end) return true;
  // madvise wants a page-aligned start; the mapping's base is one.
  const uint64_t page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  const uint64_t start = from - from % page;
  if (fs_->populateWrite(base_ + start, static_cast<size_t>(end - start)) < 0) return fail("madvise");
  return true;
}

bool ShmFile::createReplacement(const std::string& path, uint64_t bytes) {
  const std::string fresh = replacementPath(path);
  // Left over by a writer that died while preparing one.
  fs_->unlink(fresh.c_str());
  bool created = false;
  if (!openOrCreate(fresh, &created)) return false;
  if (!reserve(bytes) || !map(static_cast<size_t>(bytes))) {
    const std::string why = error_;
    close();
    fs_->unlink(fresh.c_str());
    error_ = why;
    return false;
  }
  return true;
}

bool ShmFile::publishAs(const std::string& path) {
  if (fs_->rename(path_.c_str(), path.c_str()) < 0) {
    const bool failed = fail("rename");
    fs_->unlink(path_.c_str());
    close();
    return failed;
  }
  path_ = path;
  return true;
}

bool ShmFile::map(size_t bytes) {
  const int64_t size = fileSize();
  if (size < 0) return fail("fstat");
  if (static_cast<uint64_t>(size) < bytes) {
    error_ = "mmap(" + path_ + "): file holds " + std::to_string(size) + " bytes, " +
             std::to_string(bytes) + " wanted";
    return false;
  }
  const int prot = access_ == ShmAccess::readWrite ? PROT_READ | PROT_WRITE : PROT_READ;
  void* p = fs_->mmap(bytes, prot, fd_);
  if (p == MAP_FAILED) return fail("mmap");
  base_ = static_cast<uint8_t*>(p);
  mapped_ = bytes;
  watch();
  return true;
}

bool ShmFile::remap(size_t bytes) {
  if (bytes == mapped_) return true;
  const int64_t size = fileSize();
  if (size < 0) return fail("fstat");
  if (static_cast<uint64_t>(size) < bytes) {
    error_ = "mremap(" + path_ + "): file holds " + std::to_string(size) + " bytes, " +
             std::to_string(bytes) + " wanted";
    return false;
  }
  // The range may move: it is watched again where it lands.
  forget();
  void* p = fs_->mremap(base_, mapped_, bytes);
  if (p == MAP_FAILED) {
    const bool failed = fail("mremap");
    watch();
    return failed;
  }
  base_ = static_cast<uint8_t*>(p);
  mapped_ = bytes;
  watch();
  return true;
}

void ShmFile::unmap() {
  forget();
  if (base_ != nullptr) fs_->munmap(base_, mapped_);
  base_ = nullptr;
  mapped_ = 0;
}

void ShmFile::close() {
  unmap();
  if (fd_ >= 0) fs_->close(fd_);
  fd_ = -1;
  shrank_ = false;
}

std::string replacementPath(const std::string& path) { return path + ".fresh"; }

bool writeWholeFile(ShmFs& fs, const std::string& path, const std::string& text, std::string* error) {
  const int fd = fs.open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, kTableFileMode);
  if (fd < 0) {
    if (error != nullptr) *error = callError("open", path, errno);
    return false;
  }
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = fs.pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (error != nullptr) *error = callError("write", path, n < 0 ? errno : EIO);
      fs.close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  fs.close(fd);
  return true;
}

bool unlinkShmFile(ShmFs& fs, const std::string& path, std::string* error) {
  if (fs.unlink(path.c_str()) == 0 || errno == ENOENT) return true;
  if (error != nullptr) *error = callError("unlink", path, errno);
  return false;
}

bool makeDirectories(ShmFs& fs, const std::string& path, std::string* error) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    const std::string prefix = path.substr(0, pos);
    if (fs.mkdir(prefix.c_str(), kTableDirMode) < 0 && errno != EEXIST) {
      if (error != nullptr) *error = callError("mkdir", prefix, errno);
      return false;
    }
  }
  return true;
}

std::string joinPath(const std::string& directory, const std::string& name) {
  if (!directory.empty() && directory.back() == '/') return directory + name;
  return directory + "/" + name;
}

size_t lengthForHeaderCheck(const ShmFile& file, size_t headerBytes) {
  const int64_t size = file.fileSize();
  if (file.mappedSize() < headerBytes || size <= 0) return file.mappedSize();
  return std::max(file.mappedSize(), static_cast<size_t>(size));
}

}  // namespace Mem
