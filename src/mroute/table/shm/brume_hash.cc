#include "mroute/table/shm/brume_hash.h"

#include <cstring>

namespace Brume {

uint32_t bytesHash(const void* data, size_t size) {
  const auto* p = static_cast<const unsigned char*>(data);
  uint64_t h = 0xcbf29ce484222325ull ^ size;
  while (size >= 8) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    h = (h ^ w) * 0x100000001b3ull;
    h ^= h >> 29;
    p += 8;
    size -= 8;
  }
  while (size > 0) {
    h = (h ^ *p) * 0x100000001b3ull;
    ++p;
    --size;
  }
  // Final avalanche so that the low bits (which pick the bucket) depend on
  // every input byte.
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  h ^= h >> 33;
  return static_cast<uint32_t>(h);
}

}  // namespace Brume
