#include "table_access.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/shm/writer_lock.h"
#include "mroute/table/notify_channel.h"
#include "mroute/table/shm_root.h"

namespace Mroutectl {

namespace fs = std::filesystem;

std::vector<std::string> findTables(const std::string& rootDir) {
  std::vector<std::string> out;
  std::error_code ec;
  if (!fs::is_directory(rootDir, ec)) return out;
  for (auto it = fs::recursive_directory_iterator(rootDir, ec); it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (ec) break;
    if (it->is_directory(ec) && fs::exists(it->path() / Brume::kSlotFileName, ec)) {
      out.push_back(fs::relative(it->path(), rootDir, ec).string());
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

bool splitTable(const std::string& table, std::string* mount, std::string* name) {
  const size_t slash = table.rfind('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == table.size()) return false;
  *mount = table.substr(0, slash);
  *name = table.substr(slash + 1);
  return true;
}

namespace {

// A read-only mapping of a whole file.
struct Mapped {
  Mem::ShmFile file;
  bool open(const std::string& path) {
    if (!file.open(path, Mem::ShmAccess::readOnly)) return false;
    const int64_t size = file.fileSize();
    return size > 0 && file.map(static_cast<size_t>(size));
  }
};

}  // namespace

long writerPid(const std::string& dir) {
  struct stat st {};
  if (::stat((dir + "/" + Mem::WriterLock::kFileName).c_str(), &st) != 0) return 0;
  std::ifstream locks("/proc/locks");
  if (!locks) {
    Brume::NotifyClient probe(dir);
    return probe.connect() ? -1 : 0;
  }
  // "1: FLOCK  ADVISORY  WRITE 21466 00:1b:55246 0 EOF": the device as hex
  // major:minor, then the inode.
  std::string line;
  while (std::getline(locks, line)) {
    std::istringstream in(line);
    std::string id, kind, mode, access, device;
    long pid = 0;
    if (!(in >> id >> kind >> mode >> access >> pid >> device) || kind != "FLOCK") continue;
    unsigned maj = 0, min = 0;
    unsigned long long ino = 0;
    if (std::sscanf(device.c_str(), "%x:%x:%llu", &maj, &min, &ino) != 3) continue;
    if (maj == major(st.st_dev) && min == minor(st.st_dev) && ino == st.st_ino) return pid;
  }
  return 0;
}

std::optional<Mem::RootPath> locateTable(const std::string& table, std::string* error) {
  std::string mount, name;
  if (!splitTable(table, &mount, &name)) {
    *error = "'" + table + "' is not <mount path>/<name>";
    return std::nullopt;
  }
  std::optional<Mem::RootPath> root;
  try {
    root.emplace(Brume::tableRoot(mount, name));
  } catch (const std::exception& e) {
    *error = e.what();
    return std::nullopt;
  }
  std::error_code ec;
  if (!fs::exists(root->file(Brume::kSlotFileName), ec)) {
    *error = "no table '" + table + "' under " + Brume::shmRootDirectory() +
             (fs::is_directory(root->dir(), ec) ? " (its directory has no slot file)" : "");
    return std::nullopt;
  }
  return root;
}

TableSummary summarize(const std::string& table) {
  TableSummary s;
  s.table = table;
  std::string mount, name;
  splitTable(table, &mount, &name);
  const Mem::RootPath root = Brume::tableRoot(mount, name);
  s.dir = root.dir();
  Brume::readEmber(Mem::systemShmFs(), root, &s.ember);
  s.corruptionReported = Brume::corruptionMarkerPresent(Mem::systemShmFs(), root);
  Mapped slots;
  if (slots.open(root.file(Brume::kSlotFileName)) &&
      slots.file.mappedSize() >= sizeof(Brume::SlotTable::Header)) {
    const auto* h = reinterpret_cast<const Brume::SlotTable::Header*>(slots.file.base());
    s.readable = true;
    s.valueType.assign(h->valueType, strnlen(h->valueType, sizeof h->valueType));
    s.valueSize = h->valueSize;
    s.capacity = h->numSlots.load().ref;
    s.maxSlots = h->maxSlots;
    s.members = __atomic_load_n(&h->occupiedSlots, __ATOMIC_RELAXED);
    s.fileEmber = h->ember;
  }
  Mapped q0;
  if (q0.open(root.file(Brume::ConquerTable::kFileNames[0])) &&
      q0.file.mappedSize() >= sizeof(Brume::ConquerTable::Header)) {
    const uint32_t cur = Brume::conquer::loadCurrentTable(*Brume::ConquerTable::header(q0.file.base()));
    Mapped qc;
    const Brume::ConquerTable::Header* h = Brume::ConquerTable::header(q0.file.base());
    if (cur == 1 && qc.open(root.file(Brume::ConquerTable::kFileNames[1])) &&
        qc.file.mappedSize() >= sizeof(Brume::ConquerTable::Header)) {
      h = Brume::ConquerTable::header(qc.file.base());
    }
    s.readers = __atomic_load_n(&h->numReaders, __ATOMIC_RELAXED);
  }
  s.writerPid = writerPid(s.dir);
  return s;
}

}  // namespace Mroutectl
