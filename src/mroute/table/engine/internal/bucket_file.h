// Layout of the "buckets" file and its header check.
//
//   offset  width   field
//   0       8       magic "BRUMEBKT"
//   8       u32     version (2)
//   12      u32     ember: incarnation id of the formatting writer
//   16      8       numBuckets: versioned ref, ref = number of buckets
//   24      8       reserved
//   32      n * 8   bucket b: versioned ref to the first slot of its chain,
//                   or an end marker (bit 31 set) naming the next bucket
//
// Thread-safety: magic, version and ember are written once at format time;
// numBuckets and the bucket links are stored atomically by the writer only
// and loaded atomically by readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "mroute/table/engine/internal/link.h"
#include "mroute/table/shm/versioned_ref.h"

namespace Brume {

struct BucketTable {
  static constexpr char kMagic[8] = {'B', 'R', 'U', 'M', 'E', 'B', 'K', 'T'};
  static constexpr uint32_t kVersion = 2;
  static constexpr uint32_t kMaxBuckets = 0x80000000u;

  struct Header {
    char magic[8];
    uint32_t version;
    uint32_t ember;
    Mem::VersionedRef numBuckets;
    uint64_t reserved;

    // Runs the header checks in order; on the first failure returns false
    // with *why set (and traced). ember 0 expects none.
    bool validate(size_t size, uint32_t expectedEmber, std::string* why) const;

    Mem::VersionedRef* buckets() {
      return reinterpret_cast<Mem::VersionedRef*>(reinterpret_cast<unsigned char*>(this) + sizeof(Header));
    }
    const Mem::VersionedRef* buckets() const {
      return reinterpret_cast<const Mem::VersionedRef*>(reinterpret_cast<const unsigned char*>(this) +
                                                        sizeof(Header));
    }
  };

  // Formats the header and numBuckets empty buckets (each an end marker that
  // names the next bucket). REQUIRES: base maps fileSize(numBuckets) bytes and
  // no reader can see the file yet.
  static void format(void* base, uint32_t ember, uint32_t numBuckets);

  static constexpr size_t fileSize(uint32_t numBuckets) { return sizeof(Header) + size_t{numBuckets} * 8; }
};

static_assert(sizeof(BucketTable::Header) == 32);
static_assert(offsetof(BucketTable::Header, magic) == 0);
static_assert(offsetof(BucketTable::Header, version) == 8);
static_assert(offsetof(BucketTable::Header, ember) == 12);
static_assert(offsetof(BucketTable::Header, numBuckets) == 16);
static_assert(offsetof(BucketTable::Header, reserved) == 24);
static_assert(alignof(BucketTable::Header) == 8);
static_assert(std::is_trivially_copyable_v<BucketTable::Header>);

}  // namespace Brume
