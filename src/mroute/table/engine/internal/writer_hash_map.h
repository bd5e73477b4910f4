// WriterHashMap: the writer's view of the hash chains: find, link in, unlink,
// and doubling or halving the bucket count by splitting and joining chains.
//
// Chains are sorted ascending by (rhash, key), rhash = bitReverse(hash). With
// a power-of-two bucket count the entries of bucket b that move to b + n when
// n buckets double are exactly those with hash bit n set; their reversed
// hashes are the larger ones, so they form the tail of b's chain. Splitting
// cuts that tail off, joining appends bucket b + n's chain to b's; no slot is
// ever reordered.
//
// Every chain ends in an end marker (bit 31 set) naming the next bucket
// (endMarkerAfter); an empty bucket's head is its end marker.
//
// Thread-safety: the writer thread only; the invariants for readers are W1-W6
// in brume_writer.h.
#pragma once

#include <bit>
#include <cstdint>
#include <sstream>
#include <vector>

#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_hash.h"
#include "mroute/table/engine/brume_ops.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/engine/internal/bucket_writer.h"
#include "mroute/table/engine/internal/slot_writer.h"

namespace Brume {

// A link that can hold a chain ref: bucket b's head or slot i's next.
struct LinkPos {
  bool isBucket;
  uint32_t index;
};

template <TableOps Ops>
class WriterHashMap {
 public:
  using Key = typename Ops::Key;
  using Stored = typename Ops::Stored;

  struct FindResult {
    bool found;
    uint32_t bucket;
    uint32_t slot;  // the slot found, or the first greater one (kNoRef / marker at a chain's end)
    LinkPos link;   // the link whose ref is `slot`: where a new entry goes in
    uint32_t rhash;  // bitReverse(hash): a new slot's rhash
  };

  WriterHashMap(SlotWriterTable& slots, BucketWriterTable& buckets) : slots_(slots), buckets_(buckets) {}

  static const Stored& stored(const Slot* s) { return *reinterpret_cast<const Stored*>(s->value()); }
  uint32_t bucketOf(uint32_t hash) const { return hash & (buckets_.numBuckets() - 1); }

  Mem::VersionedRef& link(LinkPos pos) const {
    return pos.isBucket ? buckets_.bucket(pos.index) : slots_.slot(pos.index)->next;
  }

  // find()'s reports, out of line so that its frame holds no stream. When a
  // file shrank under the mapping, which is what left the zeros the walk
  // met, the report says so.
  [[noreturn, gnu::cold, gnu::noinline]] void chainFault(const char* who, uint32_t count, uint32_t ref) const {
    std::ostringstream os;
    os << who << " hash chain cycle detected, slotCount:" << count << " slot:" << ref << shrinkNote();
    throw Pavo::CorruptionDetectedException(os.str());
  }
  [[noreturn, gnu::cold, gnu::noinline]] void keyFault(const char* who, uint32_t ref, uint32_t b) const {
    std::ostringstream os;
    os << who << " corrupt key detected, slot:" << ref << " bucket:" << b << shrinkNote();
    throw Pavo::CorruptionDetectedException(os.str());
  }
  std::string shrinkNote() const {
    const Mem::ShmFile* f = slots_.shrunk();
    if (f == nullptr) f = buckets_.shrunk();
    return f == nullptr ? std::string() : " (" + f->shrankText() + ")";
  }

  // The writer is the only process that stores into the files, so its walk
  // reads its own stores: plain loads, no version re-checks. What a damaged
  // file can do to it is bounded: every ref is checked against numSlots, the
  // walk is cut after numSlots steps, and a slot whose rhash names another
  // bucket is reported.
  [[gnu::always_inline]] FindResult find(const Key& key, uint32_t hash,
                                         const char* who = "WriterHashMap::find()") const {
    const uint32_t numSlots = slots_.numSlots();
    const uint32_t numBuckets = buckets_.numBuckets();
    const uint32_t b = hash & (numBuckets - 1);
    const uint32_t r = bitReverse(hash);
    // A slot belongs to bucket b when its reversed hash agrees with r on the
    // bits that pick the bucket: the top log2(numBuckets) bits of rhash.
    const uint32_t bucketBits = topBits(static_cast<uint32_t>(std::countr_zero(numBuckets)));
    const unsigned char* const slotBase = reinterpret_cast<const unsigned char*>(slots_.slot(0));
    const uint32_t slotSize = slots_.slotSize();
    LinkPos pos{true, b};
    uint32_t ref = buckets_.bucket(b).loadRelaxed().ref;
    // Counts down: a chain longer than numSlots has a cycle.
    uint32_t budget = numSlots;
    for (;;) {
      if (isEndMarker(ref)) return {false, b, ref, pos, r};
      if (ref >= numSlots || budget-- == 0) [[unlikely]] chainFault(who, numSlots - budget, ref);
      const Slot* s = reinterpret_cast<const Slot*>(slotBase + size_t{ref} * slotSize);
      const uint32_t rh = s->rhash;
      if (((rh ^ r) & bucketBits) != 0) [[unlikely]] keyFault(who, ref, b);
      if (rh >= r) [[likely]] {
        if (rh > r) return {false, b, ref, pos, r};
        const auto& k = Ops::keyOf(stored(s));
        if (Ops::equal(k, key)) [[likely]] return {true, b, ref, pos, r};
        if (!Ops::less(k, key)) return {false, b, ref, pos, r};
      }
      pos = {false, ref};
      ref = s->next.loadRelaxed().ref;
    }
  }

