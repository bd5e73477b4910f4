// Table files in the shared-memory file system: open, create, size, map,
// remap, unmap, unlink.
//
// All operating-system access of the table code goes through Mem::ShmFs, a
// narrow seam whose default implementation makes the real system calls; tests
// derive from SystemShmFs and override one call to inject a failure.
//
// Mem::ShmFile is one named file of a table directory and its mapping: shared
// and read-write for the writer, shared and read-only for readers. A reader
// maps no more than the file holds (touching a mapping past the end of a file
// faults), so it maps what the header says and remaps when the writer grew
// the file.
//
// Thread-safety: a ShmFile is used by one thread. The mapped bytes are shared
// with other processes; their protocol is the business of the table code.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Mem {

// Modes of what the writer creates: readers in the writer's group may map the
// table files; nobody else may read or write them.
inline constexpr mode_t kTableFileMode = 0640;
inline constexpr mode_t kTableDirMode = 0750;
inline constexpr mode_t kLockFileMode = 0600;

// The system calls behind the table files. Each returns what the system call
// returns (-1 or MAP_FAILED with errno set on failure).
//
// Other processes can put anything in a table's directory. So opens never
// follow a symbolic link in the last component (ELOOP: nothing is written
// through a link to a file elsewhere) and never wait (a FIFO opens at once,
// or fails with ENXIO, instead of hanging the caller); regular files are not
// affected by either.
class ShmFs {
 public:
  virtual ~ShmFs() = default;
  virtual int open(const char* path, int flags, mode_t mode) = 0;
  virtual int close(int fd) = 0;
  virtual int fstat(int fd, struct stat* st) = 0;
  virtual int fchmod(int fd, mode_t mode) = 0;
  virtual int ftruncate(int fd, off_t length) = 0;
  // MAP_SHARED mapping of [0, length) of fd.
  virtual void* mmap(size_t length, int prot, int fd) = 0;
  // Resizes a mapping, allowing it to move (MREMAP_MAYMOVE).
  virtual void* mremap(void* old, size_t oldLength, size_t newLength) = 0;
  virtual int munmap(void* addr, size_t length) = 0;
  virtual int unlink(const char* path) = 0;
  virtual int mkdir(const char* path, mode_t mode) = 0;
  virtual int flock(int fd, int operation) = 0;
  // Reserves the pages of [offset, offset + length), extending the file when
  // it is shorter (posix_fallocate). -1 with errno (ENOSPC when the file
  // system is full) on failure; the file is then as it was.
  virtual int fallocate(int fd, off_t offset, off_t length) = 0;
  // Gives the pages of [offset, offset + length) back to the file system;
  // the file keeps its length and the range reads as zeros.
  virtual int punchHole(int fd, off_t offset, off_t length) = 0;
  virtual ssize_t pwrite(int fd, const void* data, size_t length, off_t offset) = 0;
  // Atomically replaces `to` by `from` (rename(2)).
  virtual int rename(const char* from, const char* to) = 0;
  // Maps in the pages of [addr, addr + length) of a writable shared mapping
  // (madvise MADV_POPULATE_WRITE), so that the first store to each takes no
  // page fault. -1 with errno on failure: EINVAL where the kernel lacks it,
  // EFAULT where a page is not backed (the call reports it instead of
  // raising a signal).
  virtual int populateWrite(void* addr, size_t length) = 0;
};

// The real system calls.
class SystemShmFs : public ShmFs {
 public:
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
};

// The process's SystemShmFs.
ShmFs& systemShmFs();

enum class ShmAccess { readOnly, readWrite };

class ShmFile {
 public:
  explicit ShmFile(ShmFs& fs = systemShmFs()) : fs_(&fs) {}
  ~ShmFile() { close(); }
  ShmFile(const ShmFile&) = delete;
  ShmFile& operator=(const ShmFile&) = delete;
  ShmFile(ShmFile&& other) noexcept;
  ShmFile& operator=(ShmFile&& other) noexcept;

  // Opens an existing file. False when it is missing (error() then starts
  // with "no such file") or cannot be opened.
  // REQUIRES: !isOpen()
  bool open(const std::string& path, ShmAccess access);
  // Writer: opens the file read-write, creating it with `mode` when missing;
  // *created tells which happened. A created file is empty.
  // REQUIRES: !isOpen()
  bool openOrCreate(const std::string& path, bool* created, mode_t mode = kTableFileMode);

