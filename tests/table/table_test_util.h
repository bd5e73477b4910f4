// Helpers of the table tests: a private table directory per test, a test
// record that carries its key, a version and a checksum, raw access to table
// and queue files behind the writer's back (to corrupt them), a file system
// that fails on demand, and the front's record table with short timers.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "mroute/table/brume_map.h"
#include "mroute/table/engine/brume_ops.h"
#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/engine/table_config.h"
#include "mroute/table/engine/value_wrapper.h"
#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/shm/brume_hash.h"
#include "mroute/table/shm/root_path.h"
#include "mroute/table/shm/shm_file.h"
#include "testing/shm_root_scope.h"

namespace TableTest {

// A scratch table directory (see Testing::ScratchDir) as a table root.
class TempRoot : public Testing::ScratchDir {
 public:
  explicit TempRoot(const std::string& tag = "t") : ScratchDir(tag) {}
  Mem::RootPath root() const { return Mem::RootPath(dir()); }
  std::string file(const std::string& name) const { return dir() + "/" + name; }
};

// The value of the self-checking tests: every word of the payload is derived
// from (key, version), so a torn copy or a value under the wrong key fails
// check().
struct Record {
  uint64_t key = 0;
  uint64_t version = 0;
  uint64_t payload[8] = {};
  uint64_t checksum = 0;

  static Record make(uint64_t key, uint64_t version) {
    Record r;
    r.key = key;
    r.version = version;
    for (int i = 0; i < 8; ++i) r.payload[i] = (key * 0x9E3779B97F4A7C15ull) ^ (version + i);
    r.checksum = r.sum();
    return r;
  }
  uint64_t sum() const {
    return Brume::bytesHash(this, offsetof(Record, checksum)) ^ (key << 32) ^ version;
  }
  bool check() const { return checksum == sum(); }
};

using RecordValue = KivBrume::KivBrumeMapValueWrapper<Record, uint64_t, &Record::key>;
using RecordOps = Brume::DefaultOps<uint64_t, RecordValue>;
using Writer = Brume::BrumeWriter<RecordOps>;
using Reader = Brume::BrumeReader<RecordOps>;
using RecordMap = Brume::BrumeMap<uint64_t, RecordValue, RecordOps>;

// The stored value of key at version.
inline RecordValue value(uint64_t key, uint64_t version = 1) { return RecordValue(Record::make(key, version)); }

// A table "test" that starts with `initial` slots and may grow to `max`.
inline Brume::TableConfig config(uint32_t initial, uint32_t max = 1u << 16) {
  Brume::TableConfig c;
  c.name = "test";
  c.initialSize = initial;
  c.maxSize = max;
  return c;
}

// The same table giving slots back, down to `min`, as it empties.
inline Brume::TableConfig shrinking(uint32_t initial, uint32_t max = 1u << 16, uint32_t min = 1) {
  Brume::TableConfig c = config(initial, max);
  c.minSize = min;
  c.shrinkSlots = true;
  return c;
}

// Front options with short timers.
inline Brume::BrumeMapOptions fastOptions() {
  Brume::BrumeMapOptions o;
  o.table.initialSize = 64;
  o.table.maxSize = 1 << 16;
  o.remountPeriod = std::chrono::milliseconds(50);
  o.ackTimeout = std::chrono::milliseconds(300);
  o.reconnectPeriod = std::chrono::milliseconds(20);
  o.systemLog = nullptr;
  return o;
}

// The position of key in its chain: chains run in order of reversed hash.
inline uint32_t rhashOf(uint64_t key) { return Brume::bitReverse(RecordOps::hash(key)); }

// The first n keys from `from` on that fall into `bucket` of a table of
// `buckets` buckets, in key order; sorted by rhashOf() they are its chain.
inline std::vector<uint64_t> keysOfBucket(uint32_t buckets, uint32_t bucket, size_t n, uint64_t from = 0) {
  std::vector<uint64_t> keys;
  for (uint64_t k = from; keys.size() < n; ++k) {
    if ((RecordOps::hash(k) & (buckets - 1)) == bucket) keys.push_back(k);
  }
  return keys;
}
inline void sortInChainOrder(std::vector<uint64_t>& keys) {
  std::sort(keys.begin(), keys.end(), [](uint64_t a, uint64_t b) { return rhashOf(a) < rhashOf(b); });
}

// The keys a first()/next() iteration returns, in its order.
inline std::vector<uint64_t> iterationOrder(Reader& r) {
  std::vector<uint64_t> keys;
  RecordValue out;
  for (bool more = r.first(out); more; more = r.next(out.value.key, out)) keys.push_back(out.value.key);
  return keys;
}

// Slot i of a "slots" file of Records: after the 184-byte header and the
// lookaside slot.
constexpr uint32_t kSlotSize = 16 + sizeof(RecordValue);
constexpr size_t slotOffset(uint32_t i) { return 184 + kSlotSize + size_t{i} * kSlotSize; }

// A table's or queue's own deep validation, as an assertion that prints the
// finding: EXPECT_TRUE(valid(w)).
template <typename W>
::testing::AssertionResult valid(W& w) {
  std::string why;
  if (w.validate(&why)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << why;
}

// A fresh reader of the table under root finds exactly the keys [from, to),
// each at `version` and intact, and an iteration returns each once.
inline void expectTable(const Mem::RootPath& root, uint64_t from, uint64_t to, uint64_t version) {
  Reader r(root);
  ASSERT_TRUE(r.initialize());
  RecordValue out;
  for (uint64_t k = from; k < to; ++k) {
    ASSERT_TRUE(r.lookup(k, out)) << k;
    EXPECT_EQ(out.value.version, version) << k;
    EXPECT_TRUE(out.value.check()) << k;
  }
  EXPECT_EQ(r.members(), to - from);
  const std::vector<uint64_t> order = iterationOrder(r);
  EXPECT_EQ(order.size(), to - from);
  EXPECT_EQ(std::set<uint64_t>(order.begin(), order.end()).size(), order.size()) << "a key returned twice";
}

// A read-write mapping of one table file, to corrupt it on purpose.
class RawFile {
 public:
  explicit RawFile(const std::string& path) {
    if (file_.open(path, Mem::ShmAccess::readWrite)) file_.map(static_cast<size_t>(file_.fileSize()));
  }
  uint8_t* base() const { return file_.base(); }
  size_t size() const { return file_.mappedSize(); }
  template <typename T>
  T* at(size_t offset) const {
    return reinterpret_cast<T*>(file_.base() + offset);
  }
  Brume::Slot* slot(uint32_t i) const { return at<Brume::Slot>(slotOffset(i)); }
  // The occupied slot holding key (the number of slots if none does).
  uint32_t slotOf(uint64_t key) const {
    const uint32_t n = at<Brume::SlotTable::Header>(0)->numSlots.load().ref;
    uint32_t i = 0;
    while (i < n && ((slot(i)->status & Brume::kOccupied) == 0 || valueAt(i).value.key != key)) ++i;
    return i;
  }
  RecordValue& valueAt(uint32_t i) const { return *reinterpret_cast<RecordValue*>(slot(i)->value()); }
  // What a writer stopped in the middle of an in-place update of slot i
  // leaves: its old value in the lookaside slot, LOOKASIDE set, its body half
  // overwritten.
  void stageInterruptedUpdate(uint32_t i) const {
    Brume::Slot* lookaside = at<Brume::Slot>(184);
    std::memcpy(lookaside->value(), slot(i)->value(), sizeof(RecordValue));
    lookaside->rhash = slot(i)->rhash;
    slot(i)->status |= Brume::kLookaside;
    std::memset(slot(i)->value() + 8, 0xAB, 40);
  }

 private:
  Mem::ShmFile file_;
};

// A fresh directory in the shared-memory file system per test, and raw
// read-write access to its queue files.
class ShmDirTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Mem::makeDirectories(Mem::systemShmFs(), dir_, nullptr)); }

  struct Raw {
    Mem::ShmFile file;
    Brume::ConquerTable::Header& header() { return *Brume::ConquerTable::header(file.base()); }
    Brume::ConquerTable::Entry& entry(uint32_t pos) { return *Brume::ConquerTable::entry(file.base(), pos); }
  };
  void openRaw(uint32_t table, Raw* raw) {
    bool created;
    ASSERT_TRUE(raw->file.openOrCreate(Mem::joinPath(dir_, Brume::ConquerTable::kFileNames[table]), &created));
    ASSERT_TRUE(raw->file.map(raw->file.fileSize()));
  }

  Testing::ScratchDir scratch_{"shm"};
  const std::string dir_ = scratch_.dir();
};

