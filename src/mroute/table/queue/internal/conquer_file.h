// Layout of the notification queue files "conquer.1" and "conquer.2", their
// header check, and the atomic accessors both sides use on them.
//
//   offset  width  field
//   0       8      magic "BRUMECQR"
//   8       u32    version (7)
//   12      u32    ember: incarnation id of the formatting writer
//   16      u64    minSeq: everything at or below was pruned
//   24      u32    numReaders: connected readers (advisory)
//   28      8      reserved
//   36      u32    currentTable: 0 ("conquer.1") or 1 ("conquer.2") is current
//   40      u64    corralStart: first sequence of the shrink corral, 0 if none
//   48      u64    corralEnd: last sequence of the corral, 0 if none or open
//   56      8      notifications: versioned ref, ref = entries the file holds
//   64      u32    currentPos: index of the next free entry
//   68      u32    reserved
//   72      n * 12 entries: {u64 sequence, u32 slot}, slot 0xFFFFFFFF = tombstone
//
// An entry's u64 sequence lies at offset 72 + 12 * i, which is only 4-byte
// aligned for odd i, so an entry is three 32-bit words (sequence low, sequence
// high, slot) on this little-endian layout. Atomicity for readers: the two
// sequence words are written before the entry is published (ordering
// invariant QW1 in conquer_writer.h) and never change while the file is
// current; the slot word changes at most once, from a slot index to the
// tombstone, by one 32-bit store, and either value is a correct answer. A file
// is rewritten only while it is not current, and a reader that may be reading
// it then detects the rewrite by the notifications version (invariant QW3).
//
// Thread-safety: fields are written only by the table's writer. Readers load
// them with the accessors below (atomic loads on shared memory) and never
// store.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

#include "mroute/table/shm/versioned_ref.h"

namespace Brume {

static_assert(std::endian::native == std::endian::little,
              "the conquer entry splits its u64 sequence into little-endian halves");

struct ConquerTable {
  static constexpr char kMagic[8] = {'B', 'R', 'U', 'M', 'E', 'C', 'Q', 'R'};
  static constexpr uint32_t kVersion = 7;
  static constexpr uint32_t kTombstone = 0xFFFFFFFFu;
  static constexpr const char* kFileNames[2] = {"conquer.1", "conquer.2"};

  struct Header {
    char magic[8];
    uint32_t version;
    uint32_t ember;
    uint64_t minSeq;
    uint32_t numReaders;
    uint32_t reserved0[2];
    uint32_t currentTable;
    uint64_t corralStart;
    uint64_t corralEnd;
    Mem::VersionedRef notifications;
    uint32_t currentPos;
    uint32_t reserved1;
  };

  struct Entry {
    uint32_t seqLow;
    uint32_t seqHigh;
    uint32_t slot;
  };

  static constexpr size_t fileSize(uint64_t notifications) { return sizeof(Header) + notifications * sizeof(Entry); }
  // Entries that fit in a mapping of `bytes`.
  static constexpr uint64_t entriesIn(size_t bytes) {
    return bytes < sizeof(Header) ? 0 : (bytes - sizeof(Header)) / sizeof(Entry);
  }

  static Header* header(void* base) { return static_cast<Header*>(base); }
  static const Header* header(const void* base) { return static_cast<const Header*>(base); }
  static Entry* entry(void* base, uint32_t pos) {
    return reinterpret_cast<Entry*>(static_cast<unsigned char*>(base) + sizeof(Header)) + pos;
  }
  static const Entry* entry(const void* base, uint32_t pos) {
    return reinterpret_cast<const Entry*>(static_cast<const unsigned char*>(base) + sizeof(Header)) + pos;
  }

  // Runs the header checks in order; on the first failure returns false and
  // sets *why (traced at the error level). base maps mappedSize bytes of the
  // file (possibly fewer than a header: that is the first check); ember 0
  // expects none.
  static bool validate(const void* base, size_t mappedSize, uint32_t expectedEmber, std::string* why);

