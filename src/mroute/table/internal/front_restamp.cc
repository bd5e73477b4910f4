#include "mroute/table/internal/front_restamp.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/shm/writer_lock.h"

namespace Brume {

namespace {

// Every table file starts with an 8-byte magic, a u32 version and the u32
// ember of the incarnation that formatted it.
constexpr size_t kMagicSize = 8;
constexpr size_t kEmberOffset = 12;
constexpr size_t kStampedBytes = 16;

// Stores `ember` in the header when it carries `old` under `magic`.
void stamp(Mem::ShmFs& fs, const std::string& path, const char* magic, uint32_t old, uint32_t ember) {
  Mem::ShmFile file(fs);
  if (!file.open(path, Mem::ShmAccess::readWrite)) return;
  if (file.fileSize() < static_cast<int64_t>(kStampedBytes) || !file.map(kStampedBytes)) return;
  if (std::memcmp(file.base(), magic, kMagicSize) != 0) return;
  auto* word = reinterpret_cast<uint32_t*>(file.base() + kEmberOffset);
  std::atomic_ref<uint32_t> ref(*word);
  if (ref.load(std::memory_order_relaxed) != old) return;
  ref.store(ember, std::memory_order_release);
}

}  // namespace

bool restampIncarnation(Mem::ShmFs& fs, const Mem::RootPath& root, uint32_t ember, std::string* why) {
  uint32_t old = 0;
  if (!readEmber(fs, root, &old) || old == ember) return true;
  Mem::WriterLock lock(root.dir(), fs);
  if (!lock.tryLock()) {
    *why = lock.error();
    return false;
  }
  stamp(fs, root.file(kSlotFileName), "BRUMESLT", old, ember);
  stamp(fs, root.file(kBucketFileName), "BRUMEBKT", old, ember);
  stamp(fs, root.file(ConquerTable::kFileNames[0]), "BRUMECQR", old, ember);
  stamp(fs, root.file(ConquerTable::kFileNames[1]), "BRUMECQR", old, ember);
  if (!writeEmber(fs, root, ember, why)) return false;
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "BrumeMap restamped " << root.dir() << " from emberId: " << old << " to emberId: " << ember);
  return true;
}

}  // namespace Brume

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace Brume {

bool AttachLock::acquire() {
  if (fd_ >= 0) return true;
  // Through the table files' opens: no link is followed, no FIFO waited on.
  fd_ = Mem::systemShmFs().open(path_.c_str(), O_RDWR | O_CREAT, Mem::kTableFileMode);
  if (fd_ < 0) {
    error_ = Mem::callError("open", path_, errno);
    return false;
  }
  while (::flock(fd_, LOCK_EX) != 0) {
    if (errno != EINTR) {
      error_ = Mem::callError("flock", path_, errno);
      release();
      return false;
    }
  }
  return true;
}

void AttachLock::release() {
  if (fd_ >= 0) ::close(fd_);  // drops the lock
  fd_ = -1;
}

bool AttachLock::busy(const Mem::RootPath& root) {
  const int fd = Mem::systemShmFs().open(root.file(kFileName).c_str(), O_RDONLY, 0);
  if (fd < 0) return false;
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return held;
}

}  // namespace Brume
