// Layout of a table's health file, "health": what the writer knows about its
// readers and its queue, kept where an operator's tool can read it.
//
//   offset  width  field
//   0       8      magic "BRUMEHLT"
//   8       u32    version (1)
//   12      u32    ember: incarnation id of the writer that made the file
//   16      u32    writerPid
//   20      u32    records: reader records that follow (kMaxReaders)
//   24      u32    generation: even when the fields from 32 on are whole
//   28      u32    unlisted: readers connected without a record (all in use)
//   32      u64    compactions of the notification queue
//   40      u64    lastCompactionNs: wall clock, ns since the epoch; 0 never
//   48      u64    lastCompactionKept: live notifications it kept
//   56      u64    corruptionReports: reports a reader left and the writer read
//   64      u64    lastReportNs
//   72      u64    readersDropped: disconnected for not acknowledging
//   80      160    lastReport: text of the last report, NUL-padded
//   240     16     reserved
//   256     records * 64  reader records:
//     0   u32  generation: even when the record is whole
//     4   u32  state (ReaderState)
//     8   u32  pid: from the connection's peer credentials
//     12  u32  reserved
//     16  u64  connectedNs
//     24  u64  goneNs: 0 while connected
//     32  u64  lastAck: last sequence acknowledged; ~0 none yet
//     40  u64  restarts: look-ups retried because a version moved
//     48  u64  lookasideReads: copies served from the lookaside slot
//     56  u64  resyncs: whole re-reads after missed notifications
//
// Who writes what: the file is made and written only by the table's writer,
// on its event loop. The reader counters come from the readers over the
// notification channel, so the writer stores what a reader claims: nobody
// may trust those numbers beyond displaying them. Readers of this file (the
// survey) check its size, magic and version, and read it through the
// accessors below.
//
// Ordering (a sequence lock per block): the writer makes a block's
// generation odd (relaxed store, then a release fence), stores the fields
// (relaxed), and makes the generation even again with a release store. A
// reader loads the generation (acquire), copies the fields (relaxed), issues
// an acquire fence and loads the generation again; the copy is whole when
// both loads are equal and even.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "mroute/table/shm/versioned_ref.h"

namespace Brume {

inline constexpr const char* kHealthFileName = "health";

struct HealthFile {
  static constexpr char kMagic[8] = {'B', 'R', 'U', 'M', 'E', 'H', 'L', 'T'};
  static constexpr uint32_t kVersion = 1;
  static constexpr uint32_t kMaxReaders = 32;
  static constexpr uint64_t kNoAck = ~uint64_t{0};

  // Stored in the file: do not renumber.
  enum class ReaderState : uint32_t {
    free = 0,
    connected = 1,
    gone = 2,     // closed its connection (or its process ended)
    dropped = 3,  // disconnected by the writer for not acknowledging
  };

  struct Header {
    char magic[8];
    uint32_t version;
    uint32_t ember;
    uint32_t writerPid;
    uint32_t records;
    uint32_t generation;
    uint32_t unlisted;
    uint64_t compactions;
    uint64_t lastCompactionNs;
    uint64_t lastCompactionKept;
    uint64_t corruptionReports;
    uint64_t lastReportNs;
    uint64_t readersDropped;
    char lastReport[160];
    uint64_t reserved[2];
  };

  struct Reader {
    uint32_t generation;
    uint32_t state;
    uint32_t pid;
    uint32_t reserved;
    uint64_t connectedNs;
    uint64_t goneNs;
    uint64_t lastAck;
    uint64_t restarts;
    uint64_t lookasideReads;
    uint64_t resyncs;
  };

  static constexpr size_t kSize = sizeof(Header) + kMaxReaders * sizeof(Reader);

  static Reader* reader(void* base, uint32_t i) {
    return reinterpret_cast<Reader*>(static_cast<unsigned char*>(base) + sizeof(Header)) + i;
  }
  static const Reader* reader(const void* base, uint32_t i) {
    return reinterpret_cast<const Reader*>(static_cast<const unsigned char*>(base) + sizeof(Header)) + i;
  }
};

static_assert(sizeof(HealthFile::Header) == 256);
static_assert(offsetof(HealthFile::Header, version) == 8);
static_assert(offsetof(HealthFile::Header, writerPid) == 16);
static_assert(offsetof(HealthFile::Header, generation) == 24);
static_assert(offsetof(HealthFile::Header, compactions) == 32);
static_assert(offsetof(HealthFile::Header, readersDropped) == 72);
static_assert(offsetof(HealthFile::Header, lastReport) == 80);
static_assert(sizeof(HealthFile::Reader) == 64);
static_assert(offsetof(HealthFile::Reader, connectedNs) == 16);
static_assert(offsetof(HealthFile::Reader, resyncs) == 56);
static_assert(std::is_trivially_copyable_v<HealthFile::Header>);
static_assert(std::is_trivially_copyable_v<HealthFile::Reader>);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);

namespace health {

inline uint32_t load(const uint32_t& w) { return __atomic_load_n(&w, __ATOMIC_RELAXED); }
inline uint64_t load(const uint64_t& w) { return __atomic_load_n(&w, __ATOMIC_RELAXED); }
inline void store(uint32_t& w, uint32_t v) { __atomic_store_n(&w, v, __ATOMIC_RELAXED); }
inline void store(uint64_t& w, uint64_t v) { __atomic_store_n(&w, v, __ATOMIC_RELAXED); }

// Writer: brackets the stores to one block (see Ordering above).
inline void beginWrite(uint32_t& generation) {
  store(generation, load(generation) | 1u);
  Mem::releaseFence();
}
inline void endWrite(uint32_t& generation) {
  __atomic_store_n(&generation, (load(generation) | 1u) + 1u, __ATOMIC_RELEASE);
}

// Reader: copies a block with fields loaded one word at a time; true when
// the copy is whole. T is Header or Reader, whose words are all 4 or 8 bytes.
template <typename T>
bool readBlock(const T& block, const uint32_t& generation, T* out) {
  const uint32_t before = __atomic_load_n(&generation, __ATOMIC_ACQUIRE);
  const auto* src = reinterpret_cast<const uint32_t*>(&block);
  uint32_t words[sizeof(T) / 4];
  for (size_t i = 0; i < sizeof(T) / 4; ++i) words[i] = load(src[i]);
  std::memcpy(out, words, sizeof(T));
  Mem::acquireFence();
  return (before & 1u) == 0 && load(generation) == before;
}

}  // namespace health

}  // namespace Brume
