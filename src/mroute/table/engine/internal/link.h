// Constants of the link words and slot status words in the table files, and
// the atomic accessors through which both sides touch shared 32-bit fields.
//
// Thread-safety: every accessor here is an atomic operation on mapped memory;
// each states its memory order and why.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>

#include "mroute/table/shm/brume_hash.h"

namespace Brume {

// A ref of 0xFFFFFFFF names nothing (end of free list, last bucket's end).
inline constexpr uint32_t kNoRef = 0xFFFFFFFFu;
// A chain link with bit 31 set ends its bucket's chain; the low 31 bits name
// the next bucket (kNoRef when no bucket follows).
inline constexpr uint32_t kEndBit = 0x80000000u;

// Slot status bits (stored in the file: do not renumber).
inline constexpr uint32_t kOccupied = 0x1u;
inline constexpr uint32_t kLookaside = 0x2u;

// Version increments of the versioned links.
inline constexpr uint32_t kLinkIncrement = 4;   // chain links of slots and buckets
inline constexpr uint32_t kCountIncrement = 1;  // numSlots and numBuckets

constexpr bool isEndMarker(uint32_t ref) { return (ref & kEndBit) != 0; }

// Buckets follow one another in split order: with n = 2^k buckets, bucket b
// holds the reversed hashes whose top k bits are reverse_k(b), so visiting
// positions 0..n-1 through b = reverse_k(position) meets every entry in
// ascending rhash order. Doubling and halving leave that order unchanged:
// the bucket split off b comes right after it. Iteration therefore survives
// a resize between two calls, and a chain's end marker keeps naming the same
// successor when its bucket is split or joined.
constexpr uint32_t splitPosition(uint32_t bucket, uint32_t numBuckets) {
  return numBuckets <= 1 ? 0 : bitReverse(bucket) >> (32 - std::countr_zero(numBuckets));
}

// The end marker of bucket b's chain when the table has n (a power of two)
// buckets: the next bucket in split order, kNoRef after the last.
constexpr uint32_t endMarkerAfter(uint32_t bucket, uint32_t numBuckets) {
  if (numBuckets <= 1) return kNoRef;
  const int shift = 32 - std::countr_zero(numBuckets);
  const uint32_t pos = bitReverse(bucket) >> shift;
  return pos + 1 < numBuckets ? (kEndBit | (bitReverse(pos + 1) >> shift)) : kNoRef;
}

static_assert(endMarkerAfter(0, 4) == (kEndBit | 2) && endMarkerAfter(2, 4) == (kEndBit | 1));
static_assert(endMarkerAfter(1, 4) == (kEndBit | 3) && endMarkerAfter(3, 4) == kNoRef);
// A split keeps the successor of the upper half and puts the upper bucket
// right after the lower one.
static_assert(endMarkerAfter(1 + 4, 8) == endMarkerAfter(1, 4) && endMarkerAfter(1, 8) == (kEndBit | 5));

static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);

// Relaxed load of a shared 32-bit field: used for counters that are only
// advisory to readers (occupiedSlots) or read by the writer that owns them.
inline uint32_t loadRelaxed(const uint32_t& field) {
  return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(field)).load(std::memory_order_relaxed);
}

// Acquire load of a slot status word: everything the writer stored before the
// matching release store of the status is visible after it.
inline uint32_t loadAcquire(const uint32_t& field) {
  return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(field)).load(std::memory_order_acquire);
}

inline void storeRelaxed(uint32_t& field, uint32_t v) {
  std::atomic_ref<uint32_t>(field).store(v, std::memory_order_relaxed);
}

// Release store of a status word: publishes the slot body written before it.
inline void storeRelease(uint32_t& field, uint32_t v) {
  std::atomic_ref<uint32_t>(field).store(v, std::memory_order_release);
}

// Copies a value body out of shared memory. The copy may be torn; the caller
// re-checks the status word after an acquire fence and discards a torn copy
// (the seqlock pattern). Under ThreadSanitizer the copy is made of relaxed
// atomic word loads, so that the sanitizer checks the protocol instead of
// flagging the intended race; otherwise it is a plain memcpy, which the
// compiler vectorises (the fence that follows keeps it in place).
// REQUIRES: size is a multiple of 8 and both pointers 8-aligned.
inline void copyFromShared(void* dst, const void* src, uint32_t size) {
#if defined(__SANITIZE_THREAD__)
  auto* d = static_cast<uint64_t*>(dst);
  const auto* s = static_cast<const uint64_t*>(src);
  for (uint32_t i = 0; i < size / 8; ++i) d[i] = __atomic_load_n(&s[i], __ATOMIC_RELAXED);
#else
  std::memcpy(dst, src, size);
#endif
}

// The writer's side of copyFromShared, ordered by the release fence or
// release store the caller issues around it.
inline void copyToShared(void* dst, const void* src, uint32_t size) {
#if defined(__SANITIZE_THREAD__)
  auto* d = static_cast<uint64_t*>(dst);
  const auto* s = static_cast<const uint64_t*>(src);
  for (uint32_t i = 0; i < size / 8; ++i) __atomic_store_n(&d[i], s[i], __ATOMIC_RELAXED);
#else
  std::memcpy(dst, src, size);
#endif
}

}  // namespace Brume
