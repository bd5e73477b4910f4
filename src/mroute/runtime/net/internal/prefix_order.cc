#include "mroute/runtime/net/internal/prefix_order.h"

#include <algorithm>

namespace Orvet::net_internal {

std::strong_ordering comparePrefixes(const uint8_t* a, uint32_t aLength, const uint8_t* b, uint32_t bLength,
                                     int bytes) {
  uint32_t shorter = std::min(aLength, bLength);
  for (int i = 0; i < bytes && shorter > 0; ++i) {
    uint32_t bits = std::min<uint32_t>(shorter, 8);
    uint8_t mask = static_cast<uint8_t>(0xff00u >> bits);
    uint8_t x = a[i] & mask;
    uint8_t y = b[i] & mask;
    if (x != y) return x <=> y;
    shorter -= bits;
  }
  // Equal within the shorter mask (or the shorter is /0): longer first.
  return bLength <=> aLength;
}

void clearHostBits(uint8_t* addr, uint32_t length, int bytes) {
  for (int i = 0; i < bytes; ++i) {
    uint32_t bits = length > 8 ? 8 : length;
    addr[i] &= static_cast<uint8_t>(0xff00u >> bits);
    length -= bits;
  }
}

}  // namespace Orvet::net_internal