  // W2: a reader that walked bucket b's chain sees the head's version move.
  void bumpBucket(uint32_t b) const {
    Mem::VersionedRef& head = buckets_.bucket(b);
    head.setRefAtomic(head.loadRelaxed().ref, kLinkIncrement);
  }

  // Stores `ref` into the link at pos, which belongs to bucket b's chain.
  void storeLink(LinkPos pos, uint32_t bucket, uint32_t ref) const {
    link(pos).setRefAtomic(ref, kLinkIncrement);
    if (!pos.isBucket) bumpBucket(bucket);
  }

  // W1: `slot` is fully written; its next takes the ref at the insertion
  // point, then one store of the link makes it reachable.
  void linkIn(LinkPos pos, uint32_t bucket, uint32_t slot) const {
    slots_.slot(slot)->next.setRefAtomic(link(pos).loadRelaxed().ref, kLinkIncrement);
    storeLink(pos, bucket, slot);
  }

  // W3: the predecessor skips `slot` before anything in the slot changes.
  void unlink(LinkPos pos, uint32_t bucket, uint32_t slot) const {
    storeLink(pos, bucket, slots_.slot(slot)->next.loadRelaxed().ref);
  }

  // The last link of bucket b's chain (its head when empty).
  LinkPos lastLink(uint32_t b) const {
    const uint32_t numSlots = slots_.numSlots();
    LinkPos pos{true, b};
    uint32_t count = 0;
    for (;;) {
      const uint32_t ref = link(pos).loadRelaxed().ref;
      if (isEndMarker(ref)) return pos;
      if (ref >= numSlots || ++count > numSlots) {
        std::ostringstream os;
        os << "WriterHashMap::lookup() hash chain cycle detected, slotCount:" << count;
        throw Pavo::CorruptionDetectedException(os.str());
      }
      pos = {false, ref};
    }
  }

  // Doubles the bucket count. False when the file cannot be enlarged (the
  // table stays correct, only its chains get longer).
  bool growBuckets() {
    const uint32_t n = buckets_.numBuckets();
    if (n >= BucketTable::kMaxBuckets / 2 + 1 || !buckets_.reserve(2 * n)) return false;
    const uint32_t next = 2 * n;
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "WriterHashMap::growBuckets() growing from: " << n << " to: " << next);
    // Phase 1 (W5): every upper bucket gets its chain, the tail of its lower
    // bucket, before readers may use it; the tail's end marker names the
    // bucket after the upper one.
    cuts_.assign(n, LinkPos{true, 0});
    for (uint32_t b = 0; b < n; ++b) {
      LinkPos pos{true, b};
      uint32_t ref = link(pos).loadRelaxed().ref;
      uint32_t count = 0;
      while (!isEndMarker(ref) && (bitReverse(slots_.slot(ref)->rhash) & n) == 0) {
        checkStep(ref, ++count);
        pos = {false, ref};
        ref = link(pos).loadRelaxed().ref;
      }
      cuts_[b] = pos;
      buckets_.bucket(b + n).setRefAtomic(isEndMarker(ref) ? endMarkerAfter(b + n, next) : ref, kLinkIncrement);
      if (!isEndMarker(ref)) {
        const LinkPos last = lastLink(b + n);
        if (link(last).loadRelaxed().ref != endMarkerAfter(b + n, next)) {
          link(last).setRefAtomic(endMarkerAfter(b + n, next), kLinkIncrement);
          bumpBucket(b);
          bumpBucket(b + n);
        }
      }
    }
    buckets_.publish(next);
    // Phase 2: cut each lower chain where its tail began.
    for (uint32_t b = 0; b < n; ++b) {
      if (link(cuts_[b]).loadRelaxed().ref != endMarkerAfter(b, next)) storeLink(cuts_[b], b, endMarkerAfter(b, next));
    }
    return true;
  }

  // Halves the bucket count by appending each upper chain to its lower one.
  void shrinkBuckets() {
    const uint32_t n = buckets_.numBuckets();
    if (n < 2) return;
    const uint32_t half = n / 2;
    for (uint32_t b = 0; b < half; ++b) {
      const uint32_t upperHead = buckets_.bucket(b + half).loadRelaxed().ref;
      // The upper chain (if any) now ends where the lower one should.
      if (!isEndMarker(upperHead)) {
        const LinkPos upperLast = lastLink(b + half);
        if (link(upperLast).loadRelaxed().ref != endMarkerAfter(b, half)) {
          storeLink(upperLast, b + half, endMarkerAfter(b, half));
        }
      }
      const LinkPos lowerLast = lastLink(b);
      const uint32_t joined = isEndMarker(upperHead) ? endMarkerAfter(b, half) : upperHead;
      if (link(lowerLast).loadRelaxed().ref != joined) storeLink(lowerLast, b, joined);
    }
    // W5: the chains are joined before the smaller count is published; the
    // upper heads stay valid for readers that still use the larger count.
    buckets_.publish(half);
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "WriterHashMap::shrinkBuckets() shrunk to numBuckets: " << half);
  }

 private:
  void checkStep(uint32_t ref, uint32_t count) const {
    if (ref >= slots_.numSlots() || count > slots_.numSlots()) {
      std::ostringstream os;
      os << "WriterHashMap::lookup() hash chain cycle detected, slotCount:" << count;
      throw Pavo::CorruptionDetectedException(os.str());
    }
  }

  SlotWriterTable& slots_;
  BucketWriterTable& buckets_;
  std::vector<LinkPos> cuts_;
};

}  // namespace Brume