  // Length of the file now (another process may change it), or -1.
  int64_t fileSize() const;
  // Writer: sets the length of the file; new bytes read as zero. Only for
  // files nobody maps yet: a shorter file faults the mappings of readers,
  // and new bytes are not reserved (see reserve()).
  bool truncate(uint64_t bytes);
  // Writer: makes the file at least `bytes` long with every page of
  // [0, bytes) reserved, so that stores through a mapping can never fault
  // for want of space. Fails, leaving the file as it was, when the file
  // system is full (error() then says so).
  bool reserve(uint64_t bytes);
  // Writer: returns the pages of [from, end of file) to the file system. The
  // length stays, so readers' mappings stay valid (the range reads as zeros).
  bool release(uint64_t from);
  // Writer: maps in the pages of [from, from + bytes) of the mapping ahead of
  // use, so that stores on a hot path do not each take a first-touch page
  // fault. Only for reserved pages. Best effort: false (error() says why)
  // when the kernel cannot do it; the pages are then faulted in on first use
  // as before, so callers may ignore the result.
  // REQUIRES: isMapped() && writable()
  bool populate(uint64_t from, uint64_t bytes);
  // Writer: creates a fresh file beside `path` (replacement(path)) holding
  // `bytes` reserved zero bytes, and maps it. publishAs() then puts it in
  // place of `path` in one step: processes that map the old file keep it
  // whole, new ones open the fresh one.
  // REQUIRES: !isOpen()
  bool createReplacement(const std::string& path, uint64_t bytes);
  bool publishAs(const std::string& path);

  // Maps [0, bytes) of the file.
  // REQUIRES: isOpen() && !isMapped() && bytes > 0
  // Fails without mapping when the file is shorter than `bytes`.
  bool map(size_t bytes);
  // Maps [0, bytes) instead of the current range; the base may move.
  // REQUIRES: isMapped() && bytes > 0; fails, keeping the old mapping, when
  // the file is shorter than `bytes`.
  bool remap(size_t bytes);
  void unmap();
  // Unmaps and closes.
  void close();

  bool isOpen() const { return fd_ >= 0; }
  bool isMapped() const { return base_ != nullptr; }
  bool writable() const { return access_ == ShmAccess::readWrite; }
  uint8_t* base() const { return base_; }
  size_t mappedSize() const { return mapped_; }
  // Whether the file shrank under a mapping of it since it was opened: a
  // page past the new end was touched, and reads as zeros from then on (see
  // BusGuard).
  bool shrankUnderMapping() const;
  // "<path> shrank under the writer's mapping: another process truncated it",
  // the reason the writer's reports give.
  std::string shrankText() const {
    return path_ + " shrank under the writer's mapping: another process truncated it";
  }
  const std::string& path() const { return path_; }
  // Why the last failed call failed, e.g. "mmap(/dev/shm/t/slots): Cannot
  // allocate memory".
  const std::string& error() const { return error_; }

 private:
  bool fail(const char* call);
  // Closes a descriptor that is not a regular file (error() says what it is).
  bool requireRegular();
  void watch();
  void forget();

  ShmFs* fs_;
  int fd_ = -1;
  ShmAccess access_ = ShmAccess::readOnly;
  uint8_t* base_ = nullptr;
  size_t mapped_ = 0;
  int watch_ = -1;         // BusGuard's id of the mapping
  bool shrank_ = false;    // a mapping before the current one faulted
  std::string path_;
  std::string error_;
};

// "<call>(<path>): <errno text>", with what the error means for a table file
// where that is not obvious (a full file system, a link, a FIFO).
std::string callError(const char* call, const std::string& path, int err);

// The name under which a replacement of `path` is prepared.
std::string replacementPath(const std::string& path);

// Writes `text` as the whole content of the file at `path` with write(2),
// never through a mapping, so that a full file system is an error instead of
// a fault. Creates the file (mode kTableFileMode) when missing.
bool writeWholeFile(ShmFs& fs, const std::string& path, const std::string& text, std::string* error);

// Removes a file from its directory; processes that map it keep their
// mapping. A missing file counts as removed.
bool unlinkShmFile(ShmFs& fs, const std::string& path, std::string* error);

// Creates `path` and any missing parents with kTableDirMode.
bool makeDirectories(ShmFs& fs, const std::string& path, std::string* error);

// "<directory>/<name>" without doubling the slash.
std::string joinPath(const std::string& directory, const std::string& name);

// The length a reader checks a file's header against. A writer grows a file
// before it publishes the larger count, and readers remap before they use the
// new part, so the file's current length counts, not the older mapping. A
// mapping too short for the header keeps its own size (and fails the check).
size_t lengthForHeaderCheck(const ShmFile& file, size_t headerBytes);

// Runs check(length) against the file's current length, and again when it
// fails: the length is read before the header's count, so a growth between
// the two reads pairs an old length with the new count. A real fault fails
// every time.
template <class Check>
bool checkAgainstCurrentLength(const ShmFile& file, size_t headerBytes, Check&& check) {
  constexpr int kAttempts = 3;
  for (int attempt = 1; attempt < kAttempts; ++attempt) {
    if (check(lengthForHeaderCheck(file, headerBytes))) return true;
  }
  return check(lengthForHeaderCheck(file, headerBytes));
}

}  // namespace Mem
