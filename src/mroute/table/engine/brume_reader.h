// BrumeReader: lock-free read access to a table that a writer in another
// process keeps changing.
//
// The reader maps the files read-only, takes no lock and writes no shared
// memory (only the "corruption-detected" marker file when it finds the table
// corrupt). It copies what it reads into private memory and trusts a copy
// only after re-checking the versions that guard it, restarting when the
// writer got in between. Chain cycles and keys in the wrong bucket raise
// Pavo::CorruptionDetectedException (and write the marker); a walk is bounded
// by the capacity, so a corrupt file never makes a reader loop for ever.
//
// Ordering invariants it relies on (the writer's W1-W6 in brume_writer.h):
//   R1. Consistent slot read: status is loaded (acquire), the body copied
//       (relaxed word loads), an acquire fence, status loaded again; equal
//       statuses mean the copy was whole at one instant (W4). While LOOKASIDE
//       is set the copy comes from the lookaside slot.
//   R2. Before following a next link and before any answer the bucket head's
//       version is re-checked: unchanged means no link of the chain changed
//       and no slot of it was freed or reused (W2, W3).
//   R3. numBuckets is loaded at the start of every attempt and re-checked
//       before any answer, so a lookup never answers from a bucket that a
//       concurrent split or join made stale (W5).
//   R4. A slot index past the mapping makes the reader remap to the count the
//       header publishes; the file already holds those slots (W6).
//   R5. A lookup passes a slot whose rhash (relaxed load) is below the key's
//       without copying its body: a slot keeps its rhash while it is linked
//       (W3), so under R2 the rhash and next it read belong to one chain
//       state. Only a slot that may hold the key, or end the search, is read
//       by R1.
//   R6. A lookup's first attempt takes the bucket count as this reader last
//       loaded it (LookupView::countSeen) instead of loading it again, and
//       compares the whole count word (version and ref) with it before
//       answering. Every store of the count advances its version, so an
//       equal word proves no store happened since that earlier acquire load,
//       which is all R3's load at the start of the attempt proved. A mismatch
//       hands the lookup to the full loop, which loads the count afresh.
//   R7. The common case compares the whole head word with the one it loaded
//       (version and ref): as with the count, every store of a link advances
//       its version, so equal words mean no store in between.
//   R8. An iteration step starts from the next link it read with the entry
//       returned last, before that entry's re-check: the re-check proves the
//       link was the chain's at that head version, and the step re-checks
//       the head against the same version before its answer (R2), so a
//       chain that changed meanwhile sends the walk back to find its place
//       by rhash and key. The read-ahead's loads are hints: nothing read
//       ahead is trusted before the walk reaches it and re-reads it.
//
// Thread-safety: a reader object is used by one thread; any number of
// readers in any processes run concurrently with the writer.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_hash.h"
#include "mroute/table/engine/brume_ops.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/engine/internal/table_reader_files.h"
#include "mroute/table/shm/root_path.h"

namespace Brume {

// Rare events only: nothing here is touched by a lookup that needs no
// restart.
struct ReaderCounters {
  uint64_t restarts = 0;        // version checks that failed
  uint64_t lookasideReads = 0;  // copies served from the lookaside slot
  uint64_t walkRestarts = 0;    // iteration steps handed back to the full walk
};

template <TableOps Ops>
class BrumeReader {
 public:
  using Key = typename Ops::Key;
  using Stored = typename Ops::Stored;

  explicit BrumeReader(const Mem::RootPath& root, Mem::ShmFs& fs = Mem::systemShmFs())
      : root_(root), fs_(&fs), slots_(fs, kSlotSize, view_), buckets_(fs, view_) {}
  BrumeReader(const BrumeReader&) = delete;
  BrumeReader& operator=(const BrumeReader&) = delete;

  // Maps and validates the files. False (traced) leaves the reader detached.
  bool initialize();
  void detach();
  bool attached() const { return numBuckets_ != 0; }

  // Copies the value stored under key into out; out's contents mean nothing
  // when the key is absent.
  [[gnu::always_inline]] bool lookup(const Key& key, Stored& out) { return doLookup(key, out); }
  std::optional<Stored> lookup(const Key& key) {
    Stored out;
    if (!doLookup(key, out)) return std::nullopt;
    return out;
  }
  // Inlined into the caller: the common case then costs no call frame and
  // shares the caller's registers; restarts, remaps and reports stay out of
  // line (lookupLoop(), lookupSlow()).
  [[gnu::always_inline]] bool doLookup(const Key& key, Stored& out);

