// The reader's read-only mappings of the "slots" and "buckets" files.
//
// A reader maps what the file holds when it attaches and remaps (doResize)
// when the writer has grown a file past the mapping. Index accesses are
// bounds-checked against the mapping: a reader never touches bytes outside
// it, whatever a (possibly corrupt) file says.
//
// Thread-safety: one thread per object. The mapped bytes change under the
// reader (another process writes them); every load of a field the writer
// changes is atomic.
#pragma once

#include <cstdint>
#include <string>

#include "mroute/table/engine/internal/bucket_file.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/shm/root_path.h"

namespace Brume {

// What the common case of a lookup reads, kept together in one cache line of
// the reader's private memory. The two tables below keep their parts current
// on every map, remap and unmap; the reader owns the rest. A lookup takes it
// into locals once, so the value it copies out cannot make the compiler load
// any of it again.
struct alignas(64) LookupView {
  // Set by the tables (null and 0 while unmapped).
  const uint8_t* slot0 = nullptr;              // slot 0 of the slot mapping
  const Mem::VersionedRef* buckets = nullptr;  // bucket 0 of the bucket mapping
  const Mem::VersionedRef* count = nullptr;    // the bucket header's numBuckets
  uint32_t mappedSlots = 0;
  // Set by the reader.
  uint32_t bucketMask = 0;  // numBuckets - 1
  uint32_t ownBits = 0;     // the top log2(numBuckets) bits
  // Attached and no test seam set: the common case may be tried.
  bool fast = false;
  // The count word as the reader last loaded it.
  Mem::VersionedRef::Value countSeen{};
};
static_assert(sizeof(LookupView) == 64);

class SlotReaderTable {
 public:
  // view receives the mapping's slot 0 and slot count.
  SlotReaderTable(Mem::ShmFs& fs, uint32_t slotSize, LookupView& view)
      : slotSize_(slotSize), file_(fs), view_(&view) {}

  // Opens and maps the whole file. False (traced) when it is missing or
  // cannot be mapped.
  bool attach(const Mem::RootPath& root);
  void detach();
  bool attached() const { return file_.isMapped(); }
  bool validate(uint32_t ember, std::string* why) const;

  const SlotTable::Header* header() const { return reinterpret_cast<const SlotTable::Header*>(file_.base()); }
  // Slots the mapping holds (at least the numSlots the reader last saw).
  uint32_t mappedSlots() const { return mappedSlots_; }
  // Slot i, remapping first when i lies past the mapping; nullptr when it
  // lies past the file too ("SlotReader::Slots::operator[] out-of-range").
  const Slot* slot(uint32_t i) {
    if (i < mappedSlots_) [[likely]] return SlotTable::slotAt(file_.base(), slotSize_, i);
    return slotSlow(i);
  }
  // Remaps to the slot count the header announces now. Returns whether the
  // mapping changed.
  bool doResize();
  const uint8_t* base() const { return file_.base(); }

 private:
  const Slot* slotSlow(uint32_t i);
  void account();

  uint32_t slotSize_;
  Mem::ShmFile file_;
  uint32_t mappedSlots_ = 0;
  LookupView* view_;
};

class BucketReaderTable {
 public:
  // view receives the mapping's bucket array and count word.
  BucketReaderTable(Mem::ShmFs& fs, LookupView& view) : file_(fs), view_(&view) {}

  bool attach(const Mem::RootPath& root);
  void detach();
  bool attached() const { return file_.isMapped(); }
  bool validate(uint32_t ember, std::string* why) const;

  const BucketTable::Header* header() const { return reinterpret_cast<const BucketTable::Header*>(file_.base()); }
  uint32_t mappedBuckets() const { return mappedBuckets_; }
  // Bucket b, or nullptr past the mapping ("BucketReader::operator[]
  // out-of-range, index:"); callers resize first.
  const Mem::VersionedRef* bucket(uint32_t b) const {
    if (b < mappedBuckets_) [[likely]] return header()->buckets() + b;
    return outOfRange(b);
  }
  // Maps at least n buckets. False (traced) when the file is too short.
  bool doResize(uint32_t n);
  const uint8_t* base() const { return file_.base(); }

 private:
  const Mem::VersionedRef* outOfRange(uint32_t b) const;
  // Publishes the mapping (or its absence) to the view.
  void publish();

  Mem::ShmFile file_;
  uint32_t mappedBuckets_ = 0;
  LookupView* view_;
};

}  // namespace Brume