// Fails ftruncate, mmap or mremap with ENOMEM, reserving space with ENOSPC
// (a full file system) or populating a mapping with EINVAL, on demand;
// everything else is real.
class FailingFs : public Mem::SystemShmFs {
 public:
  bool failTruncate = false;
  bool noSpace = false;
  bool failMmap = false;
  bool failMremap = false;
  int fallocate(int fd, off_t o, off_t n) override {
    return noSpace ? (errno = ENOSPC, -1) : SystemShmFs::fallocate(fd, o, n);
  }
  int ftruncate(int fd, off_t n) override { return failTruncate ? (errno = ENOMEM, -1) : SystemShmFs::ftruncate(fd, n); }
  void* mmap(size_t n, int prot, int fd) override {
    return failMmap ? (errno = ENOMEM, MAP_FAILED) : SystemShmFs::mmap(n, prot, fd);
  }
  void* mremap(void* p, size_t o, size_t n) override {
    return failMremap ? (errno = ENOMEM, MAP_FAILED) : SystemShmFs::mremap(p, o, n);
  }
  // noPopulate: a kernel without MADV_POPULATE_WRITE. `populated` sums the
  // lengths asked for.
  bool noPopulate = false;
  uint64_t populated = 0;
  int populateWrite(void* p, size_t n) override {
    if (noPopulate) return errno = EINVAL, -1;
    populated += n;
    return SystemShmFs::populateWrite(p, n);
  }
};

}  // namespace TableTest
