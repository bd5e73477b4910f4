// Hash functions shared by the table writer and its readers.
//
// Writer and readers in different processes must agree on every bit of these
// functions: chains are sorted by the bit-reversed key hash and buckets are
// chosen by hash mod numBuckets, so changing any of them makes existing files
// unreadable (the header checksum uses bytesHash too).
//
// Thread-safety: pure functions.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Brume {

// The framework's 32-bit hash of a byte range (FNV-1a over 8-byte words, then
// a final avalanche). Used for the header checksum and for keys that are plain
// records without a hash of their own.
uint32_t bytesHash(const void* data, size_t size);

// Integer mixer for 32-bit index keys (bit indexes, oif indexes).
constexpr uint32_t intHash(uint32_t k) {
  uint32_t h = k * 32767u - 1u;
  h ^= h >> 12;
  h *= 5u;
  h ^= h >> 4;
  h *= 2057u;
  h ^= h >> 16;
  return h;
}

// Bit 0 becomes bit 31 and so on. Chains are sorted by the reversed hash so
// that the entries that move to bucket b + n when n buckets double form the
// tail of bucket b's chain.
constexpr uint32_t bitReverse(uint32_t v) {
  v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
  v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
  v = ((v >> 4) & 0x0F0F0F0Fu) | ((v & 0x0F0F0F0Fu) << 4);
  return __builtin_bswap32(v);
}

// The top k bits set: the bits of a reversed hash that pick one of 2^k
// buckets (0 <= k <= 32).
constexpr uint32_t topBits(uint32_t k) { return static_cast<uint32_t>(~uint64_t{0} << (32 - k)); }

static_assert(bitReverse(1u) == 0x80000000u);
static_assert(bitReverse(0x80000000u) == 1u);
static_assert(bitReverse(0x0000000Fu) == 0xF0000000u);
static_assert(topBits(0) == 0 && topBits(1) == 0x80000000u && topBits(32) == 0xFFFFFFFFu);

}  // namespace Brume
