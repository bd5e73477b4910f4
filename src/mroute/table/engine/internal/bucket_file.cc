#include "mroute/table/engine/internal/bucket_file.h"

#include <cstring>
#include <sstream>

#include "mroute/table/shm/brume_trace.h"

namespace Brume {

bool BucketTable::Header::validate(size_t size, uint32_t expectedEmber, std::string* why) const {
  std::ostringstream os;
  if (size < sizeof(Header)) {
    os << "BucketTable::validate() bad header file size: " << size << " wanted:" << sizeof(Header);
    return validationFailed(why, os);
  }
  if (std::memcmp(magic, kMagic, sizeof kMagic) != 0) {
    uint64_t m;
    std::memcpy(&m, magic, sizeof m);
    os << "BucketTable::validate() bad magic: 0x" << std::hex << m;
    return validationFailed(why, os);
  }
  if (version != kVersion) {
    os << "BucketTable::validate() bad version: " << version;
    return validationFailed(why, os);
  }
  if (expectedEmber != 0 && ember != expectedEmber) {
    os << "BucketTable::validate() bad ember:0x" << std::hex << ember << " wanted:0x" << expectedEmber;
    return validationFailed(why, os);
  }
  const uint32_t n = numBuckets.load().ref;
  if (n > kMaxBuckets) {
    os << "BucketTable::validate() bad numBuckets:" << n;
    return validationFailed(why, os);
  }
  const size_t needed = BucketTable::fileSize(n);
  if (size < needed) {
    os << "BucketTable::validate() bad shmem size:" << size << " wanted:" << needed;
    return validationFailed(why, os);
  }
  return true;
}

void BucketTable::format(void* base, uint32_t ember, uint32_t numBuckets) {
  auto* h = static_cast<Header*>(base);
  std::memset(h->magic, 0, sizeof h->magic);
  h->version = kVersion;
  h->ember = ember;
  h->reserved = 0;
  Mem::VersionedRef* b = h->buckets();
  for (uint32_t i = 0; i < numBuckets; ++i) b[i].init(0, endMarkerAfter(i, numBuckets));
  h->numBuckets.init(0, numBuckets);
  std::memcpy(h->magic, kMagic, sizeof kMagic);
}

}  // namespace Brume
