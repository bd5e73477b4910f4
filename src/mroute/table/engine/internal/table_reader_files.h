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

class SlotReaderTable {
 public:
  SlotReaderTable(Mem::ShmFs& fs, uint32_t slotSize) : slotSize_(slotSize), file_(fs) {}

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
};

class BucketReaderTable {
 public:
  explicit BucketReaderTable(Mem::ShmFs& fs) : file_(fs) {}

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

  Mem::ShmFile file_;
  uint32_t mappedBuckets_ = 0;
};

}  // namespace Brume
