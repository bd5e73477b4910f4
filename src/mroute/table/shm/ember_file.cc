#include "mroute/table/shm/ember_file.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>

#include "mroute/table/shm/brume_hash.h"

namespace Brume {

uint32_t processEmberId() {
  static const uint32_t id = [] {
    struct {
      uint64_t now;
      uint64_t random;
      uint32_t pid;
      uint32_t pad;
    } seed{static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()),
           (uint64_t{std::random_device{}()} << 32) | std::random_device{}(), static_cast<uint32_t>(::getpid()), 0};
    const uint32_t h = bytesHash(&seed, sizeof seed);
    return h != 0 ? h : 1u;
  }();
  return id;
}

bool readEmber(Mem::ShmFs& fs, const Mem::RootPath& root, uint32_t* ember) {
  return readEmberIn(fs, root.dir(), ember);
}

bool readEmberIn(Mem::ShmFs& fs, const std::string& directory, uint32_t* ember) {
  Mem::ShmFile file(fs);
  if (!file.open(Mem::joinPath(directory, kEmberFileName), Mem::ShmAccess::readOnly)) return false;
  if (file.fileSize() != sizeof(uint32_t) || !file.map(sizeof(uint32_t))) return false;
  // The writer stores the word atomically; a concurrent rewrite is seen
  // whole or not at all.
  const uint32_t v = std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t*>(file.base())).load(
      std::memory_order_acquire);
  if (v == 0) return false;
  *ember = v;
  return true;
}

bool writeEmber(Mem::ShmFs& fs, const Mem::RootPath& root, uint32_t ember, std::string* error) {
  Mem::ShmFile file(fs);
  bool created = false;
  // The page is reserved before the store: a full file system fails here.
  if (!file.openOrCreate(root.file(kEmberFileName), &created) || !file.reserve(sizeof(uint32_t)) ||
      !file.map(sizeof(uint32_t))) {
    if (error != nullptr) *error = file.error();
    return false;
  }
  std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t*>(file.base())).store(ember, std::memory_order_release);
  return true;
}

void writeCorruptionMarker(Mem::ShmFs& fs, const Mem::RootPath& root, const std::string& finding) {
  // Written, not stored through a mapping: a full file system is an error.
  Mem::writeWholeFile(fs, root.file(kCorruptionMarkerName), finding + "\n", nullptr);
}

bool removeCorruptionMarker(Mem::ShmFs& fs, const Mem::RootPath& root) {
  return Mem::unlinkShmFile(fs, root.file(kCorruptionMarkerName), nullptr);
}

bool corruptionMarkerPresent(Mem::ShmFs& fs, const Mem::RootPath& root) {
  Mem::ShmFile file(fs);
  return file.open(root.file(kCorruptionMarkerName), Mem::ShmAccess::readOnly);
}

}  // namespace Brume