  // Iteration in split order (ascending rhash, see link.h), which a resize
  // between two calls does not disturb: the entries present throughout an iteration
  // are returned once each; entries added or removed meanwhile may or may not
  // be.
  bool first(Stored& out) { return doNext(nullptr, out); }
  bool next(const Key& key, Stored& out) { return doNext(&key, out); }
  bool doNext(const Key* key, Stored& out);
  // Calls f(const Stored&) for each entry, in the order of first()/next().
  // The walk keeps its own cursor, so f may use this reader meanwhile; it
  // continues from the slot it stands on while that slot's bucket has not
  // changed, without comparing or copying keys (R8), and prefetches the
  // slots a few buckets ahead while f runs. Stops early when f detaches the
  // reader. Corruption raises as first()/next() do.
  template <typename F>
  void forEach(F&& f);

  // The value at a slot index (a notification names slots), if occupied.
  bool safeValue(uint32_t slotIndex, Stored& out);

  // Runs op; when it raises the corruption exception because the mapping was
  // stale, remaps and runs it once more.
  template <typename Op>
  auto retryOnResize(Op&& op) -> decltype(op());

  uint32_t capacity() const { return attached() ? slots_.header()->numSlots.load().ref : 0; }
  uint32_t members() const { return attached() ? loadRelaxed(slots_.header()->occupiedSlots) : 0; }
  uint32_t maxSize() const { return attached() ? slots_.header()->maxSlots : 0; }
  uint32_t emberId() const { return ember_; }
  const ReaderCounters& readerCounters() const { return counters_; }

  // Test seam: run by every attempt of doLookup() right after it loaded the
  // bucket count and before it reads a bucket, so that a test can put writer
  // steps exactly there. Null (and never taken) in production.
  void afterCountLoadIs(void (*hook)(void* context), void* context) {
    afterCountLoad_ = hook;
    afterCountLoadContext_ = context;
    view_.fast = numBuckets_ != 0 && hook == nullptr;
  }

 private:
  static constexpr uint32_t kSlotSize = static_cast<uint32_t>(sizeof(Stored) + sizeof(Slot));

