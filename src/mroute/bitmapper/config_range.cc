// The range check of Config: a pool that is not empty and stays below the
// reserved indexes.
#include <cstdint>
#include <string>

#include "mroute/bitmapper/bit_index.h"
#include "mroute/bitmapper/config.h"
#include "mroute/runtime/error.h"

namespace BitMapper {

void Config::bitMapRange(uint32_t bitMapMinIndex, uint32_t bitMapSize) {
  if (bitMapSize == 0) throw Kiv::RangeException("Config::bitMapSize == 0 not allowed");
  // 64-bit sum: a start near 2^32 must not wrap into range.
  const uint64_t end = uint64_t(bitMapMinIndex) + bitMapSize;
  if (end > BitIndex::invalid().value()) {
    throw Kiv::RangeException("Config::bitMapMinIndex + bitMapSize > " + std::to_string(BitIndex::invalid().value()) +
                              " not allowed (bitMapMinIndex " + std::to_string(bitMapMinIndex) + ", bitMapSize " +
                              std::to_string(bitMapSize) + ")");
  }
}

void Config::bitMapRangeIs(uint32_t bitMapMinIndex) { bitMapMinIndexIs(bitMapMinIndex); }

}  // namespace BitMapper