  // Writes a fresh header: no entries, minSeq 0, no corral, `tableId` current,
  // room for `notifications` entries, notifications version `version`.
  // Traces the header ("ConquerTable::Header() magic:...").
  // REQUIRES: base maps at least fileSize(notifications) bytes.
  static void format(void* base, uint32_t ember, uint32_t notifications, uint32_t tableId, uint32_t version);
};

static_assert(sizeof(ConquerTable::Header) == 72);
static_assert(alignof(ConquerTable::Header) == 8);
static_assert(offsetof(ConquerTable::Header, magic) == 0);
static_assert(offsetof(ConquerTable::Header, version) == 8);
static_assert(offsetof(ConquerTable::Header, ember) == 12);
static_assert(offsetof(ConquerTable::Header, minSeq) == 16);
static_assert(offsetof(ConquerTable::Header, numReaders) == 24);
static_assert(offsetof(ConquerTable::Header, currentTable) == 36);
static_assert(offsetof(ConquerTable::Header, corralStart) == 40);
static_assert(offsetof(ConquerTable::Header, corralEnd) == 48);
static_assert(offsetof(ConquerTable::Header, notifications) == 56);
static_assert(offsetof(ConquerTable::Header, currentPos) == 64);
static_assert(sizeof(ConquerTable::Entry) == 12);
static_assert(alignof(ConquerTable::Entry) == 4);
static_assert(offsetof(ConquerTable::Entry, seqLow) == 0);
static_assert(offsetof(ConquerTable::Entry, slot) == 8);
static_assert(std::is_trivially_copyable_v<ConquerTable::Header>);
static_assert(std::is_trivially_copyable_v<ConquerTable::Entry>);
static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);

// ---- Atomic accessors on mapped queue memory --------------------------------
// Loads take const references: they never write, so they work on read-only
// mappings. __atomic builtins accept const pointers where std::atomic_ref
// (C++20) does not.

namespace conquer {

// Relaxed: entry words are ordered by the acquire load of currentPos (fresh
// entries) or by the fence of a version re-check (rewritten files).
inline uint32_t loadWord(const uint32_t& w) { return __atomic_load_n(&w, __ATOMIC_RELAXED); }
inline void storeWord(uint32_t& w, uint32_t v) { __atomic_store_n(&w, v, __ATOMIC_RELAXED); }

inline uint64_t loadSequence(const ConquerTable::Entry& e) {
  return uint64_t{loadWord(e.seqLow)} | (uint64_t{loadWord(e.seqHigh)} << 32);
}
inline uint32_t loadSlot(const ConquerTable::Entry& e) { return loadWord(e.slot); }
// Writer: relaxed; the entry becomes visible through the release store of
// currentPos (QW1) or of the notifications version (QW4).
inline void storeEntry(ConquerTable::Entry& e, uint64_t seq, uint32_t slot) {
  storeWord(e.seqLow, static_cast<uint32_t>(seq));
  storeWord(e.seqHigh, static_cast<uint32_t>(seq >> 32));
  storeWord(e.slot, slot);
}

// Acquire: entries below the loaded currentPos were written before it (QW1).
inline uint32_t loadCurrentPos(const ConquerTable::Header& h) {
  return __atomic_load_n(&h.currentPos, __ATOMIC_ACQUIRE);
}
// Release: publishes the entries below pos.
inline void storeCurrentPos(ConquerTable::Header& h, uint32_t pos) {
  __atomic_store_n(&h.currentPos, pos, __ATOMIC_RELEASE);
}

// Acquire/release: a reader that sees this file named current also sees the
// header fields the writer set before naming it (QW4).
inline uint32_t loadCurrentTable(const ConquerTable::Header& h) {
  return __atomic_load_n(&h.currentTable, __ATOMIC_ACQUIRE);
}
inline void storeCurrentTable(ConquerTable::Header& h, uint32_t id) {
  __atomic_store_n(&h.currentTable, id, __ATOMIC_RELEASE);
}

// Acquire/release: a reader compares its last sequence with minSeq; the
// 8-aligned u64 at offset 16 is one atomic word.
inline uint64_t loadMinSeq(const ConquerTable::Header& h) { return __atomic_load_n(&h.minSeq, __ATOMIC_ACQUIRE); }
inline void storeMinSeq(ConquerTable::Header& h, uint64_t v) { __atomic_store_n(&h.minSeq, v, __ATOMIC_RELEASE); }

// Relaxed: numReaders and the corral are the writer's bookkeeping, mirrored
// in the file for a writer that re-attaches and for the operator tool; readers do
// not act on them.
inline uint64_t loadRelaxed64(const uint64_t& w) { return __atomic_load_n(&w, __ATOMIC_RELAXED); }
inline void storeRelaxed64(uint64_t& w, uint64_t v) { __atomic_store_n(&w, v, __ATOMIC_RELAXED); }

}  // namespace conquer

}  // namespace Brume
