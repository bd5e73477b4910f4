// Mem::VersionedRef: the lock-free link of the table files.
//
// An 8-byte {u32 version, u32 ref} pair that lives in a shared-memory file and
// is always loaded and stored as ONE 64-bit atomic word, so a reader in
// another process never sees the version of one store with the ref of
// another. Every store advances the version; a reader that loads the same
// version before and after reading what the ref leads to knows the link did
// not change under it.
//
// Layout in the file (host byte order):
//   offset 0  u32 version   incremented on every store of the pair
//   offset 4  u32 ref       the referenced index; 0xFFFFFFFF means none
//
// Thread-safety: exactly one writer (the table's writer process) stores; any
// number of readers in any process load concurrently. Loads never write, so
// they work on read-only mappings.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <type_traits>

namespace Mem {

// Fences of the version re-check protocol, for lock-free code on mapped
// memory. GCC's ThreadSanitizer does not model fences and warns about them
// (-Wtsan); every access they order in the table code is itself atomic, so it
// reports no race either way, and the sanitized build keeps the same code.
#if defined(__SANITIZE_THREAD__) && !defined(__clang__)
#define MROUTE_FENCE_(order)                      \
  _Pragma("GCC diagnostic push")                  \
  _Pragma("GCC diagnostic ignored \"-Wtsan\"")    \
  __atomic_thread_fence(order);                   \
  _Pragma("GCC diagnostic pop")
#else
#define MROUTE_FENCE_(order) __atomic_thread_fence(order)
#endif

// Keeps the loads before it (a racy copy) ahead of the loads after it (the
// re-check of a version).
inline void acquireFence() { MROUTE_FENCE_(__ATOMIC_ACQUIRE); }
// Keeps the stores before it (a version bump) ahead of the stores after it
// (rewriting data that a reader may still be copying).
inline void releaseFence() { MROUTE_FENCE_(__ATOMIC_RELEASE); }

#undef MROUTE_FENCE_

class VersionedRef {
 public:
  static constexpr uint32_t kNoRef = 0xFFFFFFFFu;

  // A copy of the pair taken by one atomic load.
  struct Value {
    uint32_t version;
    uint32_t ref;
    // One 64-bit compare: the pair has no padding.
    friend bool operator==(const Value& a, const Value& b) {
      return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
    }
  };

  VersionedRef() = default;
  VersionedRef(uint32_t version, uint32_t ref) : word_(pack({version, ref})) {}

  // Acquire: whatever the writer wrote before publishing this pair (a slot
  // body, a grown file's header) is visible once the pair is seen.
  Value load() const { return unpack(__atomic_load_n(&word_, __ATOMIC_ACQUIRE)); }

  // The re-check of a reader that copied data guarded by this link: the
  // acquire fence keeps the copy's (racy, relaxed) loads before this load, so
  // an unchanged version proves the copy was not overwritten meanwhile.
  Value recheck() const {
    acquireFence();
    return unpack(__atomic_load_n(&word_, __ATOMIC_RELAXED));
  }

  // Relaxed: for the writer reading its own stores (it is the only one that
  // stores, so it always sees the latest value), or for statistics.
  Value loadRelaxed() const { return unpack(__atomic_load_n(&word_, __ATOMIC_RELAXED)); }

  uint32_t ref() const { return load().ref; }
  uint32_t version() const { return load().version; }

  // Writer only. Stores {version + increment, newRef} in one 64-bit store.
  // Release: everything the writer wrote before (the slot the ref now names,
  // its next link) is visible to a reader that acquires the new pair.
  void setRefAtomic(uint32_t newRef, uint32_t increment) {
    const Value old = loadRelaxed();
    __atomic_store_n(&word_, pack({old.version + increment, newRef}), __ATOMIC_RELEASE);
  }

  // Writer only, while formatting or before the link is reachable. Release so
  // that a reader that happens on the fresh file sees a whole pair.
  void init(uint32_t version, uint32_t ref) {
    __atomic_store_n(&word_, pack({version, ref}), __ATOMIC_RELEASE);
  }

 private:
  // Same bytes in memory as {version, ref} on any byte order.
  static uint64_t pack(Value v) { return std::bit_cast<uint64_t>(v); }
  static Value unpack(uint64_t w) { return std::bit_cast<Value>(w); }

  alignas(8) uint64_t word_ = pack({0, kNoRef});
};

static_assert(sizeof(VersionedRef) == 8);
static_assert(alignof(VersionedRef) == 8);
static_assert(std::is_trivially_copyable_v<VersionedRef>);
static_assert(std::is_standard_layout_v<VersionedRef>);
static_assert(sizeof(VersionedRef::Value) == 8);
static_assert(__atomic_always_lock_free(sizeof(uint64_t), 0),
              "readers need lock-free 64-bit atomics on shared memory");
static_assert(std::atomic<uint64_t>::is_always_lock_free);

}  // namespace Mem