  // R1. Returns the status the copy is consistent with.
  // Inlined everywhere: the copy is most of a step's work, and out of line
  // it costs a call frame per entry.
  [[gnu::always_inline]] uint32_t readSlot(const Slot* s, Stored& out, uint32_t* rhash);
  // readSlot() once the slot was found in an update (LOOKASIDE set, or the
  // status moved during the copy): out of line, so that the inline copy
  // keeps no registers for the lookaside slot.
  [[gnu::noinline]] uint32_t readSlotAgain(const Slot* s, Stored& out, uint32_t* rhash);
  // R3: the writer's bucket count now, remapping when it changed.
  Mem::VersionedRef::Value loadNumBuckets() {
    const Mem::VersionedRef::Value v = buckets_.header()->numBuckets.load();
    if (v.ref != numBuckets_) [[unlikely]] numBucketsChanged(v.ref);
    view_.countSeen = v;
    return v;
  }
  // The outcome of one lookup attempt; retry hands over to the full loop.
  enum class Attempt : uint8_t { absent, found, retry };
  // The common case of doLookup() (R6): the key's entry among the first
  // kInlineSlots of its chain, found in one attempt. Whatever else it meets
  // it hands to lookupRest() or, when a re-check failed, lookupRetry(); both
  // are out of line, so that the common case keeps its registers.
  static constexpr uint32_t kInlineSlots = 3;
  [[gnu::always_inline]] bool lookupOnce(const Key& key, uint32_t h, uint32_t r, Stored& out);
  // The rest of the first attempt: lookupWalk(), and the full loop when that
  // cannot settle it.
  [[gnu::noinline]] bool lookupRest(const Key& key, uint32_t r, const Mem::VersionedRef& head,
                                    Mem::VersionedRef::Value hv, uint32_t ref, Stored& out);
  // The walk of one attempt, with no restart, no remap and no report: along
  // the chain of head, loaded as hv, from the link ref onwards (every slot
  // before ref was passed under hv, R2).
  Attempt lookupWalk(const Key& key, uint32_t r, const Mem::VersionedRef& head, Mem::VersionedRef::Value hv,
                     uint32_t ref, Stored& out);
  // A restart: counted, then the full loop.
  [[gnu::noinline]] bool lookupRetry(const Key& key, uint32_t r, Stored& out) {
    ++counters_.restarts;
    return lookupLoop(key, r, out);
  }
  // The ref of a link word, split off the loaded pair with a shift (left to
  // itself the compiler moves the pair through a vector register to split
  // it, which costs the common case of a lookup three instructions).
  static uint32_t refOf(Mem::VersionedRef::Value v) {
    const uint64_t w = std::bit_cast<uint64_t>(v);
    return static_cast<uint32_t>(std::endian::native == std::endian::little ? w >> 32 : w);
  }
  // The full lookup: restarts, remaps and corruption reports.
  [[gnu::noinline]] bool lookupLoop(const Key& key, uint32_t r, Stored& out);
  // doLookup() while detached or with the test seam set.
  [[gnu::noinline]] bool lookupSlow(const Key& key, Stored& out);
  void numBucketsChanged(uint32_t n);
  // Whether a slot of reversed hash rh may stand in the chain of the bucket
  // whose reversed index is rb: it picks that bucket with numBuckets, half or
  // twice as many (a resize may be in flight). Compared on reversed bits,
  // where hash mod 2^k is the top k bits, so a chain walk reverses nothing.
  // The masks are worked out once per count (useNumBuckets()).
  struct BucketBits {
    uint32_t own = 0, half = 0, twice = 0;
    // numBuckets - 1 and numBuckets / 2 - 1: the low bits of a hash that
    // pick its bucket (twice the count picks b or b + numBuckets, so it adds
    // nothing for a b below numBuckets).
    uint32_t ownMask = 0, halfMask = 0;
    bool belongs(uint32_t rh, uint32_t rb) const {
      return (rh & own) == rb || (rh & half) == rb || (rh & twice) == rb;
    }
    // The same test on an unreversed hash h and bucket b.
    bool holds(uint32_t h, uint32_t b) const { return (h & ownMask) == b || (h & halfMask) == b; }
  };
  // Takes n (a power of two, or 0 when detached) as the local bucket count.
  void useNumBuckets(uint32_t n) {
    numBuckets_ = n;
    const uint32_t k = n == 0 ? 0 : static_cast<uint32_t>(std::countr_zero(n));
    bits_.own = topBits(k);
    view_.fast = n != 0 && afterCountLoad_ == nullptr;
    view_.bucketMask = n - 1;
    view_.ownBits = bits_.own;
    // Where a half or double count does not exist, the own mask stands in:
    // testing it again changes nothing.
    bits_.half = k > 0 ? topBits(k - 1) : bits_.own;
    bits_.twice = n != 0 && n < BucketTable::kMaxBuckets ? topBits(k + 1) : bits_.own;
    bits_.ownMask = n - 1;
    bits_.halfMask = n > 1 ? n / 2 - 1 : bits_.ownMask;
  }
  // The bucket after b in split order when the table has n buckets (the
  // reversed index plus one, worked on unreversed bits: the run of ones
  // from bit log2(n) - 1 down clears and the zero below it sets), or kNoRef
  // after the last one. Cheaper than reversing, and what every end marker
  // names while the count stands.
  static uint32_t successor(uint32_t b, uint32_t n) {
    const uint32_t zeros = ~b & (n - 1);
    if (zeros == 0) return kNoRef;
    // zeros != 0: 31 - clz is one bit-scan, where std::bit_floor also
    // handles a zero argument.
    const uint32_t top = uint32_t{1} << (31 - __builtin_clz(zeros));
    return (b & (top - 1)) | top;
  }
  // The end marker of bucket b's chain names a bucket that comes later in
  // split order (reversed index greater) and lies within the table. Split
  // order does not depend on the count, so a resize in flight cannot break
  // this, and following markers can never loop.
  // rb is bitReverse(b); *nextRb receives the next bucket's, which the walk
  // uses there.
  bool verifyNextBucket(uint32_t rb, uint32_t marker, uint32_t* nextRb) const {
    if (marker == kNoRef) return true;
    const uint32_t next = marker & ~kEndBit;
    *nextRb = bitReverse(next);
    return next < numBuckets_ && *nextRb > rb;
  }
  [[noreturn]] void corrupt(const std::string& what);
  // The reports of doLookup(), kept out of line so that its hot path stays
  // small (no stream objects in its frame).
  [[noreturn, gnu::cold, gnu::noinline]] void lookupCycle(uint32_t count);
  [[noreturn, gnu::cold, gnu::noinline]] void lookupCorruptKey(const Key& k, uint32_t b);
  [[gnu::noinline]] const Slot* slotOrCorrupt(uint32_t i, const char* who);
  const Mem::VersionedRef& bucketOrCorrupt(uint32_t b) {
    const Mem::VersionedRef* ref = buckets_.bucket(b);
    if (ref == nullptr) [[unlikely]] bucketOutOfRange(b);
    return *ref;
  }
  [[noreturn]] void bucketOutOfRange(uint32_t b);

