#include "mroute/table/survey/table_survey.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/notify_channel.h"
#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/queue/internal/health_file.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/shm/writer_lock.h"
#include "mroute/table/shm_root.h"

namespace Brume::Survey {

namespace fs = std::filesystem;

std::vector<std::string> listTables(const std::string& rootDir) {
  std::vector<std::string> out;
  std::error_code ec;
  if (!fs::is_directory(rootDir, ec)) return out;
  for (auto it = fs::recursive_directory_iterator(rootDir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (it->is_directory(ec) && fs::exists(it->path() / kSlotFileName, ec)) {
      out.push_back(fs::relative(it->path(), rootDir, ec).string());
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

namespace {

// A path check's message without the class that raised it: the operator
// named a path, not a class.
std::string pathMessage(const std::exception& e) {
  std::string_view text = e.what();
  if (text.starts_with("BrumeMap ")) text.remove_prefix(9);
  return std::string(text);
}

std::string rootOrigin() {
  const char* v = std::getenv(kShmRootVariable);
  return v && *v ? " (set by MROUTE_SHM_ROOT)" : " (the default; MROUTE_SHM_ROOT is not set)";
}

}  // namespace

std::string rootProblem() {
  std::string root;
  try {
    root = shmRootDirectory();
  } catch (const std::exception& e) {
    return pathMessage(e) + " (set it to an absolute directory, or unset it for " + kDefaultShmRoot + ")";
  }
  std::error_code ec;
  const auto st = fs::status(root, ec);
  if (!fs::exists(st)) {
    return "no shared-memory root " + root + rootOrigin() + ": no table was created there yet";
  }
  if (!fs::is_directory(st)) return "the shared-memory root " + root + rootOrigin() + " is not a directory";
  if (::access(root.c_str(), R_OK | X_OK) != 0) {
    return "the shared-memory root " + root + rootOrigin() + " cannot be read: " + std::strerror(errno);
  }
  return "";
}

std::optional<Mem::RootPath> locateTable(const std::string& table, Problem* problem, std::string* error) {
  const size_t slash = table.rfind('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == table.size()) {
    *problem = Problem::badName;
    *error = "'" + table + "' is not a table name: expected <mount path>/<name>, e.g. routing/multicast/fib/route";
    return std::nullopt;
  }
  try {
    shmRoot();
  } catch (const std::exception&) {
    *problem = Problem::notFound;
    *error = "no table '" + table + "': " + rootProblem();
    return std::nullopt;
  }
  std::optional<Mem::RootPath> root;
  try {
    root.emplace(tableRoot(table.substr(0, slash), table.substr(slash + 1)));
  } catch (const std::exception& e) {
    *problem = Problem::badName;
    *error = "'" + table + "' is not a table name: its " + pathMessage(e);
    return std::nullopt;
  }
  std::error_code ec;
  if (fs::exists(root->file(kSlotFileName), ec)) return root;
  *problem = Problem::notFound;
  if (const std::string why = rootProblem(); !why.empty()) {
    *error = "no table '" + table + "': " + why;
  } else if (fs::is_directory(root->dir(), ec)) {
    *error = "no table '" + table + "': its directory has no slot file (its writer never finished creating it)";
  } else {
    *error = "no table '" + table + "' under " + shmRootDirectory() + " (mroutectl tables lists the tables)";
  }
  return std::nullopt;
}

long writerPid(const std::string& dir) {
  struct stat st {};
  if (::stat((dir + "/" + Mem::WriterLock::kFileName).c_str(), &st) != 0) return 0;
  std::ifstream locks("/proc/locks");
  if (!locks) {
    NotifyClient probe(dir);
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

void statQueue(const Mem::RootPath& root, TableStat* s) {
  Mapped q[2];
  const bool have0 = q[0].open(root.file(ConquerTable::kFileNames[0])) &&
                     q[0].file.mappedSize() >= sizeof(ConquerTable::Header);
  if (!have0) return;
  uint32_t cur = conquer::loadCurrentTable(*ConquerTable::header(q[0].file.base()));
  if (cur > 1) return;
  if (cur == 1 && !(q[1].open(root.file(ConquerTable::kFileNames[1])) &&
                    q[1].file.mappedSize() >= sizeof(ConquerTable::Header))) {
    return;
  }
  const void* base = q[cur].file.base();
  const ConquerTable::Header* h = ConquerTable::header(base);
  s->queueFile = ConquerTable::kFileNames[cur];
  s->readers = __atomic_load_n(&h->numReaders, __ATOMIC_RELAXED);
  s->queueCapacity = h->notifications.loadRelaxed().ref;
  s->oldestNeeded = __atomic_load_n(&h->minSeq, __ATOMIC_RELAXED);
  s->shrinking = __atomic_load_n(&h->corralEnd, __ATOMIC_RELAXED) != 0;
  const uint32_t pos = conquer::loadCurrentPos(*h);
  const uint64_t fits = ConquerTable::entriesIn(q[cur].file.mappedSize());
  s->queueEntries = pos;
  if (pos > 0 && pos <= fits) {
    s->newestSequence = conquer::loadSequence(*ConquerTable::entry(base, pos - 1));
  }
}

// The writer's health file, every field read as bytes another process wrote:
// its size, magic and version checked, records bounded by the file, a block
// that stays torn after a few tries reported instead of shown.
void statHealth(const Mem::RootPath& root, TableStat* s) {
  Mapped f;
  if (!f.file.open(root.file(kHealthFileName), Mem::ShmAccess::readOnly)) return;
  const int64_t size = f.file.fileSize();
  if (size < static_cast<int64_t>(sizeof(HealthFile::Header)) || !f.file.map(static_cast<size_t>(size))) {
    s->healthProblem = "health file too short";
    return;
  }
  constexpr int kTries = 100;
  const auto& raw = *reinterpret_cast<const HealthFile::Header*>(f.file.base());
  HealthFile::Header h{};
  bool whole = false;
  for (int i = 0; i < kTries && !whole; ++i) whole = health::readBlock(raw, raw.generation, &h);
  if (!whole) {
    s->healthProblem = "health file kept changing while read";
    return;
  }
  if (std::memcmp(h.magic, HealthFile::kMagic, sizeof h.magic) != 0 || h.version != HealthFile::kVersion) {
    s->healthProblem = "health file has a bad magic or version";
    return;
  }
  TableStat::Health out;
  out.writerPid = h.writerPid;
  out.compactions = h.compactions;
  out.lastCompactionNs = h.lastCompactionNs;
  out.lastCompactionKept = h.lastCompactionKept;
  out.corruptionReports = h.corruptionReports;
  out.lastReportNs = h.lastReportNs;
  out.lastReport.assign(h.lastReport, strnlen(h.lastReport, sizeof h.lastReport));
  out.readersDropped = h.readersDropped;
  out.unlisted = h.unlisted;
  const uint64_t fits = (static_cast<uint64_t>(size) - sizeof(HealthFile::Header)) / sizeof(HealthFile::Reader);
  const uint64_t records = std::min<uint64_t>({h.records, fits, HealthFile::kMaxReaders});
  for (uint32_t i = 0; i < records; ++i) {
    const HealthFile::Reader& rr = *HealthFile::reader(f.file.base(), i);
    HealthFile::Reader r{};
    whole = false;
    for (int t = 0; t < kTries && !whole; ++t) whole = health::readBlock(rr, rr.generation, &r);
    if (!whole) continue;
    const char* state = nullptr;
    switch (static_cast<HealthFile::ReaderState>(r.state)) {
      case HealthFile::ReaderState::connected: state = "connected"; break;
      case HealthFile::ReaderState::gone: state = "gone"; break;
      case HealthFile::ReaderState::dropped: state = "dropped"; break;
      default: break;
    }
    if (state == nullptr) continue;  // free, or a state this tool does not know
    out.readers.push_back({r.pid, state, r.connectedNs, r.goneNs, r.lastAck != HealthFile::kNoAck,
                           r.lastAck == HealthFile::kNoAck ? 0 : r.lastAck, r.restarts, r.lookasideReads,
                           r.resyncs});
  }
  s->health = std::move(out);
}

}  // namespace

TableStat statTable(const std::string& table) {
  TableStat s;
  s.table = table;
  const size_t slash = table.rfind('/');
  const Mem::RootPath root = tableRoot(table.substr(0, slash), table.substr(slash + 1));
  s.dir = root.dir();
  readEmber(Mem::systemShmFs(), root, &s.ember);
  s.corruptionReported = corruptionMarkerPresent(Mem::systemShmFs(), root);
  Mapped slots;
  if (slots.open(root.file(kSlotFileName)) && slots.file.mappedSize() >= sizeof(SlotTable::Header)) {
    const auto* h = reinterpret_cast<const SlotTable::Header*>(slots.file.base());
    s.readable = true;
    s.valueType.assign(h->valueType, strnlen(h->valueType, sizeof h->valueType));
    s.classType.assign(h->classType, strnlen(h->classType, sizeof h->classType));
    s.valueSize = h->valueSize;
    s.capacity = h->numSlots.load().ref;
    s.maxSlots = h->maxSlots;
    s.entries = __atomic_load_n(&h->occupiedSlots, __ATOMIC_RELAXED);
    s.fileEmber = h->ember;
    s.fixedCapacity = (h->config & kConfigFixedCapacity) != 0;
    s.shrinks = (h->config & kConfigShrinkSlots) != 0;
  }
  statQueue(root, &s);
  statHealth(root, &s);
  s.writerPid = writerPid(s.dir);
  return s;
}

}  // namespace Brume::Survey
