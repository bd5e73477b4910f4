// BucketWriterTable: the writer's side of the "buckets" file: create or
// attach, enlarge, publish the bucket count.
//
// Thread-safety: the table's one writer thread only. Bucket pointers are
// invalidated by reserve() (the mapping may move).
#pragma once

#include <cstdint>
#include <string>

#include "mroute/table/engine/internal/bucket_file.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/shm/root_path.h"

namespace Brume {

class BucketWriterTable {
 public:
  BucketWriterTable(Mem::ShmFs& fs, const Mem::RootPath& root) : fs_(&fs), root_(root), file_(fs) {}
  ~BucketWriterTable() { detach(); }
  BucketWriterTable(const BucketWriterTable&) = delete;
  BucketWriterTable& operator=(const BucketWriterTable&) = delete;

  // As SlotWriterTable::attach, formatting `initialBuckets` empty buckets.
  bool attach(uint32_t ember, uint32_t initialBuckets, bool reformat, bool* existed, std::string* why);
  bool validateHeader(uint32_t ember, std::string* why) const;
  bool mapAll(std::string* why);
  void detach() { file_.close(); }
  void cleanup();

  bool attached() const { return file_.isMapped(); }
  BucketTable::Header* header() const { return reinterpret_cast<BucketTable::Header*>(file_.base()); }
  Mem::VersionedRef& bucket(uint32_t b) const { return header()->buckets()[b]; }
  // The writer's own count (see SlotWriterTable::numSlots()).
  uint32_t numBuckets() const { return numBuckets_; }
  uint8_t* base() const { return file_.base(); }
  // The file, when it shrank under the mapping (another process truncated it).
  const Mem::ShmFile* shrunk() const { return file_.shrankUnderMapping() ? &file_ : nullptr; }

  // Makes the file and the mapping hold at least n buckets. The file never
  // gets shorter while attached (W6).
  bool reserve(uint32_t n);
  // Publishes the bucket count (W5).
  void publish(uint32_t n) {
    header()->numBuckets.setRefAtomic(n, kCountIncrement);
    numBuckets_ = n;
  }

 private:
  // Takes the count from the header: after attaching, and after formatting.
  void adoptCount() { numBuckets_ = header()->numBuckets.loadRelaxed().ref; }

  Mem::ShmFs* fs_;
  Mem::RootPath root_;
  Mem::ShmFile file_;
  uint32_t numBuckets_ = 0;
};

}  // namespace Brume