  // Declared before the tables, which keep a pointer to it.
  LookupView view_;
  Mem::RootPath root_;
  Mem::ShmFs* fs_;
  SlotReaderTable slots_;
  BucketReaderTable buckets_;
  uint32_t ember_ = 0;
  uint32_t numBuckets_ = 0;  // local view; 0 while detached
  // The top log2(numBuckets_) bits, and those of half and twice the count:
  // the bits of a reversed hash that pick its bucket.
  BucketBits bits_;
  ReaderCounters counters_;
  void (*afterCountLoad_)(void*) = nullptr;
  void* afterCountLoadContext_ = nullptr;
  // Where an iteration's last answer was found (private memory). Valid, it
  // names the position of that entry: while the bucket's version and the
  // count word stand, the slot is still linked there and its next link is
  // still the one read with it (R2, R3).
  struct Cursor {
    bool valid = false;
    uint32_t bucket = 0;
    uint32_t version = 0;  // of the bucket head when the entry was read
    // A lower bound of what comes next: the rhash of the entry returned
    // last, raised to just below a bucket's first rhash when the walk
    // crosses into it (everything below was passed). Entries after it sort
    // above it, which keeps a walk from ever going back.
    uint32_t rhash = 0;
    // The highest rhash bucket's chain may hold: its reversed index with
    // the bits below it set.
    uint32_t rhashMax = 0;
    // The count word as loaded with the entry, kept as one 64-bit word: the
    // re-check compares it in one instruction.
    uint64_t countWord = 0;
    uint32_t next = 0;  // the slot's next link, read under version
    // forEach() only: the end marker that names the bucket after this one
    // in split order, and the read-ahead item the walk moves to when this
    // bucket's chain ends.
    uint32_t endMarker = 0;
    uint32_t item = 0;
    uint32_t numBuckets() const { return refOf(std::bit_cast<Mem::VersionedRef::Value>(countWord)); }
  };
  // forEach() reads ahead of its cursor in blocks of eight buckets (in
  // split order): when it enters a block it loads the heads of the block two
  // further on, keeps those that name a slot and prefetches that slot, and
  // checks that each empty one's end marker names the bucket after it; it
  // prefetches the heads of the block after that, and the second slots of
  // the chains of the block in between (their first slots arrived
  // meanwhile). Crossing buckets then costs no branch per empty bucket
  // (whether a bucket is empty is a coin toss that the branch predictor
  // loses half the time), and the slots are in cache when the walk gets
  // there (split order visits slots in no memory order the hardware could
  // follow).
  struct ReadAhead {
    static constexpr uint32_t kBlock = 8;
    struct Block {
      uint32_t base = kNoRef;      // its first bucket, kNoRef past the last block
      uint32_t nextBase = kNoRef;  // the next block's
      uint32_t rhashBase = 0;      // base's reversed index
      uint32_t count = 0;          // occupied buckets: places in order
      // An empty bucket's end marker named another bucket than the one
      // after it: a resize in flight or corruption, for the full walk. A
      // bad block counts no places, so that the walk looks at bad only
      // when it runs out of places, as it does on entering the block.
      bool bad = false;
      // The heads as loaded (with an acquire fence after the block's
      // loads), and the places in the block of those that named a slot.
      Mem::VersionedRef::Value heads[kBlock];
      uint8_t order[kBlock];
      // The end marker that names the bucket at block position j is base +
      // endOffset[j]; the last names the next block's first bucket.
      uint32_t endOffset[kBlock + 1];
    };
    // Within a block the buckets are base + q * reverse3(j) (q = numBuckets
    // / 8) and their reversed indexes rhashBase + j * 2^(32 - log2 n): one
    // successor() per block finds them all.
    uint32_t offset[kBlock];
    uint32_t rhashOffset[kBlock + 1];
    // The cursor's block and the two after it, in turn.
    static constexpr uint32_t kDepth = 3;
    Block blocks[kDepth];
    uint32_t current = 0;  // the cursor's block
  };
  // Sets ra up around the bucket the full walk left a cursor in, reads
  // ahead from there, and returns the end marker that names the bucket
  // after it. It takes no cursor: one whose address leaves the walk's frame
  // lives in memory, not in registers. REQUIRES: at least kBlock buckets.
  uint32_t readAheadFrom(uint32_t bucket, ReadAhead& ra);
  // Loads the heads of blk from block position `from` on, and prefetches
  // what they name and the heads of the block after.
  [[gnu::always_inline]] void readAheadBlock(ReadAhead& ra, typename ReadAhead::Block& blk, uint32_t from);
  // Makes the next block the cursor's and reads ahead the one after it.
  [[gnu::noinline]] void readAheadNextBlock(ReadAhead& ra);
  // i when below mapped, else 0, worked out without a branch (as a select,
  // the compiler makes it two paths, one per prefetch address).
  static uint32_t withinOrZero(uint32_t i, uint32_t mapped) { return i & (0u - static_cast<uint32_t>(i < mapped)); }
  // Asks the cache for the lines of slot i (a hint: no load, no fault).
  // Always inlined: out of line, the compiler finds a function of nothing
  // but prefetches free of side effects and drops the calls.
  [[gnu::always_inline]] static void prefetchSlot(const uint8_t* slot0, uint32_t i) {
    const auto* p = reinterpret_cast<const char*>(slot0 + size_t{i} * kSlotSize);
    for (uint32_t off = 0; off < kSlotSize; off += 64) __builtin_prefetch(p + off);
    __builtin_prefetch(p + kSlotSize - 1);
  }
  // The re-check of R2/R3, inlined where the walk is too large for the
  // compiler to inline VersionedRef::recheck() on its own.
  [[gnu::always_inline]] static Mem::VersionedRef::Value recheckInline(const Mem::VersionedRef& r) {
    Mem::acquireFence();
    return r.loadRelaxed();
  }
  [[gnu::always_inline]] static uint64_t recheckWord(const Mem::VersionedRef& r) {
    return std::bit_cast<uint64_t>(recheckInline(r));
  }
  enum class Step : uint8_t { end, found, retry };
  // The common case of an iteration step: from a valid c's slot along its
  // chain and across empty buckets to the next entry, into out, with nothing
  // changed meanwhile. Whatever it cannot settle (a change, a resize,
  // anything unexpected) it leaves to nextLoop(), which finds the position
  // again by rhash and key. stepAhead() is the same with ra's read-ahead:
  // it moves from a chain's end to the next bucket that ra found occupied.
  [[gnu::always_inline]] Step stepOnce(Stored& out, Cursor& c);
  [[gnu::always_inline]] Step stepAhead(Stored& out, Cursor& c, ReadAhead& ra);
  // The entry at slot ref of c's chain into out, checked and re-checked,
  // c moved onto it (the part both steps share).
  [[gnu::always_inline]] Step stepSlot(Stored& out, Cursor& c, uint32_t ref, const uint8_t* slot0,
                                       const Mem::VersionedRef* heads, uint32_t mapped, uint32_t mask);
  // forEach()'s loop from c, whose entry is in *cur: f, then a step, until
  // the end.
  template <typename F>
  [[gnu::always_inline]] void walk(F& f, Cursor c, Stored* cur, Stored* prev);
  // The full walk to the entry after key (the first when key is null), c
  // moved onto it: restarts, remaps and corruption reports. A valid c stands
  // on key's entry. REQUIRES: attached; key does not point into out.
  [[gnu::noinline]] bool nextLoop(const Key* key, Stored& out, Cursor& c);
  // The cursor of first()/next(), and the key of its entry, which tells
  // next(key) whether it continues from there.
  Cursor cursor_;
  Key cursorKey_{};
};

}  // namespace Brume

#include "mroute/table/engine/internal/brume_reader_inl.h"
#include "mroute/table/engine/internal/brume_reader_walk_inl.h"
